// Recovery from damaged copies of movies that ffmpeg makes, and the scan's readers and threads.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <tuple>

#include "support/HelperRun.h"
#include "support/MovieCheck.h"
#include "recover/Recovery.h"
#include "recover/Scanner.h"
#include "tq/TQLog.h"
#include "support/TestMovies.h"
#include "support/TestSupport.h"
#include "support/seeded/SplitMix64.h"

namespace corvina::recover {
using namespace corvina::tq;

using namespace corvina::test;
using ::testing::IsEmpty;

namespace {

// Every in-process run logs into a private home.
class RecoverEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        home_ = std::make_unique<HelperHome>();
        for (const auto& [name, value] : home_->environment()) ::setenv(name.c_str(), value.c_str(), 1);
        TQLog::createNewLog(std::string("CorvinaRecoverTests"));
    }
    void TearDown() override { TQLog::finishWriting(); }

private:
    std::unique_ptr<HelperHome> home_;
};
[[maybe_unused]] const auto* const registered = ::testing::AddGlobalTestEnvironment(new RecoverEnvironment);

struct Packet {
    uint64_t offset;
    std::string bytes;
};

// The video samples of a movie and where each lies; `ours` must also pass the structure check.
std::vector<Packet> videoPackets(const std::string& path, bool ours)
{
    MovieSummary summary;
    const auto problems = checkMovieStructure(path, &summary);
    if (ours) {
        EXPECT_THAT(problems, IsEmpty()) << path;
    }
    const MovieTrack* track = summary.track(0x76696465);  // 'vide'
    if (!track) return {};
    std::vector<Packet> packets;
    const std::vector<uint32_t> perChunk = track->samplesPerChunk();
    const std::string file = readFile(path);
    uint64_t sample = 0;
    for (size_t chunk = 0; chunk < perChunk.size() && chunk < track->chunkOffsets.size(); ++chunk) {
        uint64_t at = track->chunkOffsets[chunk];
        for (uint32_t i = 0; i < perChunk[chunk]; ++i, ++sample) {
            const uint32_t size = track->sampleSize(sample);
            packets.push_back({at, file.substr(at, size)});
            at += size;
        }
    }
    return packets;
}

std::string bytesOf(const std::vector<uint8_t>& v) { return std::string(v.begin(), v.end()); }

// The audio packets of a movie: where each lies in the file and where it begins in the sound.
struct SoundPiece {
    uint64_t offset, length, soundAt;
};
std::vector<SoundPiece> soundPieces(const std::string& path)
{
    const ProcessResult run = runProgram(
        {"ffprobe", "-v", "error", "-select_streams", "a", "-show_entries", "packet=pos,size", "-of", "csv=p=0", path});
    EXPECT_EQ(run.status, 0) << run.err;
    std::vector<SoundPiece> pieces;
    uint64_t soundAt = 0;
    for (const std::string& line : splitLines(run.out)) {
        const size_t comma = line.find(',');
        if (comma == std::string::npos) continue;
        const uint64_t length = std::stoull(line.substr(0, comma)), offset = std::stoull(line.substr(comma + 1));
        pieces.push_back({offset, length, soundAt});
        soundAt += length;
    }
    return pieces;
}

void overwrite(const std::string& path, uint64_t offset, const std::string& bytes)
{
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(std::streamoff(offset));
    f.write(bytes.data(), std::streamsize(bytes.size()));
}

// A damage done to a copy: the byte ranges it destroyed (a cut destroys the tail).
struct Damage {
    std::string name;
    std::function<std::vector<std::pair<uint64_t, uint64_t>>(const std::string& path, uint64_t size)> apply;
};

const Damage kCut{"cut", [](const std::string& path, uint64_t size) {
                      const uint64_t keep = size * 3 / 5 + 1234;
                      std::filesystem::resize_file(path, keep);
                      return std::vector<std::pair<uint64_t, uint64_t>>{{keep, size}};
                  }};
