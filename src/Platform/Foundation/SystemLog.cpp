#include "SystemLog.h"

#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "ProcessInfo.h"

namespace corvina {

namespace {

struct CaptureState {
    mutable std::mutex mutex;
    std::vector<std::string> messages;
    CaptureState* outer = nullptr;
};

std::mutex& captureMutex()
{
    static std::mutex m;
    return m;
}

CaptureState*& innermostCapture()
{
    static CaptureState* top = nullptr;
    return top;
}

const std::string& programName()
{
    static const std::string name = [] {
        std::string n = processinfo::processName();
        return n.empty() ? std::string("corvina") : n;
    }();
    return name;
}

void openSyslogOnce()
{
    static std::once_flag once;
    // openlog keeps the pointer: programName() lives as long as the process.
    std::call_once(once, [] { openlog(programName().c_str(), LOG_PID, LOG_USER); });
}

// "YYYY-MM-DD HH:MM:SS.mmm name[pid:tid] message\n", local time as a console log shows it.
void writeToStandardError(std::string_view message)
{
    const auto now = std::chrono::system_clock::now();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const time_t secs = static_cast<time_t>(ms / 1000);
    struct tm tm {};
    localtime_r(&secs, &tm);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms % 1000));
    std::string line = format("%s %@[%d:%lx] %@", stamp, programName(), static_cast<int>(getpid()),
                              static_cast<long>(syscall(SYS_gettid)), message);
    if (line.empty() || line.back() != '\n') line += '\n';
    // One write so that lines of several threads do not interleave.
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

}  // namespace

struct ScopedSystemLogCapture::State : CaptureState {};

void systemLogMessage(std::string_view message)
{
    openSyslogOnce();
    const std::string text(message);
    syslog(LOG_NOTICE, "%s", text.c_str());
    {
        std::lock_guard lock(captureMutex());
        if (auto* capture = innermostCapture()) {
            std::lock_guard inner(capture->mutex);
            capture->messages.push_back(text);
            return;
        }
    }
    writeToStandardError(message);
}

ScopedSystemLogCapture::ScopedSystemLogCapture() : state_(std::make_unique<State>())
{
    std::lock_guard lock(captureMutex());
    state_->outer = innermostCapture();
    innermostCapture() = state_.get();
}

ScopedSystemLogCapture::~ScopedSystemLogCapture()
{
    {
        std::lock_guard lock(captureMutex());
        // Captures normally end innermost first; unlink this one wherever it is.
        CaptureState** link = &innermostCapture();
        while (*link && *link != state_.get()) link = &(*link)->outer;
        if (*link) *link = state_->outer;
    }
}

std::vector<std::string> ScopedSystemLogCapture::messages() const
{
    std::lock_guard lock(state_->mutex);
    return state_->messages;
}

}  // namespace corvina
