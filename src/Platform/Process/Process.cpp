#include "Process/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "Foundation/PosixIO.h"

extern char** environ;

namespace corvina {

namespace {

constexpr std::array<const char*, 10> kPackageExtensions = {"app", "bundle", "framework", "plugin", "kext",
                                                            "pkg", "mpkg",   "prefPane",  "xpc",    "appex"};

std::string extensionOf(const std::string& path)
{
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    const auto slash = p.find_last_of('/');
    const std::string name = slash == std::string::npos ? p : p.substr(slash + 1);
    const auto dot = name.find_last_of('.');
    if (dot == std::string::npos || dot == 0) return {};
    return name.substr(dot + 1);
}

void closeFd(int& fd)
{
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

// Both ends close-on-exec, so that tools started concurrently by other threads never
// inherit them (an inherited write end would keep our reader from seeing end of file).
void makePipe(int fds[2])
{
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        throw PlatformException(kInvalidArgumentException, format("unable to create a pipe: %@", std::strerror(errno)));
    }
}

struct FileActions {
    posix_spawn_file_actions_t actions;
    FileActions() { posix_spawn_file_actions_init(&actions); }
    ~FileActions() { posix_spawn_file_actions_destroy(&actions); }
};

struct SpawnAttributes {
    posix_spawnattr_t attr;
    SpawnAttributes() { posix_spawnattr_init(&attr); }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attr); }
};

// A tool that closed its input takes nothing more; that is no failure of ours.
void writeAll(int fd, const std::string& data) { posix::writeAll(fd, data); }

}  // namespace

bool isPackagePath(const std::string& path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    const std::string ext = extensionOf(path);
    return std::find(kPackageExtensions.begin(), kPackageExtensions.end(), ext) != kPackageExtensions.end();
}

bool isExecutablePath(const std::string& path)
{
    if (path.empty()) return false;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode)) return false;  // folders, packages included, are not tools
    return ::access(path.c_str(), X_OK) == 0;
}

std::optional<std::string> findProgramOnPath(const std::string& name)
{
    const char* path = std::getenv("PATH");
    const std::string all = path ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t start = 0;
    for (;;) {
        const size_t end = all.find(':', start);
        const std::string dir = all.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!dir.empty() && isExecutablePath(dir + "/" + name)) return dir + "/" + name;
        if (end == std::string::npos) return std::nullopt;
        start = end + 1;
    }
}

Process::Environment Process::currentEnvironment()
{
    Environment env;
    for (char** e = environ; e && *e; ++e) {
        const std::string_view entry = *e;
        const auto eq = entry.find('=');
        if (eq != std::string_view::npos) env.emplace(entry.substr(0, eq), entry.substr(eq + 1));
    }
    return env;
}

Process::~Process()
{
    closePipes();
    std::lock_guard lock(mutex_);
    if (pid_ <= 0 || reaped_) return;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) return;
    // Still running and nobody waits for it any more: reap it in the background so that it
    // does not stay a zombie for the life of the process.
    const pid_t pid = pid_;
    std::thread([pid] {
        int s = 0;
        posix::retryInterrupted([&] { return ::waitpid(pid, &s, 0); });
    }).detach();
}

void Process::launch()
{
    if (pid_ > 0) throw PlatformException(kInvalidArgumentException, "task already launched");
    if (launchPath_.empty()) throw PlatformException(kInvalidArgumentException, "launch path not set");

    int inPipe[2] = {-1, -1};
    int outPipe[2] = {-1, -1};
    int errPipe[2] = {-1, -1};
    auto closeAll = [&] {
        for (int* p : {inPipe, outPipe, errPipe}) {
            closeFd(p[0]);
            closeFd(p[1]);
        }
    };
    try {
        if (stdin_ == Stream::Pipe) makePipe(inPipe);
        if (stdout_ == Stream::Pipe) makePipe(outPipe);
        if (stderr_ == Stream::Pipe) makePipe(errPipe);
    } catch (...) {
        closeAll();
        throw;
    }

    FileActions fa;
    if (stdin_ == Stream::Pipe) {
        posix_spawn_file_actions_adddup2(&fa.actions, inPipe[0], STDIN_FILENO);
    } else if (stdin_ == Stream::Null) {
        posix_spawn_file_actions_addopen(&fa.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    if (stdout_ == Stream::Pipe) {
        posix_spawn_file_actions_adddup2(&fa.actions, outPipe[1], STDOUT_FILENO);
    } else if (stdout_ == Stream::Null) {
        posix_spawn_file_actions_addopen(&fa.actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    if (stderr_ == Stream::Pipe) {
        posix_spawn_file_actions_adddup2(&fa.actions, errPipe[1], STDERR_FILENO);
    } else if (stderr_ == Stream::Null) {
        posix_spawn_file_actions_addopen(&fa.actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }

    // The tool starts with default signal handling and nothing blocked, whatever the caller
    // (a test runner, a sanitizer) has set up.
    SpawnAttributes sa;
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigmask(&sa.attr, &none);
    posix_spawnattr_setsigdefault(&sa.attr, &all);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (ownGroup_) {
        posix_spawnattr_setpgroup(&sa.attr, 0);
        flags |= POSIX_SPAWN_SETPGROUP;
    }
    posix_spawnattr_setflags(&sa.attr, flags);

    std::vector<char*> argv;
    argv.push_back(launchPath_.data());
    for (auto& a : arguments_) argv.push_back(a.data());
    argv.push_back(nullptr);

    std::vector<std::string> envStrings;
    std::vector<char*> envp;
    if (environment_) {
        for (const auto& [k, v] : *environment_) envStrings.push_back(k + "=" + v);
        for (auto& s : envStrings) envp.push_back(s.data());
        envp.push_back(nullptr);
    }

    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, launchPath_.c_str(), &fa.actions, &sa.attr, argv.data(),
                                 environment_ ? envp.data() : environ);
    if (rc != 0) {
        closeAll();
        throw PlatformException(kInvalidArgumentException, format("launch path not accessible: %@", std::strerror(rc)));
    }
    {
        std::lock_guard lock(mutex_);
        pid_ = pid;
    }
    closeFd(inPipe[0]);
    closeFd(outPipe[1]);
    closeFd(errPipe[1]);
    if (!stdinData_.empty() && inPipe[1] >= 0) {
        // Ignore SIGPIPE for this write only if the tool is gone: MSG_NOSIGNAL needs a socket,
        // so block the signal on this thread while writing.
        sigset_t pipeSet, old;
        sigemptyset(&pipeSet);
        sigaddset(&pipeSet, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeSet, &old);
        writeAll(inPipe[1], stdinData_);
        struct timespec zero {};
        sigtimedwait(&pipeSet, nullptr, &zero);  // discard a SIGPIPE raised by the write
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }
    closeFd(inPipe[1]);
    outFd_ = outPipe[0];
    errFd_ = errPipe[0];
}

void Process::readToEnd(Bytes* output, Bytes* error)
{
    std::array<uint8_t, 65536> chunk;
    while (outFd_ >= 0 || errFd_ >= 0) {
        pollfd fds[2];
        nfds_t n = 0;
        if (outFd_ >= 0) fds[n++] = {outFd_, POLLIN, 0};
        if (errFd_ >= 0) fds[n++] = {errFd_, POLLIN, 0};
        if (posix::retryInterrupted([&] { return ::poll(fds, n, -1); }) < 0) break;
        for (nfds_t i = 0; i < n; ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL))) continue;
            const bool isOut = fds[i].fd == outFd_;
            int& fd = isOut ? outFd_ : errFd_;
            Bytes* sink = isOut ? output : error;
            const ssize_t got = ::read(fd, chunk.data(), chunk.size());
            if (got > 0) {
                if (sink) sink->insert(sink->end(), chunk.data(), chunk.data() + got);
            } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                closeFd(fd);
            }
        }
    }
    closePipes();
}

