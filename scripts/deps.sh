#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need,
# only those that are missing. Safe to run again.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config ccache binutils
    qtbase5-dev qtbase5-dev-tools
    xvfb xauth
    libarchive-dev libsodium-dev libssl-dev libzstd-dev
    nginx-light openssl
    libarchive-tools zstd curl
    g++-mingw-w64-x86-64-posix wine64 xz-utils
    # The fuzz targets: clang with libFuzzer and its sanitizer runtimes (GCC's
    # own runtimes for the sanitizer builds come with build-essential).
    clang libclang-rt-dev
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq "${missing[@]}"
