#include "TavloCoreSDK/Internal/TVKDevice.hpp"

// The user agents name the machine and its operating system. POSIX systems (Linux, Android,
// macOS, iOS) answer through uname(); Windows through the system information calls, with the
// version from RtlGetVersion, which unlike GetVersionEx does not depend on the application's
// compatibility manifest.
#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <sys/utsname.h>
#endif

namespace tavlo {
namespace {

#if defined(_WIN32)

std::string architectureName(WORD architecture) {
    switch (architecture) {
        case PROCESSOR_ARCHITECTURE_AMD64:
            return "x86_64";
        case PROCESSOR_ARCHITECTURE_ARM64:
            return "aarch64";
        case PROCESSOR_ARCHITECTURE_INTEL:
            return "x86";
        case PROCESSOR_ARCHITECTURE_ARM:
            return "arm";
        default:
            return "unknown";
    }
}

// RTL_OSVERSIONINFOW is declared by the driver headers only; its layout is OSVERSIONINFOW's.
using RtlGetVersionFunction = LONG(WINAPI*)(OSVERSIONINFOW*);

std::string windowsVersion() {
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    if (!ntdll) return "unknown";
    const auto rtlGetVersion = reinterpret_cast<RtlGetVersionFunction>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlGetVersion")));
    OSVERSIONINFOW info{};
    info.dwOSVersionInfoSize = sizeof info;
    if (!rtlGetVersion || rtlGetVersion(&info) != 0) return "unknown";
    return std::to_string(info.dwMajorVersion) + "." + std::to_string(info.dwMinorVersion) + "." +
           std::to_string(info.dwBuildNumber);
}

}  // namespace

std::string hardwareString() {
    static const std::string name = [] {
        SYSTEM_INFO info{};
        GetNativeSystemInfo(&info);
        return architectureName(info.wProcessorArchitecture);
    }();
    return name;
}
std::string systemName() {
    return "Windows";
}
std::string systemVersion() {
    static const std::string version = windowsVersion();
    return version;
}

#else

const utsname& machine() {
    static const utsname names = [] {
        utsname n{};
        if (uname(&n) != 0) n = utsname{};
        return n;
    }();
    return names;
}

std::string orUnknown(const char* text) {
    return *text ? std::string(text) : "unknown";
}

}  // namespace

std::string hardwareString() {
    return orUnknown(machine().machine);
}
std::string systemName() {
    return orUnknown(machine().sysname);
}
std::string systemVersion() {
    return orUnknown(machine().release);
}

#endif

}  // namespace tavlo
