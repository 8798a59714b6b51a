#!/usr/bin/env bash
# Builds a second tree instrumented with AddressSanitizer and
# UndefinedBehaviorSanitizer (GCC) and runs the whole suite in it. Every
# sanitizer report ends the program that made it, so its test fails.
# Usage: scripts/sanitize.sh [ctest arguments...]
#   CORBETH_ASAN_BUILD_DIR  the build tree (default build-asan)
set -euo pipefail
cd "$(dirname "$0")/.."

build=${CORBETH_ASAN_BUILD_DIR:-build-asan}
# GCC leaves out of "undefined" the check of a floating-point value converted
# to an integer type too small for it, a conversion parsers of JSON numbers make.
cmake -S . -B "$build" -G Ninja -DCORBETH_SANITIZE=address,undefined,float-cast-overflow \
    -DCORBETH_BUILD_BENCH=OFF >/dev/null
cmake --build "$build"

# The compile options already make every report fatal; these add the stack of
# an undefined-behaviour report and keep the settings explicit for child
# processes the tests start.
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
# Quoted: the checkout's path may hold spaces.
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=\"$PWD/tests/lsan.supp\"}
# win32_wine cross-builds the Windows units with MinGW and runs them under
# Wine: nothing of it is instrumented, and the normal tree runs it already.
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" -E '^win32_wine$' "$@"
