#!/usr/bin/env bash
# Package benchmarks: corbeth-pack against the standard tools, in the same run,
# on the same files. Prints wall times, the ratio (ours / theirs) against the
# target, and our peak memory (target: under 64 MiB whatever the size).
#
#   create    corbeth-pack create    vs  bsdtar --zstd -cf     (target 1.20)
#   unpack    corbeth-pack extract   vs  bsdtar -xf            (target 1.15)
#   download  corbeth-pack fetch     vs  curl, from nginx on loopback,
#             a 1 GiB package                (target 1.05, peak 32 MiB)
#
# create and unpack: each side runs BENCH_REPEAT times (default 3); the best
# time counts, and the highest peak memory. download runs as a user would: a
# fresh process per download, BENCH_PAIRS (default 3) pairs alternating which
# side goes first, `sync` before each; the medians count (wall, user and
# system CPU seconds), and the highest peak. One more fetch then writes to a
# disk throttled to BENCH_SLOW_DISK bytes/s (default 128 MiB/s, through the
# test's libvindal-slowdisk.so), where peak memory must stay within 32 MiB too.
#
# Usage: bench/package.sh [build-dir] [create|unpack|download|all]
# The source tree is ~400 MB / ~6,000 real files copied from /usr; everything
# lives in one folder under ${TMPDIR:-/tmp} that is removed at the end.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/serve.sh"
build=${1:-$root/build}
which=${2:-all}
pack=$build/bin/corbeth-pack
[[ -x $pack ]] || { echo "no corbeth-pack in $build (ninja -C $build corbeth-pack)" >&2; exit 2; }
need_tools bsdtar curl nginx /usr/bin/time
work_folder corbeth-bench

# run <name> <command...>: the best wall seconds of $repeat runs and the
# highest peak resident KiB of them into $work/<name>.time. Dirty pages left
# by the previous step are written out first, so neither side pays for them.
repeat=${BENCH_REPEAT:-3}
run() {
    local name=$1 i; shift
    : > "$work/$name.all"
    for ((i = 0; i < repeat; ++i)); do
        [[ -n ${BENCH_BEFORE_EACH:-} ]] && eval "$BENCH_BEFORE_EACH"
        sync
        /usr/bin/time -f "%e %M" -o "$work/$name.one" "$@" >/dev/null 2>"$work/$name.err" \
            || { echo "$name failed:" >&2; cat "$work/$name.err" >&2; exit 1; }
        cat "$work/$name.one" >> "$work/$name.all"
    done
    awk 'NR == 1 || $1 < t { t = $1 } $2 > m { m = $2 } END { print t, m }' "$work/$name.all" > "$work/$name.time"
}

report() { # <label> <ours> <theirs> <their name> <target>
    local ours theirs peak
    read -r ours peak < "$work/$2.time"
    read -r theirs _ < "$work/$3.time"
    awk -v l="$1" -v o="$ours" -v t="$theirs" -v n="$4" -v g="$5" -v p="$peak" 'BEGIN {
        r = (t > 0) ? o / t : 0
        printf "%-9s corbeth-pack %7.2f s   %-7s %7.2f s   ratio %.2f (target %.2f) %s   peak %.1f MiB %s\n",
               l, o, n, t, r, g, (r <= g ? "ok" : "SLOW"), p / 1024, (p < 65536 ? "ok" : "OVER")
    }'
}

make_tree() {
    [[ -d $work/tree ]] && return
    echo "copying a ~400 MB / ~6,000-file tree from /usr ..."
    mkdir -p "$work/tree"
    # Shared libraries for the bulk of the bytes, /usr/share for the many small files.
    { find /usr/lib/x86_64-linux-gnu -type f -size -4M -printf '%s\t%p\n' 2>/dev/null | sort -t$'\t' -k2 \
        | awk -F'\t' '!full { if (sum + $1 > 360 * 1048576) full = 1; else { sum += $1; print $2 } }'
      find /usr/share -type f -printf '%s\t%p\n' 2>/dev/null | sort -t$'\t' -k2 \
        | awk -F'\t' '!full { if (n >= 2500 || sum + $1 > 50 * 1048576) full = 1; else { sum += $1; n++; print $2 } }'
    } > "$work/files"
    tar -cf - --files-from="$work/files" 2>/dev/null | tar -xf - -C "$work/tree"
    echo "tree: $(find "$work/tree" -type f | wc -l) files, $(du -sm "$work/tree" | cut -f1) MB"
}

bench_create() {
    make_tree
    run create_ours "$pack" create "$work/tree" -o "$work/tree.tolmpkg"
    run create_bsdtar bsdtar --zstd -cf "$work/tree.tar.zst" -C "$work/tree" .
    report create create_ours create_bsdtar bsdtar 1.20
    echo "          sizes: corbeth-pack $(du -m "$work/tree.tolmpkg" | cut -f1) MB, bsdtar $(du -m "$work/tree.tar.zst" | cut -f1) MB"
}

