#!/usr/bin/env bash
# The shared library's binary interface, compared with the one recorded in
# abi/libqvlkern.so.1.abi (abidw's description of the exported functions,
# objects and the types they reach, read from the debug information).
#   usage: scripts/abi.sh check   [build-dir]   fail when the built library differs from the record
#          scripts/abi.sh update  [build-dir]   record the built library's interface
#          scripts/abi.sh symbols [build-dir]   print the symbols of the QVLKERN_ nodes (to close one)
# The build folder is build/release by default (scripts/test.sh builds it).
#
# check fails on every difference, printing abidiff's report:
#  - an incompatible change (a removed or changed function, a class whose
#    layout changed...) must not be released under the same SONAME;
#  - a compatible one (an added function or class) must be recorded with
#    `update` in the commit that makes it, so that the record always
#    describes the library of its commit and the next change stands out.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh abi

mode=${1:-check}
build=${2:-build/release}
record=abi/libqvlkern.so.1.abi
lib=$(readlink -f "$build/libqvlkern.so.1" 2>/dev/null || true)
if [[ ! -f "$lib" ]]; then
    echo "abi.sh: no $build/libqvlkern.so.1; build it first (scripts/test.sh)" >&2
    exit 1
fi
if ! readelf -S "$lib" | grep -q '\.debug_info'; then
    echo "abi.sh: $lib has no debug information to read the interface from" >&2
    exit 1
fi

# Only the interface declared in include/ counts; parameter names, source
# locations and build paths are not part of it (the sources' paths are
# made relative to the tree, so that every checkout writes the same record).
describe() {
    abidw --headers-dir include --drop-private-types --exported-interfaces-only \
          --no-show-locs --no-comp-dir-path --no-corpus-path --no-parameter-names \
          --type-id-style hash --out-file "$1" "$lib"
    sed -i "s|path='$PWD/|path='|" "$1"
}

case "$mode" in
  update)
    mkdir -p abi
    describe "$record"
    echo "abi.sh: recorded $(grep -c '<elf-symbol ' "$record") symbols of $lib in $record"
    ;;
  check)
    [[ -f "$record" ]] || { echo "abi.sh: no $record; run scripts/abi.sh update" >&2; exit 1; }
    current=$build/abi/current.abi
    mkdir -p "$build/abi"
    describe "$current"
    status=0
    report=$(abidiff --no-show-locs "$record" "$current") || status=$?
    if (( status == 0 )); then
        echo "abi.sh: the library's interface is the recorded one ($record)"
        exit 0
    fi
    echo "$report"
    if (( status & 8 )); then
        echo "abi.sh: INCOMPATIBLE change of the interface: programs linked with libqvlkern.so.1 would break." >&2
        echo "  Restore the interface, or release it under a new SONAME." >&2
    elif (( status & 4 )); then
        echo "abi.sh: the interface grew (a compatible change) but $record does not record it:" >&2
        echo "  run scripts/abi.sh update and commit $record with the change." >&2
    else
        echo "abi.sh: abidiff failed (status $status)" >&2
    fi
    exit 1
    ;;
  symbols)
    # as the lines of a version node's global list (README, "ABI")
    readelf -W --dyn-syms "$lib" |
        awk 'NR > 3 && $7 != "UND" && $8 ~ /@@QVLKERN_/ { sub(/@@.*/, "", $8); print "    " $8 ";" }' | sort -u
    ;;
  *)
    echo "usage: scripts/abi.sh check|update|symbols [build-dir]" >&2
    exit 2
    ;;
esac
