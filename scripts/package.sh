#!/bin/bash
# scripts/package.sh [ARCH...|all]: the Debian packages, in build/package/, for this
# machine's architecture (always), and for arm64 and armhf where they are asked for.
# VANTREL_PRESET names another preset, whose programs are packed for this machine's.
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

preset=${VANTREL_PRESET:-}
# Where the programs of ARCH are built, in bin/.
tree() { # tree ARCH
  [ "$1" = "$native" ] && [ -n "$preset" ] && echo "build/$preset" || echo "$out/$1"
}

build() { # build ARCH CMAKE_OPTION...
  local arch=$1 tree
  tree=$(tree "$arch")
  shift
  if [ "$tree" = "$out/$arch" ]; then
    cmake --preset package -B "$tree" -DCPACK_DEBIAN_PACKAGE_ARCHITECTURE="$arch" "$@"
    cmake --build "$tree"
  else
    scripts/build.sh "$preset"
  fi
  rm -f "$tree"/*.deb
  (cd "$tree" && cpack -G DEB)
  mv "$tree"/*.deb "$out/"
}

# The shared libraries that a program of ARCH asks for. Which package has them is
# known for this machine's architecture alone; the others depend on the same ones.
needed() { # needed ARCH PROGRAM
  readelf -dW "$(tree "$1")/bin/$2" | sed -nE 's/.*\(NEEDED\).*\[(lib[^]]+)\].*/\1/p' |
    grep -vx 'libgcc_s.so.1' | sort
}
depends() { # depends PACKAGE
  dpkg-deb -f "$out/$1"_*_"$native".deb Depends
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
  for program in "$out/$arch/bin"/*; do
    diff <(needed "$native" "${program##*/}") <(needed "$arch" "${program##*/}") || {
      echo "package: ${program##*/} of $arch needs other libraries than here" >&2
      exit 1
    }
  done
done