Process::ChunkResult Process::readOutputChunk(Bytes& chunk, int wakeFd)
{
    std::array<uint8_t, 65536> buffer;
    while (outFd_ >= 0) {
        pollfd fds[2] = {{outFd_, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        if (posix::retryInterrupted([&] { return ::poll(fds, wakeFd >= 0 ? 2 : 1, -1); }) < 0) break;
        if (wakeFd >= 0 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL))) return ChunkResult::Woken;
        if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL))) continue;
        const ssize_t got = ::read(outFd_, buffer.data(), buffer.size());
        if (got > 0) {
            chunk.insert(chunk.end(), buffer.data(), buffer.data() + got);
            return ChunkResult::Data;
        }
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        break;
    }
    closeFd(outFd_);
    return ChunkResult::End;
}

void Process::closePipes()
{
    closeFd(outFd_);
    closeFd(errFd_);
}

void Process::reapLocked(int status)
{
    reaped_ = true;
    if (WIFEXITED(status)) {
        status_ = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        status_ = 128 + WTERMSIG(status);
    }
}

void Process::waitUntilExit()
{
    {
        std::lock_guard lock(mutex_);
        if (pid_ <= 0 || reaped_) return;
    }
    // Wait without reaping, so that terminate() on another thread can still tell a live
    // process from a reaped one (and never signals a recycled process id).
    siginfo_t info{};
    posix::retryInterrupted([&] { return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT); });
    std::lock_guard lock(mutex_);
    if (reaped_) return;
    int status = 0;
    const pid_t r = posix::retryInterrupted([&] { return ::waitpid(pid_, &status, 0); });
    if (r == pid_) {
        reapLocked(status);
    } else {
        reaped_ = true;  // reaped elsewhere; nothing more to learn
    }
}

bool Process::isRunning()
{
    std::lock_guard lock(mutex_);
    if (pid_ <= 0 || reaped_) return false;
    int status = 0;
    const pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == 0) return true;
    if (r == pid_) {
        reapLocked(status);
    } else {
        reaped_ = true;
    }
    return false;
}

void Process::terminate()
{
    std::lock_guard lock(mutex_);
    if (pid_ > 0 && !reaped_) ::kill(pid_, SIGTERM);
}

void Process::signalProcessGroup(int signal)
{
    std::lock_guard lock(mutex_);
    if (pid_ <= 0) return;
    if (!ownGroup_) {
        if (!reaped_) ::kill(pid_, signal);
        return;
    }
    // The group outlives its leader while any member is left, and its id cannot be given to
    // another process meanwhile.
    ::kill(-pid_, signal);
    if (signal == SIGTERM) ::kill(-pid_, SIGCONT);
}

bool Process::processGroupAlive()
{
    std::lock_guard lock(mutex_);
    if (pid_ <= 0) return false;
    if (!reaped_) {
        int status = 0;
        const pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == 0) return true;
        if (r == pid_) {
            reapLocked(status);
        } else {
            reaped_ = true;
        }
    }
    if (!ownGroup_) return false;
    return ::kill(-pid_, 0) == 0 || errno == EPERM;
}

int Process::terminationStatus()
{
    std::lock_guard lock(mutex_);
    return status_;
}

}  // namespace corvina
