#!/usr/bin/env bash
# The main job: build the library, install it into a prefix under the build
# folder, build the demo program in examples/ as a separate project through
# find_package(qvlkern), and run it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build

build=build/release
prefix=$PWD/$build/prefix
cmake --preset release -DQVLKERN_BUILD_TESTS=OFF -DQVLKERN_BUILD_EXAMPLES=OFF >/dev/null
cmake --build --preset release -j"$(nproc)"
cmake --install "$build" --prefix "$prefix" >/dev/null

cmake -S examples -B build/demo -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build build/demo -j"$(nproc)"
cd build/demo && ./qvlkern_demo "$@"
