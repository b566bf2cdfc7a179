# Cross build for 32-bit ARM Linux against a sysroot: the root file system a firmware build
# compiles against, with its own FFmpeg, ALSA and platform libraries (docs/guide.md, "Building
# the release for the device").
#   cmake -S . -B build-device -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/sysroot.cmake \
#         -DAE_SYSROOT=/path/to/sysroot -DAE_DEVICE_PLATFORM=ON -DAE_BUILD_TESTS=OFF
# Variables (given with -D, or in the environment of the first configure):
#   AE_SYSROOT        the sysroot (required)
#   AE_CROSS_TRIPLE   the target triple; default arm-linux-gnueabihf
#   AE_CROSS_PREFIX   what the compiler names start with, a path if they are not on PATH;
#                     default "${AE_CROSS_TRIPLE}-" (…-gcc, …-g++)
# For Debian's multiarch libraries on this machine, cmake/toolchains/armhf.cmake is simpler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

# CMake reads this file again for each of its compiler checks (try_compile), in a project
# where only the variables listed here are set.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES AE_SYSROOT AE_CROSS_TRIPLE AE_CROSS_PREFIX)

foreach(_ae_var AE_SYSROOT AE_CROSS_TRIPLE AE_CROSS_PREFIX)
  if(NOT ${_ae_var} AND DEFINED ENV{${_ae_var}})
    set(${_ae_var} "$ENV{${_ae_var}}")
  endif()
endforeach()
if(NOT AE_SYSROOT OR NOT IS_DIRECTORY "${AE_SYSROOT}")
  message(FATAL_ERROR "sysroot.cmake: set AE_SYSROOT to the firmware build's sysroot "
                      "(now: '${AE_SYSROOT}')")
endif()
if(NOT AE_CROSS_TRIPLE)
  set(AE_CROSS_TRIPLE arm-linux-gnueabihf)
endif()
if(NOT AE_CROSS_PREFIX)
  set(AE_CROSS_PREFIX ${AE_CROSS_TRIPLE}-)
endif()
# Kept in the cache, so that a later `cmake build-device` sees the same values.
set(AE_SYSROOT "${AE_SYSROOT}" CACHE PATH "Sysroot of the firmware build")
set(AE_CROSS_TRIPLE "${AE_CROSS_TRIPLE}" CACHE STRING "Target triple")
set(AE_CROSS_PREFIX "${AE_CROSS_PREFIX}" CACHE STRING "Prefix of the cross compiler's names")

set(CMAKE_C_COMPILER ${AE_CROSS_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${AE_CROSS_PREFIX}g++)
# --sysroot for the compiler and the linker: headers and libraries (the C library, FFmpeg, ALSA,
# the platform libraries named by AE_DEVICE_PLATFORM_LIBS) come from the sysroot only.
set(CMAKE_SYSROOT "${AE_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${AE_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER) # programs (sh, nm, the ffmpeg tool) of the host
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# A Debian-style sysroot keeps its libraries in usr/lib/<triple>.
if(IS_DIRECTORY "${AE_SYSROOT}/usr/lib/${AE_CROSS_TRIPLE}")
  set(CMAKE_LIBRARY_ARCHITECTURE ${AE_CROSS_TRIPLE})
endif()

# pkg-config (the host's pkgconf) reads only the sysroot's .pc files and puts the sysroot in
# front of the paths they give.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${AE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${AE_SYSROOT}/usr/lib/${AE_CROSS_TRIPLE}/pkgconfig:${AE_SYSROOT}/usr/lib/pkgconfig:${AE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Built programs (the tests) run under qemu user mode when it is there, with the sysroot as the
# root for the loader and the libraries.
find_program(AE_QEMU_ARM qemu-arm)
if(AE_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${AE_QEMU_ARM} -L "${AE_SYSROOT}")
endif()
