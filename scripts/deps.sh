#!/usr/bin/env bash
# Makes sure the Debian packages needed to build and test qvlkern are
# installed. As root it installs what is missing; otherwise it prints the
# one apt-get line to run and fails.
#   usage: scripts/deps.sh [build|test|bench|fuzz|abi|package]...
set -euo pipefail

pkgs=(cmake make g++ pkg-config libboost-dev libboost-thread-dev libboost-system-dev
      libboost-date-time-dev zlib1g-dev libicu-dev)
for what in "$@"; do
  case "$what" in
    build) ;;
    test) pkgs+=(libgtest-dev libgmock-dev logrotate python3-clang-14) ;;
    bench) pkgs+=(libbenchmark-dev libspdlog-dev) ;;
    fuzz) pkgs+=(clang libclang-rt-14-dev) ;;
    abi) pkgs+=(abigail-tools binutils) ;;
    package) pkgs+=(dpkg-dev lintian file binutils) ;;
    *) echo "deps.sh: unknown set '$what'" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${pkgs[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $(id -u) -eq 0 ]]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
  echo "missing Debian packages; run as root:" >&2
  echo "  sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
