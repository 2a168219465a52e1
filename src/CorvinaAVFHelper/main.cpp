// The helper's entry point: open the log, read the settings document from the replay path and
// run one movie writing session; its status is the exit status.
#include <cstdio>
#include <string>
#include <vector>

#include "AppController.h"
#include "Dispatch/Dispatch.h"
#include "Foundation/SystemLog.h"
#include "Foundation/Value.h"
#include "TQLocalPaths.h"
#include "TQLog.h"

int main(int argc, char** argv)
{
    corvina::markMainThread();
    TQLog::createNewLog(std::string("CorvinaAVFHelper"));

    const std::vector<std::string> arguments(argv, argv + argc);
    bool settingsMode = false;
    for (const auto& argument : arguments)
        if (argument == "-settings") settingsMode = true;
    const std::string lastArgument = arguments.empty() ? std::string() : arguments.back();

    if (settingsMode) {
        AppController controller;
        const corvina::Value result = controller.settingsForMovieFile(lastArgument);
        std::fputs(result.description().c_str(), stdout);
        std::fflush(stdout);
        return 0;
    }

    // The document is read straight into a typed job: its property-list tree never outlives
    // the reading.
    const auto replayPath = TQLocalPaths::replaySettingsPath();
    auto job = replayPath ? MovieJob::readDocument(*replayPath) : std::optional<MovieJob>();
    if (!job) {
        corvina::systemLog("Unable to open settings dictionary");
        return 1;
    }

    int64_t status = 1;
    {
        AppController controller;
        status = controller.createQuickTimeMovie(std::move(*job));
    }
    // The log's shutdown at exit drops what is still queued when the writer is far behind (the
    // feeders queue thousands of lines); wait so that the session's closing lines are in the file.
    TQLog::finishWriting();
    return static_cast<int>(static_cast<uint32_t>(status & 0xFFFFFFFF));
}
