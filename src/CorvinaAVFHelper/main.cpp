// The helper's entry point: run the crash check, open the log, read the settings document from the replay path and
// run one movie writing session; its status is the exit status.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "AppController.h"
#include "Dispatch/Dispatch.h"
#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "Foundation/ProcessInfo.h"
#include "Foundation/SystemLog.h"
#include "Foundation/Value.h"
#include "StopSignals.h"
#include "TQBugReporter.h"
#include "TQLocalPaths.h"
#include "TQLog.h"

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

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv, argv + argc);
    bool settingsMode = false;
    for (const auto& argument : arguments)
        if (argument == "-settings") settingsMode = true;
    // A person asking for help or the version gets it and nothing else happens.
    if (!settingsMode) {
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
    }

    corvina::markMainThread();
    // The crash check comes before any other work (a request for the usage or the version is
    // not work); every normal exit, a return from main or exit(), records that this run ended well.
    // The new log is opened first, so that a crash of the last run is noted in this run's log.
    TQLog::createNewLog(std::string("CorvinaAVFHelper"));
    TQBugReporter::startBugReporter();
    std::atexit([] { TQBugReporter::stopBugReporter(); });
    struct sigaction fileSizeLimit {};
    fileSizeLimit.sa_handler = onFileSizeLimit;
    sigemptyset(&fileSizeLimit.sa_mask);
    ::sigaction(SIGXFSZ, &fileSizeLimit, nullptr);

    // A stop signal cancels the session; the session then removes its temporary file and
    // returns 1. Should it not end in time, the signal thread ends the process itself.
    const auto controller = std::make_shared<AppController>();
    if (!settingsMode)
        stopsignals::install(
            [controller](int number) {
                controller->requestStop(
                    corvina::format("Stopped by %s: the movie is not finished and its temporary file is removed.",
                                    stopsignals::signalName(number)));
            },
            std::chrono::milliseconds(800));
    const std::string lastArgument = arguments.empty() ? std::string() : arguments.back();

    if (settingsMode) {
        const corvina::Value result = controller->settingsForMovieFile(lastArgument);
        if (!result.asDictionary()) {
            TQLog::finishWriting();
            return 1;
        }
        // An XML property list: the skeleton of a settings document for this kind of movie.
        std::fputs(result.toXMLPropertyList().c_str(), stdout);
        std::fflush(stdout);
        TQLog::finishWriting();
        return 0;
    }

    const auto startedAt = std::chrono::steady_clock::now();
    // The document is read straight into a typed job: its property-list tree never outlives
    // the reading.
    // As root for the console user, the document is opened with the user's rights; nothing
    // inside the scope logs or starts a thread, so no other thread takes the identity.
    const auto replayPath = TQLocalPaths::replaySettingsPath();
    std::optional<MovieJob> job;
    std::string cause = "there is no Downloads folder";
    if (replayPath) {
        corvina::Error readError;
        try {
            corvina::ScopedFileIdentity asUser(TQLocalPaths::actingUser());
            auto read = MovieJob::readDocument(*replayPath);
            if (read)
                job = std::move(*read);
            else
                readError = read.error();
        } catch (const corvina::PlatformException& exception) {
            readError.localizedDescription = exception.reason();
        }
        cause = readError.localizedDescription.empty() ? "unreadable" : readError.localizedDescription;
    }
    if (!job) {
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

    controller->setSettingsDocumentPath(*replayPath);
    int64_t status = controller->createQuickTimeMovie(std::move(*job));
    if (stopsignals::stopRequested()) status = 1;
    // The log's shutdown at exit drops what is still queued when the writer is far behind (the
    // feeders queue thousands of lines); wait so that the session's closing lines are in the file.
    TQLog::finishWriting();
    return static_cast<int>(static_cast<uint32_t>(status & 0xFFFFFFFF));
}
