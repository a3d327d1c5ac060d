#!/usr/bin/env bash
# Makes sure the Debian packages the build and the tests need are present.
# As root it installs what is missing with apt-get; otherwise it prints the
# one apt-get line to run and fails.
set -euo pipefail

packages=(cmake make g++ gcc clang libclang-rt-dev clang-format git googletest libgtest-dev libgmock-dev
          binutils-mingw-w64 gcc-mingw-w64-i686 g++-mingw-w64-i686
          gcc-mingw-w64-x86-64 g++-mingw-w64-x86-64 python3 python3-pil imagemagick
          libsane-dev sane-utils pkg-config libedit-dev)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    apt-get install -y -q --no-install-recommends "${missing[@]}"
else
    echo "Missing packages. Run:" >&2
    echo "  sudo apt-get install -y ${missing[*]}" >&2
    exit 1
fi
