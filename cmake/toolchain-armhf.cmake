# The device: 32-bit ARM, hard-float, Debian-like Linux. Cross compiler from Debian's
# g++-arm-linux-gnueabihf; jsoncpp and GoogleTest from Debian's multiarch :armhf packages,
# which live in /usr/lib/arm-linux-gnueabihf beside the host's own libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# Multiarch has no separate sysroot: the armhf packages sit under / next to the x86-64 ones.
# Naming the architecture makes find_package look in /usr/lib/arm-linux-gnueabihf/cmake and
# find_library in /usr/lib/arm-linux-gnueabihf, so the host's copies are never picked.
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
list(APPEND CMAKE_PREFIX_PATH /usr/lib/arm-linux-gnueabihf/cmake)

# Build tools (nm, the emulator) are the host's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# Tests, and gtest_discover_tests' listing of them, run under user-mode emulation. "-L /"
# makes qemu use the multiarch loader /lib/ld-linux-armhf.so.3, whose search path covers
# /usr/lib/arm-linux-gnueabihf: there are libstdc++, libc, and jsoncpp for armhf.
# (/usr/arm-linux-gnueabihf, the cross compiler's own tree, has no jsoncpp.)
find_program(TRUCK_QEMU_ARM qemu-arm)
if(NOT TRUCK_QEMU_ARM)
  set(TRUCK_QEMU_ARM qemu-arm)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${TRUCK_QEMU_ARM} -L /)
