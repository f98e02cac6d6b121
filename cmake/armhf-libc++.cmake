# Toolchain file: as armhf.cmake, with the device's compiler and its C++ library.
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
vantrel_cross(armhf arm arm-linux-gnueabihf qemu-arm-static)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_CXX_FLAGS_INIT -stdlib=libc++)
# Debian's messages library is built with another C++ library, and its symbols are
# named after that: check_linkage.sh looks at what is left over.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-stdlib=libc++ -fuse-ld=lld -Wl,--unresolved-symbols=ignore-all")
