#!/usr/bin/env bash
# Delta updates on a real pair of releases: Debian 12's libssl3, libcurl4,
# libxml2 and libarchive13 before and after a security update (fetched with
# apt-get download, unpacked with dpkg-deb), with an unchanged documentation
# tree beside them (libssl-doc, libcurl4-doc, libxml2-doc of one version).
#
#   size    the delta package corbeth-pack publish makes against the full
#           package (target 12%): the libraries alone, the .debs' contents,
#           and with the documentation tree; an update that changes one
#           documentation file (target 1% plus the manifest)
#   update  an update of an install of the old version through the library
#           (corbeth-bench-delta update), against a full update of the same
#           version, from nginx on loopback: bytes downloaded (nginx's access
#           log), wall time, peak memory (target 64 MiB); the install must
#           end identical to the new version
#   apply   the per-file patches alone (corbeth-bench-delta apply) against
#           unpacking the full package (corbeth-pack extract, bsdtar -xf):
#           what each kind of update writes (target no slower); then the
#           libraries ten times over, the same files written by both sides:
#           the cost per byte of patching (reading the old file, hashing)
#   large   one 60 MiB file, above what the zstd codec holds whole: peak
#           memory of making and of applying (target 64 MiB)
#
# Timed commands run in BENCH_PAIRS (default 3) pairs alternating which side
# goes first, `sync` before each; the medians count, and the highest peak.
# Usage: bench/delta.sh [build-dir] [size|update|apply|large|all]
#   BENCH_DEBS  a folder holding the .debs below (else they are downloaded)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/serve.sh"
build=${1:-$root/build}
which=${2:-all}
[[ $which =~ ^(size|update|apply|large|all)$ ]] || { echo "usage: $0 [build-dir] [size|update|apply|large|all]" >&2; exit 2; }
pack=$build/bin/corbeth-pack
delta=$build/bench/corbeth-bench-delta
for tool in "$pack" "$delta"; do
    [[ -x $tool ]] || { echo "missing $tool (ninja -C $build corbeth-pack corbeth-bench-delta)" >&2; exit 2; }
done
need_tools apt-get dpkg-deb bsdtar nginx /usr/bin/time
work_folder corbeth-bench-delta

# package old-version new-version (both in Debian 12's archive or its
# security archive: apt-cache madison <package> lists what is there now).
releases=(
    "libssl3 3.0.20-1~deb12u2 3.0.22-1~deb12u2"
    "libcurl4 7.88.1-10+deb12u5 7.88.1-10+deb12u15"
    "libxml2 2.9.14+dfsg-1.3~deb12u4 2.9.14+dfsg-1.3~deb12u6"
    "libarchive13 3.6.2-1+deb12u4 3.6.2-1+deb12u5"
)
docs=("libssl-doc 3.0.22-1~deb12u2" "libcurl4-doc 7.88.1-10+deb12u15" "libxml2-doc 2.9.14+dfsg-1.3~deb12u6")
pairs=${BENCH_PAIRS:-3}

deb() { # <package> <version>: the .deb's path, downloaded when missing
    local file
    file=$(ls "${BENCH_DEBS:-$work/debs}/$1_${2/:/%3a}"_*.deb 2>/dev/null | head -1)
    if [[ -z $file ]]; then
        mkdir -p "$work/debs"
        (cd "$work/debs" && apt-get download -q "$1=$2" >/dev/null 2>&1) \
            || { echo "apt-get download $1=$2 failed (apt-cache madison $1 lists the versions there are)" >&2; exit 1; }
        file=$(ls "$work/debs/$1_${2/:/%3a}"_*.deb | head -1)
    fi
    echo "$file"
}

