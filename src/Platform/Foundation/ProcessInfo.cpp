#include "ProcessInfo.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <random>
#include <thread>

#include "Format.h"

#ifndef CORVINA_VERSION
#define CORVINA_VERSION ""
#endif

namespace corvina::processinfo {

std::string executablePath()
{
    std::array<char, 4096> buf{};
    const ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size() - 1);
    if (n <= 0) return {};
    return std::string(buf.data(), static_cast<size_t>(n));
}

std::string processName()
{
    const std::string path = executablePath();
    if (path.empty()) {
        // /proc unavailable: the name the kernel keeps for the process.
        std::ifstream comm("/proc/self/comm");
        std::string name;
        std::getline(comm, name);
        return name;
    }
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::optional<std::string> version()
{
    const std::string v = CORVINA_VERSION;
    if (v.empty()) return std::nullopt;
    return v;
}

namespace {

std::string osPrettyName()
{
    for (const char* file : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream in(file);
        std::string line;
        while (std::getline(in, line)) {
            if (line.rfind("PRETTY_NAME=", 0) != 0) continue;
            std::string value = line.substr(12);
            if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
                value = value.substr(1, value.size() - 2);
            return value;
        }
    }
    return {};
}

}  // namespace

std::string operatingSystemVersionString()
{
    struct utsname uts {};
    std::string release = uname(&uts) == 0 ? uts.release : "unknown";
    const std::string pretty = osPrettyName();
    if (pretty.empty()) return format("Version %@", release);
    return format("Version %@ (%@)", release, pretty);
}

unsigned processorCount()
{
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    if (online > 0) return static_cast<unsigned>(online);
    const unsigned hc = std::thread::hardware_concurrency();
    return hc > 0 ? hc : 1;
}

uint64_t physicalMemory()
{
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0) return 0;
    return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
}

std::string globallyUniqueString()
{
    std::array<unsigned char, 16> bytes{};
    bool filled = false;
    if (FILE* f = std::fopen("/dev/urandom", "rb")) {
        filled = std::fread(bytes.data(), 1, bytes.size(), f) == bytes.size();
        std::fclose(f);
    }
    if (!filled) {
        std::random_device rd;
        for (auto& b : bytes) b = static_cast<unsigned char>(rd());
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
        out += hex[bytes[i] >> 4];
        out += hex[bytes[i] & 0x0F];
    }
    return out;
}

}  // namespace corvina::processinfo
