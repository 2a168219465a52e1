#include <gtest/gtest.h>

#include "Foundation/Exception.h"
#include "TQException.h"
#include "TQLog.h"
#include "TestSupport.h"

using namespace corvina::test;

TEST(TQException, DidTimeoutOnlyForTheExactName)
{
    const struct {
        const char* name;
        bool timeout;
    } rows[] = {
        {"NSPortTimeoutException", true},
        {"NSPortTimeoutExceptionX", false},
        {"nsporttimeoutexception", false},
        {"NSPortTimeout", false},
        {"", false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(TQException::didTimeout(corvina::PlatformException(row.name, "r")), row.timeout) << row.name;
}

TEST(TQException, LogExceptionWritesTheMessageAsItStands)
{
    TempDir dir;
    const std::string expected =
        "Exception in -[TQTaskEx launchAsyncTask]. NSInvalidArgumentException - path %@ has 5% and %d.";
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("Tool");
        std::string message = TQException::logException(
            corvina::PlatformException("NSInvalidArgumentException", "path %@ has 5% and %d"), "-[TQTaskEx launchAsyncTask]");
        TQLog::finishWriting();
        c.equal(message, expected, "returned message");
        auto ls = splitLines(readFile(dir.path() + "/Library/Logs/Brantwell/Tool.1.log"));
        c.equal(ls.empty() ? "" : entryText(ls.back()), expected, "last entry");
    });
    EXPECT_TRUE(r.exitedCleanly());
    EXPECT_EQ(r.failures, "");
    EXPECT_EQ(r.out, TQLog::consoleCopy(expected) + "\n");
}

TEST(TQException, DisabledLoggingStillReturnsTheMessage)
{
    TempDir dir;
    writeFile(dir.path() + "/Library/Preferences/com.brantwell.global.plist",
                      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>disable-logging</key>"
                      "<string>1</string></dict></plist>");
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("Tool");
        c.equal(TQException::logException(corvina::PlatformException("N", "R"), "m"), "Exception in m. N - R.", "message");
    });
    EXPECT_TRUE(r.exitedCleanly());
    EXPECT_EQ(r.failures, "");
    EXPECT_EQ(r.out, "Logging is disabled\n");
}
