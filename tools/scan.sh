#!/usr/bin/env bash
# Scans one page from the built-in virtual scanner into a BMP file:
#   tools/scan.sh [page.bmp] [SCANNER]
# SCANNER is mcicmd's --scanner value (default ks-650:rs232c:1, a colour
# scanner on COM1); for example ks-620:gpib:5, ks-640:scsi or kt-700:gpib:2.
# Builds what it needs first.
set -euo pipefail
out=${1:-page.bmp}
scanner=${2:-ks-650:rs232c:1}
case "$out" in /*) ;; *) out="$PWD/$out" ;; esac
cd "$(dirname "$0")/.."
tools/deps.sh
cmake --preset host >/dev/null
cmake --build --preset host --target mcicmd tamrix gpibdll >/dev/null

# A Windows directory of its own, so the user's settings stay untouched.
windir=$(mktemp -d)
trap 'rm -rf "$windir"' EXIT
build/host/bin/mcicmd --windir "$windir" --install --scanner "$scanner" \
    "open scanner alias s wait" \
    "info s product wait" \
    "scanread s wait" \
    "save s \"$out\" wait" \
    "close s wait"
echo "wrote $out"
