#include "Diagnostics/CrashHandler.h"

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

namespace corvina {

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr size_t kSignalCount = sizeof(kFatalSignals) / sizeof(kFatalSignals[0]);
constexpr size_t kNameCapacity = 256;
constexpr size_t kPathCapacity = PATH_MAX;
constexpr size_t kLogTail = 4096;
constexpr int kMaxFrames = 64;

// Everything the handler reads, prepared at installation.
struct Prepared {
    char program[kNameCapacity];
    char host[kNameCapacity];
    char folder[kPathCapacity];
    char logPath[kPathCapacity];
    long utcOffset;
};

Prepared g_prepared;
struct sigaction g_previous[kSignalCount];
bool g_installed = false;
volatile sig_atomic_t g_handling = 0;
alignas(16) char g_alternateStack[64 * 1024];
char g_logBuffer[kLogTail];

// A fixed buffer filled with async-signal-safe appends.
class Line {
public:
    Line(char* buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) { buffer_[0] = 0; }
    Line& text(const char* s)
    {
        while (*s && used_ + 1 < capacity_) buffer_[used_++] = *s++;
        buffer_[used_] = 0;
        return *this;
    }
    Line& text(std::string_view s)
    {
        for (char c : s) {
            if (used_ + 1 >= capacity_) break;
            buffer_[used_++] = c;
        }
        buffer_[used_] = 0;
        return *this;
    }
    Line& number(uint64_t value, unsigned width = 1, unsigned base = 10)
    {
        char digits[24];
        unsigned n = 0;
        do {
            const unsigned d = static_cast<unsigned>(value % base);
            digits[n++] = static_cast<char>(d < 10 ? '0' + d : 'a' + d - 10);
            value /= base;
        } while (value && n < sizeof digits);
        while (n < width && n < sizeof digits) digits[n++] = '0';
        while (n && used_ + 1 < capacity_) buffer_[used_++] = digits[--n];
        buffer_[used_] = 0;
        return *this;
    }
    const char* c_str() const { return buffer_; }
    size_t size() const { return used_; }

private:
    char* buffer_;
    size_t capacity_;
    size_t used_ = 0;
};

struct Civil {
    int64_t year;
    unsigned month, day, hour, minute, second;
};

// Days since 1970-01-01 to a calendar date (the proleptic Gregorian calendar).
Civil civilTime(int64_t seconds)
{
    int64_t days = seconds / 86400;
    int64_t rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const int64_t doe = days - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    Civil c{};
    c.day = static_cast<unsigned>(doy - (153 * mp + 2) / 5 + 1);
    c.month = static_cast<unsigned>(mp < 10 ? mp + 3 : mp - 9);
    c.year = yoe + era * 400 + (c.month <= 2 ? 1 : 0);
    c.hour = static_cast<unsigned>(rest / 3600);
    c.minute = static_cast<unsigned>(rest % 3600 / 60);
    c.second = static_cast<unsigned>(rest % 60);
    return c;
}

void appendName(Line& line, std::string_view program, int64_t when, long utcOffset, std::string_view host)
{
    const Civil c = civilTime(when + utcOffset);
    line.text(program).text("_").number(static_cast<uint64_t>(c.year), 4).text("-").number(c.month, 2).text("-");
    line.number(c.day, 2).text("-").number(c.hour, 2).number(c.minute, 2).number(c.second, 2);
    line.text("_").text(host).text(".crash");
}

void writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n;
        size -= static_cast<size_t>(n);
    }
}

void writeText(int fd, const char* text) { writeAll(fd, text, std::strlen(text)); }

const char* signalName(int sig)
{
    switch (sig) {
    case SIGSEGV:
        return "SIGSEGV";
    case SIGBUS:
        return "SIGBUS";
    case SIGILL:
        return "SIGILL";
    case SIGFPE:
        return "SIGFPE";
    case SIGABRT:
        return "SIGABRT";
    default:
        return "signal";
    }
}

// mkdir -p on a copy of the folder path.
void makeFolders(const char* folder)
{
    char path[kPathCapacity];
    size_t n = 0;
    while (folder[n] && n + 1 < sizeof path) {
        path[n] = folder[n];
        ++n;
    }
    path[n] = 0;
    for (size_t i = 1; i <= n; ++i) {
        if (path[i] == '/' || path[i] == 0) {
            const char saved = path[i];
            path[i] = 0;
            ::mkdir(path, 0755);
            path[i] = saved;
        }
    }
}

