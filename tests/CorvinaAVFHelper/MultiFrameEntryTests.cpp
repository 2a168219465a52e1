// Entries of several real frames: each frame becomes a sample of its own, one frame long.
#include <gtest/gtest.h>

#include "helper/AppController.h"
#include "helper/FrameSplitter.h"
#include "support/HelperRun.h"
#include "support/MovieCheck.h"
#include "support/TestMovies.h"

namespace corvina::helper {

using namespace corvina;
using namespace corvina::test;

namespace {

struct Encoded {
    std::vector<uint8_t> bytes;  // the frames back to back
    std::vector<size_t> sizes;   // of each frame
};

// Frames of a test pattern: sizes from the demuxer, bytes from the stream copied without a container.
Encoded encode(const std::string& name, const std::string& size, const std::string& rate, int frames,
               const std::vector<std::string>& codec)
{
    Encoded out;
    const std::string nut = makeTestMovie(
        name + ".nut",
        join({lavfi("testsrc=size=" + size + ":rate=" + rate), {"-frames:v", std::to_string(frames)}, codec}));
    const std::string raw =
        nut.empty() ? "" : makeTestMovie(name + ".raw", {"-i", nut, "-c", "copy", "-f", "rawvideo"});
    if (raw.empty()) return out;
    const ProcessResult probe = runProgram({"/usr/bin/ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                                            "packet=size", "-of", "csv=p=0", nut});
    for (const auto& line : splitLines(probe.out))
        if (!line.empty()) out.sizes.push_back(std::stoul(line));
    out.bytes = readBytes(raw);
    return out;
}

struct Row {
    const char* name;
    int64_t formatType;
    const char* size;
    const char* rate;
    float frameRate;
    std::vector<std::string> codec;
};

const Row kRows[] = {
    {"DV NTSC", 0, "720x480", "30000/1001", 29.97f, {"-pix_fmt", "yuv411p", "-c:v", "dvvideo"}},
    {"DVCPRO HD 1080i50", 12, "1440x1080", "25", 25.0f, {"-pix_fmt", "yuv422p", "-c:v", "dvvideo"}},
    {"ProRes HQ", 30, "320x240", "25", 25.0f, {"-c:v", "prores_ks", "-profile:v", "3"}},
    {"Motion JPEG", 4, "720x576", "25", 25.0f, {"-pix_fmt", "yuvj420p", "-c:v", "mjpeg", "-q:v", "4"}},
};

TEST(MultiFrameEntries, EveryFrameBecomesOneTimedSample)
{
    constexpr int kFrames = 4;
    constexpr uint64_t kLead = 7;  // junk before the frames
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        const Encoded frames = encode(row.name, row.size, row.rate, kFrames, row.codec);
        ASSERT_EQ(frames.sizes.size(), size_t(kFrames));
        TempDir dir;
        writeFile(dir / "video.raw", std::string(kLead, '\x5A') +
                                         std::string(frames.bytes.begin(), frames.bytes.end()) +
                                         std::string(13, '\xA5'));
        writeFile(dir / "audio.raw", "");
        MovieJob job;
        job.tmpFilename = dir / "video.raw";
        job.tmpAudioFilename = dir / "audio.raw";
        job.destFilename = dir / "movie.mov";
        job.formatType = row.formatType;
        job.frameRate = row.frameRate;
        job.fWidth = 320;
        job.fHeight = 240;
        // The whole run as one entry of four frames, then its first frame again on its own.
        job.videoEntries = std::make_shared<MediaEntryTable>(
            MediaEntryTable{{kLead, frames.bytes.size(), kFrames}, {kLead, frames.sizes[0], 1}});
        ASSERT_EQ(AppController().createQuickTimeMovie(std::move(job)), 0);
        const std::string movie = dir / "movie.mov";
        const auto duration = uint32_t(FrameRate::fromDouble(row.frameRate).frameDuration().value);
        using Runs = std::vector<std::pair<uint32_t, uint32_t>>;
        MovieSummary summary;
        ASSERT_EQ(checkMovieStructure(movie, &summary), std::vector<std::string>{});
        const MovieTrack* track = summary.track(fourCC("vide"));
        ASSERT_NE(track, nullptr);
        ASSERT_EQ(track->sampleCount, uint64_t(kFrames + 1));
        EXPECT_EQ(track->timeToSample, (Runs{{kFrames + 1, duration}}));
        for (int i = 0; i < kFrames; ++i) EXPECT_EQ(track->sampleSize(uint64_t(i)), frames.sizes[size_t(i)]) << i;
        EXPECT_EQ(ffprobeStreams(movie).at(0).at("nb_read_packets"), std::to_string(kFrames + 1));
        std::vector<uint8_t> essence = frames.bytes;
        essence.insert(essence.end(), frames.bytes.begin(), frames.bytes.begin() + long(frames.sizes[0]));
        expectToolsAccept(movie, true, &essence);
    }
}

TEST(FrameSplitterTest, RulesFollowTheCodecAndRefuseWhatDoesNotAddUp)
{
    std::vector<size_t> sizes;
    // ProRes frames announce their own sizes; a size that runs past the entry, a missing
    // frame identifier or bytes left over all refuse.
    const std::vector<uint8_t> two = {0, 0, 0, 9, 'i', 'c', 'p', 'f', 1, 0, 0, 0, 8, 'i', 'c', 'p', 'f'};
    const FrameSplitter prores = FrameSplitter::forCodec(fourCC("apcn"));
    EXPECT_TRUE(prores.split(two, 2, sizes));
    EXPECT_EQ(sizes, (std::vector<size_t>{9, 8}));
    EXPECT_FALSE(prores.split(two, 3, sizes));
    EXPECT_FALSE(prores.split({two.data(), two.size() - 1}, 2, sizes));
    std::vector<uint8_t> wrongTag = two;
    wrongTag[12] = 'x';
    EXPECT_FALSE(prores.split(wrongTag, 2, sizes));
    EXPECT_FALSE(prores.split(two, 1, sizes));  // one frame needs no splitting

    // JPEG: an end-of-image marker inside a segment (a thumbnail, say) does not end the image;
    // stuffed and restart markers inside the scan do not either.
    const std::vector<uint8_t> jpeg = {0xFF, 0xD8, 0xFF, 0xE1, 0x00, 0x04, 0xFF, 0xD9, 0xFF, 0xDA,
                                       0x00, 0x02, 0x12, 0xFF, 0x00, 0x34, 0xFF, 0xD3, 0x56, 0xFF,
                                       0xD9, 0xFF, 0xD8, 0xFF, 0xDA, 0x00, 0x02, 0x01, 0xFF, 0xD9};
    const FrameSplitter mjpeg = FrameSplitter::forCodec(fourCC("jpeg"));
    EXPECT_TRUE(mjpeg.split(jpeg, 2, sizes));
    EXPECT_EQ(sizes, (std::vector<size_t>{21, 9}));
    EXPECT_FALSE(mjpeg.split({jpeg.data(), jpeg.size() - 1}, 2, sizes));
    EXPECT_FALSE(mjpeg.split({jpeg.data() + 1, jpeg.size() - 1}, 2, sizes));

    // Codecs without a rule never split.
    EXPECT_EQ(FrameSplitter::forCodec(fourCC("icod")).rule(), FrameSplitter::Rule::None);
    EXPECT_FALSE(FrameSplitter::forCodec(fourCC("icod")).split(two, 2, sizes));
}

}  // namespace

}  // namespace corvina::helper