// Three runs of noise, the second one small enough to fall inside a frame or a sound chunk.
const Damage kHoled{"holed", [](const std::string& path, uint64_t size) {
                        std::vector<std::pair<uint64_t, uint64_t>> holes;
                        for (int i = 1; i <= 3; ++i) {
                            const uint64_t at = size * uint64_t(i) / 4 + 777 * uint64_t(i),
                                           length = i == 2 ? 3000 : 30000;
                            overwrite(path, at, patternBytes(length, uint32_t(i)));
                            holes.push_back({at, at + length});
                        }
                        return holes;
                    }};
const Damage kHeader{"overwritten", [](const std::string& path, uint64_t size) {
                         // The start overwritten with zeros, the end (the movie atom) with noise.
                         overwrite(path, 0, std::string(70000, '\0'));
                         overwrite(path, size - 4000, patternBytes(4000, 9));
                         return std::vector<std::pair<uint64_t, uint64_t>>{{0, 70000}, {size - 4000, size}};
                     }};

bool survives(const Packet& p, const std::vector<std::pair<uint64_t, uint64_t>>& destroyed)
{
    for (const auto& [from, to] : destroyed)
        if (p.offset < to && p.offset + p.bytes.size() > from) return false;
    return true;
}

struct Row {
    const char* name;
    std::vector<std::string> video;  // ffmpeg output options of the video
    const char* size;
    const char* rate;
    const char* audio;  // PCM codec or null
    const Damage* damage;
};

// The name with every character that is no letter or digit made an underscore.
std::string identifier(std::string name)
{
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
    return name;
}

// A second of the row's test pattern, or a fifth of bars (the reference); "" when ffmpeg failed.
std::string makeMovie(const Row& row, const char* audio, bool reference)
{
    auto args = lavfi(std::string(reference ? "smptebars" : "testsrc") + "=size=" + row.size + ":rate=" + row.rate);
    if (audio) args = join({args, lavfi("sine=frequency=440:sample_rate=48000")});
    args = join({args, {"-t", reference ? "0.2" : "1"}, row.video});
    if (audio) args = join({args, {"-c:a", audio, "-ac", "2", "-ar", "48000"}});
    return makeTestMovie(identifier(std::string(row.name) + (audio ? audio : "") + (reference ? "-ref" : "")) + ".mov",
                         args);
}

// Recovers input into dir/out with the reference movie given.
recover::RecoverOutcome recoverInto(const TempDir& dir, const std::string& input, const std::string& reference)
{
    std::filesystem::create_directory(dir / "out");
    recover::RecoverOptions options;
    options.input = input;
    options.outdir = dir / "out";
    options.reference = reference;
    options.reportPictures = false;
    return recover::recoverInput(options);
}

// Each video row with each damage; the holed copies carry their sound in the other byte order.
using RowDamage = std::tuple<Row, const Damage*>;
const char* soundOf(const Row& row, const Damage* damage)
{
    if (!row.audio || damage->name != "holed") return row.audio;
    return std::string(row.audio) == "pcm_s16le" ? "pcm_s16be" : "pcm_s16le";
}

class RecoverRow : public ::testing::TestWithParam<RowDamage> {};

