// The asset layer over libav, on movies made by ffmpeg: containers, tracks and their
// descriptions, timecode, reader outputs and statuses, damaged input.
#include <gtest/gtest.h>

#include <filesystem>

#include "AssetReader/AssetReader.h"
#include "AssetReader/Libav.h"
#include "Foundation/ByteOrder.h"
#include "Foundation/Exception.h"
#include "support/TestSupport.h"
#include "support/TestMovies.h"

using namespace corvina;
using namespace corvina::test;

namespace {

// Every sample of an output, in order.
std::vector<std::unique_ptr<SampleBuffer>> drain(AssetReaderTrackOutput& output)
{
    std::vector<std::unique_ptr<SampleBuffer>> samples;
    while (auto s = output.copyNextSampleBuffer()) samples.push_back(std::move(s));
    return samples;
}

// The sample frames the samples hold.
uint64_t frameCount(const std::vector<std::unique_ptr<SampleBuffer>>& samples)
{
    uint64_t frames = 0;
    for (const auto& s : samples) frames += uint64_t(s->numSamples());
    return frames;
}

}  // namespace

TEST(AssetTest, ContainersTracksAndDescriptions)
{
    struct Case {
        const char* name;
        std::vector<std::string> arguments;
        FourCharCode video;
        const char* formatName;
        FourCharCode audio;
        uint32_t channels, flags;
    };
    const std::string pictures = "testsrc=s=64x48:r=25:d=0.2";
    const Case cases[] = {
        {"a.mov",
         join({lavfi(pictures), lavfi(constantAudio({1}, 48000, 0.2)), {"-c:v", "mjpeg", "-c:a", "pcm_s16be"}}),
         fourCC("jpeg"), "Motion JPEG", kAudioFormatLinearPCM, 1, 14},
        {"a.mp4", join({lavfi(pictures), lavfi(constantAudio({1, 2}, 44100, 0.2)), {"-c:v", "mpeg4", "-c:a", "aac"}}),
         fourCC("mp4v"), "MPEG-4 part 2", fourCC("aac "), 2, 0},
        {"a.mxf",
         join({lavfi("testsrc=s=720x576:r=25:d=0.2"),
               lavfi(constantAudio({1}, 48000, 0.2)),
               {"-c:v", "mpeg2video", "-c:a", "pcm_s16le"}}),
         fourCC("m2v1"), "MPEG-2 video", kAudioFormatLinearPCM, 1, 12},
        {"a.avi",
         join({lavfi(pictures),
               lavfi(constantAudio({1, 2, 3, 4, 5, 6}, 48000, 0.2)),
               {"-c:v", "mjpeg", "-c:a", "pcm_s16le"}}),
         fourCC("jpeg"), "Motion JPEG", kAudioFormatLinearPCM, 6, 12},
        {"a.dv",
         join({lavfi("testsrc=s=720x576:r=25:d=0.12"),
               lavfi(constantAudio({1, 2}, 48000, 0.12)),
               {"-pix_fmt", "yuv420p", "-c:v", "dvvideo", "-c:a", "pcm_s16le", "-f", "dv"}}),
         fourCC("dvcp"), "DV - PAL", kAudioFormatLinearPCM, 2, 12},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = makeTestMovie(c.name, c.arguments);
        ASSERT_FALSE(path.empty());
        const AssetRef asset = Asset::assetWithPath(path);
        ASSERT_TRUE(asset->isReadable());
        const auto video = asset->tracksWithMediaType(MediaType::Video);
        const auto audio = asset->tracksWithMediaType(MediaType::Audio);
        ASSERT_EQ(video.size(), 1u);
        ASSERT_EQ(audio.size(), 1u);
        const FormatDescription& v = *video[0]->formatDescriptions().at(0);
        EXPECT_EQ(v.mediaSubType(), c.video);
        EXPECT_EQ(v.extension(kFormatDescriptionExtension_FormatName), c.formatName);
        EXPECT_NEAR(video[0]->nominalFrameRate(), 25.0, 1e-3);
        const AudioStreamBasicDescription& a = *audio[0]->formatDescriptions().at(0)->streamBasicDescription();
        EXPECT_EQ(a.mFormatID, c.audio);
        EXPECT_EQ(a.mChannelsPerFrame, c.channels);
        if (c.audio == kAudioFormatLinearPCM) {
            EXPECT_EQ(a.mFormatFlags, c.flags);
            EXPECT_EQ(a.mBytesPerFrame, 2 * c.channels);
        }
        EXPECT_NEAR(asset->duration().getSeconds(), std::string(c.name) == "a.dv" ? 0.12 : 0.2, 0.03);
    }
}

