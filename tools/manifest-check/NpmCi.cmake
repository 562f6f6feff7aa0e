# Installs the manifest checker and its locked npm dependencies into a build-tree folder:
#   cmake -DNPM=<npm> -DSOURCE_DIR=<tools/manifest-check> -DWORK_DIR=<dir> -P NpmCi.cmake
# Runs `npm ci` only when the lock file changed since the last install, so repeated test runs
# need no network.
foreach(argument NPM SOURCE_DIR WORK_DIR)
  if(NOT DEFINED ${argument} OR "${${argument}}" STREQUAL "" OR "${${argument}}" MATCHES "NOTFOUND$")
    message(FATAL_ERROR "NpmCi.cmake: ${argument} is not set (is npm installed?)")
  endif()
endforeach()

file(MAKE_DIRECTORY "${WORK_DIR}")
foreach(name package.json package-lock.json check-manifest.js)
  file(COPY_FILE "${SOURCE_DIR}/${name}" "${WORK_DIR}/${name}" ONLY_IF_DIFFERENT)
endforeach()

set(stamp "${WORK_DIR}/node_modules/.installed-package-lock.json")
if(EXISTS "${stamp}")
  file(SHA256 "${stamp}" installed)
  file(SHA256 "${WORK_DIR}/package-lock.json" wanted)
  if(installed STREQUAL wanted)
    message(STATUS "npm dependencies of the manifest checker are up to date")
    return()
  endif()
endif()

execute_process(
  COMMAND "${NPM}" ci --ignore-scripts --no-audit --no-fund
  WORKING_DIRECTORY "${WORK_DIR}"
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "npm ci failed (${result}) in ${WORK_DIR}")
endif()
file(COPY_FILE "${WORK_DIR}/package-lock.json" "${stamp}")
