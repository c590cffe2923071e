# The device: 32-bit ARM, hard-float, Linux.
#
# Two cache variables point the build at a cross toolchain, given at the first configure of a
# build folder (-D...): the tools are looked up once and kept in its cache.
#   TRUCK_CROSS_PREFIX    what every tool's name starts with: a name found on PATH
#                         ("arm-linux-gnueabihf-", Debian's g++-arm-linux-gnueabihf, the
#                         default) or a path ("/opt/vendor/bin/arm-vendor-linux-gnueabihf-").
#                         The compilers, ar, ranlib, strip, objcopy, objdump, nm and readelf are
#                         all <prefix><tool>, so a vendor's tools never mix with Debian's.
#   TRUCK_DEVICE_SYSROOT  the vendor's sysroot (the device's headers and libraries, jsoncpp
#                         among them). Empty, the default: Debian's multiarch :armhf packages,
#                         which live in /usr/lib/arm-linux-gnueabihf beside the host's own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

# try_compile projects read this file again; they see only the variables listed here.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TRUCK_CROSS_PREFIX TRUCK_DEVICE_SYSROOT)
set(TRUCK_CROSS_PREFIX "arm-linux-gnueabihf-" CACHE STRING
    "Cross tools' prefix, a name on PATH or a path: <prefix>gcc, <prefix>g++, <prefix>ar, ...")
set(TRUCK_DEVICE_SYSROOT "" CACHE PATH
    "Device sysroot; empty for Debian's multiarch armhf packages")

set(CMAKE_C_COMPILER ${TRUCK_CROSS_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${TRUCK_CROSS_PREFIX}g++)
# Set before CMake looks for binutils, so it takes these instead of guessing from the compiler.
foreach(tool ar ranlib strip objcopy objdump nm readelf)
  string(TOUPPER ${tool} var)
  find_program(CMAKE_${var} NAMES ${TRUCK_CROSS_PREFIX}${tool} NO_CMAKE_FIND_ROOT_PATH)
  if(NOT CMAKE_${var})
    message(FATAL_ERROR "No ${TRUCK_CROSS_PREFIX}${tool}: check TRUCK_CROSS_PREFIX")
  endif()
endforeach()

if(TRUCK_DEVICE_SYSROOT)
  set(CMAKE_SYSROOT ${TRUCK_DEVICE_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH ${TRUCK_DEVICE_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  set(_truck_loader_root ${TRUCK_DEVICE_SYSROOT})
else()
  # Multiarch has no separate sysroot: the armhf packages sit under / next to the x86-64
  # ones. Naming the architecture makes find_package look in /usr/lib/arm-linux-gnueabihf/cmake
  # and find_library in /usr/lib/arm-linux-gnueabihf, so the host's copies are never picked.
  set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
  list(APPEND CMAKE_PREFIX_PATH /usr/lib/arm-linux-gnueabihf/cmake)
  set(_truck_loader_root /)
endif()

# Build tools (nm, the emulator) are the host's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# Tests, and gtest_discover_tests' listing of them, run under user-mode emulation. "-L /"
# makes qemu use the multiarch loader /lib/ld-linux-armhf.so.3, whose search path covers
# /usr/lib/arm-linux-gnueabihf: there are libstdc++, libc, and jsoncpp for armhf.
# (/usr/arm-linux-gnueabihf, the cross compiler's own tree, has no jsoncpp.) With a vendor
# sysroot, its own loader and libraries are used.
find_program(TRUCK_QEMU_ARM qemu-arm)
if(NOT TRUCK_QEMU_ARM)
  set(TRUCK_QEMU_ARM qemu-arm)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${TRUCK_QEMU_ARM} -L ${_truck_loader_root})
