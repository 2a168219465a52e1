// Log throughput: three threads writing the feeders' per-sample lines through
// TQLog::fastAppendLog with rotation active, through a TQLogCore of its own whose sink
// formats every line and keeps none (the queue and the formatting without the file), and
// against spdlog's async rotating logger (same line length, 500000-byte files, 5 files) in
// its blocking and overrun-oldest modes.
//
//   log_bench [lines-per-thread] [tqlog,core,block,overrun]   (default 1000000 and every configuration)
//
// Every run happens in a child process of its own, so that each gets a fresh log
// controller and its own peak resident size (ru_maxrss from wait4). Prints the median of
// three runs per configuration.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tq/TQLog.h"
#include "tq/TQLogCore.h"
#include "tq/TQLogSink.h"

#ifdef CORVINA_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace fs = std::filesystem;

using namespace corvina::tq;

namespace {

constexpr int kThreads = 3;
constexpr int kRuns = 3;

struct RunResult {
    double seconds = 0;
    double peakMB = 0;
    unsigned long long dropped = 0;
};

using Clock = std::chrono::steady_clock;

template <class Body>
void runThreads(long lines, Body body)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([=] {
            for (long i = 0; i < lines; ++i) body(static_cast<unsigned>(t), static_cast<unsigned>(i));
        });
    for (auto& th : threads) th.join();
}

// Lines missing from the five files kept: each thread's lines there must run without a gap
// up to its last one (older lines went with the files rotated out).
unsigned long long missingInKeptFiles(const std::string& base, long lines)
{
    std::vector<long> next(kThreads, -1);
    unsigned long long missing = 0;
    for (int n = 5; n >= 1; --n) {
        FILE* f = std::fopen((base + "." + std::to_string(n) + ".log").c_str(), "r");
        if (!f) continue;
        char line[512];
        while (std::fgets(line, sizeof line, f)) {
            unsigned i = 0, t = 0;
            if (std::strlen(line) < 28 ||
                std::sscanf(line + 28, "Requesting next audio sample at sample index %u,%u...", &i, &t) != 2 ||
                t >= kThreads)
                continue;
            if (next[t] >= 0 && static_cast<long>(i) != next[t])
                missing += static_cast<long>(i) > next[t] ? static_cast<unsigned long long>(i - next[t]) : 1;
            next[t] = static_cast<long>(i) + 1;
        }
        std::fclose(f);
    }
    for (long n : next)
        if (n >= 0 && n != lines) missing += static_cast<unsigned long long>(lines - n);
    return missing;
}

// Child: the TQLog run. Reports seconds and dropped lines through the pipe.
void tqlogRun(long lines, const std::string& folder, int fd)
{
    setenv("HOME", folder.c_str(), 1);
    setenv("TQ_LOCAL_ROOT", folder.c_str(), 1);
    setenv("TQ_CONSOLE_USER", "", 1);
    TQLog::createNewLog("LogBench");
    TQLog::finishWriting();
    const auto start = Clock::now();
    runThreads(lines, [](unsigned t, unsigned i) {
        TQLog::fastAppendLog("Requesting next audio sample at sample index %u,%u...", i, t);
    });
    TQLog::finishWriting();
    RunResult r;
    r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    r.dropped = missingInKeptFiles(folder + "/Library/Logs/Brantwell/LogBench", lines);
    if (write(fd, &r, sizeof r) != sizeof r) _exit(2);
}

// Formats every text it is handed and counts the bytes.
class FormattingSink : public TQLogSink {
public:
    void write(TQLogTexts& texts) override
    {
        texts.materialize(0);
        for (size_t i = 0; i < texts.size(); ++i) bytes_ += texts[i].size();
    }
    uint64_t bytes_ = 0;
};

// Child: a core of its own with the formatting sink.
void coreRun(long lines, int fd)
{
    FormattingSink sink;
    TQLogCore log(sink);
    const auto start = Clock::now();
    runThreads(lines, [&log](unsigned t, unsigned i) {
        log.fastAppend("Requesting next audio sample at sample index %u,%u...", i, t);
    });
    log.finishWriting();
    RunResult r;
    r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (write(fd, &r, sizeof r) != sizeof r) _exit(2);
}

