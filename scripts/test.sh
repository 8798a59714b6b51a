#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test.
# Usage: scripts/test.sh [ctest arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh

build=${CORBETH_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCORBETH_WERROR=ON
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" "$@"