// Every surviving frame and byte of sound comes back in order, nothing else, each clip's sound with its first frame.
TEST_P(RecoverRow, SurvivingFramesAndSoundComeBackExactlyInStepAndNothingElse)
{
    const auto& [row, damage] = GetParam();
    const char* sound = soundOf(row, damage);
    const std::string original = makeMovie(row, sound, false), reference = makeMovie(row, sound, true);
    ASSERT_FALSE(original.empty() || reference.empty());

    const std::vector<Packet> packets = videoPackets(original, false);
    ASSERT_GT(packets.size(), 10u);
    const std::vector<SoundPiece> soundPackets = sound ? soundPieces(original) : std::vector<SoundPiece>{};
    TempDir dir;
    const std::string damaged = dir / "damaged.mov";
    std::filesystem::copy_file(original, damaged);
    const auto destroyed = damage->apply(damaged, std::filesystem::file_size(original));
    const std::string damagedDigest = toolDigest("sha256sum", damaged), damagedBytes = readFile(damaged);
    const recover::RecoverOutcome outcome = recoverInto(dir, damaged, reference);
    ASSERT_TRUE(outcome.error.empty()) << outcome.error;
    EXPECT_EQ(toolDigest("sha256sum", damaged), damagedDigest) << "the input was changed";

    std::map<std::string, size_t> index;  // packet bytes -> position in the original
    for (size_t i = 0; i < packets.size(); ++i) index.emplace(packets[i].bytes, i);
    size_t surviving = 0;
    for (const Packet& p : packets) surviving += survives(p, destroyed) ? 1 : 0;
    // The sound's bytes that survive, and where in the sound each byte of the input is.
    uint64_t soundSurviving = 0;
    for (const SoundPiece& piece : soundPackets)
        for (uint64_t at = piece.offset; at < piece.offset + piece.length; ++at)
            soundSurviving += survives({at, "x"}, destroyed) ? 1 : 0;
    const auto soundAt = [&](uint64_t offset) -> std::optional<uint64_t> {
        for (const SoundPiece& piece : soundPackets)
            if (offset >= piece.offset && offset < piece.offset + piece.length)
                return piece.soundAt + (offset - piece.offset);
        return std::nullopt;
    };
    const double soundBytesPerFrame = 48000.0 * 4 / (packets.size() / 1.0);  // the movie lasts one second

    size_t recovered = 0;
    long last = -1;
    uint64_t soundRecovered = 0, soundNotPlaced = 0, soundLast = 0, damagedEdgeBytes = 0;
    double worstStep = 0;  // seconds between a clip's first frame and the start of its sound
    for (const recover::ClipOutcome& clip : outcome.clips) {
        ASSERT_FALSE(clip.moviePath.empty()) << clip.error;
        long first = -1;
        for (const Packet& p : videoPackets(clip.moviePath, true)) {
            const auto found = index.find(p.bytes);
            ASSERT_NE(found, index.end()) << "a frame that was not in the original";
            EXPECT_GT(long(found->second), last) << "frames out of order";
            last = long(found->second);
            if (first < 0) first = last;
            ++recovered;
        }
        std::string expectedSound;
        for (const recover::ByteRange& run : clip.clip.audio) {
            for (uint64_t at = run.offset; at < run.end(); ++at) {
                // A sample frame cut by damage may keep it when its destroyed bytes happen to fit
                // the sound; no byte further into the damage may come back.
                if (!survives({at, "x"}, destroyed)) {
                    ++damagedEdgeBytes;
                    ASSERT_TRUE(survives({at - std::min<uint64_t>(at, 3), "x"}, destroyed) ||
                                survives({at + 3, "x"}, destroyed))
                        << "sound from byte " << at << ", inside the damage";
                    continue;
                }
                const auto position = soundAt(at);
                ASSERT_TRUE(position) << "sound from byte " << at << ", which is not the original's sound (run "
                                      << run.offset << "+" << run.length << ")";
                ASSERT_TRUE(soundRecovered == 0 || *position > soundLast) << "sound out of order at byte " << at;
                soundLast = *position;
                ++soundRecovered;
            }
            expectedSound += damagedBytes.substr(run.offset, run.length);
            if (&run == &clip.clip.audio.front() && first >= 0)
                worstStep = std::max(
                    worstStep, std::abs(double(*soundAt(run.offset)) - first * soundBytesPerFrame) / (48000.0 * 4));
        }
        for (const recover::ByteRange& run : clip.clip.audioNotPlaced) soundNotPlaced += run.length;
        if (sound) {
            EXPECT_TRUE(bytesOf(extractStreamBytes(clip.moviePath, 'a')) == expectedSound) << "the movie's sound";
        }
        expectToolsAccept(clip.moviePath, true);
    }
    EXPECT_GE(recovered * 100, surviving * 99) << recovered << " of " << surviving << " surviving frames";
    // Whole sample frames only: a damage's edges may cut one sample frame on either side.
    EXPECT_EQ(soundNotPlaced, 0u);
    EXPECT_LE(soundSurviving, soundRecovered + 6 * destroyed.size());
    EXPECT_LE(soundRecovered, soundSurviving);
    EXPECT_LE(damagedEdgeBytes, 6 * destroyed.size());
    // Within the muxer's interleaving: a frame and one packet of 1,024 sample frames.
    EXPECT_LE(worstStep, 1.0 / double(packets.size()) + 1024 / 48000.0 + 1e-9);
}

