// Every in-process test of the helper logs into a private home, never the machine's.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "support/HelperRun.h"
#include "tq/TQLog.h"

namespace corvina::helper {
using namespace corvina::tq;

namespace {

class HelperTestEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        home_ = std::make_unique<corvina::test::HelperHome>();
        for (const auto& [name, value] : home_->environment()) ::setenv(name.c_str(), value.c_str(), 1);
        TQLog::createNewLog(std::string("CorvinaAVFHelperTests"));
    }
    void TearDown() override { TQLog::finishWriting(); }

private:
    std::unique_ptr<corvina::test::HelperHome> home_;
};

[[maybe_unused]] const auto* const registered = ::testing::AddGlobalTestEnvironment(new HelperTestEnvironment);

}  // namespace

}  // namespace corvina::helper
