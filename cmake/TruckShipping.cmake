# What goes to the recorder: the version line in the module, the install tree and the packages.
#
#   cmake --install <build>                     lib/truckservice/libtruckservice.so (stripped,
#                                               with a .gnu_debuglink), share/truckservice/
#                                               (the device's configuration examples) and
#                                               share/doc/truckservice/ (copyright, changelog)
#   cmake --install <build> --component debug   lib/truckservice/.debug/libtruckservice.so.debug
#                                               alone, where gdb looks for it beside the module
#   cpack (in <build>)                          a .deb and a .tar.gz of the first tree alone
#
# The module is a plug-in the recorder's host service loads by its path, not a library others
# link against: it has no soname and lives in a folder of its own. It carries no RUNPATH: the
# recorder's loader finds the platform SDK where the recorder keeps it, and a path of the build
# machine must not reach the device. What loads it on the desk (truckhost, the module's suite)
# links the stand-in SDK itself, as the recorder's host service has the vendor's loaded.
set_target_properties(truckservice PROPERTIES SKIP_BUILD_RPATH ON)

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
# Its checks (the version line, no search path) are with the suites, in tests/CMakeLists.txt.

# The build's module keeps its debug information for the desk. Beside it, in <build>/ship, each
# link leaves the stripped copy that is installed and the debug information in a file of its
# own, which the stripped module names in its .gnu_debuglink (with a checksum, so a stale one
# is not taken). Made at link time, so that either install component stands alone.
if(NOT CMAKE_OBJCOPY OR NOT CMAKE_STRIP)
  message(FATAL_ERROR "objcopy and strip of the toolchain are needed to split the module")
endif()
set(TRUCK_SHIP_DIR ${PROJECT_BINARY_DIR}/ship)
file(MAKE_DIRECTORY ${TRUCK_SHIP_DIR})
add_custom_command(TARGET truckservice POST_BUILD
  COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:truckservice> libtruckservice.so.debug
  COMMAND ${CMAKE_STRIP} --strip-unneeded -o libtruckservice.so $<TARGET_FILE:truckservice>
  COMMAND ${CMAKE_OBJCOPY} --add-gnu-debuglink=libtruckservice.so.debug libtruckservice.so
  WORKING_DIRECTORY ${TRUCK_SHIP_DIR}
  VERBATIM)
# Policy's modes (a shared object is not executable), whatever the umask of the build machine.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
install(FILES ${TRUCK_SHIP_DIR}/libtruckservice.so DESTINATION lib/truckservice COMPONENT runtime)
install(FILES ${TRUCK_SHIP_DIR}/libtruckservice.so.debug DESTINATION lib/truckservice/.debug
        COMPONENT debug EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/demo/device/usr/local/cfg/truckbusiness.jsn
              ${PROJECT_SOURCE_DIR}/cmake/device-files.txt
        DESTINATION share/truckservice COMPONENT runtime)

# The package's own documents (cmake/deb/). The changelog's newest entry names the version of
# project(), so that a new version cannot ship the old one's changelog; it is compressed without
# a name or a date in the gzip header, so that it is the same wherever it is made.
set(truck_deb_dir ${PROJECT_SOURCE_DIR}/cmake/deb)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${truck_deb_dir}/changelog)
file(STRINGS ${truck_deb_dir}/changelog truck_changelog_top LIMIT_COUNT 1)
if(NOT truck_changelog_top MATCHES "^${PROJECT_NAME} \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "cmake/deb/changelog starts with '${truck_changelog_top}', not an entry "
                      "for ${PROJECT_NAME} ${PROJECT_VERSION}: add one")
endif()
execute_process(COMMAND gzip -9 -n -c ${truck_deb_dir}/changelog
                OUTPUT_FILE ${TRUCK_SHIP_DIR}/changelog.gz RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "gzip of cmake/deb/changelog failed: ${failed}")
endif()
install(FILES ${truck_deb_dir}/copyright ${TRUCK_SHIP_DIR}/changelog.gz
        DESTINATION share/doc/${PROJECT_NAME} COMPONENT runtime)
install(FILES ${truck_deb_dir}/lintian-overrides DESTINATION share/lintian/overrides
        RENAME ${PROJECT_NAME} COMPONENT runtime)

# Packages of the runtime tree only; the debug file stays in <build>/ship. Their dates are
# SOURCE_DATE_EPOCH's when it is set (scripts/package-armhf.sh sets the commit's), so the same
# commit gives the same packages.
set(CPACK_INSTALL_CMAKE_PROJECTS "${PROJECT_BINARY_DIR};${PROJECT_NAME};runtime;/")
set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Service plug-in of the truck video recorder")
set(CPACK_PACKAGE_DESCRIPTION
    "The module the recorder's host service loads (libtruckservice.so), with its\n\
OSD business: date and time, speed and turn signals, and card swipes drawn into\n\
recorded video. Examples of the device's configuration are in\n\
/usr/share/truckservice.")
set(TRUCK_PACKAGE_MAINTAINER "Truck Service Team <truckservice@example.com>" CACHE STRING
    "Maintainer field of the .deb")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${TRUCK_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(truck_deb_arch armhf)
else()
  execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE truck_deb_arch
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${truck_deb_arch})
set(CPACK_PACKAGE_FILE_NAME ${PROJECT_NAME}-${PROJECT_VERSION}-${truck_deb_arch})

# Depends: the jsoncpp the module was linked against (Debian names the package after its
# soname), and glibc and libstdc++ at least as new as the allowed symbol versions in
# cmake/device-needs.txt, which the runtime-needs check holds the module to.
set(truck_depends "")
file(STRINGS ${PROJECT_SOURCE_DIR}/cmake/device-needs.txt truck_need_glibc REGEX "^version GLIBC ")
file(STRINGS ${PROJECT_SOURCE_DIR}/cmake/device-needs.txt truck_need_glibcxx REGEX "^version GLIBCXX ")
if(truck_need_glibc MATCHES "GLIBC ([0-9.]+)")
  list(APPEND truck_depends "libc6 (>= ${CMAKE_MATCH_1})")
endif()
# GLIBCXX_3.4.N first shipped with these GCC releases (libstdc++6's Debian version).
set(truck_glibcxx_gcc 21 5 22 6 23 7 24 7.2 25 8 26 9 27 9.2 28 9.3 29 11 30 12 31 13)
if(truck_need_glibcxx MATCHES "GLIBCXX 3\\.4\\.([0-9]+)")
  list(FIND truck_glibcxx_gcc ${CMAKE_MATCH_1} at)
  if(at GREATER_EQUAL 0)
    math(EXPR at "${at} + 1")
    list(GET truck_glibcxx_gcc ${at} gcc)
    list(APPEND truck_depends "libstdc++6 (>= ${gcc})")
  endif()
endif()
list(APPEND truck_depends libgcc-s1)
get_target_property(truck_json_configs jsoncpp_lib IMPORTED_CONFIGURATIONS)
if(truck_json_configs)
  list(GET truck_json_configs 0 config)
  get_target_property(truck_json_soname jsoncpp_lib IMPORTED_SONAME_${config})
  if(truck_json_soname MATCHES "^libjsoncpp\\.so\\.([0-9]+)$")
    list(APPEND truck_depends "libjsoncpp${CMAKE_MATCH_1} (>= ${jsoncpp_VERSION})")
  endif()
endif()
if(NOT truck_depends MATCHES "libjsoncpp")
  message(WARNING "jsoncpp's soname not found: the .deb will not depend on it")
endif()
string(REPLACE ";" ", " CPACK_DEBIAN_PACKAGE_DEPENDS "${truck_depends}")
include(CPack)
