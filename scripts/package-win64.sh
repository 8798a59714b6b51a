#!/usr/bin/env bash
# Makes corbeth-<version>-win64.zip from the Windows build (scripts/win64.sh):
# bin/ (the programs, the engine and repository-client DLLs, the Qt, OpenSSL,
# libarchive, zlib, zstd, libsodium and MinGW runtime DLLs,
# platforms/qwindows.dll), include/, lib/ (import libraries and the CMake
# package) and docs/.
# Usage: scripts/package-win64.sh [output folder, default: the build folder]
set -euo pipefail
cd "$(dirname "$0")/.."

build=${CORBETH_WIN64_BUILD_DIR:-build-win64}
CORBETH_WIN64_BUILD_ONLY=1 scripts/win64.sh
build=$(cd "$build" && pwd)
out=$(mkdir -p "${1:-$build}" && cd "${1:-$build}" && pwd)
sdk=$(ls -d "$build"/sdk-*/*/ | head -1)
sdk=${sdk%/}
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
name=corbeth-$version-win64
stage=$build/package/$name

rm -rf "$build/package"
cmake --install "$build" --prefix "$stage" >/dev/null
# What the programs and the engine load, and nothing the build only needed
# (Qt Test, Sql, Xml, PrintSupport).
for dll in Qt5Core Qt5Network Qt5Concurrent Qt5Gui Qt5Widgets libcrypto-3-x64 libssl-3-x64 \
    libarchive libzlib1 libzstd libsodium-23; do
    cp "$sdk/bin/$dll.dll" "$stage/bin/"
done
gccdlls=$(dirname "$(x86_64-w64-mingw32-g++-posix -print-libgcc-file-name)")
cp "$gccdlls/libgcc_s_seh-1.dll" "$gccdlls/libstdc++-6.dll" /usr/x86_64-w64-mingw32/lib/libwinpthread-1.dll \
    "$stage/bin/"
mkdir -p "$stage/bin/platforms"
cp "$sdk/plugins/platforms/qwindows.dll" "$stage/bin/platforms/"
mkdir -p "$stage/docs"
cp README.md "$stage/"
cp docs/*.md "$stage/docs/"

rm -f "$out/$name.zip"
(cd "$build/package" && cmake -E tar cf "$out/$name.zip" --format=zip "$name")
echo "package-win64: $out/$name.zip"
