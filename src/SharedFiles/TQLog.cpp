#include "tq/TQLog.h"

#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

#include "Foundation/Date.h"
#include "Foundation/Exception.h"
#include "Foundation/StringUtils.h"
#include "tq/TQLogFile.h"

namespace corvina::tq {

namespace {

// The class-level lock: creation of the shared controller.
std::mutex& classMutex()
{
    static std::mutex m;
    return m;
}

std::terminate_handler previousTerminate = nullptr;

[[noreturn]] void onTerminate()
{
    static std::atomic<bool> entered{false};
    if (!entered.exchange(true)) TQLog::reportUncaughtException(std::current_exception());
    if (previousTerminate) previousTerminate();
    std::abort();
}

}  // namespace

namespace {

struct FileSink final : TQLogSink {
    TQLogFile* file = nullptr;
    void write(TQLogTexts& texts) override { file->write(texts); }
};

}  // namespace

TQLog::TQLog()
    : sink_(std::make_unique<FileSink>()),
      core_(*sink_),
      file_(std::make_unique<TQLogFile>(core_.loggingDisabledFlag(), core_.noPrintingFlag()))
{
    static_cast<FileSink&>(*sink_).file = file_.get();
    std::atexit([] { TQLog::willTerminate(); });
    pthread_atfork(&TQLog::atforkPrepare, &TQLog::atforkParent, &TQLog::atforkChild);
    previousTerminate = std::set_terminate(&onTerminate);
}

TQLog::~TQLog() { shutdown(); }

TQLog& TQLog::makeShared()
{
    static std::once_flag once;
    std::call_once(once, [] {
        std::lock_guard<std::mutex> lock(classMutex());
        // Never destroyed: other threads may log until the process ends.
        alignas(TQLog) static unsigned char storage[sizeof(TQLog)];
        shared_.store(::new (static_cast<void*>(storage)) TQLog(), std::memory_order_release);
    });
    return *shared_.load(std::memory_order_acquire);
}

// ---- properties

std::string TQLog::appName() const { return file_->appName(); }

void TQLog::setAppName(std::optional<std::string> name) { file_->setAppName(std::move(name)); }

uint64_t TQLog::bytesWritten() const { return file_->bytesWritten(); }

uint64_t TQLog::bytesInQueue() const { return core_.bytesInQueue(); }

bool TQLog::hasFileHandle() const { return file_->isOpen(); }

bool TQLog::hasWriteQueue() const { return !core_.isShutDown(); }

size_t TQLog::queuedEntryCount() const { return core_.queuedEntryCount(); }

// ---- opening a log

void TQLog::createNewLog(std::optional<std::string> name) { sharedController().createNewLogImpl(std::move(name)); }

void TQLog::createNewLogImpl(std::optional<std::string> name)
{
    if (loggingDisabled()) return;
    // What was queued before a new log is opened belongs to the file it was meant for.
    core_.finishWriting();
    if (!file_->open(std::move(name))) return;
    setLogsSamples(TQLogFile::preferencesAskForSamples());
    for (const TQLogFile::HeaderLine& line : file_->header(corvina::currentDateDescription()))
        core_.appendText(line.waits ? TQLogCore::Mode::Wait : TQLogCore::Mode::Fast, line.text);
}

std::vector<std::string> TQLog::availableLogs() { return TQLogFile::availableLogs(sharedController().appName()); }

// ---- queuing

void TQLog::appendTextToLog(std::string_view text) { core_.appendText(TQLogCore::Mode::Fast, text); }

void TQLog::appendMessageAndPrint(std::string_view message)
{
    TQLog& log = sharedController();
    if (!log.loggingDisabled()) log.core_.appendText(TQLogCore::Mode::Print, message);
}

// ---- flushing and shutdown

void TQLog::finishWriting() { sharedController().core_.finishWriting(); }

void TQLog::suspendWriterForTesting(bool suspended) { sharedController().core_.setSuspended(suspended); }

void TQLog::setBatchShortcutForTesting(bool on) { sharedController().file_->setBatchShortcut(on); }

uint64_t TQLog::batchShortcutsForTesting() { return sharedController().file_->shortcutsTaken(); }

void TQLog::willTerminate() { sharedController().shutdown(); }

void TQLog::shutdown()
{
    core_.shutdown();
    setAppName(std::nullopt);
    file_->close();
}

// ---- fork: the child has no writer thread; it starts one when it next needs it

void TQLog::atforkPrepare()
{
    TQLog& log = sharedController();
    log.file_->lockForFork();
    log.core_.lockForFork();
}

void TQLog::atforkParent()
{
    TQLog& log = sharedController();
    log.core_.unlockInParent();
    log.file_->unlockAfterFork();
}

void TQLog::atforkChild()
{
    TQLog& log = sharedController();
    log.core_.resetInChild();
    log.file_->unlockAfterFork();
}

// ---- uncaught exceptions

void TQLog::reportUncaughtException(std::exception_ptr exception)
{
    if (!exception) return;
    std::string reason;
    try {
        std::rethrow_exception(exception);
    } catch (const corvina::PlatformException& e) {
        reason = e.reason();
    } catch (const std::exception& e) {
        reason = e.what();
    } catch (...) {
        reason = "Unknown exception";
    }
    appendMessageAndPrint(reason);
    finishWriting();
}

}  // namespace corvina::tq
