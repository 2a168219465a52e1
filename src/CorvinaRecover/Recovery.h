// One recovery run: check the input and the output folder, scan the input for frames, group
// them into clips, and for each clip write a settings document whose byte ranges point into
// the input, assemble its movie with the helper's session, and sum everything up in
// report.json and report.html. Nothing is ever written to the input, and nothing in the
// output folder is written over: a name in use gets the next free number.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "recover/Clips.h"
#include "recover/Scanner.h"

namespace corvina::helper {
class AppController;
}  // namespace corvina::helper

namespace corvina::recover {
using namespace corvina::helper;

struct RecoverOptions {
    std::string input;
    std::string outdir;
    std::optional<std::string> reference;  // a movie whose settings the essence shares
    std::optional<int64_t> formatRow;      // the helper's video row, instead of a reference
    bool progress = false;                 // progress lines on standard error
    bool reportPictures = true;            // thumbnails and waveforms in report.html
    unsigned jobs = 0;                     // the scan's threads (0: one per core)
    const std::atomic<bool>* stop = nullptr;
    // Called with the controller of each movie while it is being written, and with null
    // after it, so that a stop request can reach it.
    std::function<void(AppController*)> sessionHook;
};

struct ClipOutcome {
    Clip clip;
    std::string moviePath;     // empty when the movie was not written
    std::string settingsPath;  // the settings document the movie was made from
    std::string error;
};

struct RecoverOutcome {
    std::vector<ClipOutcome> clips;
    std::vector<Rejection> rejectedOutsideClips;
    uint64_t rejectionsDropped = 0;
    uint64_t inputBytes = 0, bytesScanned = 0;
    double scanSeconds = 0;
    double scanCpuSeconds = 0;  // of all the scan's threads
    bool stopped = false;
    std::string error;  // a reason the run could not start or scan
    std::string reportPath, htmlPath;

    size_t moviesWritten() const;
};

// Why OUTDIR may not take the output of INPUT: the same file system, or one on the block
// device INPUT names. Nullopt when it may.
// An OUTDIR that does not exist yet is judged by the folder it would be made in.
std::optional<std::string> outputFolderProblem(const std::string& input, const std::string& outdir);
// Makes OUTDIR when it does not exist yet (one level, as mkdir does); a message on failure.
std::optional<std::string> makeOutputFolder(const std::string& outdir);

// What the reference movie or the format row fixes; a message on failure.
std::optional<Expectation> expectationFor(const RecoverOptions& options, std::string& error);

RecoverOutcome recoverInput(const RecoverOptions& options);

}  // namespace corvina::recover
