# 32-bit ARM hard-float (Debian armhf); tests run under qemu-arm.
set(TAMREL_CROSS_ARCH armhf)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")
