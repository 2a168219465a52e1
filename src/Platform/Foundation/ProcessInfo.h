// Process information: what the platform's process-information object answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace corvina::processinfo {

std::string executablePath();                // /proc/self/exe, resolved
std::string processName();                   // executable's file name
std::optional<std::string> version();        // the build's version (CORVINA_VERSION)
std::string operatingSystemVersionString();  // e.g. "Version 6.1.0 (Debian GNU/Linux 12 (bookworm))"
unsigned processorCount();
uint64_t physicalMemory();           // bytes
std::string globallyUniqueString();  // a fresh UUID-like string, upper-case hex groups

}  // namespace corvina::processinfo
