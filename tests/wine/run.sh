#!/usr/bin/env bash
# Runs the x86_64 TAMRIX.DLL under Debian's 64-bit Wine, as a user would:
# a fresh Wine prefix, the DLL installed in system32 and entered as the
# "scanner" MCI device (HKLM\...\Windows NT\CurrentVersion\MCI) behind
# the pass-through driver TAMRIXWINE.DLL, COM1 pointed at a pty served by a
# virtual KS-650 (HKLM\Software\Wine\Ports), the GP-IB board library
# GPIBDLL.dll carrying a virtual KS-620 at address 5, and the windows on
# Xvfb. tests/wine/wine_test.c does the commands; this script then compares
# the saved scans pixel by pixel with the same scans made by the host build
# and turns the pictures of the dialogs into PNG files.
#
#   tests/wine/run.sh [--update-docs] [PARTS]
#
# Needs the win64 and host builds (it builds what is missing) and the
# Debian packages wine, wine64, xvfb, xauth and fonts-ipafont-gothic.
# --update-docs copies the PNG pictures into docs/wine/. PARTS (for example
# "gpib,config") limits wine_test.exe to some of driver, open, gpib, serial
# and config.
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$PWD
update_docs=0
if [ "${1:-}" = "--update-docs" ]; then update_docs=1; shift; fi

for tool in wine wineserver Xvfb /usr/bin/python3; do
    if ! command -v "$tool" >/dev/null; then
        echo "tests/wine/run.sh: $tool is missing (apt-get install wine wine64 xvfb xauth fonts-ipafont-gothic)" >&2
        exit 1
    fi
done

start=$(date +%s)
cmake --preset win64 >/dev/null
cmake --build --preset win64 >/dev/null
cmake --preset host >/dev/null
cmake --build --preset host --target mcicmd tamrix gpibdll tamrix-scanner >/dev/null
win=$root/build/win64
host=$root/build/host
out=$root/build/wine
rm -rf "$out"
mkdir -p "$out"

