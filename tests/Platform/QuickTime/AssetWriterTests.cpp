#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>

#include "QuickTime/TrackTables.h"
#include "support/WriterSupport.h"

namespace corvina {
namespace {

using namespace test;

TEST(AssetWriter, VideoOnlyMovieWithAnIdleAudioInput)
{
    struct Row {
        FourCharCode codec;
        int32_t width, height;
        std::vector<size_t> sizes;
        const char* compressor;
    } rows[] = {
        {fourCC("dvc "), 720, 480, {120000}, "DV NTSC"},
        {fourCC("apcn"), 1920, 1080, {30000, 41000, 28000}, "ProRes 422"},
        {fourCC("jpeg"), 720, 576, {9000, 9100}, "Motion JPEG"},
        {fourCC("dvh6"), 1920, 1080, {576000}, "DVCPRO HD 1080i60"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(fourCCText(r.codec));
        TempDir dir;
        std::string path = dir / "video.mov";
        std::vector<uint8_t> bytes;
        {
            OpenWriter w(path);
            ASSERT_TRUE(w.writer);
            // Frames of 1001/30000 s with sizes from the row's pattern.
            for (int i = 0; i < 45; ++i) {
                auto frame = randomBytes(r.sizes[size_t(i) % r.sizes.size()], 7 + uint32_t(i));
                EXPECT_TRUE(w.video->isReadyForMoreMediaData());
                EXPECT_TRUE(w.video->appendSampleBuffer(*oneSample(videoFormat(r.codec, r.width, r.height), frame,
                                                                   MediaTime::make(1001 * i, 30000),
                                                                   MediaTime::make(1001, 30000))))
                    << "frame " << i;
                bytes.insert(bytes.end(), frame.begin(), frame.end());
            }
            EXPECT_TRUE(w.writer->finishWriting());
            EXPECT_EQ(w.writer->status(), AssetWriterStatus::Completed);
        }
        const MovieSummary m = checkedSummary(path);
        ASSERT_EQ(m.tracks.size(), 1u);
        const auto& t = m.tracks[0];
        EXPECT_EQ(t.handler, fourCC("vide"));
        EXPECT_EQ(t.codec, r.codec);
        EXPECT_EQ(t.timescale, 30000u);
        EXPECT_EQ(t.mediaDuration, 45u * 1001);
        EXPECT_EQ(t.tkhdDuration, (45u * 1001 * 600 + 29999) / 30000);
        EXPECT_EQ(t.tkhdFlags, 0xFu);
        EXPECT_EQ(t.width, uint32_t(r.width));
        EXPECT_EQ(t.sampleWidth, r.width);
        EXPECT_EQ(t.sampleHeight, r.height);
        EXPECT_EQ(t.compressorName, r.compressor);
        EXPECT_EQ(t.depth, 24);
        EXPECT_EQ(t.constantSize != 0, r.sizes.size() == 1) << "stsz keeps one size only when all are equal";
        EXPECT_EQ(m.movieTimescale, 600u);

        auto streams = test::ffprobeStreams(path);
        ASSERT_EQ(streams.size(), 1u);
        EXPECT_EQ(streams[0]["codec_tag_string"], fourCCText(r.codec));
        if (r.codec != fourCC("dvh6")) {  // the DV decoder reports the coded (subsampled) width of HD DV
            EXPECT_EQ(streams[0]["width"], std::to_string(r.width));
            EXPECT_EQ(streams[0]["height"], std::to_string(r.height));
        }
        EXPECT_EQ(streams[0]["time_base"], "1/30000");
        EXPECT_EQ(streams[0]["nb_read_packets"], "45");
        EXPECT_EQ(streams[0]["duration"], "1.501500");
        expectToolsAccept(path, false, &bytes);
    }
}

// Each layout and byte order, one-frame and multi-frame buffers (the helper's format sweep also
// runs every rate, layout and byte order through this writer).
TEST(AssetWriter, AudioOnlyMovieInEveryLayout)
{
    struct Row {
        uint32_t rate;
        Layout layout;
        bool bigEndian;
        int framesPerBuffer;  // 1: one frame a buffer; more: multi-sample buffers
        const char* channelLayout;
    } rows[] = {
        {48000, Layout::Stereo, false, 1, "stereo"},
        {48000, Layout::Mono, true, 480, "mono"},
        {44100, Layout::LtRt, true, 441, nullptr},
        {32000, Layout::Stereo, false, 320, "stereo"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::to_string(r.rate) + " layout " + std::to_string(int(r.layout)) +
                     (r.bigEndian ? " BE" : " LE"));
        TempDir dir;
        std::string path = dir / "audio.mov";
        uint32_t channels = r.layout == Layout::Mono ? 1 : 2;
        uint32_t bpf = 2 * channels;
        size_t frames = size_t(r.rate) * 3 / 2;  // 1.5 s
        auto pcm = pcmTone(frames, channels, r.bigEndian, r.rate);
        auto format = audioFormat(r.rate, r.layout, r.bigEndian);
        {
            OpenWriter w(path);
            ASSERT_TRUE(w.writer);
            for (size_t at = 0; at < frames; at += size_t(r.framesPerBuffer)) {
                auto s = makeSample(format, &pcm[at * bpf], bpf * size_t(r.framesPerBuffer), r.framesPerBuffer,
                                    {{MediaTime::make(1, int32_t(r.rate)),
                                      MediaTime::make(int64_t(at), int32_t(r.rate)), MediaTime::invalid()}},
                                    {bpf});
                ASSERT_TRUE(w.audio->appendSampleBuffer(*s));
            }
            EXPECT_TRUE(w.writer->finishWriting());
        }
        const MovieSummary m = checkedSummary(path);
        ASSERT_EQ(m.tracks.size(), 1u);
        const auto& t = m.tracks[0];
        EXPECT_EQ(t.handler, fourCC("soun"));
        EXPECT_EQ(t.codec, kAudioFormatLinearPCM);
        EXPECT_EQ(t.timescale, r.rate);
        EXPECT_EQ(t.sampleCount, frames);
        EXPECT_EQ(t.constantSize, bpf);
        ASSERT_EQ(t.timeToSample.size(), 1u);
        EXPECT_EQ(t.timeToSample[0], std::make_pair(uint32_t(frames), 1u));
        EXPECT_EQ(t.soundVersion, 2);
        EXPECT_EQ(t.sampleRate, double(r.rate));
        EXPECT_EQ(t.channels, channels);
        EXPECT_EQ(t.formatFlags, r.bigEndian ? 14u : 12u);
        EXPECT_EQ(t.bytesPerFrame, bpf);
        EXPECT_EQ(t.volume, 0x0100);
        ASSERT_TRUE(t.hasChannelLayout);
        if (r.layout == Layout::LtRt) {
            EXPECT_EQ(t.layoutTag, 0u);
            EXPECT_EQ(t.channelLabels, (std::vector<uint32_t>{42, 42}));
        } else {
            EXPECT_EQ(t.layoutTag,
                      r.layout == Layout::Stereo ? kAudioChannelLayoutTag_Stereo : kAudioChannelLayoutTag_Mono);
        }
        // Chunks of about half a second.
        for (uint32_t n : t.samplesPerChunk()) EXPECT_LE(n, r.rate / 2 + uint32_t(r.framesPerBuffer));

        auto streams = test::ffprobeStreams(path);
        ASSERT_EQ(streams.size(), 1u);
        EXPECT_EQ(streams[0]["codec_name"], r.bigEndian ? "pcm_s16be" : "pcm_s16le");
        EXPECT_EQ(streams[0]["sample_rate"], std::to_string(r.rate));
        EXPECT_EQ(streams[0]["channels"], std::to_string(channels));
        EXPECT_EQ(streams[0]["sample_fmt"], "s16");
        EXPECT_EQ(streams[0]["duration"], "1.500000");
        if (r.channelLayout) {
            EXPECT_EQ(streams[0]["channel_layout"], r.channelLayout);
        }
        expectToolsAccept(path, true, nullptr, &pcm);
    }
}

TEST(AssetWriter, MultiSampleBuffersBecomeSamplesOrOneLongSample)
{
    TempDir dir;
    std::string path = dir / "multi.mov";
    auto f = videoFormat(fourCC("apch"), 1280, 720);
    auto bytes = randomBytes(9000, 3);
    const MediaTime d = MediaTime::make(1001, 30000);
    {
        OpenWriter w(path);
        ASSERT_TRUE(w.writer);
        // Three samples with their own sizes and one shared timing entry.
        EXPECT_TRUE(w.video->appendSampleBuffer(
            *makeSample(f, bytes.data(), 6000, 3, {{d, MediaTime::zero(), MediaTime::invalid()}}, {1000, 2000, 3000})));
        // Three equal samples from one size entry.
        EXPECT_TRUE(w.video->appendSampleBuffer(*makeSample(
            f, bytes.data() + 6000, 3000, 3, {{d, MediaTime::make(3003, 30000), MediaTime::invalid()}}, {1000})));
        // One size entry naming the whole block: one sample lasting two durations.
        EXPECT_TRUE(w.video->appendSampleBuffer(
            *makeSample(f, bytes.data(), 3001, 2, {{d, MediaTime::make(6006, 30000), MediaTime::invalid()}}, {3001})));
        // Per-sample timing entries.
        EXPECT_TRUE(w.video->appendSampleBuffer(
            *makeSample(f, bytes.data(), 200, 2,
                        {{MediaTime::make(1001, 30000), MediaTime::make(8008, 30000), MediaTime::invalid()},
                         {MediaTime::make(2002, 30000), MediaTime::make(9009, 30000), MediaTime::invalid()}},
                        {100, 100})));
        EXPECT_TRUE(w.writer->finishWriting());
    }
    const MovieSummary m = checkedSummary(path);
    ASSERT_EQ(m.tracks.size(), 1u);
    const auto& t = m.tracks[0];
    EXPECT_EQ(t.sampleCount, 9u);
    EXPECT_EQ(t.sampleSizes, (std::vector<uint32_t>{1000, 2000, 3000, 1000, 1000, 1000, 3001, 100, 100}));
    using Run = std::pair<uint32_t, uint32_t>;
    EXPECT_EQ(t.timeToSample, (std::vector<Run>{{6, 1001}, {1, 2002}, {1, 1001}, {1, 2002}}));
    EXPECT_EQ(t.mediaDuration, 11u * 1001);
    std::vector<uint8_t> expected(bytes.begin(), bytes.begin() + 9000);
    expected.insert(expected.end(), bytes.begin(), bytes.begin() + 3001);
    expected.insert(expected.end(), bytes.begin(), bytes.begin() + 200);
    EXPECT_EQ(test::ffprobeStreams(path).at(0)["nb_read_packets"], "9");
    expectToolsAccept(path, false, &expected);
}

TEST(AssetWriter, BothTracksAlternateInChunksOfAboutHalfASecond)
{
    TempDir dir;
    std::string path = dir / "both.mov";
    auto vf = videoFormat(fourCC("dv5n"), 720, 480);
    auto af = audioFormat(48000, Layout::Stereo, false);
    auto frame = randomBytes(24000, 9);  // 0.5 s of frames stays below the 1 MiB chunk limit
    auto pcm = pcmTone(1602, 2, false, 48000);
    const int frames = 150;  // 5 s
    std::vector<uint8_t> video, audio;
    {
        OpenWriter w(path);
        ASSERT_TRUE(w.writer);
        int64_t audioFrames = 0;
        for (int i = 0; i < frames; ++i) {
            video.insert(video.end(), frame.begin(), frame.end());
            EXPECT_TRUE(w.video->appendSampleBuffer(
                *oneSample(vf, frame, MediaTime::make(1001 * i, 30000), MediaTime::make(1001, 30000))));
            // Audio follows: 1601 or 1602 frames per video frame (48000 * 1001 / 30000 = 1601.6).
            int64_t target = (int64_t(i) + 1) * 48048 / 30;
            int64_t n = target - audioFrames;
            EXPECT_TRUE(w.audio->appendSampleBuffer(*makeSample(
                af, pcm.data(), size_t(n) * 4, n,
                {{MediaTime::make(1, 48000), MediaTime::make(audioFrames, 48000), MediaTime::invalid()}}, {4})));
            audio.insert(audio.end(), pcm.begin(), pcm.begin() + n * 4);
            audioFrames = target;
        }
        EXPECT_TRUE(w.writer->finishWriting());
    }
    const MovieSummary m = checkedSummary(path);
    ASSERT_EQ(m.tracks.size(), 2u);
    EXPECT_EQ(m.tracks[0].trackID, 1u);
    EXPECT_EQ(m.tracks[1].trackID, 2u);
    EXPECT_EQ(m.nextTrackID, 3u);
    int longestRun = 0;
    const std::string order = chunkOrder(m, &longestRun);
    ASSERT_GE(order.size(), 18u);
    EXPECT_LE(longestRun, 2) << "chunks should alternate between the tracks: " << order;
    auto streams = test::ffprobeStreams(path);
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["nb_frames"], std::to_string(frames));
    EXPECT_EQ(streams[1]["duration"], "5.005000");
    expectToolsAccept(path, false, &video, &audio);
}

// Runs must leave the file that one append per sample leaves: video runs close chunks at
// 1 MiB, audio runs at half a second, and runs end before, on and after those boundaries.
TEST(AssetWriter, RunsOfSamplesWriteWhatSingleAppendsWrite)
{
    AssetWriter::setClock([] { return int64_t(1700000000); });
    TempDir dir;
    auto vf = videoFormat(fourCC("apch"), 1920, 1080);
    auto af = audioFormat(48000, Layout::Stereo, false);
    const auto frames = randomBytes(300000 * 12, 5);
    const auto pcm = randomBytes(4 * 60000, 6);
    const size_t videoRuns[] = {1, 2, 3, 4, 2};                 // 12 frames of 300000 bytes, 4 to a chunk
    const size_t audioRuns[] = {7, 23993, 1, 24000, 11999, 1};  // the last is cut to the 60000 made
    const auto write = [&](const std::string& path, bool runs) {
        OpenWriter w(path);
        ASSERT_TRUE(w.writer);
        const auto append = [runs](AssetWriterInput& input, const std::unique_ptr<SampleBuffer>& s) {
            return runs ? input.appendSampleRun(*s) : input.appendSampleBuffer(*s);
        };
        size_t v = 0, a = 0;
        for (size_t k = 0; k < 6; ++k) {
            if (k < std::size(videoRuns)) {
                for (size_t n = runs ? videoRuns[k] : 1, left = videoRuns[k]; left > 0; left -= n, v += n)
                    EXPECT_TRUE(
                        append(*w.video, makeSample(vf, frames.data() + v * 300000, n * 300000, int64_t(n),
                                                    {{MediaTime::make(1001, 30000),
                                                      MediaTime::make(int64_t(v) * 1001, 30000), MediaTime::invalid()}},
                                                    {300000})));
            }
            const size_t count = std::min(audioRuns[k], pcm.size() / 4 - a);
            for (size_t n = runs ? count : 1, left = count; left > 0; left -= n, a += n)
                EXPECT_TRUE(append(*w.audio, makeSample(af, pcm.data() + a * 4, n * 4, int64_t(n),
                                                        {{MediaTime::make(1, 48000), MediaTime::make(int64_t(a), 48000),
                                                          MediaTime::invalid()}},
                                                        {4})));
        }
        EXPECT_TRUE(w.writer->finishWriting());
    };
    write(dir / "single.mov", false);
    write(dir / "runs.mov", true);
    AssetWriter::setClock(nullptr);
    const auto single = readFile(dir / "single.mov"), runs = readFile(dir / "runs.mov");
    EXPECT_GT(single.size(), 300000u * 12);
    EXPECT_TRUE(single == runs) << "the runs wrote other bytes";
    const MovieSummary m = checkedSummary(dir / "runs.mov");
    ASSERT_EQ(m.tracks.size(), 2u);
    EXPECT_EQ(m.tracks[0].chunkOffsets.size(), 3u);
    EXPECT_EQ(m.tracks[1].chunkOffsets.size(), 3u) << "two whole half-seconds and the rest";
}

TEST(AssetWriter, RefusesWrongMediaAndAppendsOutsideWriting)
{
    TempDir dir;
    OpenWriter w(dir / "refuse.mov");
    ASSERT_TRUE(w.writer);
    auto audioSample =
        oneSample(audioFormat(48000, Layout::Mono, false), {1, 2}, MediaTime::zero(), MediaTime::make(1, 48000));
    EXPECT_FALSE(w.video->appendSampleBuffer(*audioSample)) << "audio on a video track";
    EXPECT_TRUE(w.audio->appendSampleBuffer(*audioSample));
    w.audio->markAsFinished();
    EXPECT_FALSE(w.audio->appendSampleBuffer(*audioSample)) << "after markAsFinished";
    EXPECT_FALSE(w.audio->isReadyForMoreMediaData());
    EXPECT_TRUE(w.writer->finishWriting());
    EXPECT_FALSE(w.video->appendSampleBuffer(
        *oneSample(videoFormat(fourCC("dvc "), 720, 480), {1, 2, 3}, MediaTime::zero(), MediaTime::make(1001, 30000))));
    EXPECT_FALSE(AssetWriterInput::create(MediaType::Video, &w));  // output settings are not supported
}

TEST(AssetWriter, CreateFailsForExistingFileMissingFolderOrUnknownType)
{
    TempDir dir;
    std::string existing = dir / "existing.mov";
    writeFile(existing, "keep me");
    struct Row {
        std::string path;
        std::string type;
    } rows[] = {
        {existing, kFileTypeQuickTimeMovie},
        {dir / "no/such/folder/movie.mov", kFileTypeQuickTimeMovie},
        {dir / "other.mov", "public.mpeg-4"},
    };
    for (const auto& r : rows) {
        Error error;
        EXPECT_FALSE(AssetWriter::create(r.path, r.type, &error)) << r.path;
        EXPECT_FALSE(error.localizedDescription.empty());
        EXPECT_NE(error.code, 0);
    }
    EXPECT_EQ(readFile(existing), "keep me") << "an existing file is never touched";
}

TEST(TrackTables, AnHourOfStereoAudioCostsChunksNotSamples)
{
    qt::TrackTables tables;
    uint64_t offset = 36;
    for (int chunk = 0; chunk < 7200; ++chunk) {  // 0.5 s chunks of one-frame samples
        for (int i = 0; i < 24; ++i) tables.addSamples(1000, 4, 1);
        tables.addChunk(offset, 24000);
        offset += 96000;
    }
    EXPECT_EQ(tables.sampleCount(), 172800000u);
    EXPECT_EQ(tables.mediaDuration(), 172800000u);
    EXPECT_TRUE(tables.sizesConstant());
    EXPECT_EQ(tables.timeToSample().size(), 1u);
    EXPECT_EQ(tables.sampleToChunk().size(), 1u);
    EXPECT_LT(tables.heapBytes(), 200u * 1024);

    qt::TrackTables video;
    video.addSamples(2, 100, 1001);
    video.addSamples(1, 120, 1001);
    EXPECT_FALSE(video.sizesConstant());
    EXPECT_EQ(video.sampleSizes(), (std::vector<uint32_t>{100, 100, 120}));
    video.addChunk(uint64_t(5) << 30, 3);
    EXPECT_TRUE(video.needs64BitOffsets());
}

}  // namespace
}  // namespace corvina
