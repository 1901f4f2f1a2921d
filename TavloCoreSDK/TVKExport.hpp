#pragma once

// TAVLO_EXPORT marks what the SDK's shared library exports: the classes and functions of the
// installed headers. Everything else is built with hidden visibility and stays inside the library.
//
// On Windows a DLL's interface is marked dllexport while the SDK is built and dllimport where an
// application uses it: a shared build there defines TAVLO_SHARED (and passes it on through the
// CMake package and the pkg-config file), the SDK's own sources TAVLO_BUILDING_SDK. A static
// SDK defines neither, and the macro is then empty. Elsewhere it only makes the symbol visible,
// the same for a static and a shared SDK.
#if defined(_WIN32) || defined(__CYGWIN__)
#if !defined(TAVLO_SHARED)
#define TAVLO_EXPORT
#elif defined(TAVLO_BUILDING_SDK)
#define TAVLO_EXPORT __declspec(dllexport)
#else
#define TAVLO_EXPORT __declspec(dllimport)
#endif
#elif defined(__GNUC__) || defined(__clang__)
#define TAVLO_EXPORT __attribute__((visibility("default")))
#else
#define TAVLO_EXPORT
#endif
