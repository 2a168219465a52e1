// For the file-service tests: privileged tools recorded instead of run, and an unprivileged
// child. Header only, since the support library itself does not link the services.
#pragma once

#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TQAuthorization.h"
#include "TestSupport.h"

namespace corvina::test {

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
    Tools(const Tools&) = delete;
    Tools& operator=(const Tools&) = delete;
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
    ASSERT_EQ(::chown(childHome().c_str(), 65534, 65534), 0);
    ASSERT_EQ(::setgid(65534), 0);
    ASSERT_EQ(::setuid(65534), 0);
}

}  // namespace corvina::test