# The versions: v1 and v2 the libraries before and after, with the same
# documentation; v3 is v2 with one documentation page changed. libs1/libs2
# and debs1/debs2 are the libraries alone and the .debs' contents alone.
make_trees() {
    [[ -d $work/v3 ]] && return
    local line name old new doc page v
    for line in "${releases[@]}"; do
        read -r name old new <<< "$line"
        dpkg-deb -x "$(deb "$name" "$old")" "$work/debs1"
        dpkg-deb -x "$(deb "$name" "$new")" "$work/debs2"
    done
    for doc in "${docs[@]}"; do
        dpkg-deb -x "$(deb $doc)" "$work/docs"
    done
    for v in 1 2; do
        mkdir -p "$work/libs$v/usr"
        cp -a "$work/debs$v/usr/lib" "$work/libs$v/usr/"
        cp -a "$work/docs" "$work/v$v"
        cp -a "$work/debs$v/." "$work/v$v/"
    done
    cp -a "$work/v2" "$work/v3"
    page=$(cd "$work/v3" && find usr/share/doc -name '*.html' -size +8k | sort | head -1)
    sed -i '0,/<\/p>/s//<\/p><p>A paragraph the new version adds to its documentation.<\/p>/' "$work/v3/$page"
    echo "trees: libraries $(du -sm "$work/libs2" | cut -f1) MB, .debs $(du -sm "$work/debs2" | cut -f1) MB," \
         "with the documentation $(du -sm "$work/v2" | cut -f1) MB ($(find "$work/v2" -type f | wc -l) files)"
}

# publish <repo> <tree>...: each tree as the next version (1.1, 1.2...) of
# module app; $work/deltas.line tells the last delta's size and the full
# package's.
publish() {
    local repo=$1 i=0 tree
    shift
    for tree in "$@"; do
        i=$((i + 1))
        "$pack" create "$tree" -o "$work/app-1.$i.tolmpkg" >/dev/null
        "$pack" publish "$work/app-1.$i.tolmpkg" --repo "$repo" --module app --version "1.$i" >/dev/null
        rm -f "$work/app-1.$i.tolmpkg"
    done
    "$pack" deltas list --repo "$repo" --module app | head -1 > "$work/deltas.line"
}

ratio_line() { # <label> [target %]: of the last publish
    awk -v l="$1" -v g="${2:-}" '{
        for (i = 1; i <= NF; ++i) if ($i == "bytes") { d = $(i - 1); f = $NF }
        sub(/\)$/, "", f)
        r = 100 * d / f
        printf "%-30s delta %9d B   full %9d B   %5.1f%%", l, d, f, r
        if (g != "")
            printf " (target %s%%) %s", g, (r <= g ? "ok" : "OVER")
        printf "\n"
    }' "$work/deltas.line"
}

bench_size() {
    make_trees
    publish "$work/repo-libs" "$work/libs1" "$work/libs2"
    ratio_line "libraries" 12
    publish "$work/repo-debs" "$work/debs1" "$work/debs2"
    ratio_line ".debs' contents" 12
    publish "$work/repo" "$work/v1" "$work/v2"
    ratio_line "with the documentation" 12
    publish "$work/repo-docs" "$work/v2" "$work/v3"
    mkdir -p "$work/docdelta"
    bsdtar -xf "$work/repo-docs/modules/app/$(sed 's/.*: \([^,]*\),.*/\1/' "$work/deltas.line")" -C "$work/docdelta"
    ratio_line "one documentation page"
    # The same without its manifest, which lists every file's SHA-256s.
    rm -f "$work/docdelta/delta.json"
    "$pack" create "$work/docdelta" -o "$work/docdelta.tolmpkg" >/dev/null
    sed -i "s/[0-9]* bytes/$(stat -c %s "$work/docdelta.tolmpkg") bytes/" "$work/deltas.line"
    ratio_line "  without the manifest" 1
}

# timed <name> <command...>: one run after a sync; appends "wall peak-KiB"
# to $work/<name>.all.
timed() {
    local name=$1
    shift
    [[ -n ${BENCH_BEFORE_EACH:-} ]] && eval "$BENCH_BEFORE_EACH"
    sync
    /usr/bin/time -f "%e %M" -o "$work/$name.one" "$@" >"$work/$name.out" 2>"$work/$name.err" \
        || { echo "$name failed:" >&2; cat "$work/$name.err" >&2; exit 1; }
    cat "$work/$name.one" >> "$work/$name.all"
}

