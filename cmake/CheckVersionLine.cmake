# The module carries exactly one version line, "truckservice <VERSION> (<commit>)", and the
# host's --version prints its own line, "truckhost <VERSION> (<commit>)", then that same line
# from the file:
#   cmake -DMODULE=<module> -DVERSION=<x.y.z> -DHOST=<truckhost> [-DEMULATOR=a|b] -P <this>
# Other texts of the module start with "truckservice " too; the line's version starts with a
# digit, which is what a reader on the device greps for.
file(STRINGS "${MODULE}" lines REGEX "^truckservice [0-9]")
list(LENGTH lines count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one version line in ${MODULE}, found ${count}: ${lines}")
endif()
if(NOT lines MATCHES "^truckservice ${VERSION} \\([^()]+\\)$")
  message(FATAL_ERROR "version line '${lines}' is not 'truckservice ${VERSION} (<commit>)'")
endif()
string(REPLACE "|" ";" emulator "${EMULATOR}")
execute_process(COMMAND ${emulator} "${HOST}" --plugin "${MODULE}" --version
                OUTPUT_VARIABLE printed RESULT_VARIABLE failed)
string(REGEX REPLACE "^truckservice " "truckhost " host_line "${lines}")
if(failed OR NOT printed STREQUAL "${host_line}\n${lines}\n")
  message(FATAL_ERROR "truckhost --version printed '${printed}' (exit ${failed}), not '${host_line}' and '${lines}'")
endif()
