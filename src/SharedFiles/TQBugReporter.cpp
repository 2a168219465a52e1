#include "tq/TQBugReporter.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>

#include "Diagnostics/CrashHandler.h"
#include "Dispatch/Dispatch.h"
#include "Foundation/Exception.h"
#include "Foundation/ProcessInfo.h"
#include "Foundation/StringUtils.h"
#include "Foundation/SystemLog.h"
#include "Foundation/UserIdentity.h"
#include "Foundation/UserDefaults.h"
#include "Foundation/Value.h"
#include "Process/Process.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQLog.h"
#include "tq/TQTaskEx.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using corvina::Value;

namespace {

constexpr const char* kLaunchKey = "launch";
constexpr const char* kExitKey = "exit";
// Dates in a property list keep whole seconds only; these tell runs apart within a second.
constexpr const char* kLaunchSerialKey = "launch-serial";  // counts launches
constexpr const char* kExitSerialKey = "exit-serial";      // the serial of the run that ended normally
constexpr const char* kLaunchTimeKey = "launch-time";      // seconds since 1970, with their fraction
constexpr const char* kGlobalPrefs = "com.brantwell.global.plist";
constexpr const char* kBugReporterName = "Bug Reporter";
constexpr const char* kChownTool = "/usr/bin/chown";
constexpr const char* kSetprivTool = "/usr/bin/setpriv";

// This run's launch serial, for the exit record.
std::optional<int64_t> g_runSerial;

Value::DictionaryType readRecordFile(const std::string& path)
{
    auto value = Value::fromPropertyListFile(path);
    if (!value || !value->asDictionary()) return {};
    return *value->asDictionary();
}

// The program's defaults in the acting user's Preferences folder (as root: the console user's).
corvina::UserDefaults programDefaults()
{
    return corvina::UserDefaults(corvina::deletingPathExtension(corvina::processinfo::processName()),
                                 TQLocalPaths::prefsDirectory(true));
}

// The launch record as it is on disk; read with the acting user's rights.
Value::DictionaryType readRecord(const TQBugReporter::RecordPath& plistPath)
try {
    corvina::ScopedFileIdentity asUser(TQLocalPaths::actingUser());
    if (plistPath) return readRecordFile(*plistPath);
    auto defaults = programDefaults();
    Value::DictionaryType dict;
    for (const char* key : {kLaunchKey, kExitKey, kLaunchSerialKey, kExitSerialKey, kLaunchTimeKey}) {
        Value value = defaults.objectForKey(key);
        if (!value.isNone()) dict.emplace(key, std::move(value));
    }
    return dict;
} catch (const corvina::PlatformException&) {
    return {};  // the user's identity could not be taken: nothing is read as root instead
}

// Merges the values into the record and replaces it atomically, as the acting user: the file
// and any folder made for it belong to the user, never to root. Nothing is logged inside the
// scope (a log writer started there would keep the user's identity).
void writeRecord(const TQBugReporter::RecordPath& plistPath, const Value::DictionaryType& values)
{
    try {
        corvina::ScopedFileIdentity asUser(TQLocalPaths::actingUser());
        if (!plistPath) {
            auto defaults = programDefaults();
            for (const auto& [key, value] : values) defaults.setObject(key, value);
            defaults.synchronize();
            return;
        }
        Value::DictionaryType dict = readRecordFile(*plistPath);
        for (const auto& [key, value] : values) dict.insert_or_assign(key, value);
        Value(std::move(dict)).writeToFile(*plistPath, true);
    } catch (const corvina::PlatformException&) {
        return;  // the user's identity could not be taken: nothing is written as root instead
    }
    TQBugReporter::chownPlist(*plistPath);
}

std::optional<corvina::Date> dateIn(const Value::DictionaryType& record, const char* key)
{
    const auto it = record.find(key);
    return it == record.end() ? std::nullopt : it->second.asDate();
}

std::optional<int64_t> integerIn(const Value::DictionaryType& record, const char* key)
{
    const auto it = record.find(key);
    if (it == record.end() || !it->second.isNumber()) return std::nullopt;
    return it->second.integerValue();
}

// Now, on the clock the kernel stamps new files with. It lags the precise real-time clock by
// up to one tick: a report made a moment after a launch timed by the precise clock could be
// stamped before it, and a crash in the first milliseconds of a run would go unnoticed.
corvina::Date fileSystemNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return corvina::Date(std::chrono::duration_cast<corvina::Date::duration>(std::chrono::seconds(now.tv_sec) +
                                                                             std::chrono::nanoseconds(now.tv_nsec)));
}

