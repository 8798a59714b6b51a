#!/usr/bin/env bash
# Cross-builds the whole project for Windows x64 against the Windows SDK (Qt,
# OpenSSL, libarchive... built with MinGW-w64, docs/platforms.md) and runs the
# Qt Test suite under Wine through ctest.
# Usage: scripts/win64.sh [ctest arguments...]
#   CORBETH_WIN64_SDK        the SDK archive (default ../shared/win64-sdk/corbeth-win64-sdk.tar.xz)
#   CORBETH_WIN64_BUILD_DIR  the build folder (default build-win64); the SDK is
#                            unpacked inside it once per archive checksum
#   CORBETH_WIN64_BUILD_ONLY=1  build, do not run the tests
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD

archive=${CORBETH_WIN64_SDK:-$src/../shared/win64-sdk/corbeth-win64-sdk.tar.xz}
build=${CORBETH_WIN64_BUILD_DIR:-build-win64}
mkdir -p "$build"
build=$(cd "$build" && pwd)
[ -f "$archive" ] || { echo "win64: no SDK archive at $archive (set CORBETH_WIN64_SDK)" >&2; exit 1; }

# The SDK, unpacked once per archive; a half-unpacked one is never used.
sum=$(sha256sum "$archive" | cut -c1-16)
sdkdir=$build/sdk-$sum
if [ ! -e "$sdkdir/.unpacked" ]; then
    rm -rf "$sdkdir" "$build"/sdk-*
    mkdir -p "$sdkdir"
    echo "win64: unpacking $(basename "$archive") into $sdkdir"
    tar -C "$sdkdir" -xJf "$archive"
    touch "$sdkdir/.unpacked"
fi
sdk=$(ls -d "$sdkdir"/*/ | head -1)
sdk=${sdk%/}

# Wine: its own prefix in the build folder, no desktop (the display-less
# driver), the DLLs the programs need on its path.
wine=$(command -v wine64 || { [ -x /usr/lib/wine/wine64 ] && echo /usr/lib/wine/wine64; } || command -v wine)
wineserver="$(dirname "$wine")/wineserver64"
[ -x "$wineserver" ] || wineserver=$(command -v wineserver64 || command -v wineserver)
gccdlls=$(dirname "$(x86_64-w64-mingw32-g++-posix -print-libgcc-file-name)")
cat >"$build/wine-run.sh" <<EOF
#!/bin/sh
# Runs a Windows program of this build under Wine (written by scripts/win64.sh).
export WINEPREFIX="$build/wineprefix" WINEDEBUG=\${WINEDEBUG:--all} WINEDLLOVERRIDES="mscoree,mshtml="
export WINEPATH="$build/src;$build/vindal;$sdk/bin;$gccdlls;/usr/x86_64-w64-mingw32/lib"
export QT_PLUGIN_PATH="$sdk/plugins"
case "\$1" in
*/tst_*.exe) ;;
*) exec "$wine" "\$@" ;;
esac
# Qt Test writes its plain output to the debugger, not to a standard output
# that has no console (as under Wine): it goes to a file, printed afterwards.
# So does everything else the program prints: a program it left running must
# not hold ctest's pipe open.
out=\$(mktemp)
"$wine" "\$@" -o "\$out,txt" >"\$out.log" 2>&1
rc=\$?
cat "\$out.log" "\$out"
rm -f "\$out" "\$out.log"
exit \$rc
EOF
chmod +x "$build/wine-run.sh"

export PKG_CONFIG_LIBDIR="$sdk/lib/pkgconfig" PKG_CONFIG_PATH=""
cmake -S . -B "$build" -G Ninja -DCORBETH_WERROR=ON -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$src/cmake/mingw-w64-x86_64.cmake" \
    -DCMAKE_FIND_ROOT_PATH="$sdk" -DCMAKE_PREFIX_PATH="$sdk" \
    -DCMAKE_CROSSCOMPILING_EMULATOR="$build/wine-run.sh" >"$build/configure.log" \
    || { tail -30 "$build/configure.log"; exit 1; }
cmake --build "$build" -- -j"${CORBETH_WIN64_JOBS:-$(nproc)}"
[ "${CORBETH_WIN64_BUILD_ONLY:-}" = 1 ] && exit 0

if [ ! -e "$build/wineprefix/.corbeth-ready" ]; then
    "$build/wine-run.sh" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null
    WINEPREFIX="$build/wineprefix" "$wineserver" -w
    touch "$build/wineprefix/.corbeth-ready"
fi

# Each Qt Test program prints its Totals line; the counts are added up.
log=$build/ctest.log
set +e
ctest --test-dir "$build" --output-on-failure -V -j"$(nproc)" "$@" >"$log" 2>&1
rc=$?
set -e
# Ends what the tests left running in the prefix (Wine's own services too).
WINEPREFIX="$build/wineprefix" "$wineserver" -k || true
grep -E '^[0-9]+: Totals:|tests passed|Total Test time' "$log" | sed 's/^[0-9]*: //' || true
grep -E '^[0-9]+: (FAIL!|SKIP )' -A1 "$log" | sed 's/^[0-9]*: //' | grep -v '^--$' || true
grep -E '^[0-9]+: Totals:' "$log" | awk '{p += $3; f += $5; s += $7}
    END {printf "win64: test functions passed %d, failed %d, skipped %d\n", p, f, s}'
exit $rc
