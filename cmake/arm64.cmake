# Toolchain file: 64-bit ARM.
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
vantrel_cross(arm64 aarch64 aarch64-linux-gnu qemu-aarch64-static)
