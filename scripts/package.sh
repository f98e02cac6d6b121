#!/bin/bash
# scripts/package.sh: the Debian packages, in build/package/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh all
flags() { dpkg-buildflags --get "$1"; }
cmake -S . -B build/package -G Ninja -DCMAKE_BUILD_TYPE=None \
  -DCMAKE_CXX_FLAGS="$(flags CPPFLAGS) $(flags CXXFLAGS)" \
  -DCMAKE_EXE_LINKER_FLAGS="$(flags LDFLAGS) -Wl,-z,now" \
  -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc \
  -DVANTREL_BUILD_TESTS=OFF
cmake --build build/package
cd build/package
rm -f ./*.deb
cpack -G DEB
