// The log's callers' side, queue and writer; the files a batch writes across restarts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string_view>
#include <thread>

#include "tq/TQLog.h"
#include "tq/TQLogCore.h"
#include "tq/TQLogFile.h"
#include "tq/TQLogQueue.h"
#include "tq/TQLogSink.h"
#include "support/TestSupport.h"

namespace corvina::tq {

using namespace corvina::test;
namespace fs = std::filesystem;
using Mode = TQLogCore::Mode;

namespace {

struct Clip {
    std::string description() const { return " clip 7% "; }
};

// A log writing to memory.
struct MemoryLog {
    TQLogMemorySink sink;
    TQLogCore log{sink};
    std::vector<std::string> written()
    {
        log.finishWriting();
        return sink.texts();
    }
};

// What fn prints on standard output.
std::string printedBy(const std::function<void()>& fn)
{
    TempDir dir;
    std::fflush(stdout);
    const int saved = ::dup(STDOUT_FILENO);
    const int out = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ::dup2(out, STDOUT_FILENO);
    ::close(out);
    fn();
    std::fflush(stdout);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
    return readFile(dir / "out");
}

}  // namespace

// Texts trimmed, blank ones dropped; the console copy unless printing is off (never for debug).
TEST(TQLogCore, TextsAsWrittenAndPrinted)
{
    MemoryLog m;
    const std::string printed = printedBy([&] {
        m.log.append(Mode::Wait, "Progress: 50% done");
        m.log.append(Mode::Wait, "");
        m.log.append(Mode::Wait, " \n\t ");
        m.log.append(Mode::Wait, nullptr);
        m.log.append(Mode::Wait, "Copied %@ (100% done)", std::string("clip.mov"));
        m.log.append(Mode::Wait, "%.1f", 2.5);
        m.log.append(Mode::Wait, "%0.2f GB", 1.5);
        m.log.fastAppend("  two leading blanks\n");
        m.log.append(Mode::Wait, "line one\nline two");
        m.log.append(Mode::DebugPrint, "debug %d%%", 7);
        m.log.append(Mode::Print, "Done: 100% ok");
        m.log.append(Mode::Print, "");
        m.log.append(Mode::Print, "%@ and %d", std::string("50%"), 3);
        m.log.appendText(Mode::Print, " as given 5%% ");
        m.log.appendText(Mode::Print, std::string("left %@ and a nul\0 byte", 24));
        m.log.setNoPrinting(true);
        m.log.append(Mode::Print, "quiet");
    });
    EXPECT_EQ(m.written(), (std::vector<std::string>{"Progress: 50% done", "Copied clip.mov (100% done)", "%.1f",
                                                     "1.50 GB", "two leading blanks", "line one\nline two", "debug 7%",
                                                     "Done: 100% ok", "50% and 3", "as given 5%%",
                                                     std::string("left %@ and a nul\0 byte", 24), "quiet"}));
    // The console copy: "%" doubled, "%@" and NULs removed.
    EXPECT_EQ(printed, "Done: 100%% ok\n\n50%% and 3\nas given 5%%%%\nleft  and a nul byte\n");
}

// fastAppend formats on the writer; each row must come out as append formats it on the caller.
TEST(TQLogCore, FormatsOnTheWriterAsOnTheCaller)
{
    MemoryLog m;
    const Clip clip;
    const char* none = nullptr;
    const std::string text = "  padded\n";
    auto both = [&](auto... args) {
        m.log.append(Mode::Fast, args...);
        m.log.fastAppend(args...);
    };
    both("index %u,%u...", 7u, 4294967295u);
    both("%d %i %ld %lld %x %X %o", -5, 42, -1L, 1LL << 40, 255, 255u, 8);
    both("%@ / %s / %@", clip, none, text);
    both("%5.1f|%0.2f|%e|%g|%@|%@", 2.25, 1.0 / 3, 12345.678, 0.0001, 29.97f, 29.97);
    both("%c%c %p %@", 'a', static_cast<unsigned char>('b'), static_cast<const void*>(&clip), nullptr);
    both("%2$@ then %1$@", std::string("one"), std::string("two"));
    both("Progress: 50% done %d", 3);
    both("%@", std::string(" \t "));  // nothing left after trimming
    both("%-6d|%06.1f|%*d", 12, 3.14159, 4, 9);
    // Formats kept by the writer: a reused buffer, one too long to keep, more than are kept.
    static char reused[] = "first %u";  // in the program's image, but writable
    both(static_cast<const char*>(reused), 1u);
    reused[0] = 'F';
    both(static_cast<const char*>(reused), 2u);
    both(std::string(600, 'x') + " %d", 5);
    both("no conversions ", 5);
    for (int i = 0; i < 1100; ++i) both("format " + std::to_string(i) + " %d", i);
    const auto texts = m.written();
    ASSERT_EQ(texts.size(), 16u + 8 + 2200);
    for (size_t i = 0; i + 1 < texts.size(); i += 2) EXPECT_EQ(texts[i + 1], texts[i]) << "row " << i / 2;
    EXPECT_EQ(texts[4], "clip 7%  / (null) /   padded");
}

// A series is its lines: counters going up, null formats skipped; a long one goes in pieces.
TEST(TQLogCore, SeriesAreTheLinesTheyStandFor)
{
    MemoryLog m;
    const Clip clip;
    const corvina::FormatArg request[] = {int64_t(-2), std::string_view(" a b "), uint64_t(98)};
    const corvina::FormatArg number[] = {uint64_t(7)};
    const corvina::FormatArg object[] = {corvina::FormatArg(clip), 5};
    const TQLogCore::SeriesLine plain[] = {
        {"step %d %@ %u", request, 2}, {nullptr, {}, std::nullopt}, {"  count %u  ", number, std::nullopt}};
    const TQLogCore::SeriesLine objects[] = {{"%@ %d", object, 1}, {"no conversions", {}, std::nullopt}};
    m.log.fastAppendSeries(3, plain);
    m.log.fastAppendSeries(2, objects);
    m.log.fastAppendSeries(0, plain);
    EXPECT_EQ(m.written(), (std::vector<std::string>{"step -2  a b  98", "count 7", "step -2  a b  99", "count 7",
                                                     "step -2  a b  100", "count 7", "clip 7%  5", "no conversions",
                                                     "clip 7%  6", "no conversions"}));
    const corvina::FormatArg start[] = {uint64_t(0)};
    const TQLogCore::SeriesLine pair[] = {{"n %u", start, 0}, {"m", {}, std::nullopt}};
    m.log.fastAppendSeries(36000, pair);
    const auto texts = m.written();
    ASSERT_EQ(texts.size(), 10u + 72000);
    for (size_t s = 0; s < 36000; s += 997) ASSERT_EQ(texts[10 + 2 * s], "n " + std::to_string(s)) << s;
    EXPECT_EQ(texts.back(), "m");
}

TEST(TQLogCore, MainThreadNeverWaitsBackgroundShortTextDoes)
{
    MemoryLog m;
    m.log.setSuspended(true);
    // On the main thread: returns at once although the writer takes nothing.
    m.log.append(Mode::Wait, "main %d", 1);
    // A long text from a background thread does not wait either.
    std::thread([&] { m.log.append(Mode::Wait, "%@", std::string(100, 'x')); }).join();
    EXPECT_EQ(m.log.queuedEntryCount(), 2u);
    m.log.setSuspended(false);
    m.log.finishWriting();

    m.log.setSuspended(true);
    std::atomic<bool> returned{false};
    std::thread t([&] {
        m.log.append(Mode::Wait, "ten chars!");
        returned = true;
    });
    while (m.log.queuedEntryCount() == 0) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(returned) << "background append waits for the writer";
    m.log.setSuspended(false);
    t.join();
    EXPECT_EQ(m.sink.texts().back(), "ten chars!") << "written before append returned";
}

// Shutdown writes up to ten queued entries and none of a longer queue; later entries are dropped.
TEST(TQLogCore, ShutdownWritesTenQueuedNotElevenAndNothingAfter)
{
    for (const size_t queued : {size_t(0), size_t(10), size_t(11)}) {
        MemoryLog m;
        m.log.setSuspended(true);
        for (size_t i = 0; i < queued; ++i) m.log.fastAppend("queued %d", static_cast<int>(i));
        m.log.shutdown();
        m.log.append(Mode::Wait, "late");
        m.log.finishWriting();
        EXPECT_TRUE(m.log.isShutDown());
        EXPECT_EQ(m.sink.count(), queued <= 10 ? queued : 0) << queued << " queued";
        EXPECT_EQ(m.log.bytesInQueue(), 0u);
    }
}

namespace {

struct Described {
    int n;
    std::string description() const { return "obj" + std::to_string(n); }
};

// Faults in per-thread "t<thread> <line>" texts: lines missing, repeated or out of order.
std::string lineOrderFaults(const std::vector<std::string>& texts, int threads, int lines, bool fromStart)
{
    std::string faults;
    auto expect = [&](bool ok, const std::string& what) {
        if (!ok && faults.size() < 2000) faults += what + "\n";
    };
    std::vector<int> next(threads, -1);
    for (const auto& text : texts) {
        int t = -1, i = -1;
        if (std::sscanf(text.c_str(), "t%d %d", &t, &i) != 2 || t < 0 || t >= threads) continue;
        if (next[t] < 0 && !fromStart) next[t] = i;
        if (next[t] < 0) next[t] = 0;
        expect(i == next[t],
               "thread " + std::to_string(t) + " expected " + std::to_string(next[t]) + " got " + std::to_string(i));
        next[t] = i + 1;
    }
    // Without the start, a thread whose lines all went with the older files shows none.
    for (int t = 0; t < threads; ++t)
        if (fromStart || next[t] >= 0)
            expect(next[t] == lines, "thread " + std::to_string(t) + " ends at " + std::to_string(next[t]));
    return faults;
}

}  // namespace

// Threads that each wait for every line: no deadlock, each line once and in order.
TEST(TQLogConcurrency, FinishWritingFromManyThreads)
{
    TQLogMemorySink sink;
    TQLogCore log(sink);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &log] {
            for (int i = 0; i < 200; ++i) {
                log.append(TQLogCore::Mode::Wait, "t%d %d", t, i);
                log.finishWriting();
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(lineOrderFaults(sink.texts(), 4, 200, true), "");
}

// Producers wait at the queue's bound; once the writer runs, every entry arrives once, in order.
TEST(TQLogConcurrency, QueueIsBoundedAndLosesNothing)
{
    TQLogMemorySink sink;
    TQLogQueue queue(sink);
    constexpr int kThreads = 3, kLines = 40000;
    queue.setSuspended(true);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&queue, t] {
            const Described object{t};
            const std::string padding(60, 'p');
            for (int i = 0; i < kLines; ++i) {
                if (i % 7 == 3) {
                    queue.push(TQLogEntry::text("  t" + std::to_string(t) + " " + std::to_string(i) + " text\n"));
                } else {
                    const corvina::FormatArg args[] = {t,   static_cast<unsigned>(i),  2.5f,   object,
                                                       'c', std::string_view(padding), nullptr};
                    queue.push(TQLogEntry::format("t%d %u %@ %@ %c %s %@ ", args));
                }
            }
        });
    }
    while (queue.queuedBytes() < TQLogQueue::kCapacity) std::this_thread::yield();
    EXPECT_LE(queue.queuedBytes(), TQLogQueue::kCapacity + 256) << "producers wait at the bound";
    queue.setSuspended(false);
    for (auto& th : threads) th.join();
    queue.waitUntilWritten();
    EXPECT_EQ(queue.bytesInQueue(), 0u);
    const auto got = sink.texts();
    ASSERT_EQ(got.size(), size_t(kThreads) * kLines);
    const std::string expected = "t1 8 2.5 obj1 c " + std::string(60, 'p') + " (null)";
    EXPECT_NE(std::find(got.begin(), got.end(), expected), got.end()) << "formatted on the writer as on the caller";
    EXPECT_NE(std::find(got.begin(), got.end(), "t2 3 text"), got.end()) << "texts trimmed";
    EXPECT_EQ(lineOrderFaults(got, kThreads, kLines, true), "");
}

