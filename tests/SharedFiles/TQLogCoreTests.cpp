// The log's callers' side, queue and writer, in this process: each test makes its own log
// with a memory sink.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <thread>

#include "tq/TQLogCore.h"
#include "tq/TQLogSink.h"
#include "support/TestSupport.h"

namespace corvina::tq {

using namespace corvina::test;
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

// Texts are trimmed, blank ones dropped, "%" in formats literal, finished texts as given.
// The printing calls print the console copy unless printing is off; the debug one never does.
TEST(TQLogCore, TextsAsWrittenAndPrinted)
{
    MemoryLog m;
    TQLogCore& log = m.log;
    const std::string printed = printedBy([&] {
        log.append(Mode::Wait, "Progress: 50% done");
        log.append(Mode::Wait, "");
        log.append(Mode::Wait, " \n\t ");
        log.append(Mode::Wait, nullptr);
        log.append(Mode::Wait, "Copied %@ (100% done)", std::string("clip.mov"));
        log.append(Mode::Wait, "%.1f", 2.5);
        log.append(Mode::Wait, "%0.2f GB", 1.5);
        log.fastAppend("  two leading blanks\n");
        log.append(Mode::Wait, "line one\nline two");
        log.append(Mode::DebugPrint, "debug %d%%", 7);
        log.append(Mode::Print, "Done: 100% ok");
        log.append(Mode::Print, "");
        log.append(Mode::Print, "%@ and %d", std::string("50%"), 3);
        log.appendText(Mode::Print, " as given 5%% ");
        log.appendText(Mode::Print, std::string("left %@ and a nul\0 byte", 24));
        log.setNoPrinting(true);
        log.append(Mode::Print, "quiet");
    });
    EXPECT_EQ(m.written(), (std::vector<std::string>{"Progress: 50% done", "Copied clip.mov (100% done)", "%.1f",
                                                     "1.50 GB", "two leading blanks", "line one\nline two", "debug 7%",
                                                     "Done: 100% ok", "50% and 3", "as given 5%%",
                                                     std::string("left %@ and a nul\0 byte", 24), "quiet"}));
    // The console copy: "%" doubled, "%@" and NULs removed.
    EXPECT_EQ(printed, "Done: 100%% ok\n\n50%% and 3\nas given 5%%%%\nleft  and a nul byte\n");
}

// fastAppend hands its format and arguments to the writer to format; each row must come
// out as the caller's formatting writes it.
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
    // Formats are kept by the writer and known again by their text: a buffer reused for
    // another format, one too long to keep and more formats than are kept must all still
    // come out as given.
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

// A series comes out as the lines it stands for: counters going up (across a digit), null
// formats logging nothing, and lines with objects (described one by one) among them. A long
// series is queued in pieces; the count goes on across them.
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
    TQLogCore& log = m.log;
    log.setSuspended(true);
    // On the main thread: returns at once although the writer takes nothing.
    log.append(Mode::Wait, "main %d", 1);
    // A long text from a background thread does not wait either.
    std::thread([&] { log.append(Mode::Wait, "%@", std::string(100, 'x')); }).join();
    EXPECT_EQ(log.queuedEntryCount(), 2u);
    log.setSuspended(false);
    log.finishWriting();

    log.setSuspended(true);
    std::atomic<bool> returned{false};
    std::thread t([&] {
        log.append(Mode::Wait, "ten chars!");
        returned = true;
    });
    while (log.queuedEntryCount() == 0) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(returned) << "background append waits for the writer";
    log.setSuspended(false);
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

}  // namespace corvina::tq
