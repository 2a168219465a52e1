#include "tq/TQTaskEx.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <thread>

#include "Foundation/Exception.h"
#include "tq/TQException.h"
#include "tq/TQLog.h"

namespace corvina::tq {

using corvina::PlatformException;
using corvina::Process;

namespace {

// What a run tells its caller: the task before it is launched, and that it was launched.
// A run with a time-out starts its tool in a process group of its own, which the time-out
// ends as a whole.
struct Publish {
    std::function<void(const TQTaskEx::Task&)> task;
    std::function<void()> launched;
    bool ownGroup = false;

    void operator()(const TQTaskEx::Task& t) const
    {
        if (task) task(t);
    }
    void afterLaunch() const
    {
        if (launched) launched();
    }
};

Publish publishTo(TQTaskEx::Task* out)
{
    return Publish{[out](const TQTaskEx::Task& t) {
                       if (out) *out = t;
                   },
                   nullptr, false};
}

bool isRunnableTool(const std::string& path)
{
    return corvina::isExecutablePath(path) && !corvina::isPackagePath(path);
}

std::optional<TQTaskEx::Data> runForData(const std::string& path, const TQTaskEx::Arguments& args,
                                         const Publish& publish,
                                         const std::optional<TQTaskEx::Environment>& environment, bool logOutput,
                                         bool logError)
{
    if (!isRunnableTool(path)) {
        TQLog::appendLogAndPrint("Error: %@ is not executable", path);
        return std::nullopt;
    }
    try {
        auto task = std::make_shared<Process>();
        publish(task);
        task->setLaunchPath(path);
        task->setArguments(args);
        task->setEnvironment(environment);
        task->setStandardOutput(logOutput ? Process::Stream::Pipe : Process::Stream::Inherit);
        task->setStandardError(logError ? Process::Stream::Pipe : Process::Stream::Null);
        task->setStartsProcessGroup(publish.ownGroup);
        task->launch();
        publish.afterLaunch();
        TQTaskEx::Data output;
        TQTaskEx::Data error;
        task->readToEnd(&output, &error);
        if (!output.empty()) return output;
        if (!error.empty()) return error;
        return output;
    } catch (const PlatformException& e) {
        TQLog::appendLogAndPrint("Exception running task %@: %@", path, e.reason());
        return std::nullopt;
    }
}

bool runForSuccess(const std::string& path, const TQTaskEx::Arguments& args, const Publish& publish)
{
    if (!path.empty() && path.front() == '/' && !isRunnableTool(path)) {
        TQLog::appendLogAndPrint("Error: %@ is not executable", path);
        return false;
    }
    try {
        auto task = std::make_shared<Process>();
        publish(task);
        task->setLaunchPath(path);
        task->setArguments(args);
        task->setStandardOutput(Process::Stream::Null);
        task->setStandardError(Process::Stream::Null);
        task->setStartsProcessGroup(publish.ownGroup);
        task->launch();
        publish.afterLaunch();
        task->waitUntilExit();
        return true;
    } catch (const PlatformException& e) {
        TQLog::appendLog("Exception running task %@: %@", path, e.reason());
        return false;
    }
}

int32_t runForStatus(const std::string& path, const TQTaskEx::Arguments& args, const Publish& publish)
{
    if (!isRunnableTool(path)) {
        TQLog::appendLogAndPrint("Error: %@ is not executable", path);
        return -1;
    }
    auto task = std::make_shared<Process>();
    task->setLaunchPath(path);
    task->setArguments(args);
    task->setStandardOutput(Process::Stream::Null);
    task->setStandardError(Process::Stream::Null);
    task->setStartsProcessGroup(publish.ownGroup);
    publish(task);
    task->launch();  // a launch failure reaches the caller
    publish.afterLaunch();
    if (task->isRunning()) task->waitUntilExit();
    return task->terminationStatus();
}

std::optional<std::string> decode(const std::optional<TQTaskEx::Data>& data, TQTaskEx::Encoding encoding)
{
    if (!data) return std::string();
    std::string text(data->begin(), data->end());
    if (encoding == TQTaskEx::Encoding::ASCII) {
        for (unsigned char c : text) {
            if (c > 0x7F) return std::nullopt;
        }
    } else {
        // UTF-8: reject malformed sequences.
        size_t i = 0;
        while (i < text.size()) {
            const unsigned char c = static_cast<unsigned char>(text[i]);
            size_t len = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
            if (len == 0 || i + len > text.size()) return std::nullopt;
            for (size_t k = 1; k < len; ++k) {
                if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return std::nullopt;
            }
            i += len;
        }
    }
    return text;
}

std::chrono::seconds wholeSeconds(TQTaskEx::Timeout timeout)
{
    const double s = timeout.count();
    if (!(s >= 1.0)) return std::chrono::seconds(0);  // under one second, negative or NaN
    if (s > 1e9) return std::chrono::seconds(1000000000);
    return std::chrono::seconds(static_cast<int64_t>(s));
}

}  // namespace

// One timer per run: it sleeps for the whole time-out unless cancelled, and then runs the
// check itself. Cancelling wakes a sleeping timer at once and joins it, so a timer can never
// reach a later run of the same instance. Once the check has terminated the tool's group,
// the timer stays (cancelled or not) until the group is gone, and kills what is left of it
// after the grace period, so that no process of the run outlives the run.
class TQTaskEx::TimeoutTimer {
public:
    TimeoutTimer(TQTaskEx& owner, std::chrono::seconds seconds)
        : thread_([this, &owner, seconds] {
              std::unique_lock lock(mutex_);
              if (cv_.wait_for(lock, seconds, [this] { return cancelled_; })) return;
              lock.unlock();
              owner.timeout();
              // An expiry before the launch reaches the tool when it is launched.
              Task fired;
              lock.lock();
              while (!(fired = owner.firedTask()) && !cancelled_) cv_.wait_for(lock, kPoll);
              lock.unlock();
              if (!fired) return;
              const auto deadline = std::chrono::steady_clock::now() + kTerminationGrace;
              while (fired->processGroupAlive()) {
                  if (std::chrono::steady_clock::now() >= deadline) {
                      fired->signalProcessGroup(SIGKILL);
                      return;
                  }
                  std::this_thread::sleep_for(kPoll);
              }
          })
    {
    }
    ~TimeoutTimer() { cancel(); }
    void cancel()
    {
        {
            std::lock_guard lock(mutex_);
            cancelled_ = true;
        }
        cv_.notify_all();
        if (thread_.joinable()) thread_.join();
    }

private:
    static constexpr std::chrono::milliseconds kPoll{20};
    std::mutex mutex_;
    std::condition_variable cv_;
    bool cancelled_ = false;
    std::thread thread_;  // last: started once the state above exists
};

template <class Run>
auto TQTaskEx::runWithTimeout(Timeout timeout, Run&& run)
{
    std::lock_guard runLock(runMutex_);
    {
        std::lock_guard lock(taskMutex_);
        theTask_ = nullptr;
        timeoutExpired_ = false;
        timeoutFired_ = false;
    }
    // The timer may expire at any point of the run, even before the task exists or is
    // launched: the expiry is remembered, and the launch looks at it.
    const Publish publish{[this](const Task& t) { setTheTask(t); }, [this] { taskLaunched(); }, true};
    TimeoutTimer timer(*this, wholeSeconds(timeout));
    struct Clear {
        TQTaskEx* self;
        TimeoutTimer* timer;
        ~Clear()
        {
            timer->cancel();
            std::lock_guard lock(self->taskMutex_);
            self->theTask_ = nullptr;
            self->timeoutExpired_ = false;
        }
    } clear{this, &timer};
    return run(publish);
}

void TQTaskEx::timeout()
{
    std::lock_guard lock(taskMutex_);
    timeoutExpired_ = true;
    terminateIfExpiredLocked();
}

void TQTaskEx::taskLaunched()
{
    std::lock_guard lock(taskMutex_);
    terminateIfExpiredLocked();
}

void TQTaskEx::terminateIfExpiredLocked()
{
    if (!timeoutExpired_ || timeoutFired_ || !theTask_ || !theTask_->processGroupAlive()) return;
    timeoutFired_ = true;
    TQLog::appendLogAndPrint("Task %@ timed out. Terminating...", theTask_->launchPath());
    theTask_->signalProcessGroup(SIGTERM);
}

TQTaskEx::Task TQTaskEx::firedTask() const
{
    std::lock_guard lock(taskMutex_);
    return timeoutFired_ ? theTask_ : nullptr;
}

TQTaskEx::Task TQTaskEx::theTask() const
{
    std::lock_guard lock(taskMutex_);
    return theTask_;
}

void TQTaskEx::setTheTask(Task task)
{
    std::lock_guard lock(taskMutex_);
    theTask_ = std::move(task);
}

// --- Background runs -------------------------------------------------------------------------

// One background run: its task and the pipe that wakes its reader when the run is ended from
// outside. The reader alone reads and closes the task's output, so a read end is never closed
// under a read in progress.
struct TQTaskEx::AsyncRun {
    Task task;
    int wake[2] = {-1, -1};
    std::atomic<bool> ended{false};

