# The libraries the SDK is built on, found once. Boost.JSON is public (its value type is part of
# the interface); libcurl and OpenSSL are private to the SDK (tavlo_private_dependencies).
include(CheckCXXSourceCompiles)
find_package(Threads REQUIRED)

# Debian's Boost.JSON and GoogleTest binaries are built for libstdc++. With libc++ (the standard
# library of macOS, iOS and the Android NDK) the SDK compiles Boost.JSON into itself instead
# (TavloCoreSDK/Internal/TVKJSONLibrary.cpp) and the tests build GoogleTest from its sources.
check_cxx_source_compiles([[
#include <version>
#ifndef _LIBCPP_VERSION
#error not libc++
#endif
int main() {}
]] TAVLO_LIBCXX)
if(TAVLO_LIBCXX)
    find_package(Boost 1.81 REQUIRED)
    set(tavlo_json_library "")
    set(TAVLO_JSON_IN_SDK ON)
else()
    find_package(Boost 1.81 REQUIRED COMPONENTS json)
    set(tavlo_json_library Boost::json)
    set(TAVLO_JSON_IN_SDK OFF)
endif()

find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
set(tavlo_private_dependencies CURL::libcurl OpenSSL::SSL OpenSSL::Crypto)
