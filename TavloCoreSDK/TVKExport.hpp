#pragma once

// TAVLO_EXPORT marks what the SDK's shared library exports: the classes and functions of the
// installed headers. Everything else is built with hidden visibility and stays inside the library.
//
// The build defines TAVLO_SHARED for a shared SDK (it reaches applications through the CMake
// package and pkg-config) and TAVLO_BUILDING_SDK while it compiles the SDK itself. A static SDK
// needs neither, and the macro is then empty on Windows.
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
