// make_sample_job: writes a movie-assembly job the way the carving application leaves one
// behind: a raw video file of encoded frames with junk between them, a raw audio file of
// 16-bit PCM runs with junk between them, and a settings property list with the byte
// ranges of every frame and run.
//
//   make_sample_job --out DIR [--video CODE] [--audio CODE] [--seconds S]
//                   [--width W --height H] [--frame-rate F] [--dest PATH]
//                   [--distinct-frames N] [--seed S] [--no-junk] [--odd-run-bytes]
//
// Exit status: 0 done, 1 failure while writing, 2 bad arguments.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include "Foundation/ByteOrder.h"
#include "Foundation/Value.h"
#include "SplitMix64.h"

namespace {

using corvina::Value;

// ---------------------------------------------------------------------------------------
// Deterministic pseudo-random numbers: same seed, same bytes, on any machine.
using Random = corvina::test::SplitMix64;

// ---------------------------------------------------------------------------------------
// Format rows.

struct VideoRow {
    int code;
    const char* name;
    const char* encoder;  // null: random bytes of plausible frame sizes
    int codedWidth;       // size handed to the encoder (0: from the command line)
    int codedHeight;
    int documentWidth;  // size written as fWidth/fHeight (0: from the command line)
    int documentHeight;
    AVPixelFormat pixelFormat;
    AVRational rate;
    int proresProfile;  // -1: not ProRes
};

// DVCPRO HD frames are stored horizontally subsampled (960, 1280 and 1440 pixels wide);
// the encoder takes those coded sizes, the document names the picture size.
constexpr VideoRow kVideoRows[] = {
    {0, "DV NTSC", "dvvideo", 720, 480, 720, 480, AV_PIX_FMT_YUV411P, {30000, 1001}, -1},
    {1, "DV PAL", "dvvideo", 720, 576, 720, 576, AV_PIX_FMT_YUV420P, {25, 1}, -1},
    {2, "DVCPRO50 NTSC", "dvvideo", 720, 480, 720, 480, AV_PIX_FMT_YUV422P, {30000, 1001}, -1},
    {3, "DVCPRO50 PAL", "dvvideo", 720, 576, 720, 576, AV_PIX_FMT_YUV422P, {25, 1}, -1},
    {4, "Motion JPEG", "mjpeg", 0, 0, 0, 0, AV_PIX_FMT_YUVJ422P, {25, 1}, -1},
    {10, "DVCPROHD 720p60", "dvvideo", 960, 720, 1280, 720, AV_PIX_FMT_YUV422P, {60000, 1001}, -1},
    {11, "DVCPROHD 1080i60", "dvvideo", 1280, 1080, 1920, 1080, AV_PIX_FMT_YUV422P, {30000, 1001}, -1},
    {12, "DVCPROHD 1080i50", "dvvideo", 1440, 1080, 1920, 1080, AV_PIX_FMT_YUV422P, {25, 1}, -1},
    {20, "AIC", nullptr, 0, 0, 0, 0, AV_PIX_FMT_NONE, {30000, 1001}, -1},
    {30, "ProRes HQ", "prores_ks", 0, 0, 0, 0, AV_PIX_FMT_YUV422P10LE, {30000, 1001}, 3},
    {31, "ProRes 422", "prores_ks", 0, 0, 0, 0, AV_PIX_FMT_YUV422P10LE, {30000, 1001}, 2},
    {32, "ProRes LT", "prores_ks", 0, 0, 0, 0, AV_PIX_FMT_YUV422P10LE, {30000, 1001}, 1},
    {33, "ProRes Proxy", "prores_ks", 0, 0, 0, 0, AV_PIX_FMT_YUV422P10LE, {30000, 1001}, 0},
    {34, "ProRes 4444", "prores_ks", 0, 0, 0, 0, AV_PIX_FMT_YUV444P10LE, {30000, 1001}, 4},
    {35, "ProRes 4444 XQ", "prores_ks", 0, 0, 0, 0, AV_PIX_FMT_YUV444P10LE, {30000, 1001}, 5},
};

// Codes the helper does not know still make a job (random frames), so that its
// unknown-format path can be exercised.
constexpr VideoRow kUnknownVideoRow = {-1, "unknown", nullptr, 0, 0, 0, 0, AV_PIX_FMT_NONE, {30000, 1001}, -1};

struct AudioRow {
    int code;
    int channels;
    const char* layout;  // "Stereo", "Mono" or "LtRt"
    int rate;
    bool bigEndian;
};

constexpr AudioRow kAudioRows[] = {
    {1, 2, "Stereo", 44100, false}, {2, 2, "Stereo", 48000, false}, {3, 1, "Mono", 44100, false},
    {4, 1, "Mono", 48000, false},   {5, 2, "Stereo", 44100, true},  {6, 2, "Stereo", 48000, true},
    {7, 1, "Mono", 44100, true},    {8, 1, "Mono", 48000, true},    {9, 2, "Stereo", 32000, false},
    {10, 2, "Stereo", 32000, true}, {11, 1, "Mono", 32000, false},  {12, 1, "Mono", 32000, true},
    {13, 2, "LtRt", 48000, false},  {14, 2, "LtRt", 48000, true},   {15, 2, "LtRt", 44100, false},
    {16, 2, "LtRt", 44100, true},   {17, 2, "LtRt", 32000, false},  {18, 2, "LtRt", 32000, true},
};

const VideoRow& videoRowFor(int code)
{
    for (const VideoRow& row : kVideoRows)
        if (row.code == code) return row;
    return kUnknownVideoRow;
}

const AudioRow* audioRowFor(int code)
{
    for (const AudioRow& row : kAudioRows)
        if (row.code == code) return &row;
    return nullptr;
}

// ---------------------------------------------------------------------------------------
// Command line.

struct Options {
    std::string outDir;
    int video = 0;
    int audio = 0;
    double seconds = 2.0;
    int width = 1920;
    int height = 1080;
    std::optional<double> frameRate;
    std::string dest;
    std::optional<int64_t> distinctFrames;
    uint64_t seed = 1;
    bool junk = true;
    bool oddRunBytes = false;
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

constexpr const char* kUsage =
    "usage: make_sample_job --out DIR [--video CODE] [--audio CODE] [--seconds S]\n"
    "                       [--width W --height H] [--frame-rate F] [--dest PATH]\n"
    "                       [--distinct-frames N] [--seed S] [--no-junk] [--odd-run-bytes]\n";

template <typename T>
T parseInteger(std::string_view option, std::string_view text)
{
    T value{};
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size())
        throw UsageError(std::string(option) + ": not an integer: " + std::string(text));
    return value;
}

double parseReal(std::string_view option, const std::string& text)
{
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size() || !std::isfinite(value))
        throw UsageError(std::string(option) + ": not a number: " + text);
    return value;
}