work=$(mktemp -d)
pids=()
cleanup() {
    [ -n "${WINEPREFIX:-}" ] && [ -d "$WINEPREFIX" ] && wineserver -k >/dev/null 2>&1 || true
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# The 32-bit deliverable would run on Debian's wine32, which needs the i386
# architecture; this script runs the x86_64 DLL only, and says so.
if ! dpkg --print-foreign-architectures 2>/dev/null | grep -qx i386; then
    echo "wine: wine32 cannot be installed here (no i386 architecture): the i686 DLL is not run; running the x86_64 scenarios"
else
    echo "wine: the i686 DLL is not run by this script (x86_64 only); running the x86_64 scenarios"
fi

# A display of our own.
display=90
while [ -e "/tmp/.X$display-lock" ] || [ -e "/tmp/.X11-unix/X$display" ]; do display=$((display + 1)); done
Xvfb ":$display" -screen 0 1024x768x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
pids+=($!)
export DISPLAY=":$display"

# The virtual KS-650 on a pty, at the line speed the driver sets.
"$host/bin/tamrix-scanner" --model 5 >"$work/pty" 2>"$work/pty.err" &
pids+=($!)
for _ in $(seq 50); do [ -s "$work/pty" ] && break; sleep 0.1; done
pty=$(head -n1 "$work/pty")
[ -c "$pty" ] || { echo "wine: the pty scanner did not start" >&2; cat "$work/pty.err" >&2; exit 1; }

# A fresh prefix. Mono and Gecko are not needed.
export WINEPREFIX=$work/prefix WINEARCH=win64 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
wine wineboot -i >"$work/wineboot.log" 2>&1
wineserver -w
sys32=$WINEPREFIX/drive_c/windows/system32
cp "$win/src/TAMRIX.DLL" "$win/tests/wine/TAMRIXWINE.DLL" "$win/tests/wine/GPIBDLL.dll" "$sys32/"
mkdir -p "$WINEPREFIX/drive_c/tamrix"
cp "$win/tests/wine/wine_test.exe" "$WINEPREFIX/drive_c/tamrix/"

# The MCI entry a 64-bit Wine reads (section "MCI", not "MCI32"), COM1, a desktop window to draw the
# dialogs in, and Japanese glyphs for the dialogs' system font.
cat >"$work/setup.reg" <<EOF
REGEDIT4

[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows NT\\CurrentVersion\\MCI]
"scanner"="TAMRIXWINE.DLL"

[HKEY_LOCAL_MACHINE\\Software\\Wine\\Ports]
"COM1"="$pty"

[HKEY_CURRENT_USER\\Software\\Wine\\Explorer]
"Desktop"="Default"

[HKEY_CURRENT_USER\\Software\\Wine\\Explorer\\Desktops]
"Default"="800x600"

[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows NT\\CurrentVersion\\FontSubstitutes]
"MS Shell Dlg"="IPAGothic"
"MS Shell Dlg 2"="IPAGothic"
"MS UI Gothic"="IPAGothic"
"MS Gothic"="IPAGothic"
"Tahoma"="IPAGothic"

[HKEY_CURRENT_USER\\Software\\Wine\\Fonts\\Replacements]
"System"="IPAGothic"
"MS Shell Dlg"="IPAGothic"
"Tahoma"="IPAGothic"
EOF
wine regedit /S "$work/setup.reg" >/dev/null 2>&1
wineserver -w
setup=$(($(date +%s) - start))

status=0
TAMRIX_GPIB_SCANNER=2:5 wine 'C:\tamrix\wine_test.exe' 'C:\tamrix\out' "$@" 2>"$work/wine.err" |
    tr -d '\r' | tee "$work/results" || status=$?
wineserver -w
cp "$WINEPREFIX"/drive_c/tamrix/out/* "$out/" 2>/dev/null || true

# The same scans by the host build.
scan_host() { # SCANNER RECT FILE
    local windir
    windir=$(mktemp -d -p "$work")
    "$host/bin/mcicmd" --windir "$windir" --install --scanner "$1" \
        "open scanner alias s wait" "scanmode s resolution 100 contrast 5 wait" \
        "scanread s rect $2 wait" "save s \"$3\" wait" "close s wait" >/dev/null
}
scan_host ks-620:gpib:5 "10 0 400 300" "$out/host_gpib.bmp"
scan_host ks-650:rs232c:1 "0 0 300 200" "$out/host_serial.bmp"

/usr/bin/python3 - "$out" <<'EOF' | tee -a "$work/results" || status=1
import os, sys
from PIL import Image
out = sys.argv[1]
failed = 0
for name in ("gpib", "serial"):
    wine_path, host_path = f"{out}/{name}.bmp", f"{out}/host_{name}.bmp"
    if not os.path.exists(wine_path):
        print(f"FAIL {name}.bmp was not saved under Wine"); failed += 1; continue
    a, b = Image.open(wine_path).convert("RGB"), Image.open(host_path).convert("RGB")
    if a.size != b.size:
        print(f"FAIL {name}.bmp is {a.size}, the host's scan {b.size}"); failed += 1; continue
    pa, pb = a.load(), b.load()
    differ = sum(1 for y in range(a.size[1]) for x in range(a.size[0]) if pa[x, y] != pb[x, y])
    colours = len(a.getcolors(1 << 24))
    ok = differ == 0 and colours >= 2
    print(f"{'ok  ' if ok else 'FAIL'} {name}.bmp under Wine equals the host's scan pixel by pixel "
          f"({a.size[0]}x{a.size[1]}, {differ} differ, {colours} colours)")
    failed += not ok
for f in sorted(os.listdir(out)):
    if f.endswith(".bmp") and not f.startswith("host_") and f not in ("gpib.bmp", "serial.bmp"):
        Image.open(f"{out}/{f}").save(f"{out}/{f[:-4]}.png")
sys.exit(1 if failed else 0)
EOF

if [ "$update_docs" = 1 ]; then
    mkdir -p docs/wine
    cp "$out"/*.png docs/wine/
    echo "wine: pictures copied to docs/wine/"
fi
echo "wine: prefix and setup took ${setup} s, everything $(($(date +%s) - start)) s"
passed=$(grep -c '^ok ' "$work/results" || true)
failed=$(grep -c '^FAIL' "$work/results" || true)
if [ "$status" != 0 ] || [ "$failed" != 0 ] || [ "$passed" = 0 ]; then
    echo "wine: Wine's messages (first 40 lines):" >&2
    sed -n '1,40p' "$work/wine.err" >&2 || true
    [ "$failed" != 0 ] || failed=1
    status=1
fi
echo "wine: $passed passed, $failed failed"
exit "$status"