TEST(AssetTest, TimecodeStoredAsTrackOrAsProperty)
{
    struct Case {
        const char* name;
        const char* rate;
        const char* start;
        const char* codec;
        MediaTime frameDuration;
        uint32_t quanta, dropFlag, frameNumber;
    };
    const Case cases[] = {
        {"tc2997df.mov", "30000/1001", "01:00:00;00", "mjpeg", MediaTime::make(1001, 30000), 30, 1, 107892},
        {"tc2997ndf.mov", "30000/1001", "01:00:00:00", "mjpeg", MediaTime::make(1001, 30000), 30, 0, 108000},
        {"tc5994df.mp4", "60000/1001", "00:01:00;04", "mjpeg", MediaTime::make(1001, 60000), 60, 1, 3600},
        {"tc2398.mov", "24000/1001", "00:00:10:00", "mjpeg", MediaTime::make(1001, 24000), 24, 0, 240},
        {"tc25.mxf", "25", "10:00:00:00", "mpeg2video", MediaTime::make(1, 25), 25, 0, 900000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string size = std::string(c.codec) == "mjpeg" ? "64x48" : "720x576";
        const std::string path = makeTestMovie(c.name, join({lavfi("testsrc=s=" + size + ":r=" + c.rate + ":d=0.1"),
                                                             {"-c:v", c.codec, "-timecode", c.start}}));
        ASSERT_FALSE(path.empty());
        const AssetRef asset = Asset::assetWithPath(path);
        const auto timecode = asset->tracksWithMediaType(MediaType::Timecode);
        ASSERT_EQ(timecode.size(), 1u);
        const FormatDescription& d = *timecode[0]->formatDescriptions().at(0);
        EXPECT_EQ(d.mediaSubType(), fourCC("tmcd"));
        EXPECT_EQ(d.frameDuration(), c.frameDuration);
        EXPECT_EQ(d.frameQuanta(), c.quanta);
        EXPECT_EQ(d.timeCodeFlags() & kTimeCodeFlag_DropFrame, c.dropFlag);

        auto reader = AssetReader::create(asset).valueOr(nullptr);
        auto output = AssetReaderTrackOutput::create(timecode[0]);
        reader->addOutput(output);
        ASSERT_TRUE(reader->startReading());
        const auto samples = drain(*output);
        ASSERT_FALSE(samples.empty());
        EXPECT_EQ(corvina::loadBE32(samples[0]->dataBuffer()->data()), c.frameNumber);
        EXPECT_EQ(reader->status(), AssetReaderStatus::Completed);
    }
}

TEST(AssetReaderTest, LinearPCMOutputsConvertRateChannelsSizeAndOrder)
{
    const std::string path =
        makeTestMovie("pcm.mov", join({lavfi(constantAudio({8192, -8192}, 48000, 0.5)), {"-c:a", "pcm_s16le"}}));
    ASSERT_FALSE(path.empty());
    const AssetRef asset = Asset::assetWithPath(path);
    struct Case {
        AudioOutputSettings settings;
        std::vector<uint8_t> firstFrame;  // bytes of the first frame
        uint64_t frames;                  // frames over the whole half second
    };
    const Case cases[] = {
        {{0, 0, 16, false, false, 0}, {0x00, 0x20, 0x00, 0xE0}, 24000},
        {{0, 0, 24, false, true, 0}, {0x20, 0x00, 0x00, 0xE0, 0x00, 0x00}, 24000},
        {{0, 1, 16, false, true, 0}, {0x00, 0x00}, 24000},  // the two channels cancel out
        {{0, 0, 32, true, false, 0}, {0x00, 0x00, 0x80, 0x3E, 0x00, 0x00, 0x80, 0xBE}, 24000},
        {{44100, 2, 8, false, false, 0}, {0xA0, 0x60}, 22050},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.settings.bitDepth << " bits, " << c.settings.sampleRate << " Hz");
        auto reader = AssetReader::create(asset).valueOr(nullptr);
        auto output = AssetReaderTrackOutput::createAudio(asset->tracksWithMediaType(MediaType::Audio)[0], c.settings);
        ASSERT_TRUE(output);
        reader->addOutput(output);
        ASSERT_TRUE(reader->startReading());
        const auto samples = drain(*output);
        EXPECT_EQ(reader->status(), AssetReaderStatus::Completed);
        ASSERT_FALSE(samples.empty());
        // The converter may hold back a few frames of its filter at a rate change.
        EXPECT_NEAR(double(frameCount(samples)), double(c.frames), 32.0);
        const auto& asbd = *samples[0]->formatDescription()->streamBasicDescription();
        ASSERT_EQ(asbd.mBytesPerFrame, c.firstFrame.size());
        if (c.settings.sampleRate == 0) {
            const uint8_t* data = samples[0]->dataBuffer()->data();
            EXPECT_EQ(std::vector<uint8_t>(data, data + c.firstFrame.size()), c.firstFrame);
        }
    }
    AudioOutputSettings unusable;
    unusable.bitDepth = 12;
    EXPECT_FALSE(AssetReaderTrackOutput::createAudio(asset->tracksWithMediaType(MediaType::Audio)[0], unusable));
}

