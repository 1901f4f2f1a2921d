#!/usr/bin/env bash
# Shared set-up of demo.sh and test.sh: installs the Debian packages that are missing (only
# those, with one apt-get update when any is), and the emulator's npm packages from its lock file.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

packages=(cmake ninja-build g++ clang pkg-config libcurl4-openssl-dev libssl-dev
          libboost1.81-dev libboost-json1.81-dev googletest libgtest-dev libgmock-dev
          libbenchmark-dev nodejs npm openssl curl tinyproxy-bin
          libc++-dev libc++abi-dev g++-mingw-w64-x86-64-posix dpkg-dev)

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" \
        || missing+=("$package")
done
# Node and npm may come from outside Debian; a working node 18+ counts as installed.
if command -v node >/dev/null && command -v npm >/dev/null; then
    missing=("${missing[@]/nodejs}"); missing=("${missing[@]/npm}")
fi
missing=($(printf '%s\n' "${missing[@]}" | grep -v '^$' || true))
if ((${#missing[@]})); then
    echo "== Installing missing packages: ${missing[*]}"
    sudo=""; [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi

if [ -f "$repo/emulator/package-lock.json" ]; then
    lock_stamp="$repo/emulator/node_modules/.lock-stamp"
    if [ ! -f "$lock_stamp" ] || ! cmp -s "$repo/emulator/package-lock.json" "$lock_stamp"; then
        echo "== Installing the emulator's npm packages"
        (cd "$repo/emulator" && npm ci --no-audit --no-fund --loglevel=error)
        cp "$repo/emulator/package-lock.json" "$lock_stamp"
    fi
fi
