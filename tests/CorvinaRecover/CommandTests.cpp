// corvina-recover as a person runs it: arguments, the output's device, statuses, a damaged DV stream.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/HelperRun.h"
#include "support/MovieCheck.h"
#include "helper/MovieJob.h"
#include "support/TestMovies.h"
#include "support/TestSupport.h"
#include "support/seeded/SplitMix64.h"

namespace corvina::recover {
using namespace corvina::helper;

using namespace corvina::test;

namespace {

std::string recoverPath() { return std::string(CORVINA_BINARY_DIR) + "/corvina-recover"; }

ProcessResult runRecover(const std::vector<std::string>& args, const HelperHome& home)
{
    return runProgram(join({{recoverPath()}, args}), home.environment());
}

TEST(RecoverCommand, BadUsageAndAnOutputFolderBesideTheInputAreRefusedWithTwo)
{
    HelperHome home;
    TempDir dir;
    makeFile(dir / "input.bin", 1000);
    std::filesystem::create_directory(dir / "out");
    struct Case {
        std::vector<std::string> args;
        const char* says;
    };
    const Case cases[] = {
        {{}, "INPUT and OUTDIR are needed"},
        {{"--bogus", dir / "input.bin", dir / "out"}, "unknown option --bogus"},
        {{"--format", "twelve", dir / "input.bin", dir / "out"}, "--format needs a row number"},
        {{"--format", "20", dir / "input.bin", dir / "out"}, "is not a row the recovery finds"},
        {{"--reference", dir / "input.bin", dir / "input.bin", dir / "out"}, "cannot be read or is not a format"},
        {{dir / "input.bin", dir / "out"}, "on the same file system"},
        {{dir / "missing.bin", dir / "out"}, "cannot read"},
        {{dir / "input.bin", dir / "new"}, "on the same file system"},
        {{dir / "input.bin", dir / "no/such/out"}, "cannot use the output folder"},
    };
    for (const Case& c : cases) {
        const ProcessResult run = runRecover(c.args, home);
        EXPECT_EQ(run.status, 2) << c.says;
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir / "out"));
    EXPECT_FALSE(std::filesystem::exists(dir / "new")) << "a refused output folder is not made";
}

class RecoverOnAnotherDevice : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!mount_.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    TempDir dir_;
    ScopedMount mount_{dir_ / "input-disk", "tmpfs", "size=96m"};
    HelperHome home_;
};

TEST_F(RecoverOnAnotherDevice, NothingFoundIsOneWithAReportOfNoClips)
{
    // An output folder that does not exist yet is made.
    makeFile(mount_ / "noise.bin", 3 << 20);
    const ProcessResult run = runRecover({mount_ / "noise.bin", dir_ / "out"}, home_);
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_NE(readFile(dir_ / "out/report.json").find("\"clips\":[\n]"), std::string::npos);
}

