# Writes a C++ source defining one EmbeddedResource (EmbeddedResource.h) with the bytes of a
# file. Run as a script at build time:
#   cmake -DINPUT=<file> -DOUTPUT=<file.cpp> -DRESOURCE_NAME=<name> -DVARIABLE=<identifier>
#         -P EmbedResource.cmake
foreach(argument INPUT OUTPUT RESOURCE_NAME VARIABLE)
  if(NOT DEFINED ${argument})
    message(FATAL_ERROR "EmbedResource.cmake: ${argument} is not set")
  endif()
endforeach()

file(READ "${INPUT}" hex HEX)
file(SIZE "${INPUT}" size)
# Twelve bytes a line keeps the generated file readable in a debugger.
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
string(REGEX REPLACE "(('[^']*',){12})" "\\1\n    " bytes "${bytes}")

file(WRITE "${OUTPUT}.tmp"
"// Generated from ${INPUT} by EmbedResource.cmake; do not edit.
#include \"bundle/EmbeddedResource.h\"

namespace storage::overlayprovider::bundle {

namespace {
const char kBytes[] = {
    ${bytes}'\\0'};
}  // namespace

extern const EmbeddedResource ${VARIABLE}{\"${RESOURCE_NAME}\", kBytes, ${size}};

}  // namespace storage::overlayprovider::bundle
")
# Only touch the output when the bytes changed, so an unchanged manifest rebuilds nothing.
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