    AsyncRun()
    {
        if (::pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) wake[0] = wake[1] = -1;
    }
    ~AsyncRun()
    {
        for (int fd : wake) {
            if (fd >= 0) ::close(fd);
        }
    }
    AsyncRun(const AsyncRun&) = delete;
    AsyncRun& operator=(const AsyncRun&) = delete;

    void wakeReader()
    {
        const char byte = 1;
        if (wake[1] >= 0) [[maybe_unused]]
            auto n = ::write(wake[1], &byte, 1);
    }
};

TQTaskEx::TQTaskEx() = default;

TQTaskEx::~TQTaskEx()
{
    std::shared_ptr<AsyncRun> run;
    {
        std::lock_guard lock(taskMutex_);
        run = asyncRun_;
    }
    endRun(run);
    std::lock_guard lock(readerMutex_);
    if (reader_.joinable()) {
        if (reader_.get_id() == std::this_thread::get_id()) {
            reader_.detach();
        } else {
            reader_.join();
        }
    }
}

void TQTaskEx::asyncDataFromTask(const std::string& path, const Arguments& args, ChunkHandler handler, std::any object,
                                 const std::optional<Environment>& environment)
{
    terminateAsyncTask();
    auto task = std::make_shared<Process>();
    task->setStandardOutput(Process::Stream::Pipe);
    task->setStandardError(Process::Stream::Null);
    task->setStandardInput(Process::Stream::Inherit);
    task->setEnvironment(environment);
    task->setLaunchPath(path);
    task->setArguments(args);
    auto run = std::make_shared<AsyncRun>();
    run->task = task;
    {
        std::lock_guard lock(taskMutex_);
        handler_ = std::move(handler);
        object_ = std::move(object);
        theTask_ = task;
        asyncRun_ = run;
    }
    std::lock_guard lock(readerMutex_);
    if (reader_.joinable()) {
        // The previous run's reader has been told to stop; from inside its own handler it
        // cannot wait for itself.
        if (reader_.get_id() == std::this_thread::get_id()) {
            reader_.detach();
        } else {
            reader_.join();
        }
    }
    reader_ = std::thread([this, run] { launchAsyncTask(run); });
}

void TQTaskEx::launchAsyncTask(std::shared_ptr<AsyncRun> run)
{
    try {
        if (run->ended) {
            TQLog::appendLogAndPrint("Unable to launch async task - no task set");
            return;
        }
        const Task task = run->task;
        if (!corvina::isExecutablePath(task->launchPath())) {
            TQLog::appendLog("Unable to launch async task - task does not exist or is not executable");
            endRun(run);
            return;
        }
        task->launch();
        // Ended while it was being launched: the termination may have found nothing to signal.
        if (run->ended) task->terminate();
        for (;;) {
            Data chunk;
            if (task->readOutputChunk(chunk, run->wake[0]) != Process::ChunkResult::Data || run->ended) break;
            deliver(std::move(chunk));
        }
        task->closePipes();
        if (!run->ended) deliver(Data());
    } catch (const PlatformException& e) {
        TQException::logException(e, "-[TQTaskEx launchAsyncTask]");
        run->task->closePipes();
        endRun(run);
    }
}

void TQTaskEx::deliver(Data chunk)
{
    corvina::Value::DictionaryType info;
    info.emplace(corvina::kFileHandleNotificationDataItem, corvina::Value::data(std::move(chunk)));
    asyncTaskReturnData(corvina::Notification{kAsyncTaskDataNotification, nullptr, corvina::Value(std::move(info))});
}

void TQTaskEx::asyncTaskReturnData(const corvina::Notification& notification)
{
    static const Data kNoData;
    const Data* data = notification.userInfo[corvina::kFileHandleNotificationDataItem].asData();
    const Data& chunk = data ? *data : kNoData;
    std::lock_guard delivering(deliveryMutex_);
    ChunkHandler handler;
    std::any object;
    std::shared_ptr<AsyncRun> run;
    {
        std::lock_guard lock(taskMutex_);
        handler = handler_;
        object = object_;
        run = asyncRun_;
    }
    if (handler) handler(chunk, *this, object);
    // The end of output ends the run it belongs to (not one the handler started meanwhile).
    if (chunk.empty()) endRun(run);
}

void TQTaskEx::terminateAsyncTask()
{
    std::shared_ptr<AsyncRun> run;
    {
        std::lock_guard lock(taskMutex_);
        run = asyncRun_;
        handler_ = nullptr;
        object_.reset();
    }
    endRun(run);
    // A chunk being handed over on the reader thread right now is the last one: wait for it,
    // so that nothing arrives once this returns. (On the reader thread itself this is a no-op.)
    std::lock_guard delivered(deliveryMutex_);
}

void TQTaskEx::endRun(const std::shared_ptr<AsyncRun>& run)
{
    if (!run) return;
    run->ended = true;
    run->wakeReader();
    {
        std::lock_guard lock(taskMutex_);
        if (asyncRun_ == run) {
            handler_ = nullptr;
            object_.reset();
            asyncRun_ = nullptr;
            if (theTask_ == run->task) theTask_ = nullptr;
        }
    }
    if (run->task && run->task->isRunning()) run->task->terminate();
}

TQTaskEx::ChunkHandler TQTaskEx::chunkHandler() const
{
    std::lock_guard lock(taskMutex_);
    return handler_;
}

void TQTaskEx::setChunkHandler(ChunkHandler handler)
{
    std::lock_guard lock(taskMutex_);
    handler_ = std::move(handler);
}

std::any TQTaskEx::object() const
{
    std::lock_guard lock(taskMutex_);
    return object_;
}

void TQTaskEx::setObject(std::any object)
{
    std::lock_guard lock(taskMutex_);
    object_ = std::move(object);
}

// --- Class forms ---------------------------------------------------------------------------

std::optional<TQTaskEx::Data> TQTaskEx::dataFromTask(const std::string& path, const Arguments& args, Task* task,
                                                     const std::optional<Environment>& environment, bool logOutput,
                                                     bool logError)
{
    return runForData(path, args, publishTo(task), environment, logOutput, logError);
}

std::optional<TQTaskEx::Data> TQTaskEx::dataFromTask(const std::string& path, const Arguments& args, Timeout timeout,
                                                     bool logOutput, bool logError)
{
    TQTaskEx runner;
    return runner.dataFromTaskWithTimeout(path, args, timeout, logOutput, logError);
}

std::optional<std::string> TQTaskEx::stringFromTask(const std::string& path, const Arguments& args, Task* task)
{
    return stringFromTask(path, args, Encoding::ASCII, task);
}

std::optional<std::string> TQTaskEx::stringFromTask(const std::string& path, const Arguments& args, Encoding encoding,
                                                    Task* task)
{
    return decode(dataFromTask(path, args, task), encoding);
}

std::optional<std::string> TQTaskEx::stringFromTask(const std::string& path, const Arguments& args, Timeout timeout)
{
    return stringFromTask(path, args, Encoding::ASCII, timeout);
}

std::optional<std::string> TQTaskEx::stringFromTask(const std::string& path, const Arguments& args, Encoding encoding,
                                                    Timeout timeout, bool logOutput, bool logError)
{
    return decode(dataFromTask(path, args, timeout, logOutput, logError), encoding);
}

bool TQTaskEx::runTask(const std::string& path, const Arguments& args, Task* task)
{
    return runForSuccess(path, args, publishTo(task));
}

void TQTaskEx::runTask(const std::string& path, const Arguments& args, Timeout timeout)
{
    TQTaskEx runner;
    runner.runTaskWithTimeout(path, args, timeout);
}

TQTaskEx::Task TQTaskEx::runTaskAndReturn(const std::string& path, const Arguments& args)
{
    if (path.empty() || !isRunnableTool(path)) {
        TQLog::appendLogAndPrint("Error: %@ is not executable", path);
        return nullptr;
    }
    auto task = std::make_shared<Process>();
    task->setLaunchPath(path);
    task->setArguments(args);
    task->setStandardOutput(Process::Stream::Null);
    task->setStandardError(Process::Stream::Null);
    task->launch();
    return task;
}

int32_t TQTaskEx::terminationCodeFromTask(const std::string& path, const Arguments& args, Task* task)
{
    return runForStatus(path, args, publishTo(task));
}

int32_t TQTaskEx::terminationCodeFromTask(const std::string& path, const Arguments& args, Timeout timeout)
{
    TQTaskEx runner;
    return runner.terminationCodeFromTaskWithTimeout(path, args, timeout);
}

// --- Instance forms ------------------------------------------------------------------------

void TQTaskEx::runTaskWithTimeout(const std::string& path, const Arguments& args, Timeout timeout)
{
    runWithTimeout(timeout, [&](const Publish& publish) { return runForSuccess(path, args, publish); });
}

std::optional<TQTaskEx::Data> TQTaskEx::dataFromTaskWithTimeout(const std::string& path, const Arguments& args,
                                                                Timeout timeout, bool logOutput, bool logError)
{
    return runWithTimeout(timeout, [&](const Publish& publish) {
        return runForData(path, args, publish, std::nullopt, logOutput, logError);
    });
}

int32_t TQTaskEx::terminationCodeFromTaskWithTimeout(const std::string& path, const Arguments& args, Timeout timeout)
{
    return runWithTimeout(timeout, [&](const Publish& publish) { return runForStatus(path, args, publish); });
}

}  // namespace corvina::tq
