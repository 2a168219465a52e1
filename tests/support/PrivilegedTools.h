// For the file-service tests: privileged tools recorded instead of run, and an unprivileged
// child. Header only, since the support library itself does not link the services.
#pragma once

#include <unistd.h>

#include <climits>

#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tq/TQAuthorization.h"
#include "support/TestSupport.h"

namespace corvina::test {
using namespace corvina::tq;

// Privileged tools recorded (tool, then arguments, and whether it was started without waiting)
// instead of run, so that no test can remove anything it should not; each answers `status`.
// Tools(Tools::run) runs each tool for real, with this process's own rights, and answers its
// exit status.
class Tools {
public:
    using Call = std::vector<std::string>;
    static constexpr int32_t run = INT32_MIN;
    explicit Tools(int32_t status = 0)
    {
        TQAuthorization::setExecHookForTesting([this, status](const std::string& tool, Call args, bool async) {
            args.insert(args.begin(), tool);
            {
                std::lock_guard lock(mutex_);
                calls_.push_back(args);
                async_.push_back(async);
            }
            return status == run ? runProgram(args).status : status;
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
    std::vector<bool> async()
    {
        std::lock_guard lock(mutex_);
        return async_;
    }

private:
    std::mutex mutex_;
    std::vector<Call> calls_;
    std::vector<bool> async_;
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
