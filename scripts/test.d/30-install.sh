#!/usr/bin/env bash
# Adopting the static SDK from another project, the ways the README describes: tests/install
# is built with the SDK as a subdirectory (a plain, unoptimised build: it only has to link and
# run), that build's `cmake --install` fills a temporary prefix, tests/install is built again
# against the prefix with find_package, and the README example once more with
# `pkg-config --static`. The three programs then run the example against a fresh emulator, and
# the README must show exactly the code they compiled. (80-packages.sh does the same for the
# shared library and the Debian packages.)
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="$repo/build/install-check"
jobs="${TAVLO_JOBS:-$(nproc)}"
scratch="$(mktemp -d "${TMPDIR:-/tmp}/tavlo-install.XXXXXX")"
source "$repo/scripts/emulator.sh"
cleanup() {
    stop_emulator
    rm -rf "$scratch"
}
trap cleanup EXIT

# Runs a command quietly, showing its output only when it fails.
quietly() {
    local output
    output="$("$@" 2>&1)" || { echo "$output"; return 1; }
}

# The README's example block and the marked part of tests/install/main.cpp must agree.
between() { sed -n "/$2/,/$3/{/$2/d;/$3/d;p}" "$1"; }
if ! diff -u <(between "$repo/tests/install/main.cpp" '^\/\/ README example: begin' \
                   '^\/\/ README example: end') \
             <(between "$repo/README.md" '^<!-- example: connect and send -->' '^```$' \
                   | sed '1d'); then
    echo "README.md's example differs from tests/install/main.cpp (see above)"
    exit 1
fi

echo "-- building tests/install with the SDK as a subdirectory"
quietly cmake -S "$repo/tests/install" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE= \
    -DTAVLO_SDK_SOURCE_DIR="$repo"
quietly ninja -C "$build" -j "$jobs"

echo "-- installing the SDK into a temporary prefix, building tests/install with find_package"
quietly cmake --install "$build" --prefix "$scratch/prefix"
test -f "$scratch/prefix/include/TavloMessagingSDK/TavloMessagingSDK.hpp"
# Only the application's surface is installed: every installed header is reached from the
# umbrella header or the opt-in TVKAsync.hpp, none names an internal one or a transport library
# (TVKAsync.hpp alone may include Boost.Asio), and each compiles alone.
include="$scratch/prefix/include"
reached="$(cd "$include" &&
    closure=(TavloMessagingSDK/TavloMessagingSDK.hpp TavloMessagingSDK/TVKAsync.hpp) && i=0 &&
    while [ "$i" -lt "${#closure[@]}" ]; do
        for next in $(sed -n 's/^#include "\(.*\)"/\1/p' "${closure[$i]}"); do
            [[ " ${closure[*]} " == *" $next "* ]] || closure+=("$next")
        done
        i=$((i + 1))
    done && printf '%s\n' "${closure[@]}" | sort)"
installed="$(cd "$include" && find . -type f | sed 's|^\./||' | sort)"
if [ "$reached" != "$installed" ]; then
    echo "the installed headers are not exactly those the umbrella header reaches:"
    diff <(echo "$reached") <(echo "$installed") || true
    exit 1
fi
# An application's surface, kept small: fewer than 22 headers (besides the opt-in TVKAsync.hpp),
# and no test double among them.
count="$(echo "$installed" | grep -vc 'TVKAsync\.hpp$')"
if [ "$count" -ge 22 ]; then
    echo "$count headers are installed; the application's surface stays under 22:"
    echo "$installed"
    exit 1
fi
if grep -rn 'ManualScheduler' "$include"; then
    echo "an installed header declares a test double (see above)"
    exit 1
fi
if grep -rnE '#include [<"](boost/(asio|beast)|curl/|[A-Za-z]+/Internal/|SocketIO/|Networking/)' "$include" |
       grep -vE '^[^:]*/TVKAsync\.hpp:[0-9]+:#include <boost/asio/'; then
    echo "an installed header includes a private header or a transport library (see above)"
    exit 1
fi
if grep -n 'TVKAsync' "$include/TavloMessagingSDK/TavloMessagingSDK.hpp"; then
    echo "the umbrella header includes the opt-in TVKAsync.hpp (see above)"
    exit 1
fi
mkdir "$scratch/alone"
for header in $installed; do
    printf '#include "%s"\n' "$header" >"$scratch/alone/$(echo "$header" | tr / _).cpp"
done
if ! ls "$scratch"/alone/*.cpp | xargs -P "$jobs" -I{} c++ -std=c++20 -fsyntax-only -I"$include" {}; then
    echo "an installed header does not compile on its own (see above)"
    exit 1
fi

quietly cmake -S "$repo/tests/install" -B "$scratch/consumer" -G Ninja \
    -DCMAKE_BUILD_TYPE= -DCMAKE_PREFIX_PATH="$scratch/prefix"
quietly ninja -C "$scratch/consumer"
# The installed build must not reach back into the checkout for headers.
if grep -q -- "-I$repo" "$scratch/consumer/build.ninja"; then
    echo "the find_package build includes headers from the checkout"
    exit 1
fi

# pkg-config, static: the archive's own dependencies (libcurl, OpenSSL) come with --static.
pkgconfig_dir="$(dirname "$(find "$scratch/prefix" -name TavloMessagingSDK.pc)")"
# shellcheck disable=SC2046
quietly c++ -std=c++20 "$repo/tests/install/main.cpp" -o "$scratch/connect_and_send_pc" \
    $(PKG_CONFIG_PATH="$pkgconfig_dir" pkg-config --static --cflags --libs TavloMessagingSDK)

start_emulator "$scratch"
url="$emulator_url"

for program in "$build/connect_and_send" "$scratch/consumer/connect_and_send" \
               "$scratch/connect_and_send_pc"; do
    answer="$(timeout 60 "$program" "$url")" || { echo "$program failed: $answer"; exit 1; }
    [ "$answer" = sent ] || { echo "$program answered: $answer"; exit 1; }
done
sent="$(curl -s "$url/_control/chatrooms/lobby/messages" | grep -o 'Hello from C++!' | wc -l)"
[ "$sent" -ge 3 ] || { echo "the emulator received $sent of 3 messages"; exit 1; }
echo "-- the three builds connected and sent their message"