Options parseOptions(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw UsageError(std::string(arg) + " needs a value");
            return argv[++i];
        };
        if (arg == "--out")
            o.outDir = value();
        else if (arg == "--video")
            o.video = parseInteger<int>(arg, value());
        else if (arg == "--audio")
            o.audio = parseInteger<int>(arg, value());
        else if (arg == "--seconds")
            o.seconds = parseReal(arg, value());
        else if (arg == "--width")
            o.width = parseInteger<int>(arg, value());
        else if (arg == "--height")
            o.height = parseInteger<int>(arg, value());
        else if (arg == "--frame-rate")
            o.frameRate = parseReal(arg, value());
        else if (arg == "--dest")
            o.dest = value();
        else if (arg == "--distinct-frames")
            o.distinctFrames = parseInteger<int64_t>(arg, value());
        else if (arg == "--seed")
            o.seed = parseInteger<uint64_t>(arg, value());
        else if (arg == "--no-junk")
            o.junk = false;
        else if (arg == "--odd-run-bytes")
            o.oddRunBytes = true;
        else if (arg == "--help" || arg == "-h")
            throw UsageError("");
        else
            throw UsageError("unknown option " + std::string(arg));
    }
    if (o.outDir.empty()) throw UsageError("--out is required");
    if (!(o.seconds > 0 && o.seconds <= 4 * 3600)) throw UsageError("--seconds must be above 0 and at most 14400");
    if (o.width < 16 || o.width > 8192 || o.height < 16 || o.height > 8192 || o.width % 2 != 0)
        throw UsageError("--width/--height: 16 to 8192, even width");
    if (o.frameRate && !(*o.frameRate > 0 && *o.frameRate <= 1000))
        throw UsageError("--frame-rate must be above 0 and at most 1000");
    if (o.distinctFrames && *o.distinctFrames < 1) throw UsageError("--distinct-frames must be at least 1");
    if (o.dest.empty()) o.dest = (std::filesystem::path(o.outDir) / "movie.mov").string();
    return o;
}

