#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test.
# Under CI (CI=true, as CI starts .ci/run) it goes on with the checks that
# take their own build trees (docs/testing.md): the whole suite under
# AddressSanitizer and UndefinedBehaviorSanitizer, every fuzz target for 60 s,
# and the ThreadSanitizer tests when the run has time left for them.
# Usage: scripts/test.sh [ctest arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh

build=${CORBETH_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCORBETH_WERROR=ON
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" "$@"
[ "${CI:-}" = true ] || exit 0

stage() {
    local start=$SECONDS
    "$@"
    echo "== $1: $((SECONDS - start)) s (run so far $((SECONDS / 60)) min)"
}
echo "== normal tree: $SECONDS s"
stage scripts/sanitize.sh "$@"
stage bench/fuzz.sh 60
# The run must end within 40 minutes; the ThreadSanitizer tree is built and
# run in about 12 of them on two cores.
if [ $SECONDS -le $(((40 - 12) * 60)) ]; then
    stage scripts/tsan.sh
else
    echo "== scripts/tsan.sh skipped: $((SECONDS / 60)) min gone, not enough left of the 40"
fi
