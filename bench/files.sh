#!/usr/bin/env bash
# Installer file-operation benchmarks against the standard tools, in the same
# run, on the same files. Prints wall times, ratio (ours / theirs) against the
# target, and peak memory.
#
#   copy     cutFiles of a ~400 MB / ~6,000-file tree   vs  cp -a    (target 1.30)
#   remove   removeFiles of that tree                   vs  rm -rf   (target 1.50)
#   bigfile  cutFiles of one 1 GiB file without a line break: peak under 64 MiB
#
# Usage: bench/files.sh [build-dir]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
bench=$build/bench/corbeth-bench-files
[[ -x $bench ]] || { echo "no corbeth-bench-files in $build (ninja -C $build corbeth-bench-files)" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/corbeth-filebench.XXXXXX")
trap 'rm -rf "$work"' EXIT

# The tree: regular files of real software (shared libraries, data files),
# without links or hidden names, which the installer's copy does not take.
python3 - "$work/tree" <<'PY'
import os, random, shutil, sys
dest = sys.argv[1]
files = []
for top in ("/usr/lib", "/usr/share"):
    for base, dirs, names in os.walk(top):
        dirs[:] = [d for d in dirs if not d.startswith(".") and not os.path.islink(os.path.join(base, d))]
        for n in names:
            p = os.path.join(base, n)
            if not n.startswith(".") and os.path.isfile(p) and not os.path.islink(p):
                s = os.path.getsize(p)
                if 0 < s < 8 << 20:
                    files.append((p, s))
random.Random(7).shuffle(files)
# A share of larger files for the bytes, then many small ones for the count.
big = [f for f in files if f[1] >= 256 << 10]
small = [f for f in files if f[1] < 256 << 10]
total = count = 0
for p, s in big + small:
    if count >= 6000 or total + s > 400 << 20 or (s >= 256 << 10 and total + s > 350 << 20):
        continue
    t = os.path.join(dest, os.path.relpath(p, "/usr"))
    os.makedirs(os.path.dirname(t), exist_ok=True)
    shutil.copyfile(p, t)
    total += s
    count += 1
print(f"tree: {count} files, {total >> 20} MB")
PY

ratio() { # <label> <ours> <theirs> <their name> <target> <peak KiB>
    awk -v l="$1" -v o="$2" -v t="$3" -v n="$4" -v g="$5" -v p="$6" 'BEGIN {
        r = o / t
        printf "%-7s installer %6.2f s   %-6s %6.2f s   ratio %.2f (target %.2f) %s   peak %.1f MiB\n",
               l, o, n, t, r, g, (r <= g ? "ok" : "SLOW"), p / 1024 }'
}
seconds() { local s e; s=$(date +%s.%N); "$@" >/dev/null; e=$(date +%s.%N); echo "$e - $s" | bc; }

cat "$(find "$work/tree" -type f | head -1)" >/dev/null
cp -a "$work/tree" "$work/warm" && rm -rf "$work/warm"   # both sides start with a warm cache

theirs=$(seconds cp -a "$work/tree" "$work/cp")
read -r ours peak < <("$bench" copy "$work/tree" "$work/ours")
diff -r "$work/tree" "$work/ours" >/dev/null || { echo "copy differs" >&2; exit 1; }
ratio copy "$ours" "$theirs" "cp -a" 1.30 "$peak"

theirs=$(seconds rm -rf "$work/cp")
read -r ours peak < <("$bench" remove "$work/ours")
[[ ! -e $work/ours ]] || { echo "remove left files" >&2; exit 1; }
ratio remove "$ours" "$theirs" "rm -rf" 1.50 "$peak"

rm -rf "$work/tree"
mkdir -p "$work/big"
head -c 1073741824 /dev/zero | tr '\0' 'x' > "$work/big/one.bin"
read -r ours peak < <("$bench" copy "$work/big" "$work/bigout")
cmp -s "$work/big/one.bin" "$work/bigout/one.bin" || { echo "big copy differs" >&2; exit 1; }
awk -v o="$ours" -v p="$peak" 'BEGIN { printf "bigfile installer %6.2f s   1 GiB, no line break   peak %.1f MiB (target < 64) %s\n",
    o, p / 1024, (p < 65536 ? "ok" : "OVER") }'
