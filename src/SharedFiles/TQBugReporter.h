// The crash check. At launch a program asks whether its previous run ended without recording
// a normal exit and left a crash report behind; if so the crash is logged and the report is
// handed to the bug-reporting program. The same call records the launch and installs the
// handler that writes this run's crash report should it crash; the stop call records the
// normal exit.
//
//   TQBugReporter::startBugReporter();   // first thing in main()
//   ...
//   TQBugReporter::stopBugReporter();    // on every normal exit
//
// The launch record ("launch" and "exit" dates, and the launch serials that tell runs within
// one second apart) lives in the program's user defaults, or in a property-list file given by
// the caller (its other keys are kept). As root it is read and written as the console user.
// Reports are searched in CrashReporter and DiagnosticReports of the user's Logs folder, then
// of the machine-wide Logs folder; this program writes its own into the user's
// DiagnosticReports. What is found, and the program it is opened with, is logged; as root
// that program runs as the console user (ids, groups, home), never as root.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvina::tq {

// Told of a crash found at start-up, on the main thread. Every callback is optional.
class TQBugReporterDelegate {
public:
    virtual ~TQBugReporterDelegate() = default;
    virtual void applicationDidCrashWithLog(const std::string& reportPath) { (void)reportPath; }
};

class TQBugReporter {
public:
    using Name = std::optional<std::string>;
    using RecordPath = std::optional<std::string>;

    TQBugReporter() = delete;

    static void startBugReporter();
    static void startBugReporterWithDelegate(TQBugReporterDelegate* delegate);
    // Name: the program's name in report names (the executable's name when none).
    static void startBugReporter(const Name& name, const RecordPath& plistPath,
                                 TQBugReporterDelegate* delegate = nullptr);
    static void stopBugReporter(const RecordPath& plistPath = std::nullopt);

    // The report left by the previous run when it did not end normally; none otherwise.
    // Logs "Application crashed on last launch" and hands the report over (unless the global
    // preference "disable-crash-reporter" is set).
    static std::optional<std::string> checkForCrashes(const Name& name = std::nullopt,
                                                      const RecordPath& plistPath = std::nullopt);

    // Gives a record file below /home/{user}/ to that user (a root process writes it as root).
    static void chownPlist(const std::string& path);

    // The report folders in search order (folders without a Logs folder are left out).
    static std::vector<std::string> reportFolders();
    // Where this program's own reports go: DiagnosticReports in the user's Logs folder.
    static std::optional<std::string> ownReportFolder();
    static std::string programName(const Name& name);
    // The "Bug Reporter" program beside the executable, else on PATH; none when neither exists.
    static std::optional<std::string> bugReporterPath();
};

}  // namespace corvina::tq
