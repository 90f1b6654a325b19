#!/usr/bin/env bash
# Builds and runs the whole test suite.
#   usage: scripts/test.sh [preset]     (release by default; debug, asan, tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build test

preset=${1:-release}
cmake --preset "$preset" -DQVLKERN_WERROR=ON >/dev/null
cmake --build --preset "$preset" -j"$(nproc)"
ctest --preset "$preset"