// ---------------------------------------------------------------------------------------
// Raw data file with junk between the pieces.

class RawFile {
public:
    explicit RawFile(const std::string& path) : path_(path), out_(path, std::ios::binary | std::ios::trunc)
    {
        if (!out_) throw std::runtime_error("cannot create " + path);
    }
    uint64_t position() const { return position_; }
    void write(const uint8_t* bytes, size_t n)
    {
        out_.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(n));
        if (!out_) throw std::runtime_error("cannot write " + path_);
        position_ += n;
    }
    void writeJunk(Random& random, size_t n)
    {
        buffer_.resize(n);
        random.fill(buffer_.data(), n);
        write(buffer_.data(), n);
    }
    void close()
    {
        out_.close();
        if (!out_) throw std::runtime_error("cannot finish " + path_);
    }

private:
    std::string path_;
    std::ofstream out_;
    uint64_t position_ = 0;
    std::vector<uint8_t> buffer_;
};

constexpr size_t kMaxJunk = 4096;

// ---------------------------------------------------------------------------------------
// Video: test pictures through libavcodec.

struct CodecContextDeleter {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameDeleter {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;

// A little film grain (0 to 15) so that the encoders have detail to spend bits on and
// frame sizes look like camera material rather than flat test charts.
int grain(int x, int y, int64_t index)
{
    uint32_t h = static_cast<uint32_t>(x) * 0x9E3779B1u ^ static_cast<uint32_t>(y) * 0x85EBCA77u ^
                 static_cast<uint32_t>(index) * 0xC2B2AE3Du;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 13;
    return static_cast<int>(h & 15);
}

// A gradient that drifts to the right with a box that moves diagonally, so that every
// frame differs from its neighbours.
void paintPicture(AVFrame* frame, int64_t index)
{
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame->format));
    const int w = frame->width, h = frame->height;
    const int boxW = std::max(2, w / 6), boxH = std::max(2, h / 6);
    const int boxX = static_cast<int>((index * 8) % std::max(1, w - boxW));
    const int boxY = static_cast<int>((index * 4) % std::max(1, h - boxH));
    for (int c = 0; c < desc->nb_components; ++c) {
        const AVComponentDescriptor& comp = desc->comp[c];
        const bool chroma = (c == 1 || c == 2) && !(desc->flags & AV_PIX_FMT_FLAG_RGB);
        const int sx = chroma ? desc->log2_chroma_w : 0, sy = chroma ? desc->log2_chroma_h : 0;
        const int pw = AV_CEIL_RSHIFT(w, sx), ph = AV_CEIL_RSHIFT(h, sy);
        const int shift = comp.depth - 8;
        uint8_t* plane = frame->data[comp.plane];
        for (int y = 0; y < ph; ++y) {
            for (int x = 0; x < pw; ++x) {
                const int fx = x << sx, fy = y << sy;
                const bool inBox = fx >= boxX && fx < boxX + boxW && fy >= boxY && fy < boxY + boxH;
                int v;
                if (c == 3)
                    v = 255;  // opaque alpha
                else if (c == 0)
                    v = inBox ? 220 : 16 + static_cast<int>((fx * 200 / w + index * 5) % 200) + grain(fx, fy, index);
                else if (c == 1)
                    v = inBox ? 64 : 128 + static_cast<int>((fy * 64 / h + index) % 64) - 32;
                else
                    v = inBox ? 200 : 128 + static_cast<int>((fx * 64 / w) % 64) - 32;
                if (shift > 0) {
                    const uint16_t v16 = static_cast<uint16_t>(v << shift);
                    std::memcpy(plane + static_cast<size_t>(y) * frame->linesize[comp.plane] + x * 2, &v16, 2);
                } else {
                    plane[static_cast<size_t>(y) * frame->linesize[comp.plane] + x] = static_cast<uint8_t>(v);
                }
            }
        }
    }
}

