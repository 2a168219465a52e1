#include <gtest/gtest.h>

#include "Foundation/Exception.h"
#include "tq/TQException.h"
#include "tq/TQLog.h"
#include "support/TestSupport.h"

namespace corvina::tq {

using namespace corvina::test;

// Logged in a child of its own (the log exists once per process); the second run has logging
// switched off and must still hand back the message.
TEST(TQException, LogExceptionWritesTheMessageAsItStands)
{
    const std::string expected =
        "Exception in -[TQTaskEx launchAsyncTask]. NSInvalidArgumentException - path %@ has 5% and %d.";
    if (inChild()) {
        TQLog::createNewLog("Services");
        EXPECT_EQ(
            TQException::logException(corvina::PlatformException("NSInvalidArgumentException", "path %@ has 5% and %d"),
                                      "-[TQTaskEx launchAsyncTask]"),
            expected);
        TQLog::finishWriting();
        const auto log = logEntries(childLogPath());
        if (childCase() == 0) {
            EXPECT_EQ(log.empty() ? "" : log.back(), expected);
        }
        return;
    }
    for (int disabled = 0; disabled < 2; ++disabled) {
        TempDir home;
        if (disabled)
            writeFile(home / "Library/Preferences/com.brantwell.global.plist",
                      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>disable-logging</key>"
                      "<string>1</string></dict></plist>");
        const TestRun run = runTest({}, home.path(), {{"CORVINA_CASE", std::to_string(disabled)}});
        EXPECT_EQ(run.status, 0) << run.output;
        EXPECT_EQ(run.printed, disabled ? "Logging is disabled\n" : TQLog::consoleCopy(expected) + "\n");
    }
}

}  // namespace corvina::tq
