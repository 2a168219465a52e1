// The helper's own crash check: started before anything else, stopped on a normal exit, and
// handing the previous run's crash report to the "Bug Reporter" beside the executable.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <unistd.h>

#include "Foundation/Value.h"
#include "HelperRun.h"

namespace fs = std::filesystem;
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

    // The crashed run's log: the check runs before the new log is opened, so its line goes to
    // the end of that file (which the new log then rotates to .2).
    const std::string logs = home.path() + (::getuid() == 0 ? "/root" : "") + "/Library/Logs/Brantwell";
    writeFile(logs + "/CorvinaAVFHelper.1.log", "2026-11-23 11:00:00 +0000 - Log started\n");

    auto env = home.environment();
    const auto run = runProgram({bin + "/CorvinaAVFHelper"}, env);
    EXPECT_EQ(run.status, 1) << "no settings document: a normal failure";
    EXPECT_THAT(home.logEntries(), Contains("Application crashed on last launch"));
    EXPECT_EQ(waitForFile(bin + "/handed-over.txt"), report + "\n");

    // That run ended normally: its exit is recorded, so the next launch stays quiet.
    const auto record = Value::fromPropertyListFile(prefs + "/CorvinaAVFHelper.plist");
    ASSERT_TRUE(record.has_value());
    const auto launch = (*record)["launch"].asDate();
    const auto exit = (*record)["exit"].asDate();
    ASSERT_TRUE(launch && exit);
    EXPECT_GT(*launch, launched);
    EXPECT_GE(*exit, *launch);
    fs::remove(bin + "/handed-over.txt");
    runProgram({bin + "/CorvinaAVFHelper"}, env);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(fs::exists(bin + "/handed-over.txt"));
}
