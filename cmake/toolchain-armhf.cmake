# Cross build for 32-bit ARM with hard floating point, against a Debian armhf sysroot.
# VLL_SYSROOT, as a cache or an environment variable, names the sysroot; `tests/target/sysroot.sh` makes one and prints its path.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT VLL_SYSROOT)
    set(VLL_SYSROOT "$ENV{VLL_SYSROOT}")
endif()
if(NOT IS_DIRECTORY "${VLL_SYSROOT}/usr/lib/arm-linux-gnueabihf")
    message(FATAL_ERROR "VLL_SYSROOT (\"${VLL_SYSROOT}\") names no armhf sysroot: run tests/target/sysroot.sh and pass what it prints")
endif()
set(VLL_SYSROOT "${VLL_SYSROOT}" CACHE PATH "Debian armhf sysroot")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VLL_SYSROOT)

# The versioned compiler first: the unversioned package cannot be installed beside gcc-multilib.
find_program(CMAKE_C_COMPILER NAMES arm-linux-gnueabihf-gcc-12 arm-linux-gnueabihf-gcc REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES arm-linux-gnueabihf-g++-12 arm-linux-gnueabihf-g++ REQUIRED)

set(CMAKE_SYSROOT "${VLL_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
