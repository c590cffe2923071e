# Run at every build (cmake -P) to write the header that carries the module's version line:
#   -DSOURCE_DIR=<checkout> -DVERSION=<x.y.z> -DOUTPUT=<header>
# The header is rewritten only when the line changes, so a build after a new commit (or a
# checkout that became dirty) recompiles one file and relinks the module, and an unchanged
# one rebuilds nothing. Outside a git checkout the commit reads "unknown". The commit's
# abbreviation has a fixed length: git's own grows with the count of objects in the repository,
# so two clones of one commit would otherwise make two different modules.
set(commit "unknown")
find_package(Git QUIET)
if(GIT_FOUND)
  execute_process(COMMAND "${GIT_EXECUTABLE}" describe --always --dirty --abbrev=12
                  WORKING_DIRECTORY "${SOURCE_DIR}"
                  OUTPUT_VARIABLE described OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE failed ERROR_QUIET)
  if(NOT failed AND described)
    set(commit "${described}")
  endif()
endif()

set(text "// Generated at build time by cmake/TruckVersionHeader.cmake.\n")
string(APPEND text "#define TRUCK_VERSION_LINE \"truckservice ${VERSION} (${commit})\"\n")
set(old "")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" old)
endif()
if(NOT old STREQUAL text)
  file(WRITE "${OUTPUT}" "${text}")
endif()
