#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/WriterSupport.h"

namespace corvina {
namespace {

using namespace test;

TEST(AssetWriter, AFullDiskFailsTheWriterAndKeepsWhatWasWritten)
{
    TempDir dir;
    ScopedMount disk(dir / "disk", "tmpfs", "size=1m");
    MOUNT_OR_SKIP(disk);
    const std::string path = dir / "disk/full.mov";
    OpenWriter w(path, false, false);
    ASSERT_TRUE(w.writer);
    auto f = videoFormat(fourCC("dvcp"), 720, 576);
    auto frame = randomBytes(144000, 5);
    int accepted = 0;
    for (int i = 0; i < 200; ++i) {
        if (!w.video->appendSampleBuffer(*oneSample(f, frame, MediaTime::make(i, 25), MediaTime::make(1, 25)))) break;
        ++accepted;
    }
    EXPECT_LT(accepted, 200) << "a 1 MB disk cannot take 28 MB";
    EXPECT_EQ(w.writer->status(), AssetWriterStatus::Failed);
    auto e = w.writer->error();
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(e->code, ENOSPC);
    EXPECT_NE(e->localizedDescription.find(std::strerror(ENOSPC)), std::string::npos) << e->localizedDescription;
    EXPECT_FALSE(w.video->appendSampleBuffer(*oneSample(f, frame, MediaTime::make(500, 25), MediaTime::make(1, 25))));
    // Pumps must be able to run to their end: a failed writer's inputs stay ready.
    EXPECT_TRUE(w.video->isReadyForMoreMediaData());
    EXPECT_FALSE(w.writer->finishWriting());
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0) << "the partial movie stays";
    EXPECT_GT(st.st_size, 500 * 1024);
}

TEST(AssetWriter, CancelRemovesThePartialMovie)
{
    TempDir dir;
    const std::string path = dir / "cancelled.mov";
    OpenWriter w(path, false, false);
    ASSERT_TRUE(w.writer);
    EXPECT_TRUE(w.video->appendSampleBuffer(*oneSample(videoFormat(fourCC("dvc "), 720, 480), randomBytes(1000, 1),
                                                       MediaTime::zero(), MediaTime::make(1001, 30000))));
    w.writer->cancelWriting();
    EXPECT_EQ(w.writer->status(), AssetWriterStatus::Cancelled);
    EXPECT_FALSE(w.writer->finishWriting());
    struct stat st {};
    EXPECT_NE(::stat(path.c_str(), &st), 0);
}

TEST(AssetWriter, MoviesAbove4GBUse64BitSizesAndOffsets)
{
#ifdef CORVINA_SANITIZED
    GTEST_SKIP() << "writes 4.6 GB: not in sanitizer builds";
#else
    TempDir dir;
    struct statvfs fs {};
    if (::statvfs(dir.path().c_str(), &fs) != 0 || uint64_t(fs.f_bavail) * fs.f_frsize < (10ull << 30))
        GTEST_SKIP() << "needs 10 GB free in " << dir.path();
    const std::string path = dir / "large.mov";
    OpenWriter w(path, true, false);
    ASSERT_TRUE(w.writer);
    auto vf = videoFormat(fourCC("ap4x"), 3840, 2160);
    auto af = audioFormat(48000, Layout::Stereo, false);
    const size_t frameSize = 8u << 20;
    const int frames = 560;  // 4.7 GB
    auto frame = randomBytes(frameSize, 17);
    auto pcm = randomBytes(1602 * 4, 3);
    int64_t audioFrames = 0;
    for (int i = 0; i < frames; ++i) {
        // Stamp the frame number so that every sample differs.
        std::memcpy(frame.data(), &i, sizeof i);
        ASSERT_TRUE(w.video->appendSampleBuffer(
            *oneSample(vf, frame, MediaTime::make(1001 * i, 30000), MediaTime::make(1001, 30000))))
            << "frame " << i;
        int64_t target = (int64_t(i) + 1) * 48048 / 30;
        int64_t n = target - audioFrames;
        ASSERT_TRUE(w.audio->appendSampleBuffer(*makeSample(
            af, pcm.data(), size_t(n) * 4, n,
            {{MediaTime::make(1, 48000), MediaTime::make(audioFrames, 48000), MediaTime::invalid()}}, {4})));
        audioFrames = target;
    }
    ASSERT_TRUE(w.writer->finishWriting());

    const MovieSummary m = checkedSummary(path);
    ASSERT_EQ(m.tracks.size(), 2u);
    const auto& v = *m.track(fourCC("vide"));
    const auto& a = *m.track(fourCC("soun"));
    EXPECT_TRUE(v.co64);
    EXPECT_TRUE(a.co64);
    EXPECT_EQ(v.sampleCount, uint64_t(frames));
    EXPECT_EQ(a.sampleCount, uint64_t(audioFrames));
    EXPECT_GT(v.chunkOffsets.back(), 0xFFFFFFFFull);
    // The last frames and the last audio read back as written.
    for (int i : {frames - 2, frames - 1}) {
        std::memcpy(frame.data(), &i, sizeof i);
        EXPECT_EQ(test::readSamples(path, v, uint64_t(i), 1), frame) << "frame " << i;
    }
    auto lastAudio = test::readSamples(path, a, uint64_t(audioFrames) - 3, 3);
    int64_t n = audioFrames - (int64_t(frames) - 1) * 48048 / 30;
    std::vector<uint8_t> expected(pcm.begin() + (n - 3) * 4, pcm.begin() + n * 4);
    EXPECT_EQ(lastAudio, expected);
    auto streams = test::ffprobeStreams(path);
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["nb_read_packets"], std::to_string(frames));
#endif
}

}  // namespace
}  // namespace corvina
