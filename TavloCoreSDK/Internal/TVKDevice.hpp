#pragma once

#include <string>

namespace tavlo {

/// The machine's model string for user agents: the hardware architecture ("x86_64", "aarch64").
std::string hardwareString();
/// The operating system's name ("Linux").
std::string systemName();
/// The operating system's release ("6.1.0-18-amd64").
std::string systemVersion();

}  // namespace tavlo