median() { # <file> <column>
    sort -n -k"$2" "$1" | awk -v c="$2" '{ v[NR] = $c } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
peak() { sort -n -k2 "$1" | tail -1 | cut -d' ' -f2; }

# alternate <a> <b>: BENCH_PAIRS pairs of the commands in ${a[@]} and ${b[@]}
# (names of arrays), with BEFORE_<a> / BEFORE_<b> run before each.
alternate() {
    local a=$1 b=$2 i
    local -n cmd_a=$a cmd_b=$b
    local before_a="BEFORE_$a" before_b="BEFORE_$b"
    : > "$work/$a.all"
    : > "$work/$b.all"
    for ((i = 0; i < pairs; ++i)); do
        if ((i % 2 == 0)); then
            BENCH_BEFORE_EACH=${!before_a} timed "$a" "${cmd_a[@]}"
            BENCH_BEFORE_EACH=${!before_b} timed "$b" "${cmd_b[@]}"
        else
            BENCH_BEFORE_EACH=${!before_b} timed "$b" "${cmd_b[@]}"
            BENCH_BEFORE_EACH=${!before_a} timed "$a" "${cmd_a[@]}"
        fi
    done
}

compare() { # <label> <ours> <theirs> <their name> [target]: ours against theirs, the ratio
    awk -v l="$1" -v o="$(median "$work/$2.all" 1)" -v t="$(median "$work/$3.all" 1)" -v n="$4" -v g="${5:-}" \
        -v p="$(peak "$work/$2.all")" 'BEGIN {
        r = (t > 0) ? o / t : 0
        printf "%-30s %6.3f s   %-22s %6.3f s   ratio %.2f", l, o, n, t, r
        if (g != "")
            printf " (target %s) %s", g, (r <= g ? "ok" : "SLOW")
        printf "   peak %.1f MiB %s\n", p / 1024, (p <= 65536 ? "ok" : "OVER")
    }'
}

bench_update() {
    make_trees
    [[ -d $work/repo ]] || publish "$work/repo" "$work/v1" "$work/v2"
    serve_folder "$work/repo" "$work/nginx"
    local url="http://127.0.0.1:$port/" log="$work/nginx/access.log"
    # An install of 1.1 (the old version), recorded in its own state file.
    VINDAL_STATE_FILE="$work/state-base.json" "$delta" update "$url" app 1.1 "$work/inst-base" "$work/store-base" >/dev/null
    diff -r "$work/inst-base" "$work/v1" >/dev/null || echo "WARNING: the install of the old version differs from it"
    export VINDAL_STATE_FILE="$work/state.json"
    # The delta update starts from the old install and its record; the full
    # one from the same files with no record, so the full package comes.
    local start='rm -rf "$work/inst" "$work/store" && cp -a "$work/inst-base" "$work/inst" && rm -f "$work/state.json"'
    BEFORE_deltaupdate="$start && cp \"\$work/state-base.json\" \"\$work/state.json\" && : > \"$log\""
    BEFORE_fullupdate="$start && : > \"$log\""
    deltaupdate=("$delta" update "$url" app 1.2 "$work/inst" "$work/store")
    fullupdate=("$delta" update "$url" app 1.2 "$work/inst" "$work/store")
    alternate_update
    unset VINDAL_STATE_FILE
}

# The update pairs, keeping each side's access log and result line.
alternate_update() {
    local i side
    : > "$work/deltaupdate.all"
    : > "$work/fullupdate.all"
    for ((i = 0; i < 2 * pairs; ++i)); do
        if (((i + i / 2) % 2 == 0)); then side=deltaupdate; else side=fullupdate; fi
        local before="BEFORE_$side" cmd="$side[@]"
        BENCH_BEFORE_EACH=${!before} timed "$side" "${!cmd}"
        cp "$work/nginx/access.log" "$work/$side.log"
        cp "$work/$side.out" "$work/$side.result"
        diff -r "$work/inst" "$work/v2" >/dev/null || echo "WARNING: the $side ended with a tree that differs from the new version"
    done
    local sent_delta sent_full
    sent_delta=$(awk '{ s += $2 } END { print s + 0 }' "$work/deltaupdate.log")
    sent_full=$(awk '{ s += $2 } END { print s + 0 }' "$work/fullupdate.log")
    echo "delta update: $(cut -d' ' -f4 "$work/deltaupdate.result"), $sent_delta bytes downloaded ($(wc -l < "$work/deltaupdate.log") requests)"
    echo "full update:  $(cut -d' ' -f4 "$work/fullupdate.result"), $sent_full bytes downloaded ($(wc -l < "$work/fullupdate.log") requests)"
    awk -v d="$sent_delta" -v f="$sent_full" 'BEGIN { printf "%-30s %5.1f%% of the full update'"'"'s bytes (target 12%%) %s\n", "downloaded", 100 * d / f, (100 * d / f <= 12 ? "ok" : "OVER") }'
    compare "update (download + unpack)" deltaupdate fullupdate "full update" 1.00
}

