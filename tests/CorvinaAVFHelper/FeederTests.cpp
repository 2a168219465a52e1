// The sample feeders against small data files whose bytes are known.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

#include "helper/AppController.h"
#include "tq/TQLog.h"
#include "helper/TrackFeeder.h"
#include "support/WriterSupport.h"

namespace corvina::helper {
using namespace corvina::tq;

using namespace corvina;
using corvina::test::TempDir;

namespace {

Value entry(uint64_t offset, uint64_t length, std::optional<int64_t> frameCount = std::nullopt)
{
    Value::DictionaryType d{{"offset", offset}, {"length", length}};
    if (frameCount) d["frameCount"] = *frameCount;
    return Value(std::move(d));
}

std::shared_ptr<const MediaEntryTable> table(const Value& entries)
{
    return std::make_shared<const MediaEntryTable>(MovieJob::entriesFrom(entries));
}

// The data files hold test::patternBytes, so that every range is recognisable.
std::vector<uint8_t> expected(uint64_t offset, size_t length)
{
    const std::string bytes = test::patternBytes(offset + length);
    return {bytes.begin() + long(offset), bytes.end()};
}

class VideoFeeder : public ::testing::Test {
protected:
    void SetUp() override { test::makeFile(dir / "video.raw", 10000); }
    VideoTrackFeeder feederFor(const Value& entries, float fps)
    {
        VideoTrackFeeder feeder(FileHandle::forReadingAtPath(dir / "video.raw"), table(entries));
        feeder.setFormat(format, FrameRate::fromDouble(fps));
        return feeder;
    }
    TempDir dir;
    FormatDescriptionRef format = test::videoFormat(fourCC("dvc "), 720, 480);
};

TEST_F(VideoFeeder, EntriesTheFileCannotServeEndTheTrack)
{
    // Past the end of the file: the track ends, the index stays on the entry.
    VideoTrackFeeder feeder = feederFor(Value(Value::ArrayType{entry(0, 10), entry(10000, 10), entry(20, 10)}), 25);
    ASSERT_NE(feeder.next(), nullptr);
    EXPECT_EQ(feeder.next(), nullptr);
    EXPECT_EQ(feeder.entryIndex(), 1u);
    EXPECT_EQ(feeder.framesHandedOut(), 1u);
    // Only 10 bytes are there for an absurd length; no table; an entry that is no dictionary.
    for (const Value& table : {Value(Value::ArrayType{entry(9990, UINT64_MAX)}), Value(),
                               Value(Value::ArrayType{Value("not a dictionary")})}) {
        VideoTrackFeeder fresh = feederFor(table, 25);
        EXPECT_EQ(fresh.next(), nullptr);
    }
}

// Counts below one are one frame; 30 bytes are not three DV frames, so that entry is one long sample.
TEST_F(VideoFeeder, FrameCountsBelowOneCountAsOneAndUnsplittableEntriesStayWhole)
{
    VideoTrackFeeder feeder =
        feederFor(Value(Value::ArrayType{entry(0, 10, 0), entry(10, 10, -3), entry(20, 30, 3), entry(60, 10)}), 25);
    const std::pair<int64_t, int64_t> timing[] = {{0, 1000}, {1000, 1000}, {2000, 3000}, {5000, 1000}};
    for (const auto& [start, length] : timing) {
        const SampleBuffer* sample = feeder.next();
        ASSERT_NE(sample, nullptr) << start;
        EXPECT_EQ(sample->numSamples(), 1);
        EXPECT_EQ(sample->presentationTimeStamp(), MediaTime::make(start, 25000));
        EXPECT_EQ(sample->duration(), MediaTime::make(length, 25000));
    }
    EXPECT_EQ(feeder.framesHandedOut(), 6u);
}

class AudioFeeder : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::makeFile(dir / "audio.raw", 4096);
        format = controller.audioFormatDescriptionForChannels(2, true, 16, 48000, false);
    }
    AudioTrackFeeder feederFor(const Value& entries)
    {
        AudioTrackFeeder feeder(FileHandle::forReadingAtPath(dir / "audio.raw"), table(entries));
        feeder.setFormat(format, 48000, 4);
        return feeder;
    }
    TempDir dir;
    AppController controller;
    FormatDescriptionRef format;
};

