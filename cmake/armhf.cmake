# Toolchain file: 32-bit ARM with floating point in hardware.
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
vantrel_cross(armhf arm arm-linux-gnueabihf qemu-arm-static)
# It would tell of each call that an older compiler made in another way.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