using PacketSink = std::function<void(const uint8_t*, size_t)>;

// Encodes `count` pictures and hands each packet to the sink, in order. False when the
// encoder cannot be opened (nothing has been handed on then); throws on later failures.
bool encodePictures(const VideoRow& row, int width, int height, int64_t count, const PacketSink& sink)
{
    const AVCodec* codec = avcodec_find_encoder_by_name(row.encoder);
    if (!codec) return false;
    CodecContextPtr ctx(avcodec_alloc_context3(codec));
    if (!ctx) return false;
    ctx->width = width;
    ctx->height = height;
    ctx->pix_fmt = row.pixelFormat;
    ctx->time_base = av_inv_q(row.rate);
    ctx->framerate = row.rate;
    ctx->thread_count = 1;  // one picture in, one packet out: simple and reproducible
    if (row.proresProfile >= 0) av_opt_set_int(ctx->priv_data, "profile", row.proresProfile, 0);
    if (std::strcmp(row.encoder, "mjpeg") == 0) {
        ctx->flags |= AV_CODEC_FLAG_QSCALE;
        ctx->global_quality = FF_QP2LAMBDA * 3;
        ctx->color_range = AVCOL_RANGE_JPEG;
    }
    if (avcodec_open2(ctx.get(), codec, nullptr) < 0) return false;

    FramePtr frame(av_frame_alloc());
    PacketPtr packet(av_packet_alloc());
    if (!frame || !packet) throw std::runtime_error("out of memory");
    frame->format = row.pixelFormat;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0) throw std::runtime_error("cannot allocate a picture");

    int64_t received = 0;
    auto drain = [&]() {
        for (;;) {
            int rc = avcodec_receive_packet(ctx.get(), packet.get());
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
            if (rc < 0) throw std::runtime_error(std::string("encoding failed in ") + row.encoder);
            sink(packet->data, static_cast<size_t>(packet->size));
            ++received;
            av_packet_unref(packet.get());
        }
    };
    for (int64_t i = 0; i < count; ++i) {
        if (av_frame_make_writable(frame.get()) < 0) throw std::runtime_error("cannot write a picture");
        paintPicture(frame.get(), i);
        frame->pts = i;
        if (ctx->flags & AV_CODEC_FLAG_QSCALE) frame->quality = ctx->global_quality;
        if (avcodec_send_frame(ctx.get(), frame.get()) < 0)
            throw std::runtime_error(std::string("encoding failed in ") + row.encoder);
        drain();
    }
    avcodec_send_frame(ctx.get(), nullptr);
    drain();
    if (received != count)
        throw std::runtime_error(std::string(row.encoder) + " returned an unexpected number of packets");
    return true;
}

struct VideoResult {
    Value::ArrayType offsets;
    int64_t frames = 0;
    int64_t distinct = 0;
    uint64_t essenceBytes = 0;
    uint64_t fileBytes = 0;
    std::string how;  // what made the frames
};

