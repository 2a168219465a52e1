// The helper's crash check hands the last crash's report to the "Bug Reporter" beside it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <unistd.h>

#include "Foundation/Value.h"
#include "support/HelperRun.h"

namespace fs = std::filesystem;

namespace corvina::helper {
using corvina::Value;
using namespace corvina::test;
using ::testing::Contains;

TEST(HelperCrashCheck, PreviousCrashIsLoggedAndHandedToTheBugReporterBesideIt)
{
    HelperHome home;
    // A copy of the helper with a stand-in bug reporter in the same folder.
    const std::string bin = home.path() + "/bin";
    fs::create_directories(bin);
    fs::copy_file(helperPath(), bin + "/CorvinaAVFHelper");
    writeRecorder(bin + "/Bug Reporter");

    // The last run started an hour ago and never recorded its exit; it left a report.
    const auto launched = std::chrono::system_clock::now() - std::chrono::hours(1);
    const std::string prefs = home.path() + "/Library/Preferences";
    fs::create_directories(prefs);
    ASSERT_TRUE(Value(Value::DictionaryType{{"launch", Value::date(launched)}})
                    .writeToFile(prefs + "/CorvinaAVFHelper.plist", true));
    const std::string report =
        home.path() + "/Library/Logs/DiagnosticReports/CorvinaAVFHelper_2026-11-23-120000_box.crash";
    writeFile(report, "Signal: 11 (SIGSEGV)\n");

    // The crashed run's log: the notice goes into the new run's log, not at the end of this one.
    const std::string logs = home.path() + (::getuid() == 0 ? "/root" : "") + "/Library/Logs/Brantwell";
    writeFile(logs + "/CorvinaAVFHelper.1.log", "2026-11-23 11:00:00 +0000 - Log started\n");

    const auto env = home.environment();
    EXPECT_EQ(runProgram({bin + "/CorvinaAVFHelper"}, env).status, 1) << "no settings document: a normal failure";
    const auto notice = logEntries(logs + "/CorvinaAVFHelper.1.log");
    EXPECT_THAT(notice, Contains("Application crashed on last launch"));
    EXPECT_THAT(notice, Contains("Crash report: " + report));
    EXPECT_THAT(notice, Contains("Crash report opened with " + bin + "/Bug Reporter"));
    EXPECT_EQ(waitForFile(bin + "/handed-over.txt"), report + "\n");

    // That run ended normally: its exit is recorded, so the next launch stays quiet.
    const auto record = Value::fromPropertyListFile(prefs + "/CorvinaAVFHelper.plist");
    ASSERT_TRUE(record && (*record)["launch"].asDate() && (*record)["exit"].asDate());
    EXPECT_GT(*(*record)["launch"].asDate(), launched);
    EXPECT_GE(*(*record)["exit"].asDate(), *(*record)["launch"].asDate());
    fs::remove(bin + "/handed-over.txt");
    runProgram({bin + "/CorvinaAVFHelper"}, env);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(fs::exists(bin + "/handed-over.txt"));

    // A two-second DV job with 48 kHz audio: its per-sample lines stay out of the log, so the
    // runs before it (the notice among them) are still kept, each whole.
    TempDir job;
    const auto doc = makeSampleJob(job.path(), {"--video", "0", "--audio", "2", "--seconds", "2"});
    ASSERT_TRUE(doc.has_value());
    ASSERT_TRUE(home.writeSettings(withKey(*doc, "destFilename", job / "movie.mov")));
    EXPECT_EQ(runProgram({bin + "/CorvinaAVFHelper"}, env).status, 0);
    EXPECT_THAT(logEntries(logs + "/CorvinaAVFHelper.3.log"), Contains("Application crashed on last launch"));
    for (int n = 1; n <= 3; ++n) {
        const auto entries = logEntries(logs + "/CorvinaAVFHelper." + std::to_string(n) + ".log");
        EXPECT_FALSE(entries.empty()) << n;
        EXPECT_THAT(entries, ::testing::Not(Contains("Log truncated at 500KB"))) << n;
        EXPECT_THAT(entries, Contains(::testing::StartsWith("Summary:"))) << n;
    }
}

}  // namespace corvina::helper
