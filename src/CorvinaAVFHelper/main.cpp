// The helper's entry point: run the crash check, open the log, read the settings document from the replay path and
// run one movie writing session; its status is the exit status.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "helper/AppController.h"
#include "Dispatch/Dispatch.h"
#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "Foundation/ProcessInfo.h"
#include "Foundation/Result.h"
#include "Foundation/SystemLog.h"
#include "Foundation/Value.h"
#include "helper/StopSignals.h"
#include "tq/TQBugReporter.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQLog.h"

using namespace corvina;
using namespace corvina::tq;
using namespace corvina::helper;

namespace {

constexpr const char* kUsage =
    "Usage: CorvinaAVFHelper [--help | --version | -settings MOVIE]\n"
    "\n"
    "Without arguments the helper assembles the movie that the settings document\n"
    "~/Downloads/corvina.plist describes (raw video and audio data files, their byte ranges,\n"
    "the source formats, the frame rate and the destination) into a QuickTime movie, without\n"
    "re-encoding anything. The movie is written beside its destination and put in place only\n"
    "when it is complete; an existing folder or an input file is never written over.\n"
    "Progress and a summary of each run go to ~/Library/Logs/Brantwell/CorvinaAVFHelper.1.log.\n"
    "\n"
    "  -settings MOVIE  print what the helper knows about MOVIE and exit\n"
    "  --help           print this text and exit\n"
    "  --version        print the version and exit\n"
    "\n"
    "Exit status: 0 when a playable movie was written, 1 otherwise.\n";

// A write beyond the file size limit fails with EFBIG instead of ending the process, so the
// session takes its full-disk path. A handler rather than SIG_IGN: programs the helper starts
// get the default action back.
void onFileSizeLimit(int) {}

// A person asking for help or the version gets it and nothing else happens: the exit status
// when an argument was answered (or refused), nothing when the run goes on.
std::optional<int> answerArguments(const std::vector<std::string>& arguments)
{
    for (size_t i = 1; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (argument == "--version") {
            std::printf("CorvinaAVFHelper %s\n", corvina::processinfo::version().value_or("unknown").c_str());
            return 0;
        }
        std::fprintf(stderr, "CorvinaAVFHelper: unknown argument %s\n\n%s", argument.c_str(), kUsage);
        return 1;
    }
    return std::nullopt;
}

// The crash check comes before any other work (a request for the usage or the version is not
// work); every normal exit, a return from main or exit(), records that this run ended well.
// The new log is opened first, so that a crash of the last run is noted in this run's log.
void startRun()
{
    corvina::markMainThread();
    TQLog::createNewLog(std::string("CorvinaAVFHelper"));
    TQBugReporter::startBugReporter();
    std::atexit([] { TQBugReporter::stopBugReporter(); });
    struct sigaction fileSizeLimit {};
    fileSizeLimit.sa_handler = onFileSizeLimit;
    sigemptyset(&fileSizeLimit.sa_mask);
    ::sigaction(SIGXFSZ, &fileSizeLimit, nullptr);
}

// The -settings mode: the skeleton of a settings document for movies like the one named, as
// an XML property list on standard output.
int printSettings(AppController& controller, const std::string& moviePath)
{
    const corvina::Value result = controller.settingsForMovieFile(moviePath);
    if (result.asDictionary()) {
        std::fputs(result.toXMLPropertyList().c_str(), stdout);
        std::fflush(stdout);
    }
    TQLog::finishWriting();
    return result.asDictionary() ? 0 : 1;
}

// The replay document read straight into a typed job (its property-list tree never outlives
// the reading), or why it could not be. As root for the console user, the document is opened
// with the user's rights; nothing inside the scope logs or starts a thread, so no other thread
// takes the identity.
corvina::Result<MovieJob> readJob(const std::optional<std::string>& replayPath)
{
    if (!replayPath) return corvina::Error{"CorvinaAVFHelper", 0, "there is no Downloads folder"};
    corvina::Error readError;
    try {
        corvina::ScopedFileIdentity asUser(TQLocalPaths::actingUser());
        auto job = MovieJob::readDocument(*replayPath);
        if (job) return job;
        readError = job.error();
    } catch (const corvina::PlatformException& exception) {
        readError.localizedDescription = exception.reason();
    }
    if (readError.localizedDescription.empty()) readError.localizedDescription = "unreadable";
    return readError;
}

// A document that cannot be read ends the run with status 1, said in the system log and in
// the run's summary.
int refuseDocument(const std::optional<std::string>& replayPath, const std::string& cause,
                   std::chrono::steady_clock::time_point startedAt)
{
    const std::string path = replayPath.value_or("(no Downloads folder)");
    corvina::systemLog("Unable to open settings dictionary");
    corvina::systemLog(corvina::format("Cannot read the settings document %@: %@", path, cause));
    RunSummary story;
    story.settingsDocument = path;
    story.noteError(corvina::format("Unable to open settings dictionary %@: %@", path, cause));
    story.elapsedSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - startedAt).count();
    TQLog::appendLog("%@", story.text());
    TQLog::finishWriting();
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv, argv + argc);
    const bool settingsMode = std::find(arguments.begin(), arguments.end(), "-settings") != arguments.end();
    if (!settingsMode)
        if (const auto status = answerArguments(arguments)) return *status;
    startRun();

    // A stop signal cancels the session; the session then removes its temporary file and
    // returns 1. Should it not end in time, the signal thread ends the process itself.
    const auto controller = std::make_shared<AppController>();
    if (settingsMode) return printSettings(*controller, arguments.back());
    stopsignals::install(
        [controller](int number) {
            controller->requestStop(
                corvina::format("Stopped by %s: the movie is not finished and its temporary file is removed.",
                                stopsignals::signalName(number)));
        },
        std::chrono::milliseconds(800));

    const auto startedAt = std::chrono::steady_clock::now();
    const auto replayPath = TQLocalPaths::replaySettingsPath();
    auto job = readJob(replayPath);
    if (!job) return refuseDocument(replayPath, job.error().localizedDescription, startedAt);

    controller->setSettingsDocumentPath(*replayPath);
    int64_t status = controller->createQuickTimeMovie(std::move(*job));
    if (stopsignals::stopRequested()) status = 1;
    // The log's shutdown at exit drops what is still queued when the writer is far behind (the
    // feeders queue thousands of lines); wait so that the session's closing lines are in the file.
    TQLog::finishWriting();
    return static_cast<int>(static_cast<uint32_t>(status & 0xFFFFFFFF));
}
