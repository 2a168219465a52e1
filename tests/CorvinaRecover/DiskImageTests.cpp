// A deleted DV recording in two reversed fragments on a FAT32 image, partly overwritten, comes back
// in timecode order with the straddling frame joined, without the file system.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "support/MovieCheck.h"
#include "Foundation/ByteOrder.h"
#include "recover/Recovery.h"
#include "support/TestMovies.h"
#include "support/TestSupport.h"

namespace corvina::recover {

using namespace corvina::test;

namespace {

constexpr size_t kFrame = 144000;

uint32_t little(const std::string& bytes, size_t at, int width)
{
    return uint32_t(corvina::loadLE(reinterpret_cast<const uint8_t*>(bytes.data()) + at, size_t(width)));
}

// A read-only loop device on an image while it lives; no path (and losetup's answer) where none attaches.
struct LoopDevice {
    explicit LoopDevice(const std::string& image)
        : attach(runProgram({"losetup", "--find", "--show", "--read-only", image})),
          path(attach.status == 0 ? attach.out.substr(0, attach.out.find('\n')) : "")
    {
    }
    ~LoopDevice()
    {
        if (!path.empty()) runProgram({"losetup", "--detach", path});
    }
    const ProcessResult attach;
    const std::string path;
};

TEST(DiskImage, FragmentedDeletedAndPartlyOverwrittenRecordingComesBackInTimecodeOrder)
{
    TempDir dir;
    const std::string image = dir / "card.img";
    std::filesystem::resize_file((std::ofstream(image), image), 48u << 20);
    const ProcessResult mkfs = runProgram({"mkfs.vfat", "-F", "32", "-s", "8", image});
    if (mkfs.status == -1 || mkfs.status == 127) GTEST_SKIP() << "mkfs.vfat is missing (dosfstools)";
    ASSERT_EQ(mkfs.status, 0) << mkfs.err;
    const std::string boot = readFile(image).substr(0, 512);
    const uint64_t sector = little(boot, 11, 2), cluster = sector * little(boot, 13, 1);
    const uint64_t dataStart = sector * (little(boot, 14, 2) + little(boot, 16, 1) * little(boot, 36, 4));
    const auto clusterAt = [&](uint64_t n) { return dataStart + (n - 2) * cluster; };

    const std::string recording = readFile(
        makeTestMovie("rec.dv", join({lavfi("testsrc=size=720x576:rate=25"),
                                      lavfi("sine=frequency=440:sample_rate=48000"),
                                      {"-t", "2", "-c:v", "dvvideo", "-pix_fmt", "yuv420p", "-c:a", "pcm_s16le", "-ar",
                                       "48000", "-ac", "2", "-timecode", "01:00:00:00", "-f", "dv"}})));
    ASSERT_EQ(recording.size(), 50 * kFrame);

    // Cluster by cluster: the first 60 % from cluster 5000 on, the rest from cluster 900 on;
    // then a later file takes 12 clusters in the middle of the second piece.
    const uint64_t cut = recording.size() * 3 / 5 / cluster * cluster;
    const uint64_t lostFrom = cut + 100 * cluster, lostTo = lostFrom + 12 * cluster;  // no longer on the card
    {
        std::fstream card(image, std::ios::in | std::ios::out | std::ios::binary);
        for (uint64_t at = 0; at < recording.size(); at += cluster) {
            card.seekp(std::streamoff(clusterAt(at < cut ? 5000 + at / cluster : 900 + (at - cut) / cluster)));
            card.write(recording.data() + at, std::streamsize(std::min<uint64_t>(cluster, recording.size() - at)));
        }
        const std::string later = patternBytes(12 * cluster, 7);
        card.seekp(std::streamoff(clusterAt(900 + 100)));
        card.write(later.data(), std::streamsize(later.size()));
    }
    std::string whole;  // the frames whose bytes are on the card, one after the other
    for (uint64_t from = 0; from < recording.size(); from += kFrame)
        if (from >= lostTo || from + kFrame <= lostFrom) whole += recording.substr(from, kFrame);

    // The image, then the same card as a read-only loop device when one can be attached.
    LoopDevice loop(image);
    for (const std::string& input : {image, loop.path}) {
        if (input.empty()) {
            std::printf("[ FAT32 ] no loop device: %d %s\n", loop.attach.status, loop.attach.err.c_str());
            continue;
        }
        const std::string out = dir / (input == image ? "out-image" : "out-device");
        std::filesystem::create_directory(out);
        recover::RecoverOptions options;
        options.input = input;
        options.outdir = out;
        options.reportPictures = false;
        const recover::RecoverOutcome outcome = recover::recoverInput(options);
        ASSERT_TRUE(outcome.error.empty()) << input << ": " << outcome.error;
        std::string got;
        for (const recover::ClipOutcome& clip : outcome.clips) {
            ASSERT_FALSE(clip.moviePath.empty()) << input << ": " << clip.error;
            const auto video = extractStreamBytes(clip.moviePath, 'v');
            got.append(video.begin(), video.end());
            expectToolsAccept(clip.moviePath, true);
        }
        EXPECT_EQ(got.size() / kFrame, whole.size() / kFrame) << input;
        EXPECT_TRUE(got == whole) << input << ": the frames are not the recording's, in its order";
        // Two clips: the first piece joined with the second piece's start, then the rest after
        // the overwritten clusters (the timecode jumps there). No frames file is left behind.
        EXPECT_EQ(outcome.clips.size(), 2u) << input;
        for (const auto& entry : std::filesystem::directory_iterator(out))
            EXPECT_NE(entry.path().extension(), ".frames") << entry.path();
    }
}

}  // namespace

}  // namespace corvina::recover
