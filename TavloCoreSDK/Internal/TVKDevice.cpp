#include "TavloCoreSDK/Internal/TVKDevice.hpp"

#include <sys/utsname.h>

namespace tavlo {
namespace {

const utsname& machine() {
    static const utsname names = [] {
        utsname n{};
        if (uname(&n) != 0) n = utsname{};
        return n;
    }();
    return names;
}

std::string orUnknown(const char* text) { return *text ? std::string(text) : "unknown"; }

}  // namespace

std::string hardwareString() { return orUnknown(machine().machine); }
std::string systemName() { return orUnknown(machine().sysname); }
std::string systemVersion() { return orUnknown(machine().release); }

}  // namespace tavlo