namespace {

// The text with every date in it ("2024-01-02 03:04:05 +0000") as "DATE".
std::string withoutDates(const std::string& text)
{
    constexpr std::string_view kShape = "dddd-dd-dd dd:dd:dd +dddd";
    const auto dateAt = [&](size_t at) {
        if (at + kShape.size() > text.size()) return false;
        for (size_t k = 0; k < kShape.size(); ++k) {
            const char c = text[at + k];
            if (kShape[k] == 'd' ? c < '0' || c > '9' : c != kShape[k]) return false;
        }
        return true;
    };
    std::string out;
    out.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        if (dateAt(at)) {
            out += "DATE";
            at += kShape.size();
        } else {
            out += text[at++];
        }
    }
    return out;
}

}  // namespace

// A batch that restarts the file 4 to 12 times leaves the same files with or without the
// shortcut and with deferred texts; five or more restarts rotate older runs out.
TEST(TQLogConcurrency, BatchShortcutLeavesTheSameFiles)
{
    if (!inChild()) return expectChildPasses();
    const std::string root = childHome();
    for (int restarts : {4, 5, 6, 12}) {
        std::string files[3];
        for (int mode = 0; mode < 3; ++mode) {
            const bool shortcut = mode > 0;
            const std::string home = root + "/r" + std::to_string(restarts) + "s" + std::to_string(mode);
            setenv("HOME", home.c_str(), 1);
            setenv("TQ_LOCAL_ROOT", home.c_str(), 1);
            const std::string folder = home + "/Library/Logs/Brantwell";
            for (int n = 1; n <= 5; ++n)
                writeFile(folder + "/Tool." + std::to_string(n) + ".log", "old " + std::to_string(n) + "\n");
            std::atomic<bool> disabled{false}, noPrinting{false};
            TQLogFile file(disabled, noPrinting);
            file.setBatchShortcut(shortcut);
            EXPECT_TRUE(file.open("Tool"));
            TQLogTexts texts;
            // 100-byte entries: 5000 to a file.
            const int count = restarts * 5000 - 2500;
            std::string sources(static_cast<size_t>(count) * 71 + 1, '\0');
            for (int i = 0; i < count; ++i) {
                char* text = sources.data() + static_cast<size_t>(i) * 71;
                char made[80];
                std::snprintf(made, sizeof made, "entry %08d %-56s", i, "x");
                std::memcpy(text, made, 71);
                if (mode == 2 && i % 2 == 0)
                    texts.pushDeferred(text, 71,
                                       [](const char* source, uint64_t, std::string& out) { out.append(source, 71); });
                else
                    texts.push(std::string_view(text, 71));
            }
            file.write(texts);
            file.write(texts);  // a second batch goes on from where the first ended
            const std::string what = std::to_string(restarts) + (shortcut ? " with" : " without");
            const uint64_t taken = file.shortcutsTaken();
            EXPECT_TRUE(shortcut ? (restarts >= 6 ? taken > 0 : restarts > 4 || taken == 0) : taken == 0)
                << what << " shortcuts " << taken;
            for (int n = 1; n <= 5; ++n)
                files[mode] += "--" + std::to_string(n) + "\n" +
                               withoutDates(readFile(folder + "/Tool." + std::to_string(n) + ".log"));
            EXPECT_EQ(file.bytesWritten(), fs::file_size(folder + "/Tool.1.log")) << what;
        }
        EXPECT_EQ(files[0], files[1]) << restarts << " restarts";
        EXPECT_EQ(files[0], files[2]) << restarts << " restarts, deferred texts";
        EXPECT_EQ(files[0].find("old "), std::string::npos) << restarts << " restarts: old files rotated out";
    }
}

