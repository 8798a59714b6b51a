#!/usr/bin/env bash
# An install through the engine's public facade against the standard tools
# doing the same work on the same package, in the same run:
#
#   online   corbeth-bench-install online  vs  curl -o + md5sum + bsdtar -xf
#   offline  corbeth-bench-install offline vs  md5sum + bsdtar -xf
#
# The package is a ~400 MB / ~6,000-file tree from /usr, served by nginx on
# loopback. Each side runs BENCH_REPEAT times (default 3), alternating, with
# the page cache written out (sync) before each; the median counts. The ratio
# that has a target (1.10) covers what both sides do: fetch, check, unpack.
# The engine's install steps come on top (they include a fixed 3 s wait for
# drivers to register); their time is printed beside it. Peak memory is the
# client process's (target: under 64 MiB).
#
# Usage: bench/install.sh [build-dir] [online|offline|all]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/serve.sh"
build=${1:-$root/build}
which=${2:-all}
[[ $which =~ ^(online|offline|all)$ ]] || { echo "usage: $0 [build-dir] [online|offline|all]" >&2; exit 2; }
client=$build/bench/corbeth-bench-install
pack=$build/bin/corbeth-pack
for tool in "$client" "$pack"; do
    [[ -x $tool ]] || { echo "missing $tool (ninja -C $build corbeth-bench-install corbeth-pack)" >&2; exit 2; }
done
need_tools bsdtar curl md5sum nginx /usr/bin/time
work_folder corbeth-bench-install
repeat=${BENCH_REPEAT:-3}

echo "copying a ~400 MB / ~6,000-file tree from /usr ..."
mkdir -p "$work/tree"
{ find /usr/lib/x86_64-linux-gnu -type f -size -4M -printf '%s\t%p\n' 2>/dev/null | sort -t$'\t' -k2 \
    | awk -F'\t' '!full { if (sum + $1 > 360 * 1048576) full = 1; else { sum += $1; print $2 } }'
  find /usr/share -type f -printf '%s\t%p\n' 2>/dev/null | sort -t$'\t' -k2 \
    | awk -F'\t' '!full { if (n >= 2500 || sum + $1 > 50 * 1048576) full = 1; else { sum += $1; n++; print $2 } }'
} > "$work/files"
tar -cf - --files-from="$work/files" 2>/dev/null | tar -xf - -C "$work/tree"
echo "tree: $(find "$work/tree" -type f | wc -l) files, $(du -sm "$work/tree" | cut -f1) MB"
"$pack" create "$work/tree" -o "$work/tree.tolmpkg" >/dev/null
rm -rf "$work/tree"
"$pack" publish "$work/tree.tolmpkg" --repo "$work/repo" --module tree --version 1.0.0 >/dev/null
file=$(cd "$work/repo/modules/tree" && ls ./*.tolmpkg | head -1)
file=${file#./}

serve_folder "$work/repo" "$work/nginx"

cat > "$work/config.json" <<CONF
{ "velmira": {"repository": "http://127.0.0.1:$port/"},
  "downloadModuleInfo": {"module": "tree"},
  "install": {} }
CONF

# Each of our runs starts from nothing: no install, no records, no cache.
fresh() {
    rm -rf "$work/inst" "$work/state" "$work/out" "$work/dl.bin"
    mkdir -p "$work/state/settings" "$work/out"
    export CORBETH_SETTINGS_ROOT=$work/state/settings VINDAL_STATE_FILE=$work/state/vindal.json
    sync
}

# ours <label> <client args...>: wall seconds, peak KiB and stage lines.
ours() {
    local label=$1; shift
    fresh
    /usr/bin/time -f "%e %M" -o "$work/time" "$client" "$@" > "$work/stages"
    read -r wall peak < "$work/time"
    through=$(awk '$1 == "download" || $1 == "md5" || $1 == "unpack" { s += $2 } END { printf "%.2f", s }' "$work/stages")
    echo "$through $wall $peak" >> "$work/$label.ours"
    cp "$work/stages" "$work/$label.stages"
}

theirs() {
    local label=$1; shift
    fresh
    /usr/bin/time -f "%e" -o "$work/time" bash -c "$*" >/dev/null
    cat "$work/time" >> "$work/$label.theirs"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

bench() { # <label> <composite command> <client args...>
    local label=$1 composite=$2 i; shift 2
    : > "$work/$label.ours"; : > "$work/$label.theirs"
    for ((i = 0; i < repeat; ++i)); do
        ours "$label" "$@"
        theirs "$label" "$composite"
    done
    local t w p c
    t=$(cut -d' ' -f1 "$work/$label.ours" | median)
    w=$(cut -d' ' -f2 "$work/$label.ours" | median)
    p=$(cut -d' ' -f3 "$work/$label.ours" | sort -n | tail -1)
    c=$(median < "$work/$label.theirs")
    awk -v l="$label" -v t="$t" -v w="$w" -v c="$c" -v p="$p" 'BEGIN {
        r = (c > 0) ? t / c : 0
        printf "%-8s engine %6.2f s (whole install %.2f s)   tools %6.2f s   ratio %.2f (target 1.10) %s   peak %.1f MiB %s\n",
               l, t, w, c, r, (r <= 1.10 ? "ok" : "SLOW"), p / 1024, (p < 65536 ? "ok" : "OVER")
    }'
    sed 's/^/         stage /' "$work/$label.stages"
}

url="http://127.0.0.1:$port/modules/tree/$file"
if [[ $which != offline ]]; then
    bench online "curl -sf -o '$work/dl.bin' '$url' && md5sum '$work/dl.bin' && bsdtar -xf '$work/dl.bin' -C '$work/out'" \
        online "$work/config.json" "$work/inst"
fi
if [[ $which != online ]]; then
    bench offline "md5sum '$work/tree.tolmpkg' && bsdtar -xf '$work/tree.tolmpkg' -C '$work/out'" \
        offline "$work/config.json" "$work/tree.tolmpkg" "$work/inst"
fi
