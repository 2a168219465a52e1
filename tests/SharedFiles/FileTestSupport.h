// Helpers for the file-service tests: a file system mounted for one test, tools that read
// what the code wrote, privileged tools recorded instead of run, an unprivileged child.
#pragma once

#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "Process/Process.h"
#include "ChildTest.h"
#include "TQAuthorization.h"

namespace filestest {

// A tmpfs or ramfs on a fresh folder while the object lives; mounted() is false where the
// test may not mount.
class ScopedMount {
public:
    explicit ScopedMount(std::string where, const char* type = "tmpfs", const char* options = "size=4m")
        : path_(std::move(where))
    {
        std::filesystem::create_directories(path_);
        mounted_ = ::mount(type, path_.c_str(), type, 0, options) == 0;
    }
    ~ScopedMount() { mounted_ && ::umount2(path_.c_str(), MNT_DETACH); }
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
    p.launch();
    corvina::Process::Bytes out;
    p.readToEnd(&out, nullptr);
    return p.waitUntilExit(), std::string(out.begin(), out.end());
}

// The attribute's raw bytes as getfattr reads them; empty when it is absent.
inline std::string getfattr(const std::string& path, const std::string& name)
{
    return toolOutput("/usr/bin/getfattr", {"--only-values", "-n", name, path});
}

// Privileged tools recorded (tool, then arguments) instead of run; each answers `status`.
class Tools {
public:
    using Call = std::vector<std::string>;
    explicit Tools(int32_t status = 0)
    {
        TQAuthorization::setExecHookForTesting([this, status](const std::string& tool, Call args, bool) {
            args.insert(args.begin(), tool);
            std::lock_guard lock(mutex_);
            calls_.push_back(std::move(args));
            return status;
        });
    }
    ~Tools() { TQAuthorization::setExecHookForTesting(nullptr); }
    std::vector<Call> calls()
    {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    std::mutex mutex_;
    std::vector<Call> calls_;
};

// Drops this (child) process to the user nobody, handing it the child's home first.
inline void becomeNobody()
{
    if (::getuid() != 0) return;
    ASSERT_EQ(::chown(corvina::test::childHome().c_str(), 65534, 65534), 0);
    ASSERT_EQ(::setgid(65534), 0);
    ASSERT_EQ(::setuid(65534), 0);
}

}  // namespace filestest