bool crashReporterDisabled()
{
    const auto prefs = TQLocalPaths::prefsDirectory(true);
    if (!prefs) return false;
    const auto plist = Value::fromPropertyListFile(corvina::appendPathComponent(*prefs, kGlobalPrefs));
    if (!plist || !plist->asDictionary()) return false;
    const Value& value = (*plist)["disable-crash-reporter"];
    if (const std::string* s = value.asString()) return *s == "1";
    return value.isNumber() && value.doubleValue() == 1.0;
}

bool beginsWithIgnoringCase(const std::string& text, const std::string& prefix)
{
    if (text.size() < prefix.size()) return false;
    return std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
}

// The newest report of the program in the folder that was written since the launch: the
// regular file (links are not reports) with the latest modification among those named after
// the program, the last in name order on a tie. A report stamped with the launch time itself
// counts: the file system's clock moves in ticks, and a crash within the launch's tick is
// stamped with it.
std::optional<std::string> reportIn(const std::string& folder, const std::string& program, corvina::Date launch)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (beginsWithIgnoringCase(name, program + "_") && it->is_regular_file(ec) && !it->is_symlink(ec))
            names.push_back(name);
    }
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
            return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));
        });
    });
    std::optional<std::string> newest;
    corvina::Date newestDate = launch;
    for (const auto& name : names) {
        const std::string path = corvina::appendPathComponent(folder, name);
        const auto modified = fs::last_write_time(path, ec);
        if (ec) continue;
        const auto date =
            std::chrono::time_point_cast<corvina::Date::duration>(std::chrono::file_clock::to_sys(modified));
        if (date >= newestDate) {
            newest = path;
            newestDate = date;
        }
    }
    return newest;
}

// The environment of a program started for the user a root process acts for: the caller's,
// with the user's home and names, and the user's runtime folder (root's is of no use to it).
corvina::Process::Environment environmentFor(const corvina::UserIdentity& user)
{
    corvina::Process::Environment env = corvina::Process::currentEnvironment();
    env["HOME"] = user.home;
    env["USER"] = user.name;
    env["LOGNAME"] = user.name;
    const std::string runtime = "/run/user/" + std::to_string(user.uid);
    if (::access(runtime.c_str(), X_OK) == 0)
        env["XDG_RUNTIME_DIR"] = runtime;
    else
        env.erase("XDG_RUNTIME_DIR");
    return env;
}

// Starts the bug-reporting program (else the desktop's opener) on the report, without
// waiting; the program started, or none. A root process acting for a user starts it as that
// user (real, effective and saved ids, groups, home) through setpriv, never as root: the
// program is the user's to run and may be anything the user put beside the executable.
std::optional<std::string> handOver(const std::string& report)
{
    auto program = TQBugReporter::bugReporterPath();
    if (!program) program = corvina::findProgramOnPath("xdg-open");
    if (!program) return std::nullopt;
    corvina::Process task;
    task.setLaunchPath(*program);
    task.setArguments({report});
    if (const auto user = TQLocalPaths::actingUser()) {
        std::string groups;
        for (const gid_t group : user->groups) groups += (groups.empty() ? "" : ",") + std::to_string(group);
        task.setLaunchPath(kSetprivTool);
        task.setArguments({"--reuid=" + std::to_string(user->uid), "--regid=" + std::to_string(user->gid),
                           groups.empty() ? std::string("--clear-groups") : "--groups=" + groups, "--", *program,
                           report});
        task.setEnvironment(environmentFor(*user));
    }
    task.setStandardOutput(corvina::Process::Stream::Null);
    task.setStandardError(corvina::Process::Stream::Null);
    try {
        task.launch();
    } catch (const corvina::PlatformException&) {
        // Not being able to show the report changes nothing for the caller.
        return std::nullopt;
    }
    return program;
}

void installHandler(const std::string& program)
{
    const auto folder = TQBugReporter::ownReportFolder();
    if (!folder) return;
    std::string logPath;
    if (const auto library = TQLocalPaths::libraryDirectory(::getuid() != 0)) {
        logPath = *library + "/Logs/Brantwell/" + program + ".1.log";
    }
    if (!corvina::installCrashHandler({program, *folder, logPath, TQLocalPaths::actingUser()}))
        TQLog::appendLog("Unable to prepare crash reports in %@", *folder);
}

}  // namespace

void TQBugReporter::startBugReporter() { startBugReporter(std::nullopt, std::nullopt, nullptr); }

void TQBugReporter::startBugReporterWithDelegate(TQBugReporterDelegate* delegate)
{
    startBugReporter(std::nullopt, std::nullopt, delegate);
}

