#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <cfenv>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <filesystem>
#include <map>
#include <thread>

#include "support/TestSupport.h"
#include "Diagnostics/CrashHandler.h"
#include "Dispatch/Dispatch.h"
#include "Foundation/SystemLog.h"
#include "Foundation/UserDefaults.h"
#include "Foundation/Value.h"
#include "tq/TQBugReporter.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQLog.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using corvina::Value;
using namespace corvina::test;
using ::testing::Contains;
using ::testing::HasSubstr;

namespace {

constexpr const char* kProgram = "SharedFilesTests";

std::string reportsFolder(const std::string& home) { return home + "/Library/Logs/DiagnosticReports"; }

std::vector<std::string> filesIn(const std::string& folder)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
        names.push_back(it->path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

TEST(CrashReportName, ProgramLocalTimeAndHost)
{
    struct Case {
        std::time_t when;
        long offset;
        const char* expected;
    } cases[] = {
        {1795444538, 0, "Helper_2026-11-23-143538_box.crash"},
        {1795444538, -15 * 3600, "Helper_2026-11-22-233538_box.crash"},  // the day before
        {1709164800, 3600, "Helper_2024-02-29-010000_box.crash"},        // a leap day
        {0, 0, "Helper_1970-01-01-000000_box.crash"},
    };
    for (const auto& c : cases) EXPECT_EQ(corvina::crashReportName("Helper", c.when, c.offset, "box"), c.expected);
}

// In a child: dies of CORVINA_CRASH_SIGNAL, caused the way a real fault causes it.
TEST(TQBugReporterChild, DISABLED_CrashesWithTheSignal)
{
    const int sig = std::atoi(std::getenv("CORVINA_CRASH_SIGNAL"));
    TQLog::createNewLog(std::string(kProgram));
    TQLog::sharedController().setNoPrinting(true);
    TQBugReporter::startBugReporter();
    TQLog::appendLog("Last words before the crash");
    TQLog::finishWriting();
    // Sent, not a fault: by kill(), or queued with a value by sigqueue().
    if (const char* sent = std::getenv("CORVINA_CRASH_SENT")) {
        if (std::string(sent) == "queue")
            ::sigqueue(::getpid(), sig, sigval{42});
        else
            ::kill(::getpid(), sig);
    }
    switch (sig) {
    case SIGSEGV: {
        // A page with no access: a real fault that no sanitizer stops first.
        auto* page = static_cast<volatile int*>(::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        std::fprintf(stderr, "fault at %p\n", const_cast<int*>(page));
        *page = 1;
        break;
    }
    case SIGBUS: {
        // A mapping past the end of an empty file.
        const std::string path = childHome() + "/empty";
        writeFile(path, "");
        const int fd = ::open(path.c_str(), O_RDONLY);
        auto* page = static_cast<volatile char*>(::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 0));
        [[maybe_unused]] char c = page[0];
        break;
    }
    case SIGILL:
        __builtin_trap();
    case SIGFPE: {
        feenableexcept(FE_DIVBYZERO);
        volatile double zero = 0.0;
        [[maybe_unused]] volatile double infinite = 1.0 / zero;
        break;
    }
    case SIGABRT:
        std::abort();
    }
    FAIL() << "still alive";
}

// Runs in a child: the next launch, which finds the report and hands it over.
TEST(TQBugReporterChild, DISABLED_NextLaunch)
{
    TQLog::createNewLog(std::string(kProgram));
    TQLog::sharedController().setNoPrinting(true);
    TQBugReporter::startBugReporter();
    TQBugReporter::stopBugReporter();
    TQLog::finishWriting();
}

TEST(TQBugReporterCrash, EachFatalSignalLeavesAReportThatTheNextLaunchHandsOver)
{
    const struct {
        int sig;
        const char* line;
        const char* sent = nullptr;  // "kill" or "queue": sent rather than a fault
    } signals[] = {{SIGSEGV, "Signal: 11 (SIGSEGV)"},      {SIGBUS, "Signal: 7 (SIGBUS)"},
                   {SIGILL, "Signal: 4 (SIGILL)"},         {SIGFPE, "Signal: 8 (SIGFPE)"},
                   {SIGABRT, "Signal: 6 (SIGABRT)"},       {SIGSEGV, "Signal: 11 (SIGSEGV)", "kill"},
                   {SIGBUS, "Signal: 7 (SIGBUS)", "queue"}};
    for (const auto& s : signals) {
        SCOPED_TRACE(std::string(s.line) + (s.sent ? std::string(" sent by ") + s.sent : ""));
        TempDir home;
        runTest("TQBugReporterChild.DISABLED_NextLaunch", home.path());  // a run that ends normally
        std::map<std::string, std::string> env{{"CORVINA_CRASH_SIGNAL", std::to_string(s.sig)}};
        if (s.sent) env["CORVINA_CRASH_SENT"] = s.sent;
        const auto crashed = runTest("TQBugReporterChild.DISABLED_CrashesWithTheSignal", home.path(), env);
        EXPECT_EQ(crashed.status, 128 + s.sig) << crashed.output;
        const auto reports = filesIn(reportsFolder(home.path()));
        ASSERT_EQ(reports.size(), 1u) << crashed.output;
        EXPECT_THAT(reports[0],
                    ::testing::MatchesRegex(std::string(kProgram) + "_[0-9]{4}-[0-9]{2}-[0-9]{2}-[0-9]{6}_.+\\.crash"));
        const std::string report = reportsFolder(home.path()) + "/" + reports[0];
        const std::string text = readFile(report);
        EXPECT_THAT(text, ::testing::AllOf(HasSubstr(s.line), HasSubstr("Backtrace:\n"),
                                           HasSubstr("Last words before the crash"), HasSubstr("(main+0x")))
            << "the backtrace names functions";
        if (s.sent) {
            // Who sent it, instead of an address that would be the sender's pid.
            const auto at = text.find("Process: ");
            ASSERT_NE(at, std::string::npos);
            const std::string pid = text.substr(at + 9, text.find('\n', at) - at - 9);
            EXPECT_THAT(text, HasSubstr("Origin: sent by pid " + pid + " (uid " + std::to_string(::getuid()) + ")\n"));
            EXPECT_THAT(text, ::testing::Not(HasSubstr("Fault address")));
        } else if (s.sig == SIGSEGV) {
            // The report names the address that faulted, as the child printed it.
            const auto at = crashed.output.find("fault at ");
            ASSERT_NE(at, std::string::npos) << crashed.output;
            const std::string address = crashed.output.substr(at + 9, crashed.output.find('\n', at) - at - 9);
            EXPECT_THAT(text, HasSubstr("Fault address: " + address + "\n"));
        }

        // However long the runs took, the record is given the state of a crashing run that
        // started in the second the normal one ended in and crashed within the file system
        // clock's tick: the exit and launch dates are equal and the report is stamped with the
        // launch time itself. Only the run serials and the launch time tell.
        {
            corvina::UserDefaults record(kProgram, home / "Library/Preferences");
            const auto launched = record.objectForKey("launch").asDate();
            ASSERT_TRUE(launched && record.objectForKey("exit").asDate());
            record.setObject("exit", Value::date(*launched));
            record.synchronize();
            const std::chrono::duration<double> launchTime(record.objectForKey("launch-time").doubleValue());
            fs::last_write_time(report, std::chrono::file_clock::from_sys(corvina::Date(
                                            std::chrono::duration_cast<corvina::Date::duration>(launchTime))));
        }

        // The next launch: the crash is logged and the report goes to the stand-in.
        writeRecorder(home / "bin/Bug Reporter");
        const auto next = runTest("TQBugReporterChild.DISABLED_NextLaunch", home.path(),
                                  {{"PATH", home / "bin:" + std::string(std::getenv("PATH"))}});
        EXPECT_EQ(next.status, 0) << next.output;
        const auto log = logEntries(home / "Library/Logs/Brantwell/SharedFilesTests.1.log");
        EXPECT_EQ(std::ranges::count(log, "Application crashed on last launch"), 1);
        EXPECT_THAT(log, Contains("Crash report: " + report));
        EXPECT_THAT(log, Contains("Crash report opened with " + home / "bin/Bug Reporter"));
        EXPECT_THAT(log, ::testing::Not(Contains("Last words before the crash"))) << "the new run's log";
        EXPECT_EQ(waitForFile(home / "bin/handed-over.txt"), report + "\n");
    }
}

TEST(TQBugReporterChild, DISABLED_CheckScenarios)
{
    const std::string home = childHome();
    const std::string scenario = std::getenv("CORVINA_SCENARIO");
    const std::string record = home + "/record.plist";
    const std::string reports = reportsFolder(home);
    const auto now = std::chrono::system_clock::now();
    const auto hourAgo = now - std::chrono::hours(1);
    TQLog::createNewLog(std::string(kProgram));
    TQLog::sharedController().setNoPrinting(true);
    writeRecorder(home + "/bin/Bug Reporter");
    auto writeRecord = [&](std::optional<corvina::Date> launch, std::optional<corvina::Date> exit) {
        Value::DictionaryType dict{{"other", Value("kept")}};
        if (launch) dict.emplace("launch", Value::date(*launch));
        if (exit) dict.emplace("exit", Value::date(*exit));
        ASSERT_TRUE(Value(dict).writeToFile(record, true));
    };
    auto plantReport = [&](const std::string& folder, const std::string& name, corvina::Date modified) {
        writeFile(folder + "/" + name, "report");
        fs::last_write_time(folder + "/" + name, std::chrono::file_clock::from_sys(modified));
        return folder + "/" + name;
    };

    if (scenario == "first-and-normal-run") {
        // No launch recorded, or a normal stop: no crash, whatever reports are newer.
        writeRecord(std::nullopt, std::nullopt);
        plantReport(reports, "SharedFilesTests_2026-01-01-000000_h.crash", now);
        EXPECT_EQ(TQBugReporter::checkForCrashes(std::nullopt, record), std::nullopt);
        TQBugReporter::startBugReporter(std::nullopt, record);
        TQBugReporter::stopBugReporter(record);
        plantReport(reports, "SharedFilesTests_2026-02-01-000000_h.crash", now + std::chrono::minutes(1));
        EXPECT_EQ(TQBugReporter::checkForCrashes(std::nullopt, record), std::nullopt);
        const auto saved = Value::fromPropertyListFile(record);
        ASSERT_TRUE(saved);
        EXPECT_EQ((*saved)["other"].stringValue(), "kept");
        ASSERT_TRUE((*saved)["launch"].asDate());
        EXPECT_GE(*(*saved)["exit"].asDate(), *(*saved)["launch"].asDate());
    } else if (scenario == "old-report") {
        writeRecord(hourAgo, std::nullopt);
        plantReport(reports, "SharedFilesTests_2026-01-01-000000_h.crash", hourAgo - std::chrono::minutes(1));
        plantReport(reports, "OtherProgram_2026-01-01-000000_h.crash", now);
        EXPECT_EQ(TQBugReporter::checkForCrashes(std::nullopt, record), std::nullopt);
    } else if (scenario == "newest-by-name-case-ignored") {
        writeRecord(hourAgo, hourAgo - std::chrono::minutes(5));  // exit before launch: crashed
        plantReport(reports, "sharedfilestests_2026-01-01-000000_h.crash", now);
        const auto newest = plantReport(reports, "SHAREDFILESTESTS_2026-03-01-000000_h.crash", now);
        EXPECT_EQ(TQBugReporter::checkForCrashes(std::nullopt, record), newest);
        EXPECT_EQ(waitForFile(home + "/bin/handed-over.txt"), newest + "\n");
    } else if (scenario == "folder-order") {
        // The user's CrashReporter folder comes before the machine-wide DiagnosticReports.
        writeRecord(hourAgo, std::nullopt);
        const std::string machine = home + "/root/Library/Logs/DiagnosticReports";
        const auto machineReport = plantReport(machine, "Tool_2026-09-01-000000_h.crash", now);
        EXPECT_EQ(TQBugReporter::checkForCrashes(std::string("Tool"), record), machineReport) << "found where it is";
        const auto user = plantReport(home + "/Library/Logs/CrashReporter", "Tool_2026-01-01-000000_h.crash", now);
        EXPECT_EQ(TQBugReporter::checkForCrashes(std::string("Tool"), record), user) << "the user's folders first";
    } else if (scenario == "disabled") {
        writeFile(home + "/Library/Preferences/com.brantwell.global.plist",
                  Value(Value::DictionaryType{{"disable-crash-reporter", Value("1")}}).toXMLPropertyList());
        corvina::ScopedSystemLogCapture capture;
        const auto report = plantReport(reports, "SharedFilesTests_2026-01-01-000000_h.crash", now);
        // In the defaults this time: launch recorded, no exit.
        corvina::UserDefaults::standard().setObject("launch", Value::date(hourAgo));
        corvina::UserDefaults::standard().synchronize();
        struct Delegate : TQBugReporterDelegate {
            std::string told;
            void applicationDidCrashWithLog(const std::string& path) override { told = path; }
        } delegate;
        TQBugReporter::startBugReporterWithDelegate(&delegate);
        corvina::runMainQueueUntil([&] { return !delegate.told.empty(); },
                                   std::chrono::steady_clock::now() + std::chrono::seconds(10));
        EXPECT_EQ(delegate.told, report);
        EXPECT_THAT(capture.messages(), Contains("Crash reporter disabled"));
        TQLog::finishWriting();
        // As root the log is the machine-wide one.
        const auto log =
            logEntries(*TQLocalPaths::libraryDirectory(::getuid() != 0) + "/Logs/Brantwell/SharedFilesTests.1.log");
        EXPECT_EQ(std::ranges::count(log, "Crash reporter disabled"), 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_FALSE(fs::exists(home + "/bin/handed-over.txt")) << "nothing opened";
    } else {
        FAIL() << "unknown scenario " << scenario;
    }
}

TEST(TQBugReporterCheck, Scenarios)
{
    for (const char* scenario :
         {"first-and-normal-run", "old-report", "newest-by-name-case-ignored", "folder-order", "disabled"}) {
        TempDir home;
        const auto run = runTest("TQBugReporterChild.DISABLED_CheckScenarios", home.path(),
                                 {{"CORVINA_SCENARIO", scenario},
                                  {"TQ_LOCAL_ROOT", home / "root"},
                                  {"PATH", home / "bin:" + std::string(std::getenv("PATH"))}});
        EXPECT_EQ(run.status, 0) << scenario << "\n" << run.output;
    }
}

TEST(TQBugReporterChown, RecordFilesBelowAHomeGoToTheirUser)
{
    if (::getuid() != 0) GTEST_SKIP() << "needs root to give files away";
    TempDir scratch;
    // Outside /home nothing changes hands.
    const std::string outside = scratch / "record.plist";
    writeFile(outside, "x");
    TQBugReporter::chownPlist(outside);
    struct stat st {};
    ASSERT_EQ(::stat(outside.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);

    const std::string home = "/home/nobody";
    if (fs::exists(home)) GTEST_SKIP() << home << " exists already; not touching it";
    const std::string record = home + "/Library/Preferences/record.plist";
    writeFile(record, "x");
    TQBugReporter::chownPlist(record);
    ASSERT_EQ(::stat(record.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 65534u);
    fs::remove_all(home);
}

namespace {

// An unprivileged user made for the test, with a home folder of its own; removed afterwards.
class ScratchUser {
public:
    ScratchUser() : name_("corvscr" + std::to_string(::getpid() % 100000))
    {
        home_ = base_ / "home";
        fs::create_directories(home_);
        fs::permissions(base_.path(), fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
        ok_ = runProgram({"/usr/sbin/useradd", "-M", "-d", home_, "-s", "/usr/sbin/nologin", name_}).status == 0;
        if (!ok_) return;
        user_ = corvina::UserIdentity::forName(name_);
        ok_ = user_ && ::chown(home_.c_str(), user_->uid, user_->gid) == 0;
    }
    ~ScratchUser()
    {
        if (user_) runProgram({"/usr/sbin/userdel", name_});
    }
    ScratchUser(const ScratchUser&) = delete;
    ScratchUser& operator=(const ScratchUser&) = delete;
    bool ok() const { return ok_; }
    const std::string& name() const { return name_; }
    const std::string& home() const { return home_; }
    uid_t uid() const { return user_->uid; }
    std::string scratch(const std::string& rel) const { return base_ / rel; }

private:
    std::string name_;
    TempDir base_;
    std::string home_;
    std::optional<corvina::UserIdentity> user_;
    bool ok_ = false;
};

uid_t ownerOf(const std::string& path)
{
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 ? st.st_uid : uid_t(-1);
}

}  // namespace

// As root for a user: the crash's files are the user's, planted links are not followed, and
// the report is shown by a program running as the user ("Bug Reporter" on PATH, else xdg-open).
TEST(TQBugReporterAsRoot, FilesAndTheReportProgramAreTheUsers)
{
    if (::getuid() != 0) GTEST_SKIP() << "needs root";
    for (const bool planted : {false, true}) {
        SCOPED_TRACE(planted ? "links planted at the report names; xdg-open" : "no Library folder yet; Bug Reporter");
        ScratchUser user;
        ASSERT_TRUE(user.ok()) << "useradd failed";
        const std::string victim = user.scratch("victim");
        fs::copy_file("/etc/passwd", victim);
        const std::string reports = user.home() + "/Library/Logs/DiagnosticReports";
        if (planted) {
            // The user owns the folders and points every name of the next seconds at the victim.
            fs::create_directories(reports);
            for (const char* rel : {"/Library", "/Library/Logs", "/Library/Logs/DiagnosticReports"})
                ASSERT_EQ(::chown((user.home() + rel).c_str(), user.uid(), 0), 0);
            char host[256] = {};
            ::gethostname(host, sizeof host - 1);
            const std::time_t now = std::time(nullptr);
            std::tm local{};
            ::localtime_r(&now, &local);
            for (std::time_t t = now; t < now + 30; ++t)
                fs::create_symlink(victim,
                                   reports + "/" + corvina::crashReportName(kProgram, t, local.tm_gmtoff, host));
        }
        // The root process's own home is elsewhere: the program must be given the user's.
        const std::map<std::string, std::string> asRoot{{"TQ_CONSOLE_USER", user.name()},
                                                        {"PATH", user.scratch("bin") + ":" + std::getenv("PATH")}};
        auto env = asRoot;
        env["CORVINA_CRASH_SIGNAL"] = std::to_string(SIGSEGV);
        const auto crashed = runTest("TQBugReporterChild.DISABLED_CrashesWithTheSignal", user.scratch("root"), env);
        ASSERT_EQ(crashed.status, 128 + SIGSEGV) << crashed.output;
        EXPECT_EQ(readFile(victim), readFile("/etc/passwd"));
        EXPECT_EQ(ownerOf(victim), 0u);
        std::string report;
        for (const auto& name : filesIn(reports)) {
            if (fs::is_symlink(reports + "/" + name)) continue;
            EXPECT_TRUE(report.empty()) << "a second report " << name;
            report = reports + "/" + name;
            EXPECT_EQ(ownerOf(report), user.uid()) << name;
            EXPECT_THAT(readFile(report), HasSubstr("Signal: 11 (SIGSEGV)"));
        }
        ASSERT_FALSE(report.empty()) << crashed.output;
        for (const char* rel : {"/Library", "/Library/Logs", "/Library/Logs/DiagnosticReports", "/Library/Preferences",
                                "/Library/Preferences/SharedFilesTests.plist"})
            EXPECT_EQ(ownerOf(user.home() + rel), user.uid()) << rel;

        // The stand-in records its ids, groups and home.
        const std::string program = user.scratch(planted ? "bin/xdg-open" : "bin/Bug Reporter");
        writeFile(program,
                  "#!/bin/sh\n{ grep -E '^(Uid|Gid):' /proc/$$/status | tr -s '\\t' ' '; id -G; echo \"$HOME $1\"; }"
                  " > \"$HOME/.ids\" && mv \"$HOME/.ids\" \"$HOME/ids.txt\"\n",
                  fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec | fs::perms::others_read |
                      fs::perms::others_exec);
        fs::permissions(user.scratch("bin"), fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
        const auto next = runTest("TQBugReporterChild.DISABLED_NextLaunch", user.scratch("root"), asRoot);
        EXPECT_EQ(next.status, 0) << next.output;
        const auto ids = corvina::UserIdentity::forUid(user.uid());
        ASSERT_TRUE(ids);
        std::string groups;
        for (const gid_t g : ids->groups) groups += (groups.empty() ? "" : " ") + std::to_string(g);
        const std::string u = std::to_string(ids->uid), g = std::to_string(ids->gid);
        EXPECT_EQ(waitForFile(user.home() + "/ids.txt"), "Uid: " + u + " " + u + " " + u + " " + u + "\nGid: " + g +
                                                             " " + g + " " + g + " " + g + "\n" + groups + "\n" +
                                                             user.home() + " " + report + "\n");
        EXPECT_THAT(logEntries(user.scratch("root/Library/Logs/Brantwell/SharedFilesTests.1.log")),
                    Contains("Crash report opened with " + program));
    }
}

}  // namespace corvina::tq
