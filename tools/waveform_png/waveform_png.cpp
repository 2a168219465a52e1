// waveform_png: draws the waveform of a movie's first audio track as a PNG picture, with the
// timecode of the movie's start and end written under it.
//
//   waveform_png MOVIE OUT.png [--width W] [--height H] [--scale dbfs|linear]
//
// Each column shows the peak (light) and the RMS (bright, inside it) of the audio it covers,
// over all channels, mirrored about the middle line, on a fixed axis: from -60 dBFS at the
// middle line to 0 dBFS at the edge (dbfs, the default), or from silence to full scale in
// proportion to the level (linear). Quiet audio therefore looks quiet.
//
// Exit status: 0 written, 1 the movie has no readable audio or the picture cannot be written,
// 2 bad arguments.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "tq/TQAVFoundation.h"

using namespace corvina::tq;

namespace {

// 5 x 7 glyphs of the characters a timecode needs, one row a byte (bit 4 leftmost).
const uint8_t* glyph(char c)
{
    static const uint8_t digits[10][7] = {
        {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
        {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
        {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
        {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
        {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
    };
    static const uint8_t colon[7] = {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00};
    static const uint8_t semicolon[7] = {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x04, 0x08};
    static const uint8_t blank[7] = {};
    if (c >= '0' && c <= '9') return digits[c - '0'];
    if (c == ':') return colon;
    if (c == ';') return semicolon;
    return blank;
}

struct Picture {
    int width, height;
    std::vector<uint8_t> rgb;
    void set(int x, int y, uint8_t r, uint8_t g, uint8_t b)
    {
        if (x < 0 || y < 0 || x >= width || y >= height) return;
        uint8_t* p = &rgb[(size_t(y) * width + x) * 3];
        p[0] = r, p[1] = g, p[2] = b;
    }
    // Text at twice the glyph size.
    void text(const std::string& s, int x, int y)
    {
        for (char c : s) {
            const uint8_t* rows = glyph(c);
            for (int row = 0; row < 7; ++row)
                for (int col = 0; col < 5; ++col)
                    if (rows[row] & (0x10 >> col))
                        for (int d = 0; d < 4; ++d) set(x + col * 2 + d % 2, y + row * 2 + d / 2, 230, 230, 230);
            x += 12;
        }
    }
};

bool writePNG(const Picture& picture, const std::string& path)
{
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (!codec) return false;
    AVCodecContext* context = avcodec_alloc_context3(codec);
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    bool written = false;
    context->width = frame->width = picture.width;
    context->height = frame->height = picture.height;
    context->pix_fmt = AV_PIX_FMT_RGB24;
    frame->format = AV_PIX_FMT_RGB24;
    context->time_base = AVRational{1, 1};
    if (avcodec_open2(context, codec, nullptr) == 0 && av_frame_get_buffer(frame, 0) == 0) {
        for (int y = 0; y < picture.height; ++y)
            std::memcpy(frame->data[0] + size_t(y) * frame->linesize[0], &picture.rgb[size_t(y) * picture.width * 3],
                        size_t(picture.width) * 3);
        if (avcodec_send_frame(context, frame) == 0 && avcodec_receive_packet(context, packet) == 0) {
            // Beside the target first, then renamed over it.
            const std::string partial = path + ".partial";
            std::ofstream out(partial, std::ios::binary);
            out.write(reinterpret_cast<const char*>(packet->data), packet->size);
            out.close();
            written = out.good() && std::rename(partial.c_str(), path.c_str()) == 0;
            if (!written) std::remove(partial.c_str());
        }
    }
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&context);
    return written;
}

constexpr double kFloorDb = -60.0;

// Pixels from the middle line for a level (1.0 full scale) on the chosen axis.
int reachFor(double level, bool linear, int maxReach)
{
    double fraction = 0;
    if (linear) {
        fraction = level;
    } else if (level > 0) {
        fraction = (20.0 * std::log10(level) - kFloorDb) / -kFloorDb;
    }
    return int(std::lround(std::clamp(fraction, 0.0, 1.0) * maxReach));
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> positional;
    int width = 800, height = 200;
    std::string scale = "dbfs";
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if ((a == "--width" || a == "--height") && i + 1 < argc) {
            (a == "--width" ? width : height) = std::atoi(argv[++i]);
        } else if (a == "--scale" && i + 1 < argc) {
            scale = argv[++i];
        } else {
            positional.push_back(a);
        }
    }
    if (positional.size() != 2 || width < 64 || height < 16 || width > 16384 || height > 16384 ||
        (scale != "dbfs" && scale != "linear")) {
        std::fprintf(stderr, "usage: waveform_png MOVIE OUT.png [--width W] [--height H] [--scale dbfs|linear]\n");
        return 2;
    }
    const auto asset = corvina::Asset::assetWithPath(positional[0]);
    const auto levels = TQAVFoundation::waveformLevelsForAsset(asset);
    if (!levels) {
        std::fprintf(stderr, "No readable audio in %s\n", positional[0].c_str());
        return 1;
    }
    const std::string start = TQAVFoundation::timecodeStartForAsset(asset, std::string("00:00:00:00")).value_or("");
    const std::string end = TQAVFoundation::timecodeAtTime(asset->duration(), asset, std::string("00:00:00:00"));

    constexpr int kCaption = 24;
    Picture picture{width, height + kCaption, std::vector<uint8_t>(size_t(width) * (height + kCaption) * 3, 24)};
    const int middle = height / 2;
    const bool linear = scale == "linear";
    for (int x = 0; x < width; ++x) picture.set(x, middle, 70, 70, 70);
    // Each column covers whole buckets: the loudest peak among them, and the RMS of them all.
    for (int x = 0; x < width && !levels->empty(); ++x) {
        const size_t first = levels->size() * size_t(x) / size_t(width);
        const size_t last = std::max(first + 1, levels->size() * size_t(x + 1) / size_t(width));
        double peak = 0, squares = 0;
        size_t count = 0;
        for (size_t i = first; i < last && i < levels->size(); ++i, ++count) {
            peak = std::max(peak, double((*levels)[i].peak));
            squares += double((*levels)[i].rms) * double((*levels)[i].rms);
        }
        const double rms = count ? std::sqrt(squares / double(count)) : 0;
        const int peakReach = reachFor(peak, linear, middle - 1);
        const int rmsReach = std::min(peakReach, reachFor(rms, linear, middle - 1));
        for (int d = 1; d <= peakReach; ++d) {
            const bool inner = d <= rmsReach;
            const uint8_t r = inner ? 150 : 60, g = inner ? 235 : 150, b = inner ? 170 : 90;
            picture.set(x, middle - d, r, g, b);
            picture.set(x, middle + d, r, g, b);
        }
    }
    picture.text(start, 4, height + 5);
    picture.text(end, width - 4 - 12 * int(end.size()), height + 5);
    if (!writePNG(picture, positional[1])) {
        std::fprintf(stderr, "Cannot write %s\n", positional[1].c_str());
        return 1;
    }
    return 0;
}