const std::vector<std::string> kDV411 = {"-c:v", "dvvideo", "-pix_fmt", "yuv411p"};
const std::vector<std::string> kDV420 = {"-c:v", "dvvideo", "-pix_fmt", "yuv420p"};
const std::vector<std::string> kDV422 = {"-c:v", "dvvideo", "-pix_fmt", "yuv422p"};
const std::vector<std::string> kProRes422 = {"-c:v", "prores_ks", "-profile:v", "2", "-pix_fmt", "yuv422p10le"};
const std::vector<std::string> kProRes4444 = {"-c:v", "prores_ks", "-profile:v", "4", "-pix_fmt", "yuv444p10le"};
const std::vector<std::string> kMJPEG = {"-c:v", "mjpeg", "-pix_fmt", "yuvj422p", "-q:v", "3"};

const std::vector<Row> kRows = {Row{"DV NTSC", kDV411, "720x480", "30000/1001", "pcm_s16le", &kCut},
                                Row{"DV PAL", kDV420, "720x576", "25", "pcm_s16be", &kHoled},
                                Row{"DVCPRO50 NTSC", kDV422, "720x480", "30000/1001", "pcm_s16be", &kHeader},
                                Row{"DVCPRO50 PAL", kDV422, "720x576", "25", "pcm_s16le", &kCut},
                                Row{"DVCPRO HD 720p", kDV422, "960x720", "60000/1001", "pcm_s16le", &kHoled},
                                Row{"DVCPRO HD 1080i60", kDV422, "1280x1080", "30000/1001", nullptr, &kCut},
                                Row{"DVCPRO HD 1080i50", kDV422, "1440x1080", "25", "pcm_s16be", &kHeader},
                                Row{"ProRes 422", kProRes422, "640x360", "30000/1001", "pcm_s16le", &kHoled},
                                Row{"ProRes 4444", kProRes4444, "320x240", "25", "pcm_s16be", &kCut},
                                Row{"Motion JPEG", kMJPEG, "720x576", "25", "pcm_s16le", &kHoled}};

std::string caseName(const Row& row, const Damage* damage)
{
    return identifier(std::string(row.name) + "_" + damage->name);
}

INSTANTIATE_TEST_SUITE_P(Rows, RecoverRow,
                         ::testing::Combine(::testing::ValuesIn(kRows), ::testing::Values(&kCut, &kHoled, &kHeader)),
                         [](const auto& info) { return caseName(std::get<0>(info.param), std::get<1>(info.param)); });

// Pieces without timecode, cut inside a chunk of sound and stored in reverse, come back as one clip.
TEST(RecoverFragments, PiecesWithoutTimecodeAreJoinedWhereTheirSoundRunsOn)
{
    for (const Row& row : kRows) {
        if (row.damage != &kHoled || !row.audio || std::string(row.name).find("DV") != std::string::npos) continue;
        const std::string original = makeMovie(row, row.audio, false), reference = makeMovie(row, row.audio, true);
        ASSERT_FALSE(original.empty() || reference.empty());
        const std::string movie = readFile(original);
        // A sector boundary inside a chunk of sound past 60 % of the movie, and the sample frame
        // it splits (the helper takes a sample frame from one byte range), which is lost.
        uint64_t cut = 0, lostAt = 0;
        for (const SoundPiece& piece : soundPieces(original))
            if (!cut && piece.offset > movie.size() * 3 / 5 && piece.length >= 2048) {
                cut = (piece.offset + piece.length / 2) & ~uint64_t(511);
                lostAt = piece.soundAt + (cut - piece.offset);
            }
        ASSERT_GT(cut, 0u);
        std::vector<uint8_t> sound = extractStreamBytes(original, 'a');
        if (lostAt % 4 != 0)
            sound.erase(sound.begin() + std::ptrdiff_t(lostAt / 4 * 4),
                        sound.begin() + std::ptrdiff_t(lostAt / 4 * 4 + 4));
        TempDir dir;
        writeFile(dir / "image.bin", patternBytes(1u << 20, 1) + movie.substr(cut) + patternBytes(2u << 20, 2) +
                                         movie.substr(0, cut) + patternBytes(1u << 20, 3));
        const recover::RecoverOutcome outcome = recoverInto(dir, dir / "image.bin", reference);
        ASSERT_TRUE(outcome.error.empty()) << outcome.error;
        ASSERT_EQ(outcome.clips.size(), 1u) << row.name;
        const std::string& made = outcome.clips.front().moviePath;
        EXPECT_TRUE(extractStreamBytes(made, 'v') == extractStreamBytes(original, 'v')) << row.name << ": frames";
        EXPECT_TRUE(extractStreamBytes(made, 'a') == sound) << row.name << ": sound";
        expectToolsAccept(made, true);
    }
}