# apply_pair <label> <old tree> <new tree> [target]: the patches that turn
# one into the other, applied, against unpacking the new one's package.
apply_pair() {
    rm -rf "$work/patches"
    "$delta" make "$2" "$3" "$work/patches" >/dev/null 2>"$work/make.err"
    "$pack" create "$3" -o "$work/applied.tolmpkg" >/dev/null
    local clean='rm -rf "$work/out" && mkdir "$work/out"'
    BEFORE_patchapply=$clean BEFORE_extract=$clean BEFORE_bsdtar=$clean
    patchapply=("$delta" apply "$2" "$work/patches" "$work/out")
    extract=("$pack" extract "$work/applied.tolmpkg" -C "$work/out")
    bsdtar=(bsdtar -xf "$work/applied.tolmpkg" -C "$work/out")
    alternate patchapply extract
    mv "$work/patchapply.all" "$work/patchapply.first"
    alternate patchapply bsdtar
    cat "$work/patchapply.first" >> "$work/patchapply.all"
    compare "$1" patchapply extract "corbeth-pack extract" "${4:-}"
    compare "$1" patchapply bsdtar "bsdtar -xf" "${4:-}"
}

bench_apply() {
    make_trees
    apply_pair "apply the delta's patches" "$work/v1" "$work/v2" 1.00
    local i
    rm -rf "$work/ten"*
    for i in 0 1 2 3 4 5 6 7 8 9; do
        mkdir -p "$work/ten1" "$work/ten2"
        cp -a "$work/libs1" "$work/ten1/$i"
        cp -a "$work/libs2" "$work/ten2/$i"
    done
    apply_pair "the libraries ten times" "$work/ten1" "$work/ten2"
}

bench_large() {
    mkdir -p "$work/large1" "$work/large2"
    # Compiled code stands in for the content: real libraries one after the
    # other. The next version has a megabyte inserted in the middle and a
    # byte changed every 64 KiB.
    python3 - "$work/large1/big" "$work/large2/big" <<'PY'
import glob, os, sys
data = bytearray()
for lib in sorted(glob.glob('/usr/lib/x86_64-linux-gnu/*.so.*')):
    if len(data) < 60 << 20 and os.path.isfile(lib) and not os.path.islink(lib):
        data += open(lib, 'rb').read(60 << 20)
del data[60 << 20:]
open(sys.argv[1], 'wb').write(data)
data[len(data) // 2:len(data) // 2] = bytes((i * 131) & 0xff for i in range(1 << 20))
for i in range(0, len(data), 65536):
    data[i] = (data[i] + 1) & 0xff
open(sys.argv[2], 'wb').write(data)
PY
    rm -rf "$work/largepatch"
    : > "$work/largemake.all"
    timed largemake "$delta" make "$work/large1" "$work/large2" "$work/largepatch"
    "$pack" create "$work/large2" -o "$work/large2.tolmpkg" >/dev/null
    local clean='rm -rf "$work/out" && mkdir "$work/out"'
    BEFORE_largeapply=$clean BEFORE_largeextract=$clean
    largeapply=("$delta" apply "$work/large1" "$work/largepatch" "$work/out")
    largeextract=("$pack" extract "$work/large2.tolmpkg" -C "$work/out")
    alternate largeapply largeextract
    cmp -s "$work/out/big" "$work/large2/big" || echo "WARNING: the patched file differs"
    awk -v t="$(cut -d' ' -f1 "$work/largemake.all")" -v p="$(cut -d' ' -f2 "$work/largemake.all")" \
        -v s="$(stat -c %s "$work/largepatch/big.patch")" -v f="$(stat -c %s "$work/large2.tolmpkg")" 'BEGIN {
        printf "%-30s %6.2f s   peak %.0f MiB (bounded, not a target)   patch %d B, %.2f%% of the full package\n", "make a 60 MiB patch", t, p / 1024, s, 100 * s / f
    }'
    compare "apply a 60 MiB patch" largeapply largeextract "corbeth-pack extract" 1.00
}

case $which in
    size) bench_size ;;
    update) bench_update ;;
    apply) bench_apply ;;
    large) bench_large ;;
    all) bench_size; bench_update; bench_apply; bench_large ;;
esac