// Producers across many restarts, batches held to cross several: the kept files hold each
// thread's last lines without a gap or a repeat, each file cut where it should be.
class TQLogConcurrencyRestarts : public ::testing::TestWithParam<bool> {};

TEST_P(TQLogConcurrencyRestarts, ManyRestartsThreeProducers)
{
    const bool shortcut = GetParam();
    if (!inChild()) return expectChildPasses();
    const std::string root = childHome();
    TQLog::setBatchShortcutForTesting(shortcut);
    TQLog::createNewLog("Tool");
    constexpr int kThreads = 3, kLines = 40000;
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &done] {
            const std::string padding(40, '.');
            for (int i = 0; i < kLines; ++i) {
                if (i % 5000 == 4999) {
                    TQLog::appendLog("t%d %d", t, i);
                } else if (t == 2 && i % 1000 == 0) {
                    // A hundred lines in one series.
                    const corvina::FormatArg args[] = {t, i, padding};
                    const TQLog::SeriesLine line[] = {{"t%d %d padding the line to about a hundred bytes %@", args, 1}};
                    TQLog::fastAppendLogSeries(100, line);
                    i += 99;
                } else {
                    TQLog::fastAppendLog("t%d %d padding the line to about a hundred bytes %@", t, i, padding);
                }
            }
            done++;
        });
    }
    // A held batch of 50000 entries crosses about ten restarts; the queue's bound holds about
    // 65000 of them (128 bytes each), and producers waiting there would never make more.
    for (int round = 0; round < 3 && done < kThreads; ++round) {
        TQLog::suspendWriterForTesting(true);
        while (TQLog::sharedController().queuedEntryCount() < 50000 && done < kThreads) std::this_thread::yield();
        TQLog::suspendWriterForTesting(false);
    }
    for (auto& th : threads) th.join();
    TQLog::finishWriting();
    EXPECT_EQ(TQLog::sharedController().bytesInQueue(), 0u);
    EXPECT_EQ(TQLog::batchShortcutsForTesting() > 0, shortcut);

    const std::string folder = root + "/Library/Logs/Brantwell";
    std::vector<std::string> texts;
    for (int n = 5; n >= 1; --n) {
        const std::string text = readFile(folder + "/Tool." + std::to_string(n) + ".log");
        const auto ls = splitLines(text);
        EXPECT_GT(ls.size(), 6u) << "file " << n;
        if (ls.size() <= 6) continue;
        EXPECT_EQ(entryText(ls[0]).rfind("Log started: ", 0), 0u) << "file " << n;
        EXPECT_EQ(entryText(ls[5]), "Log truncated at 500KB") << "file " << n;
        if (n > 1) {
            EXPECT_TRUE(text.size() >= 500000 && text.size() - ls.back().size() - 1 < 500000)
                << "file " << n << " ends with the crossing entry, size " << text.size();
        }
        for (const auto& l : ls) texts.push_back(entryText(l));
    }
    EXPECT_EQ(lineOrderFaults(texts, kThreads, kLines, false), "");
}

INSTANTIATE_TEST_SUITE_P(Shortcut, TQLogConcurrencyRestarts, ::testing::Bool());

}  // namespace corvina::tq
