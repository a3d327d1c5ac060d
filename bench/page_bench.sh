#!/usr/bin/env bash
# page_bench.sh: what the driver costs for the largest page it takes, side by
# side with tools that make or copy the same bytes, in one run.
#
#   bench/page_bench.sh [ROUNDS] [BUILD_DIR]
#
# Builds the release preset (unless BUILD_DIR is given: a build directory
# holding bin/mcicmd and lib/tamrix.so) and runs ROUNDS (default 5) paired
# rounds of:
#   driver    mcicmd: a KS-650 on the virtual SCSI scanner, 480 dpi, 24-bit
#             colour, the whole page (4080 x 5611 pixels), saved to a file;
#   scanimage SANE's test backend, colour, 8 bits per channel, 720 dpi,
#             144 x 198 mm: about the same pixel count;
#   dd        the saved page's byte count copied from /dev/zero to a file.
# Each figure is the median over the rounds of the CPU time (user + system)
# and of the wall time, as /usr/bin/time measures them; the ratios are the
# driver's over each peer's. Then: the peak memory of the driver's run
# against the image and its display copy (over a run that opens and closes
# without scanning), and the driver's line pipeline alone from line_bench
# (Google Benchmark), in MB/s of image per colour mode.
#
# As root, missing Debian packages (sane-utils, libbenchmark-dev, time) are
# installed with apt-get; otherwise the apt-get line to run is printed.
set -euo pipefail
cd "$(dirname "$0")/.."

rounds=${1:-5}
build=${2:-}

packages=(sane-utils libbenchmark-dev time)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    if [ "$(id -u)" -eq 0 ]; then
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -q >/dev/null
        apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
    else
        echo "Missing packages. Run:" >&2
        echo "  sudo apt-get install -y ${missing[*]}" >&2
        exit 1
    fi
fi

if [ -z "$build" ]; then
    cmake --preset release >/dev/null
    cmake --build --preset release --target mcicmd tamrix line_bench >/dev/null
    build=build/release
fi
mcicmd=$build/bin/mcicmd

work=$(mktemp -d /tmp/page_bench.XXXXXX)
trap 'rm -rf "$work"' EXIT

# One measured command: appends "cpu wall maxrss_kb" to the file $1.
measure() {
    local out=$1
    shift
    /usr/bin/time -f '%U %S %e %M' -o "$work/time" "$@" >/dev/null 2>"$work/stderr" || {
        echo "page_bench: failed: $*" >&2
        cat "$work/stderr" >&2
        exit 1
    }
    awk '{ printf "%.3f %.3f %d\n", $1 + $2, $3, $4 }' "$work/time" >>"$out"
}

driver_page=("$mcicmd" --windir "$work/win" --install --scanner ks-650:scsi
    "open scanner alias s wait"
    "scanmode s resolution 480 colorstep 256 colormode 16386 wait"
    "scanread s rect 0 0 4080 5611 wait"
    "save s $work/page.bmp wait"
    "close s wait")
driver_idle=("$mcicmd" --windir "$work/win" --install --scanner ks-650:scsi "open scanner alias s wait" "close s wait")
peer_page=(scanimage -d test --mode Color --depth 8 --resolution 720 -x 144 -y 198 --format=pnm
    --output-file="$work/peer.pnm")

mkdir -p "$work/win"
"${driver_page[@]}" >/dev/null 2>&1 || true # warm-up; also gives the byte count for dd
[ -s "$work/page.bmp" ] || { echo "page_bench: the driver saved no page" >&2; exit 1; }
page_bytes=$(stat -c %s "$work/page.bmp")
copy_page=(dd if=/dev/zero of="$work/copy" bs=1M count="$page_bytes" iflag=count_bytes status=none)

for ((i = 0; i < rounds; i++)); do
    rm -f "$work/page.bmp" "$work/peer.pnm" "$work/copy"
    measure "$work/driver" "${driver_page[@]}"
    measure "$work/peer" "${peer_page[@]}"
    measure "$work/dd" "${copy_page[@]}"
done
measure "$work/idle" "${driver_idle[@]}"

median() { # column $2 of file $1
    sort -n -k"$2" "$1" | awk -v c="$2" '{ v[NR] = $c } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

peer_pixels=$(head -c 100 "$work/peer.pnm" | awk 'NR > 1 && !/^#/ && NF == 2 { print $1 * $2; exit }')
echo "Full page, median of $rounds paired rounds (CPU = user + system):"
printf '  %-52s %9s %9s\n' "" "CPU s" "wall s"
printf '  %-52s %9.3f %9.3f\n' "driver: KS-650 SCSI 4080 x 5611 24-bit, saved" \
    "$(median "$work/driver" 1)" "$(median "$work/driver" 2)"
printf '  %-52s %9.3f %9.3f\n' "scanimage -d test, $peer_pixels pixels colour" \
    "$(median "$work/peer" 1)" "$(median "$work/peer" 2)"
printf '  %-52s %9.3f %9.3f\n' "dd of $page_bytes bytes" "$(median "$work/dd" 1)" "$(median "$work/dd" 2)"
awk -v dc="$(median "$work/driver" 1)" -v dw="$(median "$work/driver" 2)" \
    -v pc="$(median "$work/peer" 1)" -v pw="$(median "$work/peer" 2)" \
    -v cc="$(median "$work/dd" 1)" -v cw="$(median "$work/dd" 2)" -v px=$((4080 * 5611)) -v ppx="$peer_pixels" '
    function ratio(a, b) { return b > 0 ? sprintf("%.2fx", a / b) : "n/a (peer below the timer resolution)" }
    BEGIN {
        printf "  driver / scanimage: CPU %s, wall %s (per pixel: CPU %s)\n", ratio(dc, pc), ratio(dw, pw),
               ratio(dc / px, pc / ppx)
        printf "  driver / dd:        CPU %s, wall %s\n", ratio(dc, cc), ratio(dw, cw)
    }'

image=$((page_bytes - 54)) # the pixel rows: a 24-bit file has no colour table
display=$(((288 * 24 + 31) / 32 * 4 * 400)) # the default 288 x 400 display copy
peak=$(median "$work/driver" 3)
idle=$(awk '{ print $3 }' "$work/idle")
awk -v peak="$peak" -v idle="$idle" -v image="$image" -v display="$display" 'BEGIN {
    extra = peak * 1024 - idle * 1024 - image - display
    printf "Peak memory: %.1f MB (%.1f MB without a scan); image %.1f MB, display copy %.2f MB; besides: %.1f MB\n",
           peak / 1024, idle / 1024, image / 1048576, display / 1048576, extra / 1048576
}'

echo "Driver line pipeline alone (4080-pixel lines, one core; MiB of image per CPU second):"
"$build/bin/line_bench" --benchmark_min_time=0.2 2>/dev/null | awk '
    /line\// {
        rate = 0
        for (i = 1; i <= NF; i++)
            if ($i ~ /^bytes_per_second=/) {
                v = $i
                sub(/^bytes_per_second=/, "", v)
                rate = v + 0
                if (v ~ /G\/s$/) rate *= 1024
                else if (v ~ /k\/s$/) rate /= 1024
            }
        name = $1
        for (i = 2; i <= NF && !($i ~ /^[0-9.]+$/ && $(i + 1) ~ /^[nmu]?s$/); i++)
            name = name " " $i
        printf "  %-44s %9.0f MiB/s\n", name, rate
    }'
