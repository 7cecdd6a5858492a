# Cross-building for a Debian architecture against the sysroot made by
# `scripts/cross-sysroot.sh ARCH`; tests run under qemu-user. Included by the
# per-architecture files (armhf.cmake, arm64.cmake), which set
# TAMREL_CROSS_ARCH. The sysroot is TAMREL_SYSROOT (a CMake or environment
# variable), by default .cache/ARCH-sysroot in the source tree.
if(TAMREL_CROSS_ARCH STREQUAL "armhf")
  set(CMAKE_SYSTEM_PROCESSOR arm)
  set(_tamrel_triplet arm-linux-gnueabihf)
  set(_tamrel_qemu qemu-arm)
elseif(TAMREL_CROSS_ARCH STREQUAL "arm64")
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(_tamrel_triplet aarch64-linux-gnu)
  set(_tamrel_qemu qemu-aarch64)
else()
  message(FATAL_ERROR "TAMREL_CROSS_ARCH is '${TAMREL_CROSS_ARCH}'; expected armhf or arm64")
endif()
set(CMAKE_SYSTEM_NAME Linux)

get_filename_component(_tamrel_root "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
if(NOT DEFINED TAMREL_SYSROOT)
  if(DEFINED ENV{TAMREL_SYSROOT})
    set(TAMREL_SYSROOT "$ENV{TAMREL_SYSROOT}")
  else()
    set(TAMREL_SYSROOT "${_tamrel_root}/.cache/${TAMREL_CROSS_ARCH}-sysroot")
  endif()
endif()

set(CMAKE_C_COMPILER ${_tamrel_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${_tamrel_triplet}-g++)
set(CMAKE_SYSROOT "${TAMREL_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${TAMREL_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${_tamrel_qemu} -L "${TAMREL_SYSROOT}")

# pkg-config must read the sysroot's .pc files, not the host's.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TAMREL_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${TAMREL_SYSROOT}/usr/lib/${_tamrel_triplet}/pkgconfig:${TAMREL_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