bench_unpack() {
    make_tree
    [[ -f $work/tree.tolmpkg ]] || "$pack" create "$work/tree" -o "$work/tree.tolmpkg" >/dev/null
    BENCH_BEFORE_EACH='rm -rf "$work/out-ours" && mkdir "$work/out-ours"' \
        run unpack_ours "$pack" extract "$work/tree.tolmpkg" -C "$work/out-ours"
    BENCH_BEFORE_EACH='rm -rf "$work/out-bsdtar" && mkdir "$work/out-bsdtar"' \
        run unpack_bsdtar bsdtar -xf "$work/tree.tolmpkg" -C "$work/out-bsdtar"
    report unpack unpack_ours unpack_bsdtar bsdtar 1.15
    diff -r "$work/out-ours" "$work/tree" >/dev/null || echo "          WARNING: unpacked tree differs from the source"
    rm -rf "$work/out-ours" "$work/out-bsdtar"
}

# timed <name> <command...>: one run after a sync; appends "wall user system
# peak-KiB" to $work/<name>.all.
timed() {
    local name=$1; shift
    [[ -n ${BENCH_BEFORE_EACH:-} ]] && eval "$BENCH_BEFORE_EACH"
    sync
    /usr/bin/time -f "%e %U %S %M" -o "$work/$name.one" "$@" >/dev/null 2>"$work/$name.err" \
        || { echo "$name failed:" >&2; cat "$work/$name.err" >&2; exit 1; }
    cat "$work/$name.one" >> "$work/$name.all"
}

median() { # <file> <column>
    sort -n -k"$2" "$1" | awk -v c="$2" '{ v[NR] = $c } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

bench_download() {
    echo "making a 1 GiB package ..."
    mkdir -p "$work/big" "$work/repo" "$work/nginx"
    head -c 1G /dev/urandom > "$work/big/payload.bin"
    "$pack" create "$work/big" -o "$work/big.tolmpkg" >/dev/null
    rm -rf "$work/big"
    "$pack" publish "$work/big.tolmpkg" --repo "$work/repo" --module big --version 1.0.0 >/dev/null
    rm -f "$work/big.tolmpkg" "$work/big.tolmpkg.verify"
    local file i
    serve_folder "$work/repo" "$work/nginx"
    file=$(cd "$work/repo/modules/big" && ls ./*.tolmpkg | head -1)
    file=${file#./}
    local ours=("$pack" fetch --server "http://127.0.0.1:$port" --module big -o "$work/dl-ours")
    local curl=(curl -sf -o "$work/dl-curl.bin" "http://127.0.0.1:$port/modules/big/$file")
    local pairs=${BENCH_PAIRS:-3}
    : > "$work/ours.all"
    : > "$work/curl.all"
    for ((i = 0; i < pairs; ++i)); do
        if ((i % 2 == 0)); then
            BENCH_BEFORE_EACH='rm -rf "$work/dl-ours"' timed ours "${ours[@]}"
            BENCH_BEFORE_EACH='rm -f "$work/dl-curl.bin"' timed curl "${curl[@]}"
        else
            BENCH_BEFORE_EACH='rm -f "$work/dl-curl.bin"' timed curl "${curl[@]}"
            BENCH_BEFORE_EACH='rm -rf "$work/dl-ours"' timed ours "${ours[@]}"
        fi
    done
    cmp -s "$work/dl-curl.bin" "$work/dl-ours/$file" || echo "          WARNING: downloads differ"
    awk -v ow="$(median "$work/ours.all" 1)" -v ou="$(median "$work/ours.all" 2)" -v os="$(median "$work/ours.all" 3)" \
        -v cw="$(median "$work/curl.all" 1)" -v cu="$(median "$work/curl.all" 2)" -v cs="$(median "$work/curl.all" 3)" \
        -v p="$(sort -n -k4 "$work/ours.all" | tail -1 | cut -d' ' -f4)" -v n="$pairs" 'BEGIN {
        r = (cw > 0) ? ow / cw : 0
        printf "download  corbeth-pack %5.2f s (user %.2f, sys %.2f)   curl %5.2f s (user %.2f, sys %.2f)   medians of %d pairs\n",
               ow, ou, os, cw, cu, cs, n
        printf "          ratio %.2f (target 1.05) %s   peak %.1f MiB (target 32) %s\n",
               r, (r <= 1.05 ? "ok" : "SLOW"), p / 1024, (p <= 32768 ? "ok" : "OVER")
    }'
    local slowdisk=$build/tests/vindal/libvindal-slowdisk.so rate=${BENCH_SLOW_DISK:-134217728}
    if [[ ! -f $slowdisk ]]; then
        echo "          no $slowdisk (ninja -C $build vindal-slowdisk): throttled-disk run skipped"
        return
    fi
    : > "$work/slow.all"
    BENCH_BEFORE_EACH='rm -rf "$work/dl-ours"' \
        timed slow env LD_LIBRARY_PATH="$(dirname "$slowdisk")" LD_PRELOAD="$(basename "$slowdisk")" \
        SLOWDISK_BYTES_PER_SECOND="$rate" "${ours[@]}"
    awk -v r="$rate" -v w="$(cut -d' ' -f1 "$work/slow.all")" -v p="$(cut -d' ' -f4 "$work/slow.all")" 'BEGIN {
        printf "          disk throttled to %d MiB/s: corbeth-pack %.2f s   peak %.1f MiB (target 32) %s\n",
               r / 1048576, w, p / 1024, (p <= 32768 ? "ok" : "OVER")
    }'
}

case $which in
    create) bench_create ;;
    unpack) bench_unpack ;;
    download) bench_download ;;
    all) bench_create; bench_unpack; bench_download ;;
    *) echo "usage: $0 [build-dir] [create|unpack|download|all]" >&2; exit 2 ;;
esac
