#include "TQTaskEx.h"

#include <condition_variable>
#include <functional>
#include <thread>

#include "Foundation/Exception.h"
#include "TQLog.h"

using corvina::PlatformException;
using corvina::Process;

namespace {

using Publish = std::function<void(const TQTaskEx::Task&)>;

Publish publishTo(TQTaskEx::Task* out)
{
    return [out](const TQTaskEx::Task& t) {
        if (out) *out = t;
    };
}

bool isRunnableTool(const std::string& path)
{
    return corvina::isExecutablePath(path) && !corvina::isPackagePath(path);
}

std::optional<TQTaskEx::Data> runForData(const std::string& path, const TQTaskEx::Arguments& args,
                                         const Publish& publish,
                                         const std::optional<TQTaskEx::Environment>& environment,
                                         bool logOutput, bool logError)
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
        task->launch();
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
        task->launch();
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
    publish(task);
    task->launch();  // a launch failure reaches the caller
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
// check itself. Cancelling wakes it at once and joins it, so a timer can never reach a later
// run of the same instance.
class TQTaskEx::TimeoutTimer {
public:
    TimeoutTimer(TQTaskEx& owner, std::chrono::seconds seconds)
        : thread_([this, &owner, seconds] {
              std::unique_lock lock(mutex_);
              if (cv_.wait_for(lock, seconds, [this] { return cancelled_; })) return;
              lock.unlock();
              owner.timeout();
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
    std::mutex mutex_;
    std::condition_variable cv_;
    bool cancelled_ = false;
    std::thread thread_;  // last: started once the state above exists
};

template <class Run>
auto TQTaskEx::runWithTimeout(Timeout timeout, Run&& run)
{
    std::lock_guard runLock(runMutex_);
    setTheTask(nullptr);
    const Publish publish = [this](const Task& t) { setTheTask(t); };
    TimeoutTimer timer(*this, wholeSeconds(timeout));
    struct Clear {
        TQTaskEx* self;
        TimeoutTimer* timer;
        ~Clear()
        {
            timer->cancel();
            self->setTheTask(nullptr);
        }
    } clear{this, &timer};
    return run(publish);
}

void TQTaskEx::timeout()
{
    const Task task = theTask();
    if (task && task->isRunning()) {
        TQLog::appendLogAndPrint("Task %@ timed out. Terminating...", task->launchPath());
        task->terminate();
    }
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

// --- Class forms ---------------------------------------------------------------------------

std::optional<TQTaskEx::Data> TQTaskEx::dataFromTask(const std::string& path, const Arguments& args, Task* task,
                                                     const std::optional<Environment>& environment,
                                                     bool logOutput, bool logError)
{
    return runForData(path, args, publishTo(task), environment, logOutput, logError);
}

std::optional<TQTaskEx::Data> TQTaskEx::dataFromTask(const std::string& path, const Arguments& args,
                                                     Timeout timeout, bool logOutput, bool logError)
{
    TQTaskEx runner;
    return runner.dataFromTaskWithTimeout(path, args, timeout, logOutput, logError);
}

std::optional<std::string> TQTaskEx::stringFromTask(const std::string& path, const Arguments& args, Task* task)
{
    return stringFromTask(path, args, Encoding::ASCII, task);
}

std::optional<std::string> TQTaskEx::stringFromTask(const std::string& path, const Arguments& args,
                                                    Encoding encoding, Task* task)
{
    return decode(dataFromTask(path, args, task), encoding);
}

std::optional<std::string> TQTaskEx::stringFromTask(const std::string& path, const Arguments& args,
                                                    Timeout timeout)
{
    return stringFromTask(path, args, Encoding::ASCII, timeout);
}

std::optional<std::string> TQTaskEx::stringFromTask(const std::string& path, const Arguments& args,
                                                    Encoding encoding, Timeout timeout, bool logOutput,
                                                    bool logError)
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

int32_t TQTaskEx::terminationCodeFromTaskWithTimeout(const std::string& path, const Arguments& args,
                                                     Timeout timeout)
{
    return runWithTimeout(timeout, [&](const Publish& publish) { return runForStatus(path, args, publish); });
}
