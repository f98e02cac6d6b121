#!/bin/bash
# scripts/package.sh [ARCH...|all]: the Debian packages, in build/package/, for this
# machine's architecture (always), and for arm64 and armhf where they are asked for.
set -euo pipefail
cd "$(dirname "$0")/.."
native=$(dpkg --print-architecture)
wanted=()
for arch in "$@"; do
  case $arch in
    all) wanted=(arm64 armhf) ;;
    arm64 | armhf | "$native") wanted+=("$arch") ;;
    *)
      echo "usage: package.sh [arm64|armhf|all]..." >&2
      exit 2 ;;
  esac
done
out=build/package
scripts/setup.sh package

# build ARCH CMAKE_OPTION...: leaves the programs in build/package/ARCH/bin.
build() {
  local arch=$1 tree=$out/$1
  shift
  flags() { dpkg-architecture -a "$arch" -c dpkg-buildflags --get "$1" 2>/dev/null; }
  cmake -S . -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE=None \
    -DCMAKE_CXX_FLAGS="$(flags CPPFLAGS) $(flags CXXFLAGS)" \
    -DCMAKE_EXE_LINKER_FLAGS="$(flags LDFLAGS) -Wl,-z,now" \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc \
    -DCPACK_DEBIAN_PACKAGE_ARCHITECTURE="$arch" -DVANTREL_BUILD_TESTS=OFF \
    -DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=16 "$@"
  cmake --build "$tree"
  rm -f "$tree"/*.deb
  (cd "$tree" && cpack -G DEB)
  cp "$tree"/*.deb "$out/"
}

# The shared libraries that a program of ARCH asks for. Which package has them is
# known for this machine's architecture alone; the others depend on the same ones.
needed() { # needed ARCH PROGRAM
  readelf -dW "$out/$1/bin/$2" | sed -nE 's/.*\(NEEDED\).*\[(lib[^]]+)\].*/\1/p' |
    grep -vx 'libgcc_s.so.1' | sort
}
depends() { # depends PACKAGE
  dpkg-deb -f "$out/$native/$1"_*.deb Depends
}

mkdir -p "$out"
rm -f "$out"/*.deb
build "$native"
for arch in "${wanted[@]}"; do
  [ "$arch" != "$native" ] || continue
  scripts/sysroot.sh "$arch"
  build "$arch" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/$arch.cmake" \
    -DCPACK_DEBIAN_PACKAGE_SHLIBDEPS=OFF \
    -DCPACK_DEBIAN_DEVICE_PACKAGE_DEPENDS="$(depends vantrel)" \
    -DCPACK_DEBIAN_COMPANION_PACKAGE_DEPENDS="$(depends vantrel-companion)"
  for program in "$out/$native/bin"/*; do
    diff <(needed "$native" "${program##*/}") <(needed "$arch" "${program##*/}") || {
      echo "package: ${program##*/} of $arch needs other libraries than here" >&2
      exit 1
    }
  done
done
