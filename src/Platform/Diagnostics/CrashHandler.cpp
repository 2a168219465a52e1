#include "Diagnostics/CrashHandler.h"

#include "Foundation/Exception.h"
#include "Foundation/FolderDescriptor.h"
#include "Foundation/PosixIO.h"

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <algorithm>

namespace corvina {

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr size_t kSignalCount = sizeof(kFatalSignals) / sizeof(kFatalSignals[0]);
constexpr size_t kNameCapacity = 256;
constexpr size_t kPathCapacity = PATH_MAX;
constexpr size_t kLogTail = 4096;
constexpr int kMaxFrames = 64;
constexpr size_t kMaxGroups = 256;
constexpr int kNameTries = 10;

// Everything the handler reads, prepared at installation.
struct Prepared {
    char program[kNameCapacity];
    char host[kNameCapacity];
    char logPath[kPathCapacity];
    long utcOffset;
    int folderFd;    // the report folder, -1 when it could not be opened
    bool actAsUser;  // root writing for a user: take the user's file-system identity first
    uid_t uid;
    gid_t gid;
    size_t groupCount;
    gid_t groups[kMaxGroups];
};

Prepared g_prepared{.program = {},
                    .host = {},
                    .logPath = {},
                    .utcOffset = 0,
                    .folderFd = -1,
                    .actAsUser = false,
                    .uid = 0,
                    .gid = 0,
                    .groupCount = 0,
                    .groups = {}};
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

// attempt > 1 adds "-{attempt}" after the host, for a second report in the same second.
void appendName(Line& line, std::string_view program, int64_t when, long utcOffset, std::string_view host,
                int attempt = 1)
{
    const Civil c = civilTime(when + utcOffset);
    line.text(program).text("_").number(static_cast<uint64_t>(c.year), 4).text("-").number(c.month, 2).text("-");
    line.number(c.day, 2).text("-").number(c.hour, 2).number(c.minute, 2).number(c.second, 2);
    line.text("_").text(host);
    if (attempt > 1) line.text("-").number(static_cast<uint64_t>(attempt));
    line.text(".crash");
}

// Async-signal-safe: the loop allocates nothing. A report that cannot be written is lost.
void writeAll(int fd, const char* data, size_t size) { posix::writeAll(fd, std::string_view(data, size)); }

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

// The end of the log: whole lines from the last few kilobytes of an open file.
void copyLogTail(int fd, int out)
{
    if (fd < 0) return;
    struct stat st {};
    if (::fstat(fd, &st) == 0 && st.st_size > 0) {
        const off_t start = st.st_size > static_cast<off_t>(kLogTail) ? st.st_size - static_cast<off_t>(kLogTail) : 0;
        if (::lseek(fd, start, SEEK_SET) == start) {
            const size_t total = posix::readAll(fd, std::span(reinterpret_cast<uint8_t*>(g_logBuffer), kLogTail)).count;
            size_t from = 0;
            if (start > 0) {
                while (from < total && g_logBuffer[from] != '\n') ++from;
                if (from < total) ++from;
            }
            writeText(out, "\nLast log lines:\n");
            writeAll(out, g_logBuffer + from, total - from);
        }
    }
}

// A signal another process (or this one) sent, rather than a fault: si_addr means nothing then.
bool wasSent(const siginfo_t* info)
{
    return info && (info->si_code == SI_USER || info->si_code == SI_QUEUE || info->si_code == SI_TKILL);
}

// A new report file in the report folder: the name of this second, else the same with "-2"
// to "-10" after the host; an existing name or link is never opened.
int createReport(int64_t when)
{
    for (int attempt = 1; attempt <= kNameTries; ++attempt) {
        char nameBuffer[kPathCapacity];
        Line name(nameBuffer, sizeof nameBuffer);
        appendName(name, g_prepared.program, when, g_prepared.utcOffset, g_prepared.host, attempt);
        const int fd =
            ::openat(g_prepared.folderFd, nameBuffer, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

void writeReport(int sig, const siginfo_t* info)
{
    if (g_prepared.folderFd < 0) return;
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    // The log is opened with the process's own rights (as root: the machine-wide log).
    const int logFd = g_prepared.logPath[0] ? ::open(g_prepared.logPath, O_RDONLY | O_NOFOLLOW | O_CLOEXEC) : -1;
    if (g_prepared.actAsUser) {
        // The process ends after the report: the identity is never given back.
        ::syscall(SYS_setgroups, g_prepared.groupCount, g_prepared.groups);
        ::syscall(SYS_setfsgid, g_prepared.gid);
        ::syscall(SYS_setfsuid, g_prepared.uid);
    }
    const int fd = createReport(now.tv_sec);
    if (fd < 0) {
        if (logFd >= 0) ::close(logFd);
        return;
    }

    char lineBuffer[512];
    const Civil c = civilTime(now.tv_sec + g_prepared.utcOffset);
    Line line(lineBuffer, sizeof lineBuffer);
    line.text("Program: ").text(g_prepared.program).text("\nProcess: ").number(static_cast<uint64_t>(::getpid()));
    line.text("\nHost: ").text(g_prepared.host).text("\nDate: ").number(static_cast<uint64_t>(c.year), 4).text("-");
    line.number(c.month, 2).text("-").number(c.day, 2).text(" ").number(c.hour, 2).text(":").number(c.minute, 2);
    line.text(":").number(c.second, 2).text("\nSignal: ").number(static_cast<uint64_t>(sig)).text(" (");
    line.text(signalName(sig)).text(")\n");
    if (wasSent(info)) {
        line.text("Origin: sent by pid ").number(static_cast<uint64_t>(info->si_pid)).text(" (uid ");
        line.number(static_cast<uint64_t>(info->si_uid)).text(")\n");
    } else {
        line.text("Fault address: 0x").number(reinterpret_cast<uintptr_t>(info ? info->si_addr : nullptr), 1, 16);
        line.text("\n");
    }
    line.text("\nBacktrace:\n");
    writeAll(fd, line.c_str(), line.size());
    void* frames[kMaxFrames];
    const int count = ::backtrace(frames, kMaxFrames);
    ::backtrace_symbols_fd(frames, count, fd);
    copyLogTail(logFd, fd);
    if (logFd >= 0) ::close(logFd);
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
        !copyInto(next.logPath, sizeof next.logPath, settings.logPath)) {
        return false;
    }
    next.actAsUser = settings.user && settings.user->uid != 0 && ::geteuid() == 0;
    if (next.actAsUser) {
        if (settings.user->groups.size() > kMaxGroups) return false;
        next.uid = settings.user->uid;
        next.gid = settings.user->gid;
        next.groupCount = settings.user->groups.size();
        std::copy(settings.user->groups.begin(), settings.user->groups.end(), next.groups);
        if (next.groupCount == 0) next.groups[next.groupCount++] = next.gid;
    }
    try {
        // The folders are made by the user they belong to (nothing happens as root in the
        // user's home), and no link on the way is followed.
        ScopedFileIdentity asUser(next.actAsUser ? settings.user : std::nullopt);
        next.folderFd = openFolderNoFollow(settings.folder, true, 0755);
    } catch (const PlatformException&) {
        return false;  // the user's identity could not be taken
    }
    if (next.folderFd < 0) return false;
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
    const int previousFolder = g_prepared.folderFd;
    g_prepared = next;
    if (previousFolder >= 0) ::close(previousFolder);
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
    if (g_prepared.folderFd >= 0) ::close(g_prepared.folderFd);
    g_prepared.folderFd = -1;
}

}  // namespace corvina
