// Helpers for the copy, digest, name and archive tests: files of chosen sizes and content,
// and the command-line tools whose answers ours are checked against.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdint>
#include <string>

#include "ChildTest.h"

namespace filestest {

// size bytes of a pattern that differs from one seed to the next (and within a file).
inline std::string patternBytes(size_t size, uint64_t seed = 1)
{
    std::string out(size, '\0');
    uint64_t x = seed * 0x9E3779B97F4A7C15ull + 1;
    for (size_t i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        out[i] = static_cast<char>(x >> 24);
    }
    return out;
}

inline std::string makeFile(const std::string& path, size_t size, uint64_t seed = 1)
{
    corvina::test::writeFile(path, patternBytes(size, seed));
    return path;
}

// Standard output of a shell command line.
inline std::string shell(const std::string& command)
{
    std::string out;
    if (FILE* p = ::popen(command.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
        ::pclose(p);
    }
    return out;
}

inline std::string quoted(const std::string& path)
{
    std::string out = "'";
    for (char c : path) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// The digest a coreutils tool prints for the file ("md5sum", "sha256sum", ...).
inline std::string toolDigest(const std::string& tool, const std::string& path)
{
    const std::string line = shell(tool + " " + quoted(path));
    return line.substr(0, line.find(' '));
}

inline int64_t mtimeSeconds(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_mtim.tv_sec) : -1;
}

inline int64_t fileSize(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

}  // namespace filestest
