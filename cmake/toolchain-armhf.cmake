# Cross build for 32-bit ARM hard-float Linux (arm-linux-gnueabihf).
#
# Compiler and C/C++ runtime headers: Debian's cross toolchain
# (crossbuild-essential-armhf). Libraries the project links against
# (libcurl, OpenSSL, libuuid, cJSON, GoogleTest) and everything run under
# emulation: the armhf sysroot made by scripts/setup-armhf.sh. Test programs
# run through qemu user-mode emulation with the sysroot as the root of its
# loader and libraries, so the loader and libc match the libraries.
#
#   ORV_ARMHF_SYSROOT   (cache variable or environment) the sysroot;
#                       default <source>/build/sysroot-armhf

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT ORV_ARMHF_SYSROOT)
  if(DEFINED ENV{ORV_ARMHF_SYSROOT})
    set(ORV_ARMHF_SYSROOT "$ENV{ORV_ARMHF_SYSROOT}")
  else()
    get_filename_component(ORV_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf" ABSOLUTE)
  endif()
endif()
if(NOT EXISTS "${ORV_ARMHF_SYSROOT}/.orv-sysroot")
  message(FATAL_ERROR "no armhf sysroot at ${ORV_ARMHF_SYSROOT}: run scripts/setup-armhf.sh first")
endif()
set(ORV_ARMHF_SYSROOT "${ORV_ARMHF_SYSROOT}" CACHE PATH "armhf sysroot (scripts/setup-armhf.sh)")
# try_compile projects get their own cache: hand the sysroot on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORV_ARMHF_SYSROOT)

set(CMAKE_SYSROOT "${ORV_ARMHF_SYSROOT}")

# Libraries, headers and CMake packages come from the sysroot (and from
# prefixes the caller names, such as an install tree); programs from the host.
set(CMAKE_FIND_ROOT_PATH "${ORV_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config sees only the sysroot's .pc files and prefixes their paths.
set(ENV{PKG_CONFIG_LIBDIR}
  "${ORV_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ORV_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ORV_ARMHF_SYSROOT}")

find_program(ORV_QEMU_ARM NAMES qemu-arm-static qemu-arm)
if(NOT ORV_QEMU_ARM)
  message(FATAL_ERROR "qemu-arm-static not found: run scripts/setup-armhf.sh first")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR "${ORV_QEMU_ARM};-L;${ORV_ARMHF_SYSROOT}")
