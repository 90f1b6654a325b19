#!/usr/bin/env bash
# Builds and runs the whole test suite.
#   usage: scripts/test.sh [preset]     (release by default; debug, asan, tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build test
# The metrics test checks the exposition with promtool; without it (no
# network) that check skips.
scripts/promtool.sh || echo "test.sh: no promtool, the metrics test skips its promtool check" >&2

preset=${1:-release}
cmake --preset "$preset" -DQVLKERN_WERROR=ON >/dev/null
cmake --build --preset "$preset" -j"$(nproc)"
ctest --preset "$preset"
