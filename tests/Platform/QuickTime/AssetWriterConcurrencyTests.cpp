#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>

#include "Dispatch/Dispatch.h"
#include "WriterSupport.h"

namespace corvina {
namespace {

using namespace test;
using test::checkMovieStructure;
using test::MovieSummary;

// One track's feeder and pump, as the session drives them: on the track's queue, append
// while the input is ready; at the end, mark the input finished and leave the group once.
struct Pump {
    std::shared_ptr<AssetWriterInput> input;
    std::shared_ptr<DispatchQueue> queue;
    std::function<std::unique_ptr<SampleBuffer>()> next;  // null at the end
    std::atomic<int64_t> appendedEnd{0};                  // in microseconds, for the window check
    std::function<int64_t(const SampleBuffer&)> endOf;
    bool finished = false;
    int appended = 0;
    int failures = 0;

    void start(DispatchGroup& group, const Pump* other)
    {
        group.enter();
        input->requestMediaDataWhenReadyOnQueue(queue, [this, &group, other] {
            while (input->isReadyForMoreMediaData()) {
                auto s = next();
                if (!s) {
                    if (!finished) {
                        finished = true;
                        input->markAsFinished();
                        group.leave();
                    }
                    return;
                }
                // Once ready, this track is at most the window ahead of the other; the other
                // only moves on, so after this sample it is at most window + one sample ahead.
                int64_t end = endOf(*s);
                // The other pump records its end only after its append returns, so its
                // recorded end can trail the writer's view by a sample or two of its own:
                // allow three video frames besides the window.
                if (other && other->input && !otherDone(other))
                    if (end - other->appendedEnd.load() > 500000 + 120000 + 1000) ++failures;
                if (input->appendSampleBuffer(*s)) ++appended;
                appendedEnd.store(end);
            }
        });
    }
    static bool otherDone(const Pump* other) { return other->doneFlag.load(); }
    std::atomic<bool> doneFlag{false};
};

TEST(AssetWriterConcurrency, TwoPumpsInterleaveWithinTheWindow)
{
    TempDir dir;
    const std::string path = dir / "pull.mov";
    OpenWriter w(path);
    ASSERT_TRUE(w.writer);
    auto& writer = w.writer;
    auto& video = w.video;
    auto& audio = w.audio;
    video->setExpectsMediaDataInRealTime(true);
    audio->setExpectsMediaDataInRealTime(true);

    auto vf = videoFormat(fourCC("dvcp"), 720, 576);
    auto af = audioFormat(48000, Layout::Stereo, true);
    const int frames = 125;  // 5 s at 25 fps
    const int64_t audioFrames = 48000 * 5;
    auto frame = randomBytes(20000, 11);

    Pump v, a;
    v.input = video;
    v.queue = DispatchQueue::createSerial("test rw video serialization queue");
    int vi = 0;
    v.next = [&]() -> std::unique_ptr<SampleBuffer> {
        if (vi >= frames) {
            v.doneFlag = true;
            return nullptr;
        }
        int i = vi++;
        return oneSample(vf, frame, MediaTime::make(i, 25), MediaTime::make(1, 25));
    };
    v.endOf = [](const SampleBuffer& s) {
        return int64_t((s.presentationTimeStamp() + s.duration()).getSeconds() * 1e6 + 0.5);
    };
    a.input = audio;
    a.queue = DispatchQueue::createSerial("test rw audio serialization queue");
    int64_t ai = 0;
    auto pcm = pcmTone(1, 2, true, 48000);
    a.next = [&]() -> std::unique_ptr<SampleBuffer> {
        if (ai >= audioFrames) {
            a.doneFlag = true;
            return nullptr;
        }
        int64_t i = ai++;
        return oneSample(af, pcm, MediaTime::make(i, 48000), MediaTime::make(1, 48000));
    };
    a.endOf = [](const SampleBuffer& s) { return (s.presentationTimeStamp().value + 1) * 1000000 / 48000; };

    DispatchGroup group;
    v.start(group, &a);
    a.start(group, &v);
    ASSERT_TRUE(group.wait(std::chrono::minutes(5)));
    EXPECT_TRUE(writer->finishWriting());
    EXPECT_EQ(v.appended, frames);
    EXPECT_EQ(a.appended, audioFrames);
    EXPECT_EQ(v.failures, 0) << "video ran ahead of the window";
    EXPECT_EQ(a.failures, 0) << "audio ran ahead of the window";

    const MovieSummary m = checkedSummary(path);
    ASSERT_EQ(m.tracks.size(), 2u);
    std::vector<std::pair<uint64_t, int>> chunks;
    for (int k = 0; k < 2; ++k)
        for (uint64_t o : m.tracks[size_t(k)].chunkOffsets) chunks.emplace_back(o, k);
    std::sort(chunks.begin(), chunks.end());
    int longestRun = 1, run = 1;
    for (size_t i = 1; i < chunks.size(); ++i) {
        run = chunks[i].second == chunks[i - 1].second ? run + 1 : 1;
        longestRun = std::max(longestRun, run);
    }
    std::string order;
    for (const auto& c : chunks) order += c.second ? 'a' : 'v';
    // A track runs at most the window (0.5 s) plus one chunk ahead: at most a few of its
    // chunks follow each other.
    EXPECT_LE(longestRun, 4) << "chunks should alternate between the tracks: " << order;
    std::vector<uint8_t> threeFrames;
    for (int k = 0; k < 3; ++k) threeFrames.insert(threeFrames.end(), pcm.begin(), pcm.end());
    EXPECT_EQ(test::readSamples(path, *m.track(fourCC("soun")), audioFrames - 3, 3), threeFrames);
    EXPECT_EQ(test::readSamples(path, *m.track(fourCC("vide")), frames - 1, 1), frame);
    auto streams = test::ffprobeStreams(path);
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["nb_frames"], std::to_string(frames));
    EXPECT_EQ(streams[1]["duration"], "5.000000");
    EXPECT_EQ(streams[1]["codec_name"], "pcm_s16be");
    EXPECT_TRUE(test::ffmpegDemuxesCleanly(path));
}

TEST(AssetWriterConcurrency, AnAudioInputNeverRegisteredDoesNotHoldVideoBack)
{
    TempDir dir;
    const std::string path = dir / "videoonly.mov";
    OpenWriter w(path, true, false);
    ASSERT_TRUE(w.writer);
    auto& writer = w.writer;
    auto& video = w.video;
    auto vf = videoFormat(fourCC("dvc "), 720, 480);
    auto frame = randomBytes(5000, 1);
    Pump v;
    v.input = video;
    v.queue = DispatchQueue::createSerial("video");
    int vi = 0;
    v.next = [&]() -> std::unique_ptr<SampleBuffer> {
        if (vi >= 120) return nullptr;
        int i = vi++;
        return oneSample(vf, frame, MediaTime::make(1001 * i, 30000), MediaTime::make(1001, 30000));
    };
    v.endOf = [](const SampleBuffer&) { return int64_t(0); };
    DispatchGroup group;
    v.start(group, nullptr);
    ASSERT_TRUE(group.wait(std::chrono::minutes(1))) << "the video pump was held back";
    EXPECT_TRUE(writer->finishWriting());
    const MovieSummary m = checkedSummary(path);
    ASSERT_EQ(m.tracks.size(), 1u);
    EXPECT_EQ(m.tracks[0].sampleCount, 120u);
}

}  // namespace
}  // namespace corvina