TEST(AssetReaderTest, TimeRangeAndStatuses)
{
    const std::string path = makeTestMovie("range.mov", join({lavfi("testsrc=s=64x48:r=25:d=0.4"),
                                                              lavfi(constantAudio({100}, 48000, 0.4)),
                                                              {"-c:v", "mjpeg", "-c:a", "pcm_s16le"}}));
    const AssetRef asset = Asset::assetWithPath(path);
    auto reader = AssetReader::create(asset).valueOr(nullptr);
    reader->setTimeRange(MediaTime::make(4, 25), MediaTime::make(4, 25));
    auto video = AssetReaderTrackOutput::create(asset->tracksWithMediaType(MediaType::Video)[0]);
    auto audio = AssetReaderTrackOutput::createAudio(asset->tracksWithMediaType(MediaType::Audio)[0], {});
    reader->addOutput(video);
    reader->addOutput(audio);
    ASSERT_TRUE(reader->startReading());
    const auto frames = drain(*video);
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[0]->presentationTimeStamp().getSeconds(), 0.16);
    EXPECT_EQ(reader->status(), AssetReaderStatus::Reading);  // audio is still open
    EXPECT_EQ(frameCount(drain(*audio)), 7680u);              // 0.16 s at 48 kHz
    EXPECT_EQ(reader->status(), AssetReaderStatus::Completed);

    auto cancelled = AssetReader::create(asset).valueOr(nullptr);
    auto output = AssetReaderTrackOutput::create(asset->tracksWithMediaType(MediaType::Video)[0]);
    cancelled->addOutput(output);
    cancelled->startReading();
    EXPECT_TRUE(output->copyNextSampleBuffer());
    cancelled->cancelReading();
    EXPECT_EQ(cancelled->status(), AssetReaderStatus::Cancelled);
    EXPECT_FALSE(output->copyNextSampleBuffer());
}

TEST(AssetTest, UnreadableRemoteAndDamagedInput)
{
    TempDir dir;
    writeFile(dir / "notes.mov", "these are not the frames you are looking for");
    for (const std::string& path : {dir / "notes.mov", dir / "missing.mov", dir.path()}) {
        const AssetRef asset = Asset::assetWithPath(path);
        EXPECT_FALSE(asset->isReadable()) << path;
        EXPECT_TRUE(asset->tracks().empty());
        auto reader = AssetReader::create(asset);
        ASSERT_FALSE(reader);
        EXPECT_EQ(reader.error().domain, kAssetErrorDomain);
    }
    EXPECT_THROW(av::librarySymbol("av_no_such_function"), PlatformException) << "a broken installation";

    // A movie cut short: either no longer a movie, or a movie that reads what is left.
    const std::string bytes = readFile(makeTestMovie(
        "whole.mov", join({lavfi("testsrc=s=64x48:r=25:d=0.4"), {"-c:v", "mjpeg", "-movflags", "+faststart"}})));
    ASSERT_GT(bytes.size(), 1000u);
    for (size_t keep : {size_t(16), bytes.size() / 2}) {
        const std::string cut = dir / ("cut" + std::to_string(keep) + ".mov");
        writeFile(cut, bytes.substr(0, keep));
        const AssetRef asset = Asset::assetWithPath(cut);
        if (!asset->isReadable()) continue;
        auto reader = AssetReader::create(asset).valueOr(nullptr);
        auto output = AssetReaderTrackOutput::create(asset->tracks()[0]);
        reader->addOutput(output);
        reader->startReading();
        EXPECT_LT(drain(*output).size(), 10u);
        EXPECT_NE(reader->status(), AssetReaderStatus::Reading);
    }
}
