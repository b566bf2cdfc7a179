# Cross build for 32-bit ARM hard-float Linux (armhf, arm-linux-gnueabihf) on a Debian host:
# Debian's cross compiler, the armhf development packages installed beside the native ones
# (multiarch, same prefix /usr), and qemu user mode to run what is built.
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
# Packages: ./dev deps-armhf.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(AE_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${AE_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${AE_CROSS_TRIPLE}-g++)
# Multiarch: the armhf libraries live in /usr/lib/arm-linux-gnueabihf, headers of both
# architectures in /usr/include (plus /usr/include/arm-linux-gnueabihf).
set(CMAKE_LIBRARY_ARCHITECTURE ${AE_CROSS_TRIPLE})

# Libraries, headers and CMake packages only for the target; programs (the ffmpeg tool that
# generates the test media, nm, sh) from the host.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config: only the armhf .pc files (and the architecture-independent ones). Debian's
# arm-linux-gnueabihf-pkg-config wrapper (package pkgconf:armhf) does the same by itself.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${AE_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
find_program(AE_CROSS_PKG_CONFIG ${AE_CROSS_TRIPLE}-pkg-config)
if(AE_CROSS_PKG_CONFIG)
  set(PKG_CONFIG_EXECUTABLE ${AE_CROSS_PKG_CONFIG} CACHE FILEPATH "pkg-config for armhf")
endif()

# Target binaries run under qemu user mode: CTest runs the tests through it, and
# gtest_discover_tests lists the tests through it. "-L /": the armhf loader and libraries are
# found through multiarch under /. (Not /usr/arm-linux-gnueabihf: the cross toolchain's own
# loader there is older than the multiarch libc6:armhf.)
find_program(AE_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${AE_QEMU_ARM} -L /)
