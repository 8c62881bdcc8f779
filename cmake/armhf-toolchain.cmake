# Cross build for the device: 32-bit ARM with hardware floating point and the NEON vector unit,
# from Debian's cross toolchain (crossbuild-essential-armhf).
#
# The device's libraries come from a sysroot of Debian's armhf packages, unpacked by
# `./run device-build` (not installed beside the host's own: see ARCHITECTURE.md). The build
# keeps the device's 32-bit off_t on purpose: no _FILE_OFFSET_BITS=64 here, so the code meets the
# sizes the device's applications have.
#
#     cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT QV_ARMHF_SYSROOT)
    set(QV_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf/sysroot")
endif()
get_filename_component(QV_ARMHF_SYSROOT "${QV_ARMHF_SYSROOT}" ABSOLUTE)
set(QV_ARMHF_SYSROOT "${QV_ARMHF_SYSROOT}" CACHE PATH "Unpacked armhf packages to build against")
if(NOT EXISTS "${QV_ARMHF_SYSROOT}/usr/include")
    message(FATAL_ERROR "No armhf sysroot at ${QV_ARMHF_SYSROOT}: run ./run device-build")
endif()
# try_compile projects re-read this file without the cache: hand the path down.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QV_ARMHF_SYSROOT)

set(CMAKE_SYSROOT "${QV_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${QV_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# An application built against an installed tree outside the sysroot says BOTH.
if(NOT DEFINED CMAKE_FIND_ROOT_PATH_MODE_PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
endif()

# Debian's armhf baseline is ARMv7-A with VFPv3-D16; the device also has NEON, which the bitmap
# conversion uses.
set(CMAKE_C_FLAGS_INIT "-mfpu=neon")
# -Wno-psabi: GCC notes at every std::vector of 8-byte-aligned types that their passing changed
# in GCC 7.1; everything here is built by one compiler, so the notes only bury real warnings.
set(CMAKE_CXX_FLAGS_INIT "-mfpu=neon -Wno-psabi")

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${QV_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${QV_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${QV_ARMHF_SYSROOT}/usr/share/pkgconfig")
