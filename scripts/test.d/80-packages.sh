#!/usr/bin/env bash
# The shared library and the Debian packages, as a packager and an application see them:
#  1. a shared build (-DBUILD_SHARED_LIBS=ON) of the library alone;
#  2. its dynamic symbol table holds the tavlo:: interface and nothing else (no Boost, libcurl,
#     OpenSSL or private class);
#  3. cpack makes the runtime and -dev packages, whose Depends are checked, and which are
#     unpacked (dpkg-deb -x) into a scratch root;
#  4. tests/install is built against that root with find_package, with CURL and OpenSSL made
#     unfindable (a shared SDK must not ask for them), and the README example with pkg-config;
#  5. both programs run against the scratch root's library and a fresh emulator.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="$repo/build/shared"
jobs="${TAVLO_JOBS:-$(nproc)}"
scratch="$(mktemp -d "${TMPDIR:-/tmp}/tavlo-packages.XXXXXX")"
source "$repo/scripts/emulator.sh"
cleanup() {
    stop_emulator
    rm -rf "$scratch"
}
trap cleanup EXIT
quietly() {
    local output
    output="$("$@" 2>&1)" || { echo "$output"; return 1; }
}

echo "-- building the shared library"
# Compiled as 30-install.sh compiles the static one (plain build, the SDK's warnings without
# -Werror, which the main build enforces), so the compiler cache serves both.
quietly cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE= -DBUILD_SHARED_LIBS=ON \
    -DTAVLO_TESTS=OFF -DTAVLO_EXAMPLES=OFF -DTAVLO_WERROR=OFF -DCMAKE_INSTALL_PREFIX=/usr
quietly ninja -C "$build" -j "$jobs" TavloMessagingSDK
library="$(readlink -f "$build/libTavloMessagingSDK.so")"
soname="$(objdump -p "$library" | awk '/SONAME/ {print $2}')"
[ "$soname" = libTavloMessagingSDK.so.1 ] || { echo "unexpected SONAME: $soname"; exit 1; }

# Every exported symbol names the tavlo namespace (as a function, variable, vtable, typeinfo or
# a guard of it), and each names a class or function that an installed header declares.
nm -D --defined-only -C "$library" | awk '$2 != "A"' | cut -d' ' -f3- | sed 's/@@TAVLO_1$//' \
    | sort -u >"$scratch/exported"
grep -vE '^((vtable|typeinfo|typeinfo name|VTT|guard variable) for )?(.* )?tavlo::' \
    "$scratch/exported" >"$scratch/foreign" || true
if [ -s "$scratch/foreign" ]; then
    echo "the shared library exports more than the tavlo:: interface:"
    head -20 "$scratch/foreign"
    exit 1
fi
public_headers=("$repo"/TavloCoreSDK/*.hpp "$repo"/Dispatch/*.hpp "$repo"/TavloMessagingSDK/*.hpp)
# The name is that of the symbol itself: its argument list is cut off first, so a parameter of an
# internal type does not stand for the function that takes it.
for name in $(sed -E 's/\(.*//; s/^((vtable|typeinfo|typeinfo name|VTT|guard variable) for )?(.* )?tavlo::(dispatch::|chat_event::|json_read::)?([A-Za-z_0-9]+).*/\5/' \
                  "$scratch/exported" | sort -u); do
    grep -qw -- "$name" "${public_headers[@]}" \
        || { echo "the shared library exports tavlo::$name, which no installed header declares"; exit 1; }
done
echo "-- $(wc -l <"$scratch/exported") exported symbols, all of the installed tavlo:: interface"

# Apple's linker cannot run here, so its export list (cmake/TavloMessagingSDK.exports) is checked
# against what it would be given: the library objects' defined global symbols of default
# visibility (what a Mach-O link would export without a list; Mach-O's extra leading underscore
# dropped). Its patterns must choose every symbol the version script exported, but for the type
# information of lambdas (local types, `_ZTIZ`/`_ZTSZ`), which nothing outside the library needs.
# What they choose besides (private member templates of exported classes, which the version
# script leaves out as their names start with a return type) is of the tavlo namespace alone.
objects="$(ninja -C "$build" -t commands TavloMessagingSDK | grep -- '-o libTavloMessagingSDK' |
    tr ' ' '\n' | grep '\.o$')"
