#include "recover/Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "helper/AppController.h"
#include "AssetReader/Asset.h"
#include "AssetReader/Libav.h"
#include "Foundation/ByteOrder.h"
#include "recover/Recovery.h"
#include "tq/TQAVFoundation.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace corvina::recover {
using namespace corvina::tq;
using namespace corvina::helper;

namespace {

std::string jsonString(const std::string& text)
{
    std::string out = "\"";
    for (const unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

std::string htmlText(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

std::string real(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

std::string formatName(int64_t formatType)
{
    const VideoFormatInfo* row = AppController::videoFormatForType(formatType);
    return row ? row->name : "unknown";
}

std::string audioName(int64_t audioFormat)
{
    const AudioFormatInfo* row = AppController::audioFormatForCode(audioFormat);
    return row ? std::string(row->logLine).substr(std::strlen("Audio format is ")) : std::string();
}

std::string base64(const std::vector<unsigned char>& bytes)
{
    static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const uint32_t n = uint32_t(bytes[i]) << 16 | (i + 1 < bytes.size() ? uint32_t(bytes[i + 1]) << 8 : 0) |
                           (i + 2 < bytes.size() ? bytes[i + 2] : 0);
        out += kDigits[n >> 18 & 63];
        out += kDigits[n >> 12 & 63];
        out += i + 1 < bytes.size() ? kDigits[n >> 6 & 63] : '=';
        out += i + 2 < bytes.size() ? kDigits[n & 63] : '=';
    }
    return out;
}

bool writeBeside(const std::string& path, const std::string& text)
{
    const std::string temp = path + ".partial";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out << text;
        if (!out.flush()) return false;
    }
    std::error_code ec;
    std::filesystem::rename(temp, path, ec);
    if (ec) std::filesystem::remove(temp, ec);
    return !ec;
}

// report.json, or report-2.json and so on when the name is taken.
std::string freeReportName(const std::string& outdir, const std::string& ext)
{
    std::string path = outdir + "/report" + ext;
    for (int n = 2; std::filesystem::exists(path); ++n) path = outdir + "/report-" + std::to_string(n) + ext;
    return path;
}

// One waveform as an SVG polyline of levels in decibels (-90 to 0).
std::string waveformSVG(const std::vector<float>& levels)
{
    constexpr int kWidth = 480, kHeight = 60;
    std::ostringstream svg;
    svg << "<svg width=\"" << kWidth << "\" height=\"" << kHeight
        << "\" style=\"background:#111\"><polyline fill=\"none\" "
        << "stroke=\"#6c6\" points=\"";
    for (size_t i = 0; i < levels.size(); ++i) {
        const double x = levels.size() > 1 ? double(i) * kWidth / double(levels.size() - 1) : 0;
        const double level = std::clamp((double(levels[i]) + 90.0) / 90.0, 0.0, 1.0);
        svg << int(x) << ',' << int(kHeight - level * kHeight) << ' ';
    }
    svg << "\"/></svg>";
    return svg.str();
}

// The colour of one pixel of a planar YUV picture, 8 bits or more per component.
void pixelRGB(const AVFrame& frame, const AVPixFmtDescriptor& d, int x, int y, unsigned char* bgr)
{
    const auto component = [&](int plane, int px, int py) {
        const int depth = d.comp[plane].depth;
        const uint8_t* row = frame.data[plane] + ptrdiff_t(py) * frame.linesize[plane];
        if (depth <= 8) return int(row[px]);
        uint16_t v;
        std::memcpy(&v, row + 2 * px, 2);
        return int(v >> (depth - 8));
    };
    const int luma = component(0, x, y);
    int cb = 128, cr = 128;
    if (d.nb_components >= 3) {
        cb = component(1, x >> d.log2_chroma_w, y >> d.log2_chroma_h);
        cr = component(2, x >> d.log2_chroma_w, y >> d.log2_chroma_h);
    }
    const double Y = 1.164 * (luma - 16), U = cb - 128, V = cr - 128;
    const auto clamp = [](double v) { return (unsigned char)std::clamp(int(std::lround(v)), 0, 255); };
    bgr[2] = clamp(Y + 1.596 * V);
    bgr[1] = clamp(Y - 0.392 * U - 0.813 * V);
    bgr[0] = clamp(Y + 2.017 * U);
}

}  // namespace

std::vector<ByteRange> rangesUsed(const Clip& clip)
{
    std::vector<ByteRange> all(clip.frames);
    for (const Clip::CutFrame& cut : clip.cutFrames) all.push_back(cut.tail);
    all.insert(all.end(), clip.audio.begin(), clip.audio.end());
    std::sort(all.begin(), all.end(), [](const ByteRange& a, const ByteRange& b) { return a.offset < b.offset; });
    std::vector<ByteRange> merged;
    for (const ByteRange& range : all) {
        if (!merged.empty() && merged.back().end() >= range.offset)
            merged.back().length = std::max(merged.back().end(), range.end()) - merged.back().offset;
        else
            merged.push_back(range);
    }
    return merged;
}

namespace {

// The decoded frame as a BMP file `width` pixels wide; empty when its pixel format is not one
// this sampling reads.
std::vector<unsigned char> frameBMP(const AVFrame& frame, int width)
{
    if (frame.width <= 0 || frame.height <= 0) return {};
    const AVPixFmtDescriptor* d = AV_CALL(av_pix_fmt_desc_get)(AVPixelFormat(frame.format));
    if (!d || !(d->flags & AV_PIX_FMT_FLAG_PLANAR) || (d->flags & AV_PIX_FMT_FLAG_RGB) || d->comp[0].depth > 16)
        return {};
    const int height = std::max(1, int(std::lround(double(width) * frame.height / frame.width)));
    const int rowBytes = (width * 3 + 3) & ~3;
    const uint32_t imageBytes = uint32_t(rowBytes * height), fileBytes = 54 + imageBytes;
    std::vector<unsigned char> bmp(fileBytes, 0);
    const auto put32 = [&](size_t at, uint32_t v) { corvina::storeLE32(&bmp[at], v); };
    bmp[0] = 'B';
    bmp[1] = 'M';
    put32(2, fileBytes);
    put32(10, 54);
    put32(14, 40);
    put32(18, uint32_t(width));
    put32(22, uint32_t(height));
    bmp[26] = 1;
    bmp[28] = 24;
    put32(34, imageBytes);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            pixelRGB(frame, *d, x * frame.width / width, y * frame.height / height,
                     &bmp[54 + size_t(height - 1 - y) * rowBytes + size_t(x) * 3]);
    return bmp;
}

}  // namespace

std::vector<std::vector<unsigned char>> thumbnailsBMP(const std::string& moviePath, const std::vector<long>& indexes,
                                                      int width)
{
    using namespace corvina::av;
    std::vector<std::vector<unsigned char>> pictures(indexes.size());
    try {
        auto opened = openInput(moviePath);
        if (!opened) return pictures;
        FormatContextPtr input = std::move(*opened);
        const int stream = AV_CALL(av_find_best_stream)(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (stream < 0) return pictures;
        // The demuxer steps over the samples of discarded tracks without reading them.
        for (unsigned i = 0; i < input->nb_streams; ++i)
            if (int(i) != stream) input->streams[i]->discard = AVDISCARD_ALL;
        const AVCodecParameters* parameters = input->streams[stream]->codecpar;
        const AVCodec* codec = AV_CALL(avcodec_find_decoder)(parameters->codec_id);
        if (!codec) return pictures;
        CodecContextPtr decoder(AV_CALL(avcodec_alloc_context3)(codec));
        if (!decoder || AV_CALL(avcodec_parameters_to_context)(decoder.get(), parameters) < 0) return pictures;
        // Decoders that can (DV, JPEG) decode at a half, quarter or eighth of the size, as long
        // as that is still as wide as the picture.
        while (decoder->lowres < codec->max_lowres && (parameters->width >> (decoder->lowres + 1)) >= width)
            ++decoder->lowres;
        if (AV_CALL(avcodec_open2)(decoder.get(), codec, nullptr) < 0) return pictures;
        PacketPtr packet(AV_CALL(av_packet_alloc)());
        FramePtr frame(AV_CALL(av_frame_alloc)());
        const long last = indexes.empty() ? -1 : *std::max_element(indexes.begin(), indexes.end());
        long seen = 0;
        // Every frame of these formats stands alone: only the wanted packets are decoded, each
        // on its own (the decoder drained and reset after it).
        while (seen <= last && AV_CALL(av_read_frame)(input.get(), packet.get()) >= 0) {
            if (packet->stream_index == stream) {
                const long index = seen++;
                const auto wanted = std::find(indexes.begin(), indexes.end(), index);
                if (wanted != indexes.end() && AV_CALL(avcodec_send_packet)(decoder.get(), packet.get()) >= 0) {
                    AV_CALL(avcodec_send_packet)(decoder.get(), nullptr);
                    if (AV_CALL(avcodec_receive_frame)(decoder.get(), frame.get()) >= 0) {
                        const std::vector<unsigned char> bmp = frameBMP(*frame, width);
                        for (size_t i = 0; i < indexes.size(); ++i)
                            if (indexes[i] == index) pictures[i] = bmp;
                        AV_CALL(av_frame_unref)(frame.get());
                    }
                    AV_CALL(avcodec_flush_buffers)(decoder.get());
                }
            }
            AV_CALL(av_packet_unref)(packet.get());
        }
    } catch (const std::exception&) {
    }
    return pictures;
}

std::string reportJSON(const RecoverOutcome& outcome, const std::string& input)
{
    std::ostringstream j;
    const auto rejectionList = [&](const std::vector<Rejection>& list) {
        j << '[';
        for (size_t i = 0; i < list.size(); ++i)
            j << (i ? "," : "") << "{\"offset\":" << list[i].offset
              << ",\"family\":" << jsonString(familyName(list[i].family))
              << ",\"reason\":" << jsonString(list[i].reason) << '}';
        j << ']';
    };
    j << "{\n\"input\":" << jsonString(input) << ",\n\"inputBytes\":" << outcome.inputBytes
      << ",\n\"bytesScanned\":" << outcome.bytesScanned << ",\n\"scanSeconds\":" << real(outcome.scanSeconds)
      << ",\n\"scanCpuSeconds\":" << real(outcome.scanCpuSeconds)
      << ",\n\"stopped\":" << (outcome.stopped ? "true" : "false") << ",\n\"error\":" << jsonString(outcome.error)
      << ",\n\"clips\":[";
    for (size_t c = 0; c < outcome.clips.size(); ++c) {
        const ClipOutcome& o = outcome.clips[c];
        const Clip& clip = o.clip;
        uint64_t audioBytes = 0;
        for (const ByteRange& run : clip.audio) audioBytes += run.length;
        uint64_t notPlaced = 0;
        for (const ByteRange& run : clip.audioNotPlaced) notPlaced += run.length;
        j << (c ? ",\n" : "\n") << "{\"movie\":" << jsonString(o.moviePath)
          << ",\"settings\":" << jsonString(o.settingsPath) << ",\"error\":" << jsonString(o.error)
          << ",\"format\":" << jsonString(formatName(clip.formatType)) << ",\"formatType\":" << clip.formatType
          << ",\"width\":" << clip.width << ",\"height\":" << clip.height << ",\"frameRate\":" << real(clip.frameRate)
          << ",\"frames\":" << clip.frames.size() << ",\"durationSeconds\":" << real(clip.seconds())
          << ",\"startTimecode\":" << (clip.startTimecode ? jsonString(clip.startTimecode->text()) : "null")
          << ",\"audio\":" << jsonString(audioName(clip.audioFormat)) << ",\"audioRuns\":" << clip.audio.size()
          << ",\"audioBytes\":" << audioBytes << ",\"audioGapsRefused\":" << clip.audioGapsRefused
          << ",\"audioBytesNotPlaced\":" << notPlaced;
        if (clip.dvAudioRate)
            j << ",\"dvAudio\":{\"rate\":" << clip.dvAudioRate << ",\"bits\":" << clip.dvAudioBits << '}';
        j << ",\"endsBecause\":" << jsonString(clip.endReason) << ",\"byteRanges\":[";
        const auto ranges = rangesUsed(clip);
        for (size_t i = 0; i < ranges.size(); ++i)
            j << (i ? "," : "") << '[' << ranges[i].offset << ',' << ranges[i].end() << ']';
        j << "],\"rejected\":";
        rejectionList(clip.rejections);
        j << '}';
    }
    j << "\n],\n\"rejectedOutsideClips\":";
    rejectionList(outcome.rejectedOutsideClips);
    j << ",\n\"rejectionsNotListed\":" << outcome.rejectionsDropped << "\n}\n";
    return j.str();
}

void writeReports(RecoverOutcome& outcome, const std::string& input, const std::string& outdir, bool pictures)
{
    outcome.reportPath = freeReportName(outdir, ".json");
    if (!writeBeside(outcome.reportPath, reportJSON(outcome, input))) outcome.reportPath.clear();

    std::ostringstream h;
    h << "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>Recovered from " << htmlText(input)
      << "</title><style>body{font-family:sans-serif}td,th{padding:2px 8px;text-align:left}"
      << "img{margin-right:4px;border:1px solid #888}</style></head><body>\n<h1>Recovered from " << htmlText(input)
      << "</h1>\n<p>" << outcome.bytesScanned << " of " << outcome.inputBytes << " bytes scanned in "
      << real(outcome.scanSeconds) << " s; " << outcome.moviesWritten() << " of " << outcome.clips.size()
      << " clips written" << (outcome.stopped ? " (stopped early)" : "") << ".</p>\n";
    for (const ClipOutcome& o : outcome.clips) {
        const Clip& clip = o.clip;
        h << "<h2>"
          << htmlText(o.moviePath.empty() ? "(not written)" : std::filesystem::path(o.moviePath).filename().string())
          << "</h2>\n<table><tr><th>format</th><td>" << htmlText(formatName(clip.formatType)) << ' ' << clip.width
          << 'x' << clip.height << "</td></tr><tr><th>frames</th><td>" << clip.frames.size() << " ("
          << real(clip.seconds()) << " s at " << real(clip.frameRate)
          << " fps)</td></tr><tr><th>start timecode</th><td>"
          << (clip.startTimecode ? clip.startTimecode->text() : "none in the essence")
          << "</td></tr><tr><th>audio</th><td>" << htmlText(clip.audioFormat ? audioName(clip.audioFormat) : "none")
          << "</td></tr><tr><th>bytes</th><td>" << clip.firstByte() << " to " << clip.lastByte()
          << "</td></tr><tr><th>rejected frames</th><td>" << clip.rejections.size() << "</td></tr>";
        if (!o.error.empty()) h << "<tr><th>error</th><td>" << htmlText(o.error) << "</td></tr>";
        h << "</table>\n";
        if (pictures && !o.moviePath.empty()) {
            h << "<p>";
            const long count = long(clip.frames.size());
            const std::vector<long> indexes = {0L, count / 2, count - 1};
            const auto pictures = thumbnailsBMP(o.moviePath, indexes, 160);
            for (size_t i = 0; i < indexes.size(); ++i)
                if (!pictures[i].empty())
                    h << "<img alt=\"frame " << indexes[i] << "\" src=\"data:image/bmp;base64," << base64(pictures[i])
                      << "\">";
            h << "</p>\n";
            if (clip.audioFormat) {
                const auto asset = corvina::Asset::assetWithPath(o.moviePath);
                const auto levels = asset ? TQAVFoundation::waveformDataForAsset(asset) : std::nullopt;
                if (levels && !levels->empty()) h << "<p>" << waveformSVG(*levels) << "</p>\n";
            }
        }
        if (!clip.rejections.empty()) {
            h << "<details><summary>rejected frames</summary><ul>";
            for (const Rejection& r : clip.rejections)
                h << "<li>byte " << r.offset << ": " << htmlText(r.reason) << "</li>";
            h << "</ul></details>\n";
        }
    }
    h << "</body></html>\n";
    outcome.htmlPath = freeReportName(outdir, ".html");
    if (!writeBeside(outcome.htmlPath, h.str())) outcome.htmlPath.clear();
}

}  // namespace corvina::recover
