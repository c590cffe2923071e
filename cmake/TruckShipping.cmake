# What goes to the recorder: the version line in the module.

# The version line is written at every build, not at configure time, so a module built after a
# new commit never carries the previous one.
set(TRUCK_VERSION_DIR ${PROJECT_BINARY_DIR}/generated)
add_custom_target(truckservice_version
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${PROJECT_SOURCE_DIR} -DVERSION=${PROJECT_VERSION}
          -DOUTPUT=${TRUCK_VERSION_DIR}/TruckVersion.h -P ${PROJECT_SOURCE_DIR}/cmake/TruckVersionHeader.cmake
  BYPRODUCTS ${TRUCK_VERSION_DIR}/TruckVersion.h
  COMMENT "Version line of the module"
  VERBATIM)
# Only the module carries it: the tests link the plug-in's objects and need no relink per commit.
target_sources(truckservice PRIVATE ${PROJECT_SOURCE_DIR}/truck_main/common/src/CommonVersion.cpp)
target_include_directories(truckservice PRIVATE ${TRUCK_VERSION_DIR})
add_dependencies(truckservice truckservice_version)
if(TRUCK_BUILD_TESTS)
  enable_testing()
  string(REPLACE ";" "|" truck_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
  add_test(NAME module_version_line
    COMMAND ${CMAKE_COMMAND} -DMODULE=$<TARGET_FILE:truckservice> -DVERSION=${PROJECT_VERSION}
            -DHOST=$<TARGET_FILE:truckhost> -DEMULATOR=${truck_emulator}
            -P ${PROJECT_SOURCE_DIR}/cmake/CheckVersionLine.cmake)
endif()
