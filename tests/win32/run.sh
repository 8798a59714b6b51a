#!/usr/bin/env bash
# Cross-builds the Win32 units with MinGW-w64 and runs their test under Wine.
#   run.sh SOURCE_DIR BUILD_DIR
# Exits 77 (skipped) when the cross compiler or Wine is not installed.
set -uo pipefail
src=$1
build=$2

cxx=$(command -v x86_64-w64-mingw32-g++-posix)
# Debian's wine64 package keeps its 64-bit loader off PATH.
wine=$(command -v wine64 || { [ -x /usr/lib/wine/wine64 ] && echo /usr/lib/wine/wine64; })
if [ -z "$cxx" ] || [ -z "$wine" ]; then
    echo "skipped: needs x86_64-w64-mingw32-g++-posix and wine64"
    exit 77
fi

set -e
cmake -S "$src/tests/win32" -B "$build/cross" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$src/cmake/mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build/cross"

# Debian has no Qt for Windows, so the Qt adapters (the other _win.cpp files)
# are only compiled for syntax, against the host's Qt headers, which follow the
# compiler's Windows macros.
qt=$(pkg-config --variable=includedir Qt5Core)
for unit in "$src"/src/platform/*_win.cpp; do
    "$cxx" -fsyntax-only -std=c++17 -Wall -Wextra -Werror -DQT_NO_CAST_FROM_ASCII -DQT_NO_FOREACH \
        -isystem "$qt" -isystem "$qt/QtCore" -isystem "$qt/QtNetwork" \
        -I"$src/src" -I"$src/src/platform" -I"$src/include" -I"$src/vindal/include" "$unit"
done

export WINEPREFIX="$build/wineprefix"
export WINEDEBUG=-all
# No Mono or Gecko installer dialogs when the prefix is made.
export WINEDLLOVERRIDES="mscoree,mshtml="
wineserver="$(dirname "$wine")/wineserver64"
[ -x "$wineserver" ] || wineserver=$(command -v wineserver64 || command -v wineserver)
if [ ! -e "$WINEPREFIX/.corbeth-ready" ]; then
    # Wine's display-less driver, so windows can be made and found without X.
    "$wine" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null
    # The running desktop keeps its driver; the next start reads the setting.
    "$wineserver" -w
    touch "$WINEPREFIX/.corbeth-ready"
fi
set +e
"$wine" "$build/cross/corbeth-win32-test.exe"
rc=$?
# Wine's server lingers after the last program; wait so no process outlives the test.
"$wineserver" -w
exit $rc
