#!/usr/bin/env bash
# Puts promtool, from Debian's prometheus package, where the metrics test
# looks for it: ${XDG_CACHE_HOME:-$HOME/.cache}/qvlkern/prometheus/usr/bin/.
# Only the binary is extracted (dpkg-deb -x); nothing is installed and no
# server runs. Does nothing when it is there already. QVLKERN_PROMTOOL, when
# set, names another binary to the test instead.
#   usage: scripts/promtool.sh
set -euo pipefail

dir=${XDG_CACHE_HOME:-$HOME/.cache}/qvlkern/prometheus
[[ -x $dir/usr/bin/promtool ]] && exit 0

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
# apt-get download runs as its sandbox user where it can; let it write here.
chmod 0777 "$work"
if ! apt-get download -qq prometheus 2>/dev/null; then
  [[ $(id -u) -eq 0 ]] || { echo "promtool.sh: cannot download prometheus" >&2; exit 1; }
  apt-get update -qq
  apt-get download -qq prometheus
fi
dpkg-deb -x prometheus_*.deb x
install -D -m 0755 x/usr/bin/promtool "$dir/usr/bin/promtool"
echo "promtool: $dir/usr/bin/promtool"
