# Cross build for the device: 32-bit ARM, hard-float, with Debian's
# g++-arm-linux-gnueabihf. Target binaries run on the build machine through
# qemu-user, with the cross toolchain's runtime as the emulator's root (-L).
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TESSEL_ARM_TRIPLE arm-linux-gnueabihf)
set(TESSEL_ARM_SYSROOT /usr/${TESSEL_ARM_TRIPLE})

set(CMAKE_C_COMPILER ${TESSEL_ARM_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TESSEL_ARM_TRIPLE}-g++)
set(CMAKE_STRIP ${TESSEL_ARM_TRIPLE}-strip CACHE FILEPATH "")

# Libraries, headers and packages come from the target's root only, so a host
# library (the host's libgtest among them) is never linked into an ARM binary.
set(CMAKE_FIND_ROOT_PATH ${TESSEL_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# CTest runs every target binary (gtest discovery included) through this.
find_program(TESSEL_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${TESSEL_QEMU_ARM} -L ${TESSEL_ARM_SYSROOT})

# The device's builds, the default one and Release alike (either makes the
# package), are optimised for size: the daemon spends its life waiting on the
# kernel and on commands, and flash and memory are what the board is short of.
set(CMAKE_C_FLAGS_RELWITHDEBINFO "-Os -g -DNDEBUG" CACHE STRING "")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-Os -g -DNDEBUG" CACHE STRING "")
set(CMAKE_C_FLAGS_RELEASE "-Os -DNDEBUG" CACHE STRING "")
set(CMAKE_CXX_FLAGS_RELEASE "-Os -DNDEBUG" CACHE STRING "")
