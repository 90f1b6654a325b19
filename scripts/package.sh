#!/usr/bin/env bash
# Builds the Debian packages libqvlkern1 and libqvlkern-dev into
# build/packages (a release build for the prefix /usr in build/deb, then
# cpack -G DEB).
#   usage: scripts/package.sh [check]
# With "check" (CI runs it) the packages are then verified:
#  - lintian passes on both (overrides only in cmake/debian/*.lintian-overrides,
#    each with its reason);
#  - both unpacked with dpkg-deb -x into a scratch root let a consumer
#    (tests/package/consumer.cc) build with pkg-config and with
#    find_package, zlib's and ICU's packages hidden from both, and run
#    against the unpacked library.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build package

build=build/deb
out=$PWD/build/packages
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DQVLKERN_WERROR=ON \
      -DQVLKERN_BUILD_TESTS=OFF -DQVLKERN_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target qvlkern
rm -rf "$out"
(cd "$build" && cpack -G DEB -B "$out" >/dev/null)
rm -rf "$out/_CPack_Packages"
runtime=$(ls "$out"/libqvlkern1_*.deb)
dev=$(ls "$out"/libqvlkern-dev_*.deb)
echo "package.sh: built $(basename "$runtime") $(basename "$dev") in $out"
[[ "${1:-}" == check ]] || exit 0

# lintian's own run: errors and warnings fail, informational tags do not
lintian --fail-on error,warning --info "$runtime" "$dev"
echo "package.sh: lintian passes"

root=$out/root
rm -rf "$root"
dpkg-deb -x "$runtime" "$root"
dpkg-deb -x "$dev" "$root"
libdir=$(dirname "$(find "$root" -name 'libqvlkern.so.1' | head -1)")
pcdir=$libdir/pkgconfig
export LD_LIBRARY_PATH=$libdir

# pkg-config sees only the unpacked tree (not the system's zlib.pc, icu-uc.pc)
consumer=$out/consumer
mkdir -p "$consumer"
flags=$(PKG_CONFIG_LIBDIR=$pcdir PKG_CONFIG_SYSROOT_DIR=$root pkg-config --cflags --libs qvlkern)
c++ -std=c++17 -Wall -Wextra -Werror tests/package/consumer.cc $flags -ldl -o "$consumer/by-pkg-config"
# the CMake package may ask for no more than Boost and Threads
cmake --no-warn-unused-cli -S tests/package -B "$consumer/cmake" -DCMAKE_PREFIX_PATH="$root/usr" \
      -DCMAKE_DISABLE_FIND_PACKAGE_ZLIB=ON -DCMAKE_DISABLE_FIND_PACKAGE_ICU=ON >/dev/null
cmake --build "$consumer/cmake" >/dev/null

for program in "$consumer/by-pkg-config" "$consumer/cmake/qvlkern_consumer"; do
    result=$("$program")
    [[ "$result" == "consumer ok $libdir/libqvlkern.so.1" ]] || {
        echo "package.sh: $program printed \"$result\", not the unpacked library" >&2
        exit 1
    }
done
echo "package.sh: a consumer builds with pkg-config and find_package and runs on the unpacked packages"