# shellcheck disable=SC2086
(cd "$build" && readelf -sW $objects) |
    awk '$1 ~ /^[0-9]+:$/ && $5 != "LOCAL" && $6 == "DEFAULT" && $7 != "UND" && NF >= 8 {print $8}' |
    sort -u >"$scratch/visible"
grep -v '^#' "$repo/cmake/TavloMessagingSDK.exports" | sed -E 's/^_//; s/\*/.*/g; s/^/^/; s/$/$/' \
    >"$scratch/patterns"
grep -Ef "$scratch/patterns" "$scratch/visible" >"$scratch/macos" || true
nm -D --defined-only "$library" | awk '$2 != "A" {print $3}' | sed 's/@@TAVLO_1$//' |
    grep -v '^_ZT[IS]Z' | sort -u >"$scratch/elf"
if comm -23 "$scratch/elf" "$scratch/macos" | grep .; then
    echo "the macOS export list leaves out the symbols above, which the version script exports"
    exit 1
fi
echo "-- the macOS export list chooses $(wc -l <"$scratch/macos") symbols, all of them in the" \
     "tavlo namespace, every one the version script exports among them"

echo "-- making and unpacking the Debian packages"
quietly cpack --config "$build/CPackConfig.cmake" -B "$scratch/debs"
runtime="$(ls "$scratch"/debs/libtavlomessagingsdk1_*.deb)"
dev="$(ls "$scratch"/debs/libtavlomessagingsdk-dev_*.deb)"
runtime_depends="$(dpkg-deb -f "$runtime" Depends)"
dev_depends="$(dpkg-deb -f "$dev" Depends)"
for needed in libcurl4 libssl3 libboost-json1.81.0 libstdc++6; do
    [[ "$runtime_depends" == *"$needed"* ]] || { echo "runtime Depends lacks $needed: $runtime_depends"; exit 1; }
done
for needed in "libtavlomessagingsdk1 (= 1.0)" libboost1.81-dev libboost-json1.81-dev; do
    [[ "$dev_depends" == *"$needed"* ]] || { echo "-dev Depends lacks $needed: $dev_depends"; exit 1; }
done
[[ "$dev_depends" != *curl* && "$dev_depends" != *libssl* ]] \
    || { echo "-dev asks for libcurl or OpenSSL: $dev_depends"; exit 1; }
if dpkg-deb -c "$runtime" | grep -qE '\.hpp|\.pc|\.cmake'; then
    echo "the runtime package holds development files"; exit 1
fi
root="$scratch/root"
dpkg-deb -x "$runtime" "$root"
dpkg-deb -x "$dev" "$root"
libdir="$(dirname "$(find "$root" -name "$soname" | head -1)")"

echo "-- building tests/install against the unpacked packages (find_package, pkg-config)"
quietly cmake -S "$repo/tests/install" -B "$scratch/consumer" -G Ninja -DCMAKE_BUILD_TYPE= \
    -DCMAKE_PREFIX_PATH="$root/usr" -DCMAKE_DISABLE_FIND_PACKAGE_CURL=ON \
    -DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON
quietly ninja -C "$scratch/consumer" -j "$jobs"
example="$scratch/consumer/connect_and_send"
export PKG_CONFIG_LIBDIR="$libdir/pkgconfig"
# shellcheck disable=SC2046
quietly c++ -std=c++20 "$repo/tests/install/main.cpp" -o "$scratch/connect_and_send_pc" \
    $(pkg-config --cflags --libs TavloMessagingSDK)
for program in "$example" "$scratch/connect_and_send_pc"; do
    resolved="$(LD_LIBRARY_PATH="$libdir" ldd "$program" | awk '/libTavloMessagingSDK/ {print $3}')"
    [[ "$resolved" == "$root"/* ]] || { echo "$program loads the SDK from $resolved"; exit 1; }
done

start_emulator "$scratch"
url="$emulator_url"
for program in "$example" "$scratch/connect_and_send_pc"; do
    answer="$(LD_LIBRARY_PATH="$libdir" timeout 60 "$program" "$url")" \
        || { echo "$program failed: $answer"; exit 1; }
    [ "$answer" = sent ] || { echo "$program answered: $answer"; exit 1; }
done
echo "-- both programs ran on the packaged shared library"