#ifdef CORVINA_HAVE_SPDLOG
void spdlogRun(long lines, const std::string& folder, bool block, int fd)
{
    spdlog::init_thread_pool(8192, 1);
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(folder + "/spd.log", 500000, 5);
    auto logger = std::make_shared<spdlog::async_logger>(
        "bench", sink, spdlog::thread_pool(),
        block ? spdlog::async_overflow_policy::block : spdlog::async_overflow_policy::overrun_oldest);
    // The same line as the log writes: date, " - ", text.
    logger->set_pattern("%Y-%m-%d %H:%M:%S +0000 - %v", spdlog::pattern_time_type::utc);
    auto pool = spdlog::thread_pool();
    const auto start = Clock::now();
    runThreads(lines, [&](unsigned t, unsigned i) {
        logger->info("Requesting next audio sample at sample index {},{}...", i, t);
    });
    RunResult r;
    r.dropped = pool->overrun_counter();
    logger.reset();
    pool.reset();
    spdlog::shutdown();  // joins the worker once the queue is drained
    r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (write(fd, &r, sizeof r) != sizeof r) _exit(2);
}
#endif

template <class Body>
RunResult inChild(Body body)
{
    RunResult r;
    char pattern[] = "/tmp/log_bench.XXXXXX";
    if (!mkdtemp(pattern)) return r;
    const std::string folder = pattern;
    int fds[2];
    if (pipe(fds) != 0) return r;
    std::fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        body(folder, fds[1]);
        _exit(0);
    }
    close(fds[1]);
    if (read(fds[0], &r, sizeof r) != sizeof r) r.seconds = 0;
    close(fds[0]);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    r.peakMB = static_cast<double>(usage.ru_maxrss) / 1024.0;
    std::error_code ec;
    fs::remove_all(folder, ec);
    return r;
}

struct Summary {
    const char* name;
    double linesPerSecond = 0;
    double peakMB = 0;
    unsigned long long dropped = 0;
};

template <class Body>
Summary measure(const char* name, long lines, Body body)
{
    std::vector<RunResult> runs;
    for (int i = 0; i < kRuns; ++i) runs.push_back(inChild(body));
    std::sort(runs.begin(), runs.end(), [](const RunResult& a, const RunResult& b) { return a.seconds < b.seconds; });
    const RunResult& median = runs[kRuns / 2];
    Summary s{name};
    const double total = static_cast<double>(lines) * kThreads;
    s.linesPerSecond = median.seconds > 0 ? total / median.seconds : 0;
    s.peakMB = median.peakMB;
    s.dropped = median.dropped;
    return s;
}

}  // namespace

int main(int argc, char** argv)
{
    const long lines = argc > 1 ? std::atol(argv[1]) : 1000000;
    const std::string only = argc > 2 ? argv[2] : "";
    std::printf("%d threads x %ld lines, rotation at 500000 bytes, median of %d runs\n\n", kThreads, lines, kRuns);
    std::vector<Summary> rows;
    const auto wanted = [&](const char* name) { return only.empty() || only.find(name) != std::string::npos; };
    if (wanted("tqlog"))
        rows.push_back(
            measure("TQLog fastAppendLog", lines, [&](const std::string& f, int fd) { tqlogRun(lines, f, fd); }));
    if (wanted("core"))
        rows.push_back(
            measure("TQLogCore, formatting sink", lines, [&](const std::string&, int fd) { coreRun(lines, fd); }));
#ifdef CORVINA_HAVE_SPDLOG
    if (wanted("block"))
        rows.push_back(measure("spdlog async, block", lines,
                               [&](const std::string& f, int fd) { spdlogRun(lines, f, true, fd); }));
    if (wanted("overrun"))
        rows.push_back(measure("spdlog async, overrun_oldest", lines,
                               [&](const std::string& f, int fd) { spdlogRun(lines, f, false, fd); }));
#endif
    std::printf("%-30s %14s %12s %12s %10s\n", "logger", "lines/s", "peak RSS MB", "dropped", "TQLog x");
    for (const auto& row : rows) {
        const double ratio = row.linesPerSecond > 0 ? rows[0].linesPerSecond / row.linesPerSecond : 0;
        std::printf("%-30s %14.0f %12.1f %12llu %10.2f\n", row.name, row.linesPerSecond, row.peakMB, row.dropped,
                    ratio);
    }
    return 0;
}
