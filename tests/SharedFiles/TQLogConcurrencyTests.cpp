#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <thread>

#include "TQLog.h"
#include "TestSupport.h"

using namespace corvina::test;
namespace fs = std::filesystem;

// Several threads log across three restarts: every line lands exactly once, each thread's
// lines keep their order, and every finished file ends with the entry that crossed the
// limit.
TEST(TQLogConcurrency, RestartWithSeveralWritersLosesNothing)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("Tool");
        constexpr int kThreads = 4;
        constexpr int kLines = 6000;  // about 1.7 MB in all: three restarts
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < kLines; ++i) {
                    if (i % 1000 == 999)
                        TQLog::appendLog("thread %d line %d", t, i);  // may wait for the writer
                    else
                        TQLog::fastAppendLog("thread %d line %d padding to make the line longer", t, i);
                }
            });
        }
        for (auto& th : threads)
            th.join();
        TQLog::finishWriting();
        c.expect(TQLog::sharedController().bytesInQueue() == 0, "queue drained");

        const std::string folder = dir.path() + "/Library/Logs/Brantwell";
        std::vector<int> next(kThreads, 0);
        int truncations = 0;
        for (int n = 5; n >= 1; --n) {
            const std::string path = folder + "/Tool." + std::to_string(n) + ".log";
            if (!fs::exists(path))
                continue;
            const std::string text = readFile(path);
            auto ls = splitLines(text);
            if (n > 1) {
                const size_t lastEntry = ls.empty() ? 0 : ls.back().size() + 1;
                c.expect(text.size() >= 500000 && text.size() - lastEntry < 500000,
                         "file ." + std::to_string(n) + " ends with the crossing entry, size " + std::to_string(text.size()));
            }
            for (const auto& l : ls) {
                const std::string e = entryText(l);
                int t = -1, i = -1;
                if (std::sscanf(e.c_str(), "thread %d line %d", &t, &i) == 2 && t >= 0 && t < kThreads) {
                    if (i != next[t])
                        c.expect(false, "thread " + std::to_string(t) + " expected line " + std::to_string(next[t]) +
                                            " got " + std::to_string(i));
                    next[t] = i + 1;
                }
                truncations += e == "Log truncated at 500KB";
            }
        }
        // Only five files are kept: the oldest lines may be gone, never the newest.
        for (int t = 0; t < kThreads; ++t)
            c.expect(next[t] == kLines, "thread " + std::to_string(t) + " ends at " + std::to_string(next[t]));
        c.expect(truncations >= 3, "restarts: " + std::to_string(truncations));
    });
    EXPECT_TRUE(r.exitedCleanly()) << r.status;
    EXPECT_EQ(r.failures, "");
}

TEST(TQLogConcurrency, FinishWritingFromManyThreads)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("Tool");
        std::vector<std::thread> threads;
        std::atomic<int> ok{0};
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 200; ++i) {
                    TQLog::appendLog("flush %d %d", t, i);
                    TQLog::finishWriting();
                }
                ok++;
            });
        }
        for (auto& th : threads)
            th.join();
        c.expect(ok == 4, "all threads done");
        auto ls = splitLines(readFile(dir.path() + "/Library/Logs/Brantwell/Tool.1.log"));
        int flushed = 0;
        for (const auto& l : ls)
            flushed += entryText(l).rfind("flush ", 0) == 0;
        c.expect(flushed == 800, "all lines written: " + std::to_string(flushed));
    });
    EXPECT_TRUE(r.exitedCleanly()) << r.status;
    EXPECT_EQ(r.failures, "");
}