void TQBugReporter::startBugReporter(const Name& name, const RecordPath& plistPath, TQBugReporterDelegate* delegate)
{
    const auto report = checkForCrashes(name, plistPath);
    if (report && delegate) {
        corvina::DispatchQueue::main().async(
            [delegate, path = *report] { delegate->applicationDidCrashWithLog(path); });
    }
    const int64_t serial = integerIn(readRecord(plistPath), kLaunchSerialKey).value_or(0) + 1;
    const corvina::Date now = fileSystemNow();
    writeRecord(plistPath, {{kLaunchKey, Value::date(now)},
                            {kLaunchSerialKey, Value(serial)},
                            {kLaunchTimeKey, Value(std::chrono::duration<double>(now.time_since_epoch()).count())}});
    g_runSerial = serial;
    installHandler(programName(name));
}

void TQBugReporter::stopBugReporter(const RecordPath& plistPath)
{
    corvina::removeCrashHandler();
    Value::DictionaryType values{{kExitKey, Value::date(corvina::Clock::now())}};
    if (g_runSerial) values.emplace(kExitSerialKey, Value(*g_runSerial));
    writeRecord(plistPath, values);
}

std::optional<std::string> TQBugReporter::checkForCrashes(const Name& name, const RecordPath& plistPath)
{
    const Value::DictionaryType record = readRecord(plistPath);
    auto launch = dateIn(record, kLaunchKey);
    if (!launch) return std::nullopt;  // no earlier run to judge
    const std::string program = programName(name);
    if (const auto serial = integerIn(record, kLaunchSerialKey)) {
        // The serials tell even runs within one second apart.
        if (integerIn(record, kExitSerialKey) == serial) return std::nullopt;
        if (const auto it = record.find(kLaunchTimeKey); it != record.end() && it->second.isNumber()) {
            // A double holds today's times to a quarter of a microsecond: read back, the
            // launch is taken a microsecond early so that rounding never puts it after a
            // report stamped with it.
            launch = corvina::Date(std::chrono::duration_cast<corvina::Date::duration>(
                std::chrono::duration<double>(it->second.doubleValue() - 1e-6)));
        }
    } else if (const auto exit = dateIn(record, kExitKey); exit && *exit >= *launch) {
        return std::nullopt;
    }

    std::optional<std::string> report;
    for (const auto& folder : reportFolders()) {
        if ((report = reportIn(folder, program, *launch))) break;
    }
    if (!report) return std::nullopt;

    TQLog::appendLog("Application crashed on last launch");
    TQLog::appendLog("Crash report: %@", *report);
    if (crashReporterDisabled()) {
        corvina::systemLog("Crash reporter disabled");
        TQLog::appendLog("Crash reporter disabled");
        return report;
    }
    if (const auto program = handOver(*report))
        TQLog::appendLog("Crash report opened with %@", *program);
    else
        TQLog::appendLog("No program found to open the crash report");
    return report;
}

void TQBugReporter::chownPlist(const std::string& path)
{
    const auto parts = corvina::pathComponents(path);
    // Home folders are /home/{user}: the component after a leading "home" names the owner.
    if (parts.size() < 4 || parts[0] != "/" || parts[1] != "home" || parts[2] == "/") return;
    TQTaskEx::runTask(kChownTool, {parts[2], path}, TQTaskEx::Timeout(5));
}

std::vector<std::string> TQBugReporter::reportFolders()
{
    std::vector<std::string> folders;
    for (bool user : {true, false}) {
        if (const auto logs = TQLocalPaths::logDirectory(user)) {
            folders.push_back(corvina::appendPathComponent(*logs, "CrashReporter"));
            folders.push_back(corvina::appendPathComponent(*logs, "DiagnosticReports"));
        }
    }
    return folders;
}

std::optional<std::string> TQBugReporter::ownReportFolder()
{
    const auto logs = TQLocalPaths::logDirectory(true);
    if (!logs) return std::nullopt;
    return corvina::appendPathComponent(*logs, "DiagnosticReports");
}

std::string TQBugReporter::programName(const Name& name)
{
    if (name && !name->empty()) return *name;
    return corvina::deletingPathExtension(corvina::processinfo::processName());
}

std::optional<std::string> TQBugReporter::bugReporterPath()
{
    const std::string exe = corvina::processinfo::executablePath();
    if (!exe.empty()) {
        const std::string beside =
            corvina::appendPathComponent(corvina::deletingLastPathComponent(exe), kBugReporterName);
        if (corvina::isExecutablePath(beside)) return beside;
    }
    return corvina::findProgramOnPath(kBugReporterName);
}

}  // namespace corvina::tq
