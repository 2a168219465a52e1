// The controller: a run's replay copy, its summary and its stop around one MovieSession.
#include "helper/AppController.h"

#include <chrono>
#include <filesystem>
#include <system_error>

#include "Foundation/Exception.h"
#include "Foundation/FileOperations.h"
#include "Foundation/Format.h"
#include "helper/MovieSession.h"
#include "QuickTime/AssetWriter.h"
#include "tq/TQException.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQLog.h"

namespace corvina::helper {
using namespace corvina::tq;

using namespace corvina;

namespace {

constexpr const char* kSessionMethod = "-[AppController createQuickTimeMovie:]";

}  // namespace

AppController::AppController() = default;

AppController::~AppController() = default;

std::string AppController::description() const { return format("<AppController: %p>", static_cast<const void*>(this)); }

RunSummary AppController::summary() const
{
    std::lock_guard lock(mutex_);
    return summary_;
}

int64_t AppController::fail(const std::string& line)
{
    TQLog::appendLog("%@", line);
    std::lock_guard lock(mutex_);
    summary_.noteError(line);
    return 1;
}

void AppController::noteTrackError(bool video, const std::string& what)
{
    std::lock_guard lock(mutex_);
    std::string& slot = video ? summary_.video.firstError : summary_.audio.firstError;
    if (slot.empty()) slot = what;
}

void AppController::publishWriter(AssetWriter* writer)
{
    std::lock_guard lock(mutex_);
    liveWriter_ = writer;
    if (writer && stopRequested_.load()) writer->cancelWriting();
}

void AppController::requestStop(const std::string& reason)
{
    if (stopRequested_.exchange(true)) return;
    TQLog::appendLog("%@", reason);
    std::lock_guard lock(mutex_);
    summary_.noteError(reason);
    if (liveWriter_) liveWriter_->cancelWriting();
}

int64_t AppController::createQuickTimeMovie(const Value& settings)
{
    // The document goes back to the replay path first, so the last movie can be assembled
    // again by starting the helper without arguments. A document that is already there is
    // left exactly as it is.
    actor_ = TQLocalPaths::actingUser();
    const auto replayPath = TQLocalPaths::replaySettingsPath();
    if (replayPath) {
        try {
            ScopedFileIdentity asUser(actor_);
            const auto present = Value::fromPropertyListFile(*replayPath);
            if (!present || !(*present == settings)) settings.writeToFile(*replayPath, true);
        } catch (const PlatformException&) {
            // No copy without the user's rights; the session reports the identity itself.
        }
    }
    return runSession(MovieJob::fromSettings(settings), replayPath);
}

int64_t AppController::createQuickTimeMovie(MovieJob job)
{
    // The job's own document goes to the replay path (beside, then renamed), unless it was
    // read from there.
    actor_ = TQLocalPaths::actingUser();
    const auto replayPath = TQLocalPaths::replaySettingsPath();
    if (replayPath && !job.documentPath.empty()) {
        // Read and written with the acting user's rights, through a fresh file beside the
        // replay path that is then renamed over it.
        try {
            ScopedFileIdentity asUser(actor_);
            std::error_code ec;
            if (!std::filesystem::equivalent(job.documentPath, *replayPath, ec))
                if (const auto bytes = Value::propertyListFileBytes(job.documentPath))
                    writeFileAtomically(*replayPath, *bytes);
        } catch (const PlatformException&) {
            // No copy without the user's rights; the session reports the identity itself.
        }
    }
    if (settingsDocumentPath_.empty() && !job.documentPath.empty()) settingsDocumentPath_ = job.documentPath;
    return runSession(job, replayPath);
}

int64_t AppController::runSession(const MovieJob& job, const std::optional<std::string>& replayPath)
{
    const auto startedAt = std::chrono::steady_clock::now();
    editSummary([&](RunSummary& summary) {
        summary = RunSummary{};
        summary.settingsDocument = settingsDocumentPath_.empty() ? replayPath.value_or("") : settingsDocumentPath_;
    });

    MovieSession session(*this, job);
    int64_t status = 1;
    try {
        if (!stopRequested_.load()) status = session.run();
    } catch (const PlatformException& exception) {
        TQException::logException(exception, kSessionMethod);
        fail(format("Exception in %s: %@", kSessionMethod, exception.reason()));
        status = 1;
    } catch (...) {
        session.close();
        throw;
    }
    if (stopRequested_.load()) status = 1;
    session.close();

    RunSummary story = summary();
    session.tellSummary(story);
    story.status = status;
    story.elapsedSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - startedAt).count();
    editSummary([&](RunSummary& summary) { summary = story; });
    TQLog::appendLog("%@", story.text());
    return status;
}

}  // namespace corvina::helper