// Two frames with a DIF block of noise each are left out and named; clips break at the timecode jumps.
TEST_F(RecoverOnAnotherDevice, RawDVStreamWithDamagedBlocksBreaksIntoClipsAtTheTimecodeJumps)
{
    const std::string stream = mount_ / "card.dv";
    std::filesystem::copy_file(
        makeTestMovie("card.dv", join({lavfi("testsrc=size=720x576:rate=25"),
                                       lavfi("sine=frequency=440:sample_rate=48000"),
                                       {"-t", "2", "-c:v", "dvvideo", "-pix_fmt", "yuv420p", "-c:a", "pcm_s16le", "-ar",
                                        "48000", "-ac", "2", "-timecode", "10:00:00:00", "-f", "dv"}})),
        stream);
    const std::string original = readFile(stream);
    ASSERT_EQ(original.size(), 50u * 144000);
    {
        std::fstream f(stream, std::ios::in | std::ios::out | std::ios::binary);
        SplitMix64 random(5);
        for (const int frame : {10, 30}) {
            std::string noise(80, '\0');
            random.fill(reinterpret_cast<uint8_t*>(noise.data()), noise.size());
            f.seekp(frame * 144000 + 500 * 80);
            f.write(noise.data(), 80);
        }
    }
    const std::string digest = toolDigest("sha256sum", stream);
    std::filesystem::create_directory(dir_ / "out");
    writeFile(dir_ / "out/clip-001.mov", "somebody's movie");

    const ProcessResult run = runRecover({stream, dir_ / "out"}, home_);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(toolDigest("sha256sum", stream), digest);
    EXPECT_EQ(readFile(dir_ / "out/clip-001.mov"), "somebody's movie");

    // Clip by clip: the frames of the stream in order, without the two damaged ones.
    const struct {
        const char* name;
        int first, count;
        const char* timecode;
    } clips[] = {
        {"clip-002", 0, 10, "10:00:00:00"}, {"clip-003", 11, 19, "10:00:00:11"}, {"clip-004", 31, 19, "10:00:01:06"}};
    const std::string report = readFile(dir_ / "out/report.json");
    for (const auto& clip : clips) {
        const std::string movie = dir_ / ("out/" + std::string(clip.name) + ".mov");
        const std::string expected = original.substr(size_t(clip.first) * 144000, size_t(clip.count) * 144000);
        const auto video = extractStreamBytes(movie, 'v');
        EXPECT_EQ(std::string(video.begin(), video.end()) == expected, true) << clip.name;
        expectToolsAccept(movie, true);
        EXPECT_NE(report.find(std::string("\"startTimecode\":\"") + clip.timecode + "\""), std::string::npos);
        // The helper's own reader takes the document as it is.
        const auto job = MovieJob::readDocument(dir_ / ("out/" + std::string(clip.name) + ".plist"));
        ASSERT_TRUE(job);
        EXPECT_EQ(job->tmpFilename, stream);
        ASSERT_EQ(job->videoEntries->size(), size_t(clip.count));
        EXPECT_EQ(job->videoEntries->front().offset, uint64_t(clip.first) * 144000);
        EXPECT_EQ(job->formatType, 1);
        EXPECT_EQ(job->frameRate, 25.0f);
        EXPECT_EQ(job->destFilename, movie);
    }
    EXPECT_NE(report.find("damaged DIF block 50 of sequence 3"), std::string::npos);
    EXPECT_NE(report.find("\"dvAudio\":{\"rate\":48000,\"bits\":16}"), std::string::npos);
    EXPECT_NE(readFile(dir_ / "out/report.html").find("data:image/bmp;base64,"), std::string::npos);
}

// SIGINT while clips are written keeps the finished ones, leaves no half-written file, and says so.
TEST_F(RecoverOnAnotherDevice, InterruptKeepsTheClipsAlreadyWritten)
{
    const std::string recording = readFile(makeTestMovie(
        "one.dv",
        join({lavfi("testsrc=size=720x480:rate=30000/1001"),
              {"-frames:v", "10", "-c:v", "dvvideo", "-pix_fmt", "yuv411p", "-timecode", "00:00:00;00", "-f", "dv"}})));
    ASSERT_FALSE(recording.empty());
    // Sixty copies: the timecode starts again at each, so each is a clip of its own.
    std::string card;
    for (int i = 0; i < 60; ++i) card += recording;
    writeFile(mount_ / "card.dv", card);
    std::filesystem::create_directory(dir_ / "out");

    const std::string out = dir_ / "out";
    const ProcessResult run = runProgram(
        {"/bin/sh", "-c",
         "'" + recoverPath() + "' '" + mount_ / "card.dv" + "' '" + out + "' & pid=$!; for i in $(seq 12000); " +
             "do [ -e '" + out + "/clip-002.mov' ] && break; sleep 0.005; done; kill -INT $pid; wait $pid; echo $?"},
        home_.environment());
    EXPECT_EQ(run.out, "0\n") << run.err;

    size_t movies = 0;
    for (const auto& entry : std::filesystem::directory_iterator(out)) {
        const std::string name = entry.path().filename().string();
        EXPECT_EQ(name.find("incomplete"), std::string::npos) << name;
        EXPECT_EQ(name.find("partial"), std::string::npos) << name;
        if (entry.path().extension() == ".mov") {
            ++movies;
            expectToolsAccept(entry.path().string(), true);
        }
    }
    EXPECT_GE(movies, 2u);
    EXPECT_LT(movies, 60u);
    EXPECT_NE(readFile(out + "/report.json").find("\"stopped\":true"), std::string::npos);
}

}  // namespace

}  // namespace corvina::recover
