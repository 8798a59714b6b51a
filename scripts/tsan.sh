#!/usr/bin/env bash
# Builds the tests whose code crosses threads with ThreadSanitizer (GCC) in a
# tree of their own and runs them: the module service adapter (its service
# thread), the module service library's downloads (hashing off the thread)
# and the installer flows (operations on the thread pool).
#
# Debian's Qt is not built with ThreadSanitizer, so the locks inside Qt (event
# posting, the thread pool's queue) are invisible to it: every queued call and
# every task handed to the pool shows up as a race, a hundred and more per
# program. The run therefore lists all reports instead of stopping at the
# first; what is worth reading are the races whose both stacks are ours and
# do not pass through Qt's event delivery. Not part of CI for that reason.
# Usage: scripts/tsan.sh [ctest arguments...]
#   CORBETH_TSAN_BUILD_DIR  the build tree (default build-tsan)
set -euo pipefail
cd "$(dirname "$0")/.."

tests=(tst_vindaler tst_vindalmanager tst_installerflows)
build=${CORBETH_TSAN_BUILD_DIR:-build-tsan}
cmake -S . -B "$build" -G Ninja -DCORBETH_SANITIZE=thread -DCORBETH_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target "${tests[@]}"

export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=0:second_deadlock_stack=1}
pattern=$(IFS='|'; echo "^(${tests[*]})\$")
# The nginx fixture the download tests need comes along by itself.
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" -R "$pattern" "$@"
