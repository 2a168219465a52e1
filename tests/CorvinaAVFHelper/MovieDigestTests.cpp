// Whole-file digests of movies written from fixed jobs with the writer's clock fixed: any
// change in the bytes a job writes (layout, tables, interleaving, headers) shows here.
// The essence is pseudo-random bytes, so the digests do not depend on any encoder.
#include <gtest/gtest.h>

#include <fstream>

#include "helper/AppController.h"
#include "support/HelperRun.h"
#include "QuickTime/AssetWriter.h"
#include "support/seeded/SplitMix64.h"

namespace corvina::helper {

using namespace corvina;
using namespace corvina::test;

namespace {

using Random = SplitMix64;

// Entries of `count` pieces with `junk` bytes before each, written to path.
MediaEntryTable writeEssence(const std::string& path, Random& random, size_t count, uint64_t minSize, uint64_t maxSize,
                             int64_t framesPerEntry = 1)
{
    MediaEntryTable entries;
    std::ofstream out(path, std::ios::binary);
    uint64_t at = 0;
    std::vector<char> bytes;
    for (size_t i = 0; i < count; ++i) {
        const uint64_t junk = random.between(0, 40);
        const uint64_t size = random.between(minSize, maxSize) * uint64_t(framesPerEntry);
        bytes.resize(junk + size);
        for (auto& b : bytes) b = char(random.next());
        out.write(bytes.data(), std::streamsize(bytes.size()));
        entries.push_back({at + junk, size, framesPerEntry});
        at += junk + size;
    }
    return entries;
}

struct DigestCase {
    const char* name;
    int64_t formatType;
    int64_t audioFormat;
    float frameRate;
    size_t videoEntries;
    uint64_t minFrame, maxFrame;
    int64_t framesPerEntry;
    size_t audioRuns;
    uint64_t minRun, maxRun;
    const char* sha256;
};

const DigestCase kCases[] = {
    {"DV NTSC, 48 kHz stereo in 0.1 s runs", 0, 2, 29.97f, 20, 120000, 120000, 1, 7, 19200, 19200,
     "1ed0d778301bafdeae25cd6ef45a298ae1130d299c73f1620f006d7ceae574c1"},
    {"DV PAL, three frames an entry, 32 kHz mono", 1, 11, 25.0f, 6, 144000, 144000, 3, 10, 1000, 1601,
     "01b14c4bcfe412af63e3b5d46ac0a381b3d31801f1313046a27fea3f72e19038"},
    {"ProRes sizes varying, no audio", 31, 0, 23.976f, 40, 2000, 9000, 1, 0, 0, 0,
     "9daf486be7a8440e9b58cb167e452e4c4844272aca3e1885b6e65ff6078d253d"},
    // Random bytes state no JPEG frame size: the document's 1920x1080 is declared.
    {"Motion JPEG, 44.1 kHz big-endian stereo in odd runs", 4, 5, 59.94f, 50, 500, 3000, 1, 300, 3, 401,
     "6851832081877e32d1b443cc80f2fb990ecf2db46faeb4c5fcef5a92335030e4"},
};

TEST(MovieDigests, FixedJobsWriteTheSameBytes)
{
    AssetWriter::setClock([] { return int64_t(1700000000); });
    for (const DigestCase& c : kCases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        Random random(0xC0A1D);
        MovieJob job;
        job.tmpFilename = dir / "video.raw";
        job.tmpAudioFilename = dir / "audio.raw";
        job.destFilename = dir / "movie.mov";
        job.formatType = c.formatType;
        job.audioFormat = c.audioFormat;
        job.frameRate = c.frameRate;
        job.fWidth = 1920;
        job.fHeight = 1080;
        job.videoEntries = std::make_shared<MediaEntryTable>(
            writeEssence(job.tmpFilename, random, c.videoEntries, c.minFrame, c.maxFrame, c.framesPerEntry));
        job.audioEntries = std::make_shared<MediaEntryTable>(
            writeEssence(job.tmpAudioFilename, random, c.audioRuns, c.minRun, c.maxRun));
        AppController controller;
        ASSERT_EQ(controller.createQuickTimeMovie(std::move(job)), 0);
        const ProcessResult sum = runProgram({"/usr/bin/sha256sum", dir / "movie.mov"});
        ASSERT_EQ(sum.status, 0);
        EXPECT_EQ(sum.out.substr(0, 64), c.sha256);
    }
    AssetWriter::setClock(nullptr);
    // Movie jobs never need the media libraries, so they are not even loaded.
    EXPECT_EQ(readFile("/proc/self/maps").find("libavformat"), std::string::npos);
}

}  // namespace

}  // namespace corvina::helper
