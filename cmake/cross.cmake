# vantrel_cross(ARCH PROCESSOR TRIPLET QEMU): cross-compiles for Debian's
# architecture ARCH with Debian's cross compiler. Libraries come from the root
# that scripts/sysroot.sh makes; QEMU runs what was built, with the same root.
macro(vantrel_cross arch processor triplet qemu)
  set(CMAKE_SYSTEM_NAME Linux)
  set(CMAKE_SYSTEM_PROCESSOR ${processor})
  set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
  set(CMAKE_CXX_COMPILER ${triplet}-g++)
  cmake_path(SET CMAKE_SYSROOT NORMALIZE
             ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${arch})
  set(CMAKE_CROSSCOMPILING_EMULATOR ${qemu} -L ${CMAKE_SYSROOT})
  # It has no transparent sockets: the machine of scripts/emulate.sh runs these.
  set(VANTREL_TEST_FILTER TEST_FILTER
      "-UdpConduitTest.AnAnswerThatCannotBeSentIsLostAlone:UdpServerTest.*")
  set(VANTREL_ARCH ${arch})
  # Programs of the build, as protoc, run on this machine; protoc is of the same
  # release as the root's library.
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
  foreach(kind LIBRARY INCLUDE PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
  endforeach()
endmacro()
