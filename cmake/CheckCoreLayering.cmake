# cmake -DROOT=<src> -DFOLDER=<folder of core> "-DUSES=<folders>" -P CheckCoreLayering.cmake
#
# Fails when a file directly in core/<FOLDER> includes a header of a folder of core that is
# neither its own nor one of USES: the folders of src/core depend on each other one way, and
# this keeps it so.
cmake_minimum_required(VERSION 3.25)
file(GLOB files ${ROOT}/core/${FOLDER}/*.h ${ROOT}/core/${FOLDER}/*.cpp)
set(allowed ${FOLDER} ${USES})
set(violations "")
foreach(file IN LISTS files)
  file(STRINGS ${file} includes REGEX "^#include \"core/")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^#include \"core/(.*)/[^/]*\".*$" "\\1" included "${line}")
    if(NOT included IN_LIST allowed)
      file(RELATIVE_PATH shown ${ROOT} ${file})
      string(APPEND violations "  ${shown}: ${line}\n")
    endif()
  endforeach()
endforeach()
list(JOIN allowed ", " shownAllowed)
if(violations)
  message(FATAL_ERROR "core/${FOLDER} may include only ${shownAllowed}; these break the layering:\n"
                      "${violations}")
endif()
list(LENGTH files count)
message(STATUS "core/${FOLDER}: ${count} files include only ${shownAllowed}")
