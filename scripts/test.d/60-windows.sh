#!/usr/bin/env bash
# Windows compile check: every library source (the SDK's five folders and the generated string
# tables; not the tests) compiles with MinGW-w64 (Debian's x86_64-w64-mingw32-g++-posix),
# warnings as errors, as the shared library's sources (dllexport). Nothing is linked: no Windows
# build of libcurl or OpenSSL can be had here. Boost, libcurl and OpenSSL headers come from
# /usr/include through a directory that holds only them, so no Linux system header can stand in
# for a Windows one; the libraries' own platform code must take its Windows branch.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
compiler="${TAVLO_MINGW_CXX:-x86_64-w64-mingw32-g++-posix}"
jobs="${TAVLO_JOBS:-$(nproc)}"
scratch="$(mktemp -d "${TMPDIR:-/tmp}/tavlo-windows.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT

command -v "$compiler" >/dev/null || { echo "$compiler is missing (g++-mingw-w64-x86-64-posix)"; exit 1; }
launcher=""
command -v ccache >/dev/null && launcher=ccache

headers="$scratch/include"
mkdir -p "$headers/openssl"
ln -s /usr/include/boost "$headers/boost"
ln -s "$(dirname "$(find /usr/include -path '*/curl/curl.h' | head -1)")" "$headers/curl"
# OpenSSL's configuration headers live in the multiarch directory, the rest in /usr/include.
for header in /usr/include/openssl/*.h /usr/include/*/openssl/*.h; do
    ln -sf "$header" "$headers/openssl/"
done

cmake -DOUT="$scratch/TVKStringTables.cpp" -DDIR="$repo/TavloMessagingSDK/Resources" \
      -P "$repo/cmake/EmbedStrings.cmake"
sources=("$scratch/TVKStringTables.cpp")
for folder in TavloCoreSDK Dispatch Networking SocketIO TavloMessagingSDK; do
    sources+=("$repo/$folder"/*.cpp)
    for source in "$repo/$folder"/Internal/*.cpp; do [ -e "$source" ] && sources+=("$source"); done
done

mkdir "$scratch/objects"
compile() {
    $launcher "$compiler" -std=c++20 -Wall -Wextra -Werror -c -o "$scratch/objects/$(basename "$1").o" \
        -DNOMINMAX -DWIN32_LEAN_AND_MEAN -D_WIN32_WINNT=0x0A00 -DBOOST_ASIO_NO_DEPRECATED \
        -DTAVLO_SHARED -DTAVLO_BUILDING_SDK -DTAVLO_SDK_VERSION='"1.0"' \
        -I"$repo" -isystem "$headers" "$1"
}
export -f compile
export launcher compiler scratch repo headers
if ! printf '%s\n' "${sources[@]}" | xargs -P "$jobs" -I{} bash -c 'compile "$1"' _ {}; then
    echo "a library source does not compile for Windows (see above)"
    exit 1
fi
echo "-- ${#sources[@]} library sources compile for Windows with $compiler"
