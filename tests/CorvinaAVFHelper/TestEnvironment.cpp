// Every in-process test of the helper logs into a private home, never the machine's.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "HelperRun.h"
#include "TQLog.h"

namespace {

class HelperTestEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        home_ = std::make_unique<corvina::test::TempDir>();
        ::setenv("HOME", home_->path().c_str(), 1);
        ::setenv("TQ_CONSOLE_USER", "", 1);
        ::setenv("TQ_LOCAL_ROOT", (home_->path() + "/root").c_str(), 1);
        TQLog::createNewLog(std::string("CorvinaAVFHelperTests"));
    }
    void TearDown() override { TQLog::finishWriting(); }

private:
    std::unique_ptr<corvina::test::TempDir> home_;
};

[[maybe_unused]] const auto* const registered = ::testing::AddGlobalTestEnvironment(new HelperTestEnvironment);

}  // namespace