// What a scan found and the clips made of it, as one text to compare.
std::string scanText(const std::string& path, const recover::Expectation& expectation, unsigned jobs, size_t window)
{
    struct Input {
        int descriptor;
        ~Input() { ::close(descriptor); }
        int get() const { return descriptor; }
    } fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    recover::ScanOptions options;
    options.jobs = jobs;
    options.windowBytes = window;
    const recover::ScanResult scanned = recover::scan(fd.get(), std::filesystem::file_size(path), options);
    std::string text = "scanned " + std::to_string(scanned.bytesScanned) + ", dropped " +
                       std::to_string(scanned.rejectionsDropped) + "\n";
    for (const recover::FrameInfo& f : scanned.frames)
        text += "frame " + std::to_string(f.offset) + "+" + std::to_string(f.length) + " " +
                std::to_string(f.formatType) + "\n";
    for (const recover::Rejection& r : scanned.rejections)
        text += "rejected " + std::to_string(r.offset) + " " + r.reason + "\n";
    const int descriptor = fd.get();
    const recover::ReadBytes read = [descriptor](uint64_t offset, std::span<uint8_t> into) {
        return size_t(std::max<ssize_t>(0, ::pread(descriptor, into.data(), into.size(), off_t(offset))));
    };
    for (const recover::Clip& clip : recover::groupClips(scanned.frames, scanned.rejections, expectation, read)) {
        text += "clip " + std::to_string(clip.frames.size()) + " frames, audio";
        for (const recover::ByteRange& r : clip.audio)
            text += " " + std::to_string(r.offset) + "+" + std::to_string(r.length);
        text += ", " + clip.endReason + "\n";
    }
    return text;
}

// Threads find what one thread finds, also with windows so small that frames cross every part.
class RecoverRowConcurrency : public ::testing::TestWithParam<Row> {};

TEST_P(RecoverRowConcurrency, ThreadsFindWhatOneThreadFinds)
{
    const Row& row = GetParam();
    const std::string original = makeMovie(row, row.audio, false);
    ASSERT_FALSE(original.empty());
    TempDir dir;
    const std::string damaged = dir / "damaged.mov";
    std::filesystem::copy_file(original, damaged);
    row.damage->apply(damaged, std::filesystem::file_size(damaged));
    recover::RecoverOptions options;
    options.reference = makeMovie(row, row.audio, true);
    std::string problem;
    const auto expectation = recover::expectationFor(options, problem);
    ASSERT_TRUE(expectation) << problem;

    const std::string one = scanText(damaged, *expectation, 1, 64u << 20);
    EXPECT_NE(one.find("frame "), std::string::npos);
    EXPECT_EQ(scanText(damaged, *expectation, 2, 64u << 20), one);
    EXPECT_EQ(scanText(damaged, *expectation, 3, 256u << 10), one);
    EXPECT_EQ(scanText(damaged, *expectation, 8, 1u << 20), one);
}

INSTANTIATE_TEST_SUITE_P(Rows, RecoverRowConcurrency, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return caseName(info.param, info.param.damage); });

