#!/usr/bin/env bash
# Runs every fuzz target (fuzz/) for a given time on its seed corpus, as many
# at once as there are cores, in a clang build tree of its own instrumented
# with AddressSanitizer and UndefinedBehaviorSanitizer.
#
# Usage: bench/fuzz.sh [seconds per target, default 60] [target...]
#   CORBETH_FUZZ_BUILD_DIR  the build tree (default build-fuzz)
#
# The tree's corpus (fuzz/corpus/<target>) is only read: inputs found new go
# to <build>/fuzz/found/<target>, a crashing input to <build>/fuzz/crashes/
# <target>/, the fuzzer's output to <build>/fuzz/<target>.log. An input that
# found a defect is added to fuzz/corpus/<target>/ with the fix, where the
# fuzz_replay_<target> test of every build checks it again.
# Exits non-zero when any target found a crash.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(config packageindex arguments archive binarypatch)
build=${CORBETH_FUZZ_BUILD_DIR:-build-fuzz}

cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ \
    -DCORBETH_FUZZ=ON -DCORBETH_SANITIZE=address,undefined -DCORBETH_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target corbeth_fuzzers

out=$build/fuzz
# halt_on_error for the undefined-behaviour checks as well; the leak
# suppressions name only what is Qt's own (see the file).
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
# Quoted: the checkout's path may hold spaces.
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=\"$PWD/fuzz/lsan.supp\"}
run() {
    local target=$1
    mkdir -p "$out/found/$target" "$out/crashes/$target"
    # -timeout: one input taking longer is a hang, reported like a crash.
    "$out/corbeth-fuzz-$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$out/crashes/$target/" \
        "$out/found/$target" "fuzz/corpus/$target" >"$out/$target.log" 2>&1
}

jobs=$(nproc)
pids=()
names=()
failed=0
wait_one() {
    local pid=${pids[0]} name=${names[0]}
    pids=("${pids[@]:1}")
    names=("${names[@]:1}")
    if wait "$pid"; then
        echo "fuzz $name: no crash in ${seconds}s, $(grep -m1 -o 'stat::number_of_executed_units: *[0-9]*' "$out/$name.log" | grep -o '[0-9]*$') inputs"
    else
        echo "fuzz $name: CRASH, see $out/$name.log and $out/crashes/$name/" >&2
        tail -n 40 "$out/$name.log" >&2
        failed=1
    fi
}
for target in "${targets[@]}"; do
    [ ${#pids[@]} -lt "$jobs" ] || wait_one
    run "$target" &
    pids+=($!)
    names+=("$target")
done
while [ ${#pids[@]} -gt 0 ]; do
    wait_one
done
exit $failed
