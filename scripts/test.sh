#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test.
# Under CI (CI=true, as CI starts .ci/run) it goes on with the checks that
# take build trees of their own (docs/testing.md): the whole suite under
# AddressSanitizer and UndefinedBehaviorSanitizer, every fuzz target for
# 60 s, and the Windows x64 cross build with its suite under Wine
# (scripts/win64.sh, docs/platforms.md).
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
# The Windows stage needs the Windows SDK beside the checkout
# (docs/platforms.md); a machine without it says so loudly and goes on.
sdk=${CORBETH_WIN64_SDK:-../shared/win64-sdk/corbeth-win64-sdk.tar.xz}
if [ -f "$sdk" ]; then
    stage scripts/win64.sh
else
    echo "== scripts/win64.sh: SKIPPED, no Windows SDK at $sdk (set CORBETH_WIN64_SDK)"
fi
# scripts/tsan.sh is not run here: with Debian's uninstrumented Qt,
# ThreadSanitizer cannot see Qt's own locking and reports every queued call
# as a race (docs/testing.md).
