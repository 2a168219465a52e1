// corvina-recover: finds the frames and audio of damaged movies, raw DV streams and disk
// images and writes each clip found as a movie, with reports of what was found.
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "helper/AppController.h"
#include "Dispatch/Dispatch.h"
#include "Foundation/ProcessInfo.h"
#include "recover/Recovery.h"
#include "helper/StopSignals.h"
#include "tq/TQLog.h"

using namespace corvina;
using namespace corvina::tq;
using namespace corvina::helper;
using namespace corvina::recover;

namespace {

constexpr const char* kUsage =
    "Usage: corvina-recover [--reference MOVIE] [--format ROW] [--jobs N] INPUT OUTDIR\n"
    "\n"
    "Finds the DV, DVCPRO50, DVCPRO HD, ProRes and Motion JPEG frames of INPUT (a damaged\n"
    "movie, a raw DV stream, a disk image or a block device) by their own structure, groups\n"
    "them into clips and writes each clip to OUTDIR as clip-NNN.mov, with the settings document\n"
    "it was assembled from (clip-NNN.plist), report.json and report.html. INPUT is only read;\n"
    "OUTDIR must be on another file system.\n"
    "\n"
    "  --reference MOVIE  a movie made like the lost one: its format, frame size and audio\n"
    "                     layout are used, and the audio between the frames is recovered\n"
    "  --format ROW       the helper's video row (0-4, 10-12, 30-35) instead of a reference\n"
    "  --jobs N           threads that read and search the input (default: one per core)\n"
    "  --help, --version\n"
    "\n"
    "Exit status: 0 when at least one clip was written, 1 when none, 2 on bad usage.\n";

int usageError(const std::string& message)
{
    std::fprintf(stderr, "corvina-recover: %s\n\n%s", message.c_str(), kUsage);
    return 2;
}

std::optional<int64_t> integer(const std::string& text)
{
    int64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::atomic<bool> gStop{false};
std::mutex gControllerMutex;
AppController* gController = nullptr;

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    recover::RecoverOptions options;
    std::vector<std::string> positional;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= arguments.size()) return std::nullopt;
            return arguments[++i];
        };
        if (argument == "--help" || argument == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (argument == "--version") {
            std::printf("corvina-recover %s\n", corvina::processinfo::version().value_or("unknown").c_str());
            return 0;
        }
        if (argument == "--reference") {
            const auto movie = value();
            if (!movie) return usageError("--reference needs a movie");
            options.reference = *movie;
        } else if (argument == "--format") {
            const auto row = value();
            if (!row || !integer(*row)) return usageError("--format needs a row number");
            options.formatRow = *integer(*row);
        } else if (argument == "--jobs") {
            const auto jobs = value();
            if (!jobs || !integer(*jobs) || *integer(*jobs) < 1 || *integer(*jobs) > 256)
                return usageError("--jobs needs a number from 1 to 256");
            options.jobs = unsigned(*integer(*jobs));
        } else if (argument.size() > 1 && argument[0] == '-') {
            return usageError("unknown option " + argument);
        } else {
            positional.push_back(argument);
        }
    }
    if (positional.size() != 2) return usageError("INPUT and OUTDIR are needed");
    options.input = positional[0];
    options.outdir = positional[1];
    std::string expectationProblem;
    if (!recover::expectationFor(options, expectationProblem)) return usageError(expectationProblem);
    if (const auto problem = recover::outputFolderProblem(options.input, options.outdir)) return usageError(*problem);
    if (const auto problem = recover::makeOutputFolder(options.outdir)) return usageError(*problem);

    corvina::markMainThread();
    TQLog::createNewLog(std::string("corvina-recover"));
    // A stop ends the scan or the movie being written; what was written before stays.
    stopsignals::install(
        [](int number) {
            gStop.store(true);
            std::lock_guard lock(gControllerMutex);
            if (gController)
                gController->requestStop(corvina::format("Stopped by %s: the clip being written is left out.",
                                                         stopsignals::signalName(number)));
        },
        std::chrono::milliseconds(10000));
    options.stop = &gStop;
    options.progress = ::isatty(STDERR_FILENO) == 1;
    options.sessionHook = [](AppController* controller) {
        std::lock_guard lock(gControllerMutex);
        gController = controller;
        if (controller && gStop.load()) controller->requestStop("Stopped before the clip was written.");
    };

    const recover::RecoverOutcome outcome = recover::recoverInput(options);
    TQLog::finishWriting();
    if (!outcome.error.empty()) std::fprintf(stderr, "corvina-recover: %s\n", outcome.error.c_str());
    size_t frames = 0;
    for (const auto& clip : outcome.clips)
        if (!clip.moviePath.empty()) frames += clip.clip.frames.size();
    if (options.progress)
        std::fprintf(stderr, "corvina-recover: %zu of %zu clips written (%zu frames)%s; report: %s\n",
                     outcome.moviesWritten(), outcome.clips.size(), frames, outcome.stopped ? ", stopped early" : "",
                     outcome.reportPath.empty() ? "(not written)" : outcome.reportPath.c_str());
    return outcome.moviesWritten() > 0 ? 0 : 1;
}
