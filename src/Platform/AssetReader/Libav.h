// What the asset layer shares about libav: owning handles, error and time conversions, and the
// mapping of libav's codec parameters to four-character codes and format descriptions.
#pragma once

#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
}

#include "Foundation/Error.h"
#include "Foundation/Result.h"
#include "MediaTime/MediaTime.h"
#include "SampleBuffer/FormatDescription.h"

namespace corvina::av {

// The media libraries are opened the first time something needs them, not when the program
// starts: a movie job never uses them, and loading them with the hundred libraries they
// bring costs every start tens of milliseconds. AV_CALL(name) is the library function
// `name`, looked up once per call site. Throws PlatformException when the libraries or the
// function cannot be found (a broken installation).
void* librarySymbol(const char* name);
template <class Function>
Function libraryFunction(const char* name)
{
    return reinterpret_cast<Function>(librarySymbol(name));
}
#define AV_CALL(name)                                                                          \
    ([] {                                                                                      \
        static const auto function = ::corvina::av::libraryFunction<decltype(&::name)>(#name); \
        return function;                                                                       \
    }())

struct FormatContextDeleter {
    void operator()(AVFormatContext* c) const { AV_CALL(avformat_close_input)(&c); }
};
struct CodecContextDeleter {
    void operator()(AVCodecContext* c) const { AV_CALL(avcodec_free_context)(&c); }
};
struct PacketDeleter {
    void operator()(AVPacket* p) const { AV_CALL(av_packet_free)(&p); }
};
struct FrameDeleter {
    void operator()(AVFrame* f) const { AV_CALL(av_frame_free)(&f); }
};
struct ResamplerDeleter {
    void operator()(SwrContext* s) const { AV_CALL(swr_free)(&s); }
};
using FormatContextPtr = std::unique_ptr<AVFormatContext, FormatContextDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using ResamplerPtr = std::unique_ptr<SwrContext, ResamplerDeleter>;

// An error of the asset layer's domain with libav's text for the code.
Error error(int avCode, const std::string& what);
Error error(const std::string& what);

// Opens and probes a container, or says why it cannot.
Result<FormatContextPtr> openInput(const std::string& path);

// A time in a stream's time base as a media time: the time base's own scale when it is 1/N,
// else the given fallback scale (rounded).
MediaTime mediaTime(int64_t ts, AVRational timeBase, int32_t fallbackScale = 90000);
// The stream's time base as a timescale, as mediaTime() picks it.
int32_t timescaleFor(AVRational timeBase, int32_t fallbackScale = 90000);

// The QuickTime codec type of a video stream: the container's own code when it has one,
// otherwise the usual code of the codec (DV by its profile: size, sampling and rate).
FourCharCode videoSubType(const AVCodecParameters& par, AVRational frameRate);
FourCharCode dvSubType(int width, int height, AVPixelFormat pixelFormat, double fps);
// The display name a video description carries as its "FormatName" extension.
std::string videoFormatName(const AVCodecParameters& par, FourCharCode subType);

// A stream description of an audio stream as stored: 'lpcm' for every PCM coding (with its
// sample size, float and byte-order flags), 'aac ' for AAC, the container's code otherwise.
AudioStreamBasicDescription streamDescription(const AVCodecParameters& par);
// The layout record of a channel count: mono and stereo tags, discrete channels beyond.
AudioChannelLayout channelLayoutFor(uint32_t channels);

}  // namespace corvina::av
