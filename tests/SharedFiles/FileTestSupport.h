// Helpers for the file-service tests: file systems mounted for one test, tools that read
// what the code wrote, and a child that runs as an unprivileged user.
#pragma once

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Process/Process.h"
#include "ServicesTestSupport.h"

namespace filestest {

// A tmpfs or ramfs mounted on a fresh folder for the life of the object; mounted() is false
// where the test may not mount.
class ScopedMount {
public:
    explicit ScopedMount(const std::string& where, const char* type = "tmpfs", const char* options = "size=4m")
        : path_(where)
    {
        std::filesystem::create_directories(where);
        mounted_ = ::mount(type, where.c_str(), type, 0, options) == 0;
    }
    ~ScopedMount()
    {
        if (mounted_) ::umount2(path_.c_str(), MNT_DETACH);
    }
    ScopedMount(const ScopedMount&) = delete;
    ScopedMount& operator=(const ScopedMount&) = delete;
    bool mounted() const { return mounted_; }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
    bool mounted_ = false;
};

#define MOUNT_OR_SKIP(m) \
    if (!(m).mounted()) GTEST_SKIP() << "cannot mount here"

// Standard output of a tool (empty when it did not run).
inline std::string toolOutput(const std::string& tool, const std::vector<std::string>& args)
{
    corvina::Process p;
    p.setLaunchPath(tool);
    p.setArguments(args);
    p.setStandardError(corvina::Process::Stream::Null);
    p.setStandardOutput(corvina::Process::Stream::Pipe);
    try {
        p.launch();
    } catch (...) {
        return {};
    }
    corvina::Process::Bytes out;
    p.readToEnd(&out, nullptr);
    p.waitUntilExit();
    return std::string(out.begin(), out.end());
}

// The attribute's raw bytes as getfattr reads them; empty when it is absent.
inline std::string getfattr(const std::string& path, const std::string& name)
{
    return toolOutput("/usr/bin/getfattr", {"--only-values", "-n", name, path});
}

// Drops this (child) process to the user nobody, handing it the child's home first.
inline void becomeNobody()
{
    if (::getuid() != 0) return;
    ASSERT_EQ(::chown(servicestest::childHome().c_str(), 65534, 65534), 0);
    ASSERT_EQ(::setgid(65534), 0);
    ASSERT_EQ(::setuid(65534), 0);
}

}  // namespace filestest
