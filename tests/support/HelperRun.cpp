#include "HelperRun.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;

namespace corvina::test {

namespace fs = std::filesystem;

TempDir::TempDir()
{
    std::string pattern = (fs::temp_directory_path() / "corvina-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) std::abort();
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

ProcessResult runProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env)
{
    std::map<std::string, std::string> merged;
    for (char** e = environ; *e; ++e) {
        const std::string entry(*e);
        const auto eq = entry.find('=');
        if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    for (const auto& [k, v] : env) merged[k] = v;
    std::vector<std::string> envStrings;
    for (const auto& [k, v] : merged) envStrings.push_back(k + "=" + v);
    std::vector<char*> envp;
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> argp;
    for (auto& a : args) argp.push_back(a.data());
    argp.push_back(nullptr);

    int outPipe[2], errPipe[2];
    ProcessResult result;
    if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (rc != 0) {
        ::close(outPipe[0]);
        ::close(errPipe[0]);
        result.err = "spawn failed";
        return result;
    }
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    char buffer[65536];
    while (open > 0) {
        if (::poll(fds, 2, -1) < 0) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            } else {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

std::string readTextFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<uint8_t> readBinaryFile(const std::string& path)
{
    const std::string text = readTextFile(path);
    return {text.begin(), text.end()};
}

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string helperPath() { return std::string(CORVINA_BINARY_DIR) + "/CorvinaAVFHelper"; }

std::string sampleJobToolPath() { return std::string(CORVINA_BINARY_DIR) + "/tools/make_sample_job/make_sample_job"; }

HelperHome::HelperHome()
{
    fs::create_directories(dir_.path() + "/Downloads");
}

std::map<std::string, std::string> HelperHome::environment() const
{
    return {{"HOME", path()}, {"TQ_CONSOLE_USER", ""}, {"TQ_LOCAL_ROOT", path() + "/root"},
            {"XDG_CONFIG_HOME", path() + "/.config"}};
}

std::string HelperHome::replaySettingsPath() const { return path() + "/Downloads/corvina.plist"; }

std::string HelperHome::logPath() const
{
    // A root run writes the machine-wide log below TQ_LOCAL_ROOT; others write the user's.
    const std::string local = path() + "/root/Library/Logs/Brantwell/CorvinaAVFHelper.1.log";
    if (::getuid() == 0 && fs::exists(local)) return local;
    return path() + "/Library/Logs/Brantwell/CorvinaAVFHelper.1.log";
}

std::vector<std::string> HelperHome::logEntries() const
{
    // A fresh home holds one run: its files from the oldest (.5) to the current one (.1).
    std::string text;
    const std::string current = logPath();
    const std::string stem = current.substr(0, current.size() - std::string("1.log").size());
    for (int n = 5; n >= 1; --n) text += readTextFile(stem + std::to_string(n) + ".log");
    std::vector<std::string> entries;
    for (const auto& line : splitLines(text)) {
        // "yyyy-MM-dd HH:mm:ss +0000 - text"
        if (line.size() >= 28 && line.compare(25, 3, " - ") == 0) {
            entries.push_back(line.substr(28));
        } else if (!entries.empty()) {
            entries.back() += "\n" + line;
        }
    }
    return entries;
}

bool HelperHome::writeSettings(const corvina::Value& settings) const
{
    return settings.writeToFile(replaySettingsPath(), true);
}

ProcessResult HelperHome::runHelper(const std::vector<std::string>& extraArgs) const
{
    std::vector<std::string> argv{helperPath()};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    return runProgram(argv, environment());
}

std::optional<corvina::Value> makeSampleJob(const std::string& dir, const std::vector<std::string>& options)
{
    std::vector<std::string> argv{sampleJobToolPath(), "--out", dir};
    argv.insert(argv.end(), options.begin(), options.end());
    const ProcessResult run = runProgram(argv);
    if (run.status != 0) return std::nullopt;
    return corvina::Value::fromPropertyListFile(dir + "/settings.plist");
}

namespace {

void appendRange(std::vector<uint8_t>& out, const std::vector<uint8_t>& file, uint64_t offset, uint64_t length)
{
    if (offset >= file.size()) return;
    const uint64_t end = std::min<uint64_t>(file.size(), offset + length);
    out.insert(out.end(), file.begin() + static_cast<std::ptrdiff_t>(offset), file.begin() + static_cast<std::ptrdiff_t>(end));
}

}  // namespace

std::vector<uint8_t> expectedVideoBytes(const corvina::Value& settings)
{
    const auto file = readBinaryFile(settings["tmpFilename"].stringValue());
    std::vector<uint8_t> out;
    const corvina::Value& offsets = settings["offsetArray"];
    for (size_t i = 0; i < offsets.count(); ++i)
        appendRange(out, file, offsets[i]["offset"].unsignedLongLongValue(), offsets[i]["length"].unsignedLongLongValue());
    return out;
}

std::vector<uint8_t> expectedAudioBytes(const corvina::Value& settings, uint64_t bytesPerFrame)
{
    const auto file = readBinaryFile(settings["tmpAudioFilename"].stringValue());
    std::vector<uint8_t> out;
    const corvina::Value& runs = settings["audioOffsetArray"];
    for (size_t i = 0; i < runs.count(); ++i) {
        const uint64_t length = runs[i]["length"].unsignedLongLongValue() / bytesPerFrame * bytesPerFrame;
        appendRange(out, file, runs[i]["offset"].unsignedLongLongValue(), length);
    }
    return out;
}

}  // namespace corvina::test