// A part that begins inside a JPEG frame finds its thumbnails as frames; the merge must not keep them.
TEST(ScanConcurrency, FramesInsideFramesAreSteppedOverAsByOneThread)
{
    const std::string thumbnail =
        readFile(makeTestMovie("small.jpg", join({lavfi("testsrc=size=64x48:rate=25"), {"-frames:v", "1"}})));
    const std::string picture = readFile(
        makeTestMovie("large.jpg", join({lavfi("testsrc=size=720x576:rate=25"), {"-frames:v", "1", "-q:v", "2"}})));
    ASSERT_FALSE(picture.empty());
    ASSERT_LT(thumbnail.size(), 60000u);
    std::string frame = "\xFF\xD8";
    for (int i = 0; i < 40; ++i) {
        const size_t length = thumbnail.size() + 2;
        frame += "\xFF\xE1";
        frame += char(length >> 8);
        frame += char(length & 0xFF);
        frame += thumbnail;
    }
    frame += picture.substr(2);
    std::string image;
    for (uint32_t i = 0; i < 24; ++i) image += patternBytes(1000 + 377 * i, i) + frame;
    TempDir dir;
    const std::string path = dir / "image.bin";
    writeFile(path, image);

    const std::string one = scanText(path, {}, 1, 64u << 20);
    size_t frames = 0;
    for (size_t at = one.find("\nframe "); at != std::string::npos; at = one.find("\nframe ", at + 1)) ++frames;
    EXPECT_EQ(frames, 24u) << one;
    for (const unsigned jobs : {2u, 5u, 16u})
        for (const size_t window : {size_t(1) << 20, size_t(3) << 20, size_t(64) << 20})
            EXPECT_EQ(scanText(path, {}, jobs, window), one) << jobs << " threads, window " << window;
}

// Cut and noisy frames are answered within their bytes (the address build holds the readers to it).
TEST(FrameReaders, CutAndNoisyFramesAreAnsweredWithinTheirBytes)
{
    const struct {
        std::vector<std::string> video;
        const char* size;
        recover::Examination (*examine)(std::span<const uint8_t>, bool);
    } kinds[] = {
        {{"-c:v", "dvvideo", "-pix_fmt", "yuv422p"}, "1280x1080", recover::examineDV},
        {{"-c:v", "prores_ks", "-profile:v", "4", "-flags", "+ildct", "-top", "1"}, "320x240", recover::examineProRes},
        {{"-c:v", "mjpeg", "-pix_fmt", "yuvj420p"}, "320x240", recover::examineJPEG},
    };
    SplitMix64 random(3);
    for (const auto& kind : kinds) {
        const std::string movie = makeTestMovie(
            identifier(kind.video[1]) + ".mov",
            join({lavfi(std::string("testsrc=size=") + kind.size + ":rate=25"), {"-frames:v", "2"}, kind.video}));
        const std::vector<Packet> packets = videoPackets(movie, false);
        ASSERT_FALSE(packets.empty());
        const std::string& frame = packets.front().bytes;
        const auto whole = kind.examine(std::vector<uint8_t>(frame.begin(), frame.end()), true);
        EXPECT_EQ(whole.verdict, recover::Examination::Verdict::Frame) << kind.size << " " << whole.reason;
        EXPECT_EQ(whole.frame.length, frame.size());
        for (size_t length = 0; length < frame.size(); length += 1 + length / 7) {
            const std::vector<uint8_t> cut(frame.begin(), frame.begin() + std::ptrdiff_t(length));
            EXPECT_NE(kind.examine(cut, true).verdict, recover::Examination::Verdict::Frame);
        }
        for (int round = 0; round < 200; ++round) {
            std::vector<uint8_t> noisy(frame.begin(), frame.end());
            const size_t at = random.next() % noisy.size(),
                         n = std::min<size_t>(noisy.size() - at, 1 + random.next() % 400);
            random.fill(noisy.data() + at, n);
            noisy.resize(noisy.size() - random.next() % 3);
            const auto e = kind.examine(noisy, true);
            if (e.verdict == recover::Examination::Verdict::Frame) {
                EXPECT_LE(e.frame.length, noisy.size());
            }
        }
    }
}

}  // namespace

}  // namespace corvina::recover
