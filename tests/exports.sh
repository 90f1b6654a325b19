#!/usr/bin/env bash
# Checks the shared library's dynamic symbol table against what the
# library means to export.
#   usage: tests/exports.sh <libqvlkern.so> <libqvlkern_static.a> <include dir>
#
# The static archive holds the same objects as the shared library, before
# the version script: every symbol they define with default visibility is
# one the headers marked QVL_API, or an instantiation of another library's
# template. So, on mangled names:
#  - the SONAME is libqvlkern.so.1;
#  - every exported symbol carries the version node QVLKERN_1.0, but the
#    allocation functions, which carry GLIBC_2.2.5 (see cmake/qvlkern.map);
#  - every exported symbol is ours: its owner (the first component of its
#    name, read from the mangling, whatever it returns or takes) is not the
#    standard library, Boost, the GNU extensions or another reserved name,
#    it is not the type information of a pointer or built-in type, and an
#    unmangled (C) name is one of the entry points and global objects below;
#  - none has unique binding (STB_GNU_UNIQUE), which would pin the library;
#  - every symbol of ours that the objects define with default visibility
#    is exported: the version script hides nothing the headers export;
#  - the headers' declarations and the exports agree (exports-headers.py,
#    which reads the headers with clang): every declaration the library
#    defines is exported unless QVL_HIDDEN, and every exported function or
#    object is declared in a header.
# Each failure lists the symbols, demangled, and the check exits 1.
set -eu  # no pipefail: a grep that finds nothing is the good case
lib=$1 archive=$2 include=$3

# The unmangled names: the C entry points, the allocation functions (when
# the library wraps them; they carry the C library's version, as they stand
# in for its functions) and the headers' global-scope objects.
alloc_names=" malloc calloc realloc memalign free "
c_names=" kern_signature get_uuid init_int_uuid daemonize qvl_malloc_setup qvl_malloc_setup_info
  $alloc_names
  sysrnd kern_runnable_sleep_event post_morten_dump_flag_guard
  platform_linux_version_1 platform_linux_version_2 platform_linux_version_3 "

status=0
fail() {  # title, then the offending names on standard input (not in a pipe: it sets status)
    local names
    names=$(sort -u | c++filt)
    [[ -z "$names" ]] && return 0
    echo "FAIL: $1:" >&2
    sed 's/^/  /' <<<"$names" >&2
    status=1
}

# Prints "<owner> <name>" for each mangled or plain name on standard input.
# The owner is "C" for a plain name, "std", a namespace or class name, or
# "operator" for a global operator; "type" for the type information of a
# type that is not a class (pointer, function, built-in).
owners() {
    awk '
    function owner(s,   typed, n) {
        if (s !~ /^_Z/) return "C"
        s = substr(s, 3)
        typed = 0
        if (s ~ /^T[hv]/) {                   # thunks: call offsets, then the target
            sub(/^Th(n?[0-9]+_)/, "", s); sub(/^Tv(n?[0-9]+_)(n?[0-9]+_)/, "", s)
        } else if (s ~ /^(T[VITSC]|GV)/) {    # vtable, type info, name, VTT, guard
            typed = (s ~ /^T[ISC]/); s = substr(s, 3)
        }
        if (s ~ /^Z/) s = substr(s, 2)        # an object local to a function
        if (s ~ /^N/) { s = substr(s, 2); sub(/^[rVKRO]+/, "", s); typed = 0 }
        if (s ~ /^S[a-z]/) return "std"
        if (match(s, /^[0-9]+/)) { n = substr(s, 1, RLENGTH) + 0; return substr(s, RLENGTH + 1, n) }
        if (typed) return "type"
        if (s ~ /^[a-z][a-zA-Z]/) return "operator"
        return "?"
    }
    { print owner($1), $1 }'
}

# what sanitizers and coverage add (ODR indicators, counter sections) is theirs
sanitizer='^__(odr_asan|asan|ubsan|tsan|sancov|start___sancov|stop___sancov)'
foreign='^(std|boost|__.*|_[A-Z].*|icu_[0-9]+|type|\?) '

soname=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[[ "$soname" == libqvlkern.so.1 ]] || { echo "FAIL: SONAME is '$soname', not libqvlkern.so.1" >&2; status=1; }

# A process-unique (STB_GNU_UNIQUE) symbol keeps dlclose from unmapping the
# library: hide it, or build its code with -fno-gnu-unique.
fail "exported with unique binding (pins the library at dlclose)" < <(
    readelf -W --dyn-syms "$lib" | awk 'NR > 3 && $5 == "UNIQUE" && $7 != "UND" { sub(/@.*/, "", $8); print $8 }')

# defined dynamic symbols as name@@version; the version's own entry has none
exported=$(readelf -W --dyn-syms "$lib" | awk 'NR > 3 && $7 != "UND" && $8 != "" { print $8 }')
fail "exported without the version node QVLKERN_1.0 (GLIBC_2.2.5 for the allocation functions)" < <(
    awk -v alloc="$alloc_names" '
        $0 == "QVLKERN_1.0" || $0 == "GLIBC_2.2.5" { next }   # the nodes themselves
        { split($0, p, "@@") }
        p[2] == "QVLKERN_1.0" || (p[2] == "GLIBC_2.2.5" && index(alloc, " " p[1] " ")) { next }
        { print p[1] }' <<<"$exported")
names=$(sed -En 's/@@(QVLKERN_1\.0|GLIBC_2\.2\.5)$//p' <<<"$exported" | grep -Ev "$sanitizer" | sort -u)
[[ $(wc -l <<<"$names") -gt 100 ]] || { echo "FAIL: only $(wc -l <<<"$names") symbols exported" >&2; status=1; }

fail "exported, but another library's (hide them in cmake/qvlkern.map)" < <(
    owners <<<"$names" | grep -E "$foreign" | cut -d' ' -f2)
fail "exported plain names that are not entry points (list them in tests/exports.sh if they are)" < <(
    owners <<<"$names" | awk -v allowed="$(tr -s ' \n' '  ' <<<"$c_names")" '$1 == "C" && !index(allowed, " " $2 " ") { print $2 }')

# GLOBAL, WEAK or UNIQUE definitions with default visibility in the objects
declared=$(readelf -W -s "$archive" |
    awk '$5 ~ /^(GLOBAL|WEAK|UNIQUE)$/ && $6 == "DEFAULT" && $7 != "UND" && $4 != "FILE" { print $8 }' | grep -Ev "$sanitizer" | sort -u)
fail "exported by the headers (QVL_API) but hidden in the shared library" < <(
    owners <<<"$declared" | grep -vE "$foreign" | cut -d' ' -f2 | sort -u | comm -23 - <(cat <<<"$names"))

# the headers against the exports, in both directions
scratch=$(mktemp -d); trap 'rm -rf "$scratch"' EXIT
printf '%s\n' "$names" >"$scratch/exported"
readelf -W -s "$archive" | awk '$5 ~ /^(GLOBAL|WEAK|UNIQUE)$/ && $7 != "UND" && $4 != "FILE" { print $8 }' |
    sort -u >"$scratch/defined"
/usr/bin/python3 "$(dirname "$0")/exports-headers.py" "$include" "$scratch/exported" "$scratch/defined" |
    c++filt >"$scratch/report"
[[ ${PIPESTATUS[0]} -eq 0 ]] || status=1
cat "$scratch/report" >&2

[[ $status -eq 0 ]] && echo "ok: $(wc -l <<<"$names") symbols, all ours, all QVLKERN_1.0 (the allocation functions GLIBC_2.2.5)"
exit $status
