# Cross-building for 32-bit ARM hard-float (Debian armhf) against the sysroot
# made by scripts/armhf-sysroot.sh; tests run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

get_filename_component(_tamrel_root "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
if(NOT DEFINED ARMHF_SYSROOT)
  if(DEFINED ENV{ARMHF_SYSROOT})
    set(ARMHF_SYSROOT "$ENV{ARMHF_SYSROOT}")
  else()
    set(ARMHF_SYSROOT "${_tamrel_root}/.cache/armhf-sysroot")
  endif()
endif()

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_SYSROOT "${ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${ARMHF_SYSROOT}")

# pkg-config must read the sysroot's .pc files, not the host's.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