VideoResult writeVideo(const Options& o, const VideoRow& row, int64_t frameCount, const std::string& path,
                       Random& junkRandom)
{
    VideoResult result;
    result.frames = frameCount;
    result.distinct = std::min<int64_t>(frameCount, o.distinctFrames.value_or(frameCount));
    const bool repeat = result.distinct < frameCount;
    const int width = row.codedWidth ? row.codedWidth : o.width;
    const int height = row.codedHeight ? row.codedHeight : o.height;

    RawFile file(path);
    auto place = [&](const uint8_t* bytes, size_t n) {
        if (o.junk) file.writeJunk(junkRandom, junkRandom.between(0, kMaxJunk));
        Value::DictionaryType entry{
            {"offset", Value(file.position())}, {"length", Value(static_cast<uint64_t>(n))}, {"frameCount", Value(1)}};
        result.offsets.emplace_back(std::move(entry));
        file.write(bytes, n);
        result.essenceBytes += n;
    };
    std::vector<std::vector<uint8_t>> kept;  // the distinct frames when they are repeated
    auto take = [&](const uint8_t* bytes, size_t n) {
        if (repeat)
            kept.emplace_back(bytes, bytes + n);
        else
            place(bytes, n);
    };

    bool encoded = false;
    if (row.encoder) {
        encoded = encodePictures(row, width, height, result.distinct, take);
        result.how = encoded ? std::string(row.encoder) + " " + std::to_string(width) + "x" + std::to_string(height) +
                                   " " + av_get_pix_fmt_name(row.pixelFormat)
                             : std::string("random bytes: ") + row.encoder + " cannot encode this row here";
    } else {
        result.how = "random bytes (no encoder for this format)";
    }
    if (!encoded) {
        // Frames of plausible sizes: 20 to 60 KB each.
        Random frameRandom(o.seed ^ 0x5A17F00DULL);
        std::vector<uint8_t> bytes;
        for (int64_t i = 0; i < result.distinct; ++i) {
            bytes.resize(frameRandom.between(20 * 1024, 60 * 1024));
            frameRandom.fill(bytes.data(), bytes.size());
            take(bytes.data(), bytes.size());
        }
    }
    for (int64_t i = 0; repeat && i < frameCount; ++i) {
        const std::vector<uint8_t>& bytes = kept[static_cast<size_t>(i % result.distinct)];
        place(bytes.data(), bytes.size());
    }
    if (o.junk) file.writeJunk(junkRandom, junkRandom.between(0, kMaxJunk));
    result.fileBytes = file.position();
    file.close();
    return result;
}

// ---------------------------------------------------------------------------------------
// Audio: a tone per channel as 16-bit PCM, cut into runs with junk between them.
//
// With --odd-run-bytes some runs carry 1 to (bytes per frame - 1) junk bytes after their
// last whole frame, counted in the run's length. Those bytes are not audio: the tone goes
// on with the next frame in the next run, and the frame total stays round(seconds x rate).

struct AudioResult {
    Value::ArrayType offsets;
    int64_t frames = 0;
    uint64_t fileBytes = 0;
    size_t runs = 0;
    int bytesPerFrame = 0;
    int oddRuns = 0;
};

AudioResult writeAudio(const Options& o, const AudioRow* row, const std::string& path, Random& random)
{
    AudioResult result;
    RawFile file(path);
    if (!row) {
        // No audio: the helper opens the file anyway, so leave a little junk in it.
        if (o.junk) file.writeJunk(random, 64);
        result.fileBytes = file.position();
        file.close();
        return result;
    }
    const int channels = row->channels;
    result.bytesPerFrame = 2 * channels;
    const int64_t total = std::llround(o.seconds * row->rate);
    constexpr double kPi = 3.14159265358979323846;
    std::vector<uint8_t> run;
    int64_t frame = 0;
    while (frame < total) {
        const int64_t count = std::min<int64_t>(total - frame, static_cast<int64_t>(random.between(1, 4000)));
        const size_t odd =
            (o.oddRunBytes && random.between(0, 2) == 0) ? random.between(1, result.bytesPerFrame - 1) : 0;
        run.resize(static_cast<size_t>(count) * result.bytesPerFrame + odd);
        uint8_t* out = run.data();
        for (int64_t i = 0; i < count; ++i, ++frame) {
            for (int c = 0; c < channels; ++c) {
                const double hz = 440.0 * (c + 2) / 2;  // 440 Hz left, 660 Hz right
                const auto s =
                    static_cast<int16_t>(std::lround(0.5 * 32767 * std::sin(2 * kPi * hz * frame / row->rate)));
                corvina::storePCM16(out, s, row->bigEndian);
                out += 2;
            }
        }
        random.fill(out, odd);
        if (odd) ++result.oddRuns;
        if (o.junk) file.writeJunk(random, random.between(0, kMaxJunk));
        Value::DictionaryType entry{{"offset", Value(file.position())},
                                    {"length", Value(static_cast<uint64_t>(run.size()))}};
        result.offsets.emplace_back(std::move(entry));
        file.write(run.data(), run.size());
    }
    if (o.junk) file.writeJunk(random, random.between(0, kMaxJunk));
    result.runs = result.offsets.size();
    result.frames = total;
    result.fileBytes = file.position();
    file.close();
    return result;
}