// The end of the log: whole lines from the last few kilobytes.
void copyLogTail(int out)
{
    if (!g_prepared.logPath[0]) return;
    const int fd = ::open(g_prepared.logPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st {};
    if (::fstat(fd, &st) == 0 && st.st_size > 0) {
        const off_t start = st.st_size > static_cast<off_t>(kLogTail) ? st.st_size - static_cast<off_t>(kLogTail) : 0;
        if (::lseek(fd, start, SEEK_SET) == start) {
            ssize_t got = 0;
            size_t total = 0;
            while (total < kLogTail && (got = ::read(fd, g_logBuffer + total, kLogTail - total)) > 0) {
                total += static_cast<size_t>(got);
            }
            size_t from = 0;
            if (start > 0) {
                while (from < total && g_logBuffer[from] != '\n') ++from;
                if (from < total) ++from;
            }
            writeText(out, "\nLast log lines:\n");
            writeAll(out, g_logBuffer + from, total - from);
        }
    }
    ::close(fd);
}

void writeReport(int sig, const siginfo_t* info)
{
    makeFolders(g_prepared.folder);
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    char pathBuffer[kPathCapacity];
    Line path(pathBuffer, sizeof pathBuffer);
    path.text(g_prepared.folder).text("/");
    appendName(path, g_prepared.program, now.tv_sec, g_prepared.utcOffset, g_prepared.host);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    // A report written by root into someone's folder belongs to that folder's owner.
    struct stat folder {};
    if (::geteuid() == 0 && ::stat(g_prepared.folder, &folder) == 0) {
        [[maybe_unused]] int ignored = ::fchown(fd, folder.st_uid, folder.st_gid);
    }

    char lineBuffer[512];
    const Civil c = civilTime(now.tv_sec + g_prepared.utcOffset);
    Line line(lineBuffer, sizeof lineBuffer);
    line.text("Program: ").text(g_prepared.program).text("\nProcess: ").number(static_cast<uint64_t>(::getpid()));
    line.text("\nHost: ").text(g_prepared.host).text("\nDate: ").number(static_cast<uint64_t>(c.year), 4).text("-");
    line.number(c.month, 2).text("-").number(c.day, 2).text(" ").number(c.hour, 2).text(":").number(c.minute, 2);
    line.text(":").number(c.second, 2).text("\nSignal: ").number(static_cast<uint64_t>(sig)).text(" (");
    line.text(signalName(sig)).text(")\nFault address: 0x");
    line.number(reinterpret_cast<uintptr_t>(info ? info->si_addr : nullptr), 1, 16).text("\n\nBacktrace:\n");
    writeAll(fd, line.c_str(), line.size());
    void* frames[kMaxFrames];
    const int count = ::backtrace(frames, kMaxFrames);
    ::backtrace_symbols_fd(frames, count, fd);
    copyLogTail(fd);
    ::close(fd);
}

void onFatalSignal(int sig, siginfo_t* info, void*)
{
    const int savedErrno = errno;
    if (!g_handling) {
        g_handling = 1;
        writeReport(sig, info);
    }
    // Let the signal do what it would have done: the default action, once this returns.
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    ::sigaction(sig, &dfl, nullptr);
    ::raise(sig);
    errno = savedErrno;
}

bool copyInto(char* target, size_t capacity, const std::string& value)
{
    if (value.size() + 1 > capacity) return false;
    std::memcpy(target, value.c_str(), value.size() + 1);
    return true;
}

}  // namespace

std::string crashReportName(std::string_view program, std::time_t when, long utcOffset, std::string_view host)
{
    char buffer[kPathCapacity];
    Line line(buffer, sizeof buffer);
    appendName(line, program, static_cast<int64_t>(when), utcOffset, host);
    return line.c_str();
}

bool installCrashHandler(const CrashReportSettings& settings)
{
    Prepared next{};
    if (!copyInto(next.program, sizeof next.program, settings.program) ||
        !copyInto(next.folder, sizeof next.folder, settings.folder) ||
        !copyInto(next.logPath, sizeof next.logPath, settings.logPath)) {
        return false;
    }
    char host[kNameCapacity] = {};
    if (::gethostname(host, sizeof host - 1) != 0 || !host[0]) std::strcpy(host, "localhost");
    std::memcpy(next.host, host, sizeof host);
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    next.utcOffset = local.tm_gmtoff;

    // Load the unwinder now: its first use may allocate, which the handler must not do.
    void* frames[4];
    ::backtrace(frames, 4);

    stack_t alternate{};
    alternate.ss_sp = g_alternateStack;
    alternate.ss_size = sizeof g_alternateStack;
    ::sigaltstack(&alternate, nullptr);

    // Block the fatal signals while the settings change, so a handler never reads half of them.
    sigset_t fatal, old;
    sigemptyset(&fatal);
    for (int sig : kFatalSignals) sigaddset(&fatal, sig);
    ::pthread_sigmask(SIG_BLOCK, &fatal, &old);
    g_prepared = next;
    bool ok = true;
    for (size_t i = 0; i < kSignalCount; ++i) {
        struct sigaction action {};
        action.sa_sigaction = &onFatalSignal;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigemptyset(&action.sa_mask);
        ok = ::sigaction(kFatalSignals[i], &action, g_installed ? nullptr : &g_previous[i]) == 0 && ok;
    }
    g_installed = true;
    g_handling = 0;
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return ok;
}

void removeCrashHandler()
{
    if (!g_installed) return;
    for (size_t i = 0; i < kSignalCount; ++i) ::sigaction(kFatalSignals[i], &g_previous[i], nullptr);
    g_installed = false;
}

}  // namespace corvina
