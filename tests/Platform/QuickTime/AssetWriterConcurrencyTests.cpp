#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "Dispatch/Dispatch.h"
#include "support/WriterSupport.h"

namespace corvina {
namespace {

using namespace test;

// One track's pump, as the session drives it: on the track's queue, append while the input
// is ready; after `count` samples, mark the input finished and leave the group once. With
// another pump given, counts the samples that took this track more than the window ahead.
struct Pump {
    std::shared_ptr<AssetWriterInput> input;
    int64_t count;
    std::function<std::unique_ptr<SampleBuffer>(int64_t)> sample;
    std::function<int64_t(const SampleBuffer&)> endMicros = [](const SampleBuffer&) { return int64_t(0); };
    const Pump* other = nullptr;
    std::shared_ptr<DispatchQueue> queue = DispatchQueue::createSerial("test pump serialization queue");
    int64_t next = 0, appended = 0, refused = 0, aheadOfWindow = 0;
    std::atomic<int64_t> appendedEnd{0};
    std::atomic<bool> done{false};

    void start(DispatchGroup& group)
    {
        group.enter();
        input->requestMediaDataWhenReadyOnQueue(queue, [this, &group] {
            while (input->isReadyForMoreMediaData()) {
                if (next == count) {
                    if (!done.exchange(true)) {
                        input->markAsFinished();
                        group.leave();
                    }
                    return;
                }
                auto s = sample(next++);
                // Once ready, this track is at most the window (0.5 s) ahead of the other. The
                // other records its end only after its append returns, so that end can trail the
                // writer's view by a sample or two: allow three video frames besides the window.
                const int64_t end = endMicros(*s);
                if (other && !other->done && end - other->appendedEnd.load() > 500000 + 120000 + 1000) ++aheadOfWindow;
                input->appendSampleBuffer(*s) ? ++appended : ++refused;
                appendedEnd.store(end);
            }
        });
    }
};

TEST(AssetWriterConcurrency, TwoPumpsInterleaveWithinTheWindow)
{
    TempDir dir;
    const std::string path = dir / "pull.mov";
    OpenWriter w(path);
    ASSERT_TRUE(w.writer);
    auto vf = videoFormat(fourCC("dvcp"), 720, 576);
    auto af = audioFormat(48000, Layout::Stereo, true);
    const int frames = 125;  // 5 s at 25 fps
    const int64_t audioFrames = 48000 * 5;
    auto frame = randomBytes(20000, 11);
    auto pcm = randomBytes(4, 12);

    Pump v{w.video, frames,
           [&](int64_t i) { return oneSample(vf, frame, MediaTime::make(i, 25), MediaTime::make(1, 25)); },
           [](const SampleBuffer& s) {
               return int64_t((s.presentationTimeStamp() + s.duration()).getSeconds() * 1e6 + 0.5);
           }};
    Pump a{w.audio, audioFrames,
           [&](int64_t i) { return oneSample(af, pcm, MediaTime::make(i, 48000), MediaTime::make(1, 48000)); },
           [](const SampleBuffer& s) { return (s.presentationTimeStamp().value + 1) * 1000000 / 48000; }};
    v.other = &a;
    a.other = &v;
    DispatchGroup group;
    v.start(group);
    a.start(group);
    ASSERT_TRUE(group.wait(std::chrono::minutes(5)));
    EXPECT_TRUE(w.writer->finishWriting());
    EXPECT_EQ(v.appended, frames);
    EXPECT_EQ(a.appended, audioFrames);
    EXPECT_EQ(v.aheadOfWindow, 0) << "video ran ahead of the window";
    EXPECT_EQ(a.aheadOfWindow, 0) << "audio ran ahead of the window";

    EXPECT_EQ(checkedSummary(path).tracks.size(), 2u);
    std::vector<uint8_t> video, audio;
    for (int i = 0; i < frames; ++i) video.insert(video.end(), frame.begin(), frame.end());
    for (int64_t i = 0; i < audioFrames; ++i) audio.insert(audio.end(), pcm.begin(), pcm.end());
    expectToolsAccept(path, false, &video, &audio);
}

TEST(AssetWriterConcurrency, AnAudioInputNeverRegisteredDoesNotHoldVideoBack)
{
    TempDir dir;
    const std::string path = dir / "videoonly.mov";
    OpenWriter w(path, true, false);
    ASSERT_TRUE(w.writer);
    auto vf = videoFormat(fourCC("dvc "), 720, 480);
    auto frame = randomBytes(5000, 1);
    Pump v{w.video, 120, [&](int64_t i) {
               return oneSample(vf, frame, MediaTime::make(1001 * i, 30000), MediaTime::make(1001, 30000));
           }};
    DispatchGroup group;
    v.start(group);
    ASSERT_TRUE(group.wait(std::chrono::minutes(1))) << "the video pump was held back";
    EXPECT_TRUE(w.writer->finishWriting());
    EXPECT_EQ(checkedSummary(path).tracks.size(), 1u);
    std::vector<uint8_t> video;
    for (int i = 0; i < 120; ++i) video.insert(video.end(), frame.begin(), frame.end());
    expectToolsAccept(path, false, &video);
}

// The pull model after a failure: both pumps still reach their ends and leave the group.
TEST(AssetWriterFailureConcurrency, PumpsFinishAfterTheDiskFills)
{
    TempDir dir;
    ScopedMount disk(dir / "disk", "tmpfs", "size=1m");
    MOUNT_OR_SKIP(disk);
    OpenWriter w(dir / "disk/pumps.mov", true, false);
    ASSERT_TRUE(w.writer);
    auto vf = videoFormat(fourCC("dvc "), 720, 480);
    auto af = audioFormat(48000, Layout::Mono, false);
    auto frame = randomBytes(120000, 2);
    auto pcm = randomBytes(1601 * 2, 3);
    // 300 of each, 10 s: far more than the disk holds.
    Pump v{w.video, 300, [&](int64_t i) {
               return oneSample(vf, frame, MediaTime::make(1001 * i, 30000), MediaTime::make(1001, 30000));
           }};
    Pump a{w.audio, 300, [&](int64_t i) {
               return makeSample(af, pcm.data(), pcm.size(), 1601,
                                 {{MediaTime::make(1, 48000), MediaTime::make(1601 * i, 48000), MediaTime::invalid()}},
                                 {2});
           }};
    DispatchGroup group;
    v.start(group);
    a.start(group);
    ASSERT_TRUE(group.wait(std::chrono::minutes(2))) << "a pump waited forever after the failure";
    EXPECT_GT(v.refused + a.refused, 0);
    EXPECT_EQ(w.writer->status(), AssetWriterStatus::Failed);
    EXPECT_FALSE(w.writer->finishWriting());
}

}  // namespace
}  // namespace corvina
