#include "TQBugReporter.h"

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
#include "Foundation/UserDefaults.h"
#include "Foundation/Value.h"
#include "Process/Process.h"
#include "TQLocalPaths.h"
#include "TQLog.h"
#include "TQTaskEx.h"

namespace fs = std::filesystem;
using corvina::Value;

namespace {

constexpr const char* kLaunchKey = "launch";
constexpr const char* kExitKey = "exit";
constexpr const char* kGlobalPrefs = "com.brantwell.global.plist";
constexpr const char* kBugReporterName = "Bug Reporter";
constexpr const char* kChownTool = "/usr/bin/chown";

std::optional<Value> readRecordFile(const std::string& path)
{
    auto value = Value::fromPropertyListFile(path);
    if (!value || !value->asDictionary()) return std::nullopt;
    return value;
}

std::optional<corvina::Date> recordedDate(const TQBugReporter::RecordPath& plistPath, const char* key)
{
    if (!plistPath) return corvina::UserDefaults::standard().objectForKey(key).asDate();
    const auto record = readRecordFile(*plistPath);
    return record ? (*record)[key].asDate() : std::nullopt;
}

// Stores the current date under the key, in the defaults or in the record file.
void recordDate(const TQBugReporter::RecordPath& plistPath, const char* key)
{
    const Value now = Value::date(corvina::Clock::now());
    if (!plistPath) {
        auto& defaults = corvina::UserDefaults::standard();
        defaults.setObject(key, now);
        defaults.synchronize();
        return;
    }
    const auto record = readRecordFile(*plistPath);
    Value::DictionaryType dict = record ? *record->asDictionary() : Value::DictionaryType();
    dict.insert_or_assign(key, now);
    Value(std::move(dict)).writeToFile(*plistPath, true);
    TQBugReporter::chownPlist(*plistPath);
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

// The newest report of the program in the folder that is later than the launch: reports are
// named with their date after the program's name, so the last in name order is the newest.
std::optional<std::string> reportIn(const std::string& folder, const std::string& program, corvina::Date launch)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (beginsWithIgnoringCase(name, program + "_")) names.push_back(name);
    }
    if (names.empty()) return std::nullopt;
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
            return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));
        });
    });
    const std::string path = corvina::appendPathComponent(folder, names.back());
    const auto modified = fs::last_write_time(path, ec);
    if (ec) return std::nullopt;
    const auto modifiedDate = std::chrono::file_clock::to_sys(modified);
    if (modifiedDate > launch) return path;
    return std::nullopt;
}

// Starts the bug-reporting program (else the desktop's opener) on the report, without waiting.
void handOver(const std::string& report)
{
    auto program = TQBugReporter::bugReporterPath();
    if (!program) program = corvina::findProgramOnPath("xdg-open");
    if (!program) return;
    try {
        TQTaskEx::runTaskAndReturn(*program, {report});
    } catch (const corvina::PlatformException&) {
        // Not being able to show the report changes nothing for the caller.
    }
}

void installHandler(const std::string& program)
{
    const auto folder = TQBugReporter::ownReportFolder();
    if (!folder) return;
    std::string logPath;
    if (const auto library = TQLocalPaths::libraryDirectory(::getuid() != 0)) {
        logPath = *library + "/Logs/Brantwell/" + program + ".1.log";
    }
    corvina::installCrashHandler({program, *folder, logPath});
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
    recordDate(plistPath, kLaunchKey);
    installHandler(programName(name));
}

void TQBugReporter::stopBugReporter(const RecordPath& plistPath)
{
    corvina::removeCrashHandler();
    recordDate(plistPath, kExitKey);
}

std::optional<std::string> TQBugReporter::checkForCrashes(const Name& name, const RecordPath& plistPath)
{
    const auto launch = recordedDate(plistPath, kLaunchKey);
    if (!launch) return std::nullopt;  // no earlier run to judge
    const std::string program = programName(name);
    if (const auto exit = recordedDate(plistPath, kExitKey); exit && *exit >= *launch) return std::nullopt;

    std::optional<std::string> report;
    for (const auto& folder : reportFolders()) {
        if ((report = reportIn(folder, program, *launch))) break;
    }
    if (!report) return std::nullopt;

    TQLog::appendLog("Application crashed on last launch");
    if (crashReporterDisabled()) {
        corvina::systemLog("Crash reporter disabled");
        TQLog::appendLog("Crash reporter disabled");
        return report;
    }
    handOver(*report);
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
