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

# The zip a product maker unpacks (scripts/package-win64.sh), alone in a fresh
# Wine prefix with nothing else on the path: the demo product (examples/demo)
# packed and published to a file:// repository with its corbeth-pack.exe,
# installed and uninstalled with its corbeth.exe; files, shortcut and
# uninstall entry checked after each. Paths go to Windows as Z: (Wine's root).
zipcheck() {
    local work=$build/zipcheck entry='HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\CorbethDemo'
    rm -rf "$work" && mkdir -p "$work/home"
    scripts/package-win64.sh "$work" >/dev/null
    (cd "$work" && cmake -E tar xf corbeth-*-win64.zip)
    local bin
    bin=$(ls -d "$work"/corbeth-*-win64/bin)
    zwine() {
        env -u WINEPATH -u QT_PLUGIN_PATH HOME="$work/home" WINEPREFIX="$work/prefix" WINEDEBUG=-all \
            WINEDLLOVERRIDES="mscoree,mshtml=" "$wine" "$@"
    }
    # (run with set -e: a failed check ends the function)
    fail() { echo "win64: zip check failed: $*" >&2; return 1; }
    zwine reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1
    cp -r examples/demo/product "$work/stage"
    sed "s|@REPOSITORY@|file:///Z:$work/repo|" examples/demo/corbeth.json >"$work/stage/corbeth.json"
    zwine "$bin/corbeth-pack.exe" create "Z:$work/stage" -o "Z:$work/demo.tolmpkg" >/dev/null
    zwine "$bin/corbeth-pack.exe" publish "Z:$work/demo.tolmpkg" --repo "Z:$work/repo" --module corbeth-demo \
        --version 1.0.0 >/dev/null
    zwine "$bin/corbeth.exe" install --config "Z:$work/stage/corbeth.json" --path "Z:$work/inst" >/dev/null \
        || fail "corbeth.exe install"
    [ -f "$work/inst/share/README.txt" ] || fail "no README.txt installed"
    local lnk
    lnk=$(find "$work/prefix/drive_c/users" "$work/home" -name 'Corbeth Demo.lnk' 2>/dev/null | head -1)
    [ -n "$lnk" ] || fail "no shortcut Corbeth Demo.lnk"
    zwine reg query "$entry" /v DisplayVersion 2>/dev/null | grep -q '1\.0\.0' || fail "no uninstall entry for 1.0.0"
    zwine "$bin/corbeth.exe" uninstall --config "Z:$work/inst/corbeth.json" >/dev/null || fail "corbeth.exe uninstall"
    # The cleanup tool removes the folder a moment after the uninstall ends.
    for _ in $(seq 60); do [ -e "$work/inst" ] && sleep 0.5; done
    [ ! -e "$work/inst" ] || fail "the install folder is left"
    [ ! -e "$lnk" ] || fail "the shortcut is left"
    ! zwine reg query "$entry" >/dev/null 2>&1 || fail "the uninstall entry is left"
    WINEPREFIX="$work/prefix" "$wineserver" -k || true
    rm -rf "$work"
    echo "win64: the zip installs and uninstalls the demo product in a fresh Wine prefix"
}

# Each Qt Test program prints its Totals line; the counts are added up.
log=$build/ctest.log
set +e
ctest --test-dir "$build" --output-on-failure -V -j"$(nproc)" "$@" >"$log" 2>&1
rc=$?
(set -e; zipcheck)
zrc=$?
set -e
[ $rc -ne 0 ] || rc=$zrc
# Ends what the tests left running in the prefix (Wine's own services too).
WINEPREFIX="$build/wineprefix" "$wineserver" -k || true
grep -E '^[0-9]+: Totals:|tests passed|Total Test time' "$log" | sed 's/^[0-9]*: //' || true
grep -E '^[0-9]+: (FAIL!|SKIP )' -A1 "$log" | sed 's/^[0-9]*: //' | grep -v '^--$' || true
grep -E '^[0-9]+: Totals:' "$log" | awk '{p += $3; f += $5; s += $7}
    END {printf "win64: test functions passed %d, failed %d, skipped %d\n", p, f, s}'
exit $rc
