# 64-bit ARM (Debian arm64); tests run under qemu-aarch64.
set(TAMREL_CROSS_ARCH arm64)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")