double documentFrameRate(AVRational rate)
{
    // 30000/1001 is written as 29.97, as the carving application writes it.
    return std::round(av_q2d(rate) * 100.0) / 100.0;
}

int run(const Options& o)
{
    av_log_set_level(AV_LOG_ERROR);
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::create_directories(o.outDir, ec);
    if (ec) throw std::runtime_error("cannot create " + o.outDir + ": " + ec.message());
    const std::string videoPath = fs::absolute(fs::path(o.outDir) / "video.raw").string();
    const std::string audioPath = fs::absolute(fs::path(o.outDir) / "audio.raw").string();
    const std::string settingsPath = (fs::path(o.outDir) / "settings.plist").string();

    const VideoRow& videoRow = videoRowFor(o.video);
    const AudioRow* audioRow = audioRowFor(o.audio);
    const double frameRate = o.frameRate.value_or(documentFrameRate(videoRow.rate));
    const int64_t frameCount = std::max<int64_t>(1, std::llround(o.seconds * frameRate));

    Random videoJunk(o.seed * 0x100000001B3ULL + 1);
    Random audioRandom(o.seed * 0x100000001B3ULL + 2);
    VideoResult video = writeVideo(o, videoRow, frameCount, videoPath, videoJunk);
    AudioResult audio = writeAudio(o, audioRow, audioPath, audioRandom);

    const int docWidth = videoRow.documentWidth ? videoRow.documentWidth : o.width;
    const int docHeight = videoRow.documentHeight ? videoRow.documentHeight : o.height;
    Value::DictionaryType settings{
        {"tmpFilename", Value(videoPath)},
        {"tmpAudioFilename", Value(audioPath)},
        {"formatType", Value(o.video)},
        {"frameRate", Value(frameRate)},
        {"destFilename", Value(fs::absolute(o.dest).string())},
        {"offsetArray", Value(std::move(video.offsets))},
        {"audioOffsetArray", Value(std::move(audio.offsets))},
        {"audioFormat", Value(o.audio)},
        {"fWidth", Value(docWidth)},
        {"fHeight", Value(docHeight)},
    };
    if (!Value(std::move(settings)).writeToFile(settingsPath, true))
        throw std::runtime_error("cannot write " + settingsPath);

    std::string audioText = "no audio";
    if (audioRow) {
        audioText = std::to_string(audio.frames) + " frames " + std::to_string(audioRow->rate) + " Hz " +
                    audioRow->layout + " " + (audioRow->bigEndian ? "BE" : "LE") + " in " + std::to_string(audio.runs) +
                    " runs";
        if (audio.oddRuns) audioText += " (" + std::to_string(audio.oddRuns) + " with trailing partial frames)";
    }
    std::printf(
        "make_sample_job: video %d %s: %lld frames (%lld distinct, %s), %llu bytes of frames in %llu; audio %d: %s, "
        "%llu bytes; settings %s\n",
        o.video, videoRow.name, static_cast<long long>(video.frames), static_cast<long long>(video.distinct),
        video.how.c_str(), static_cast<unsigned long long>(video.essenceBytes),
        static_cast<unsigned long long>(video.fileBytes), o.audio, audioText.c_str(),
        static_cast<unsigned long long>(audio.fileBytes), settingsPath.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    try {
        options = parseOptions(argc, argv);
    } catch (const UsageError& e) {
        if (*e.what()) std::fprintf(stderr, "make_sample_job: %s\n", e.what());
        std::fputs(kUsage, stderr);
        return 2;
    }
    try {
        return run(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "make_sample_job: %s\n", e.what());
        return 1;
    }
}