TEST_F(AudioFeeder, EndsAtTheEndOfTheFileAndOnEmptyTables)
{
    AudioTrackFeeder feeder = feederFor(Value(Value::ArrayType{entry(4090, 16)}));
    // 4090..4093 is whole; 4094 starts a frame with only 2 bytes left: the track ends there.
    ASSERT_NE(feeder.next(), nullptr);
    EXPECT_EQ(feeder.next(), nullptr);
    EXPECT_EQ(feeder.frameIndex(), 1u);

    EXPECT_EQ(feederFor(Value(Value::ArrayType{})).next(), nullptr);
    EXPECT_EQ(feederFor(Value(Value::ArrayType{entry(UINT64_MAX - 2, 8)})).next(), nullptr);
}

// A run hands out the frames, times, positions and log lines that as many single calls give.
TEST_F(AudioFeeder, RunsHandOutAndLogWhatSingleCallsWould)
{
    // Runs also carry on into entries that follow on in the file with as many frames: one,
    // two and seven frames here, then one the file ends in.
    const MediaEntryTable entries = {{0, 8, 1},     {50, 3, 1},    {0, 0, 1},    {200, 400, 1}, {3200, 4, 1},
                                     {3204, 4, 1},  {3208, 4, 1},  {3212, 8, 1}, {3220, 8, 1},  {3228, 8, 1},
                                     {3236, 28, 1}, {3264, 28, 1}, {10, 6, 1},   {4088, 4, 1},  {4092, 4, 1},
                                     {4096, 4, 1},  {0, 4, 1}};
    const auto table = std::make_shared<const MediaEntryTable>(entries);
    struct Drained {
        std::vector<std::pair<MediaTime, std::vector<uint8_t>>> frames;
        std::vector<std::string> lines;
        uint64_t entry, frame, handedOut;
        bool operator==(const Drained&) const = default;
    };
    // The per-sample lines are compared too: let them into the log.
    TQLog::sharedController().setLogsSamples(true);
    // maxFrames 0: one next() call per frame.
    const auto drain = [&](uint64_t maxFrames) {
        AudioTrackFeeder feeder(FileHandle::forReadingAtPath(dir / "audio.raw"), table);
        feeder.setFormat(format, 48000, 4);
        const std::string mark = "drained with " + std::to_string(maxFrames);
        TQLog::appendLog("%@", mark);
        Drained d;
        while (const SampleBuffer* s = maxFrames ? feeder.nextRun(maxFrames) : feeder.next()) {
            EXPECT_LE(uint64_t(s->numSamples()), std::max<uint64_t>(maxFrames, 1));
            const BlockBuffer* all = s->dataBuffer();
            EXPECT_EQ(all->dataLength(), size_t(s->numSamples()) * 4);
            for (int64_t i = 0; i < s->numSamples(); ++i)
                d.frames.emplace_back(s->presentationTimeStamp(i),
                                      std::vector<uint8_t>(all->data() + i * 4, all->data() + i * 4 + 4));
        }
        TQLog::finishWriting();
        // Root writes the machine-wide log, below TQ_LOCAL_ROOT.
        const char* const root = std::getenv(::getuid() == 0 ? "TQ_LOCAL_ROOT" : "HOME");
        const auto entries = test::logEntries(std::string(root ? root : "") + "/Library/Logs/Brantwell/" +
                                              TQLog::sharedController().appName() + ".1.log");
        const auto at = std::find(entries.begin(), entries.end(), mark);
        EXPECT_NE(at, entries.end()) << mark;
        if (at != entries.end()) d.lines.assign(at + 1, entries.end());
        d.entry = feeder.entryIndex();
        d.frame = feeder.frameIndex();
        d.handedOut = feeder.framesHandedOut();
        return d;
    };
    const Drained single = drain(0);
    // One by one: the whole frames of each entry in turn, without gaps in time; the 3-byte
    // and empty entries and the last frame of the 6-byte one pass unread; 4096 is the end.
    std::vector<std::pair<MediaTime, std::vector<uint8_t>>> frames;
    const std::pair<uint64_t, int> runs[] = {{0, 2}, {200, 100}, {3200, 3}, {3212, 6}, {3236, 14}, {10, 1}, {4088, 2}};
    for (const auto& [offset, count] : runs)
        for (int k = 0; k < count; ++k)
            frames.emplace_back(MediaTime::make(int64_t(frames.size()), 48000), expected(offset + 4 * uint64_t(k), 4));
    EXPECT_TRUE(single.frames == frames);
    ASSERT_GT(single.lines.size(), 2 * single.frames.size());
    for (uint64_t maxFrames : {1, 2, 7, 100, 103, 100000}) {
        SCOPED_TRACE(maxFrames);
        EXPECT_TRUE(drain(maxFrames) == single);
    }
}

}  // namespace

}  // namespace corvina::helper
