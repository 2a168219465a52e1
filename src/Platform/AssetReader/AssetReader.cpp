#include "AssetReader/AssetReader.h"

#include <cstring>
#include <deque>

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include "AssetReader/Libav.h"
#include "Foundation/Format.h"

namespace corvina {

struct AssetReaderState {
    std::mutex mutex;
    AssetReaderStatus status = AssetReaderStatus::Unknown;
    std::optional<Error> error;
    size_t openOutputs = 0;
    MediaTime rangeStart = MediaTime::invalid();
    MediaTime rangeDuration = MediaTime::invalid();

    bool reading()
    {
        std::lock_guard lock(mutex);
        return status == AssetReaderStatus::Reading;
    }
    void fail(Error e)
    {
        std::lock_guard lock(mutex);
        if (status != AssetReaderStatus::Reading) return;
        status = AssetReaderStatus::Failed;
        error = std::move(e);
    }
    void outputEnded()
    {
        std::lock_guard lock(mutex);
        if (openOutputs > 0 && --openOutputs == 0 && status == AssetReaderStatus::Reading)
            status = AssetReaderStatus::Completed;
    }
};

namespace {

enum class OutputKind { AsStored, LinearPCM, Encoded };

const AVCodec* encoderFor(FourCharCode codec)
{
    if ((codec >> 16) == (fourCC("dv  ") >> 16)) return AV_CALL(avcodec_find_encoder)(AV_CODEC_ID_DVVIDEO);
    if (codec == fourCC("jpeg")) return AV_CALL(avcodec_find_encoder)(AV_CODEC_ID_MJPEG);
    if ((codec >> 16) == (fourCC("ap  ") >> 16)) return AV_CALL(avcodec_find_encoder_by_name)("prores_ks");
    return nullptr;
}

int proResProfile(FourCharCode codec)
{
    switch (codec) {
    case fourCC("apco"):
        return 0;
    case fourCC("apcs"):
        return 1;
    case fourCC("apch"):
        return 3;
    case fourCC("ap4h"):
        return 4;
    case fourCC("ap4x"):
        return 5;
    default:
        return 2;
    }
}

AVSampleFormat sampleFormatFor(const AudioOutputSettings& s)
{
    if (s.isFloat) return s.bitDepth == 64 ? AV_SAMPLE_FMT_DBL : AV_SAMPLE_FMT_FLT;
    switch (s.bitDepth) {
    case 8:
        return AV_SAMPLE_FMT_U8;
    case 16:
        return AV_SAMPLE_FMT_S16;
    default:
        return AV_SAMPLE_FMT_S32;  // 24-bit samples are packed from 32-bit ones
    }
}

bool validAudioSettings(const AudioOutputSettings& s)
{
    if (s.isFloat) return s.bitDepth == 32 || s.bitDepth == 64;
    return s.bitDepth == 8 || s.bitDepth == 16 || s.bitDepth == 24 || s.bitDepth == 32;
}

}  // namespace

bool canEncodeVideo(FourCharCode codec) { return encoderFor(codec) != nullptr; }

struct AssetReaderTrackOutput::Impl {
    AssetTrackRef track;
    OutputKind kind = OutputKind::AsStored;
    AudioOutputSettings audio;
    VideoOutputSettings video;
    std::shared_ptr<AssetReaderState> state;

    av::FormatContextPtr input;
    AVStream* stream = nullptr;
    av::CodecContextPtr decoder;
    av::CodecContextPtr encoder;
    av::ResamplerPtr resampler;
    av::PacketPtr packet{AV_CALL(av_packet_alloc)()};
    av::FramePtr frame{AV_CALL(av_frame_alloc)()};
    FormatDescriptionRef outputFormat;
    std::deque<std::unique_ptr<SampleBuffer>> ready;
    bool inputDone = false;               // the demuxer reached the end (or the range's end)
    bool ended = false;                   // nothing more will be made
    bool counted = false;                 // the reader was told that this output is done
    int64_t rangeStart = AV_NOPTS_VALUE;  // in the stream's time base
    int64_t rangeEnd = AV_NOPTS_VALUE;
    int64_t nextAudioFrame = AV_NOPTS_VALUE;  // position of the next converted frame, output rate
    int64_t lastDts = AV_NOPTS_VALUE;         // of the last packet read, in the stream's time base
    std::string path;

    // The file ends before the samples that its index lists (a movie cut short): fails the
    // reader. Only the index entries inside the time range count. QuickTime and MP4 index
    // their samples by decoding time; other containers' index entries may count otherwise
    // (AVI counts audio in bytes), so they are not compared.
    bool endsEarly() const
    {
        if (!input->iformat || !std::strstr(input->iformat->name, "mov")) return false;
        const int entries = AV_CALL(avformat_index_get_entries_count)(stream);
        if (entries <= 0) return false;
        const AVIndexEntry* last = AV_CALL(avformat_index_get_entry)(stream, entries - 1);
        if (!last || last->timestamp == AV_NOPTS_VALUE) return false;
        if (rangeEnd != AV_NOPTS_VALUE && last->timestamp >= rangeEnd) return false;
        return lastDts == AV_NOPTS_VALUE || lastDts < last->timestamp;
    }

    Result<void> open(const std::string& path);
    Result<void> openDecoder();
    std::unique_ptr<SampleBuffer> next();
    bool pump();  // false when nothing more can come
    void wrap(std::vector<uint8_t> bytes, int64_t numSamples, const SampleTimingInfo& timing, size_t sampleSize,
              const FormatDescriptionRef& format);
    void takeAudio(const AVFrame* decoded);
    bool takeVideo(AVFrame* decoded);
    bool drainEncoder();
    // One frame of the video stream in its time base (at least 1).
    int64_t frameDuration() const
    {
        AVRational rate = stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : stream->r_frame_rate;
        if (rate.num <= 0 || rate.den <= 0) return 1;
        return std::max<int64_t>(1, AV_CALL(av_rescale_q)(1, av_inv_q(rate), stream->time_base));
    }
};

void AssetReaderTrackOutput::Impl::wrap(std::vector<uint8_t> bytes, int64_t numSamples, const SampleTimingInfo& timing,
                                        size_t sampleSize, const FormatDescriptionRef& format)
{
    if (bytes.empty() || numSamples < 1) return;
    const size_t length = bytes.size();
    std::unique_ptr<BlockBuffer> block;
    if (BlockBuffer::createWithMemoryBlock(ByteBuffer(bytes.data(), length), length, &block) != kNoErr) return;
    std::unique_ptr<SampleBuffer> sample;
    const size_t sizes[] = {sampleSize};
    if (SampleBuffer::create(std::move(block), true, format, numSamples, std::span(&timing, 1),
                             std::span(sizes, sampleSize ? 1 : 0), &sample) == kNoErr)
        ready.push_back(std::move(sample));
}

Result<void> AssetReaderTrackOutput::Impl::open(const std::string& path)
{
    if (track->streamIndex() < 0) return success();  // a made timecode track needs no file
    this->path = path;
    auto opened = av::openInput(path);
    if (!opened) return opened.error();
    input = std::move(*opened);
    if (track->streamIndex() >= int(input->nb_streams)) return av::error("The track is gone from " + path);
    stream = input->streams[track->streamIndex()];
    for (unsigned i = 0; i < input->nb_streams; ++i)
        if (int(i) != track->streamIndex()) input->streams[i]->discard = AVDISCARD_ALL;

    const auto toStream = [&](MediaTime t) {
        return AV_CALL(av_rescale_q)(t.value, AVRational{1, t.timescale}, stream->time_base);
    };
    if (state->rangeDuration.isNumeric() && state->rangeDuration.value > 0) {
        const MediaTime start = state->rangeStart.isNumeric() ? state->rangeStart : MediaTime::zero();
        rangeStart = toStream(start);
        rangeEnd = toStream(start + state->rangeDuration);
        if (rangeStart > 0) AV_CALL(av_seek_frame)(input.get(), stream->index, rangeStart, AVSEEK_FLAG_BACKWARD);
    }
    if (kind == OutputKind::AsStored) return success();
    return openDecoder();
}

Result<void> AssetReaderTrackOutput::Impl::openDecoder()
{
    const AVCodec* codec = AV_CALL(avcodec_find_decoder)(stream->codecpar->codec_id);
    if (!codec) return av::error("No decoder for the track's coding");
    decoder.reset(AV_CALL(avcodec_alloc_context3)(codec));
    AV_CALL(avcodec_parameters_to_context)(decoder.get(), stream->codecpar);
    decoder->pkt_timebase = stream->time_base;
    if (const int rc = AV_CALL(avcodec_open2)(decoder.get(), codec, nullptr); rc < 0)
        return av::error(rc, "Cannot open the decoder");
    if (kind == OutputKind::LinearPCM) {
        const uint32_t channels = audio.channels ? audio.channels : uint32_t(decoder->ch_layout.nb_channels);
        const double rate = audio.sampleRate > 0 ? audio.sampleRate : decoder->sample_rate;
        AudioStreamBasicDescription asbd;
        asbd.mSampleRate = rate;
        asbd.mFormatID = kAudioFormatLinearPCM;
        asbd.mFormatFlags = (audio.isFloat ? kLinearPCMFormatFlagIsFloat : kLinearPCMFormatFlagIsSignedInteger) |
                            kLinearPCMFormatFlagIsPacked | (audio.bigEndian ? kLinearPCMFormatFlagIsBigEndian : 0);
        if (!audio.isFloat && audio.bitDepth == 8) asbd.mFormatFlags &= ~kLinearPCMFormatFlagIsSignedInteger;
        asbd.mBitsPerChannel = audio.bitDepth;
        asbd.mChannelsPerFrame = channels;
        asbd.mFramesPerPacket = 1;
        asbd.mBytesPerFrame = asbd.mBytesPerPacket = audio.bitDepth / 8 * channels;
        AudioChannelLayout layout = av::channelLayoutFor(channels);
        if (audio.channelLayoutTag) layout.mChannelLayoutTag = audio.channelLayoutTag;
        if (FormatDescription::createAudio(asbd, &layout, AudioChannelLayout::byteSize(0), &outputFormat) != kNoErr)
            return av::error("Unusable audio output settings");
    }
    return success();
}

void AssetReaderTrackOutput::Impl::takeAudio(const AVFrame* decoded)
{
    const AudioStreamBasicDescription& out = *outputFormat->streamBasicDescription();
    const int outRate = int(out.mSampleRate);
    if (!resampler) {
        AVChannelLayout outLayout{};
        AV_CALL(av_channel_layout_default)(&outLayout, int(out.mChannelsPerFrame));
        SwrContext* raw = nullptr;
        const int rc = AV_CALL(swr_alloc_set_opts2)(&raw, &outLayout, sampleFormatFor(audio), outRate,
                                                    const_cast<AVChannelLayout*>(&decoded->ch_layout),
                                                    AVSampleFormat(decoded->format), decoded->sample_rate, 0, nullptr);
        AV_CALL(av_channel_layout_uninit)(&outLayout);
        resampler.reset(raw);
        if (rc < 0 || AV_CALL(swr_init)(raw) < 0) {
            state->fail(av::error(rc < 0 ? rc : AVERROR(EINVAL), "Cannot convert the audio"));
            return;
        }
        const int64_t pts = decoded ? decoded->best_effort_timestamp : AV_NOPTS_VALUE;
        nextAudioFrame =
            pts == AV_NOPTS_VALUE ? 0 : AV_CALL(av_rescale_q)(pts, stream->time_base, AVRational{1, outRate});
    }
    const int inFrames = decoded ? decoded->nb_samples : 0;
    const int capacity = AV_CALL(swr_get_out_samples)(resampler.get(), inFrames);
    if (capacity <= 0) return;
    const AVSampleFormat format = sampleFormatFor(audio);
    const int channels = int(out.mChannelsPerFrame);
    std::vector<uint8_t> converted(size_t(capacity) * channels * AV_CALL(av_get_bytes_per_sample)(format));
    uint8_t* planes[] = {converted.data()};
    const int got =
        AV_CALL(swr_convert)(resampler.get(), planes, capacity,
                             decoded ? const_cast<const uint8_t**>(decoded->extended_data) : nullptr, inFrames);
    if (got <= 0) return;

    // Trim to the time range, in frames of the output rate.
    int64_t first = nextAudioFrame, skip = 0, count = got;
    nextAudioFrame += got;
    if (rangeEnd != AV_NOPTS_VALUE) {
        const int64_t startFrame = AV_CALL(av_rescale_q)(rangeStart, stream->time_base, AVRational{1, outRate});
        const int64_t endFrame = AV_CALL(av_rescale_q)(rangeEnd, stream->time_base, AVRational{1, outRate});
        if (first < startFrame) skip = std::min<int64_t>(startFrame - first, got);
        count = std::min<int64_t>(got, endFrame - first) - skip;
        if (first + got >= endFrame) inputDone = true;
        if (count <= 0) return;
        first += skip;
    }
    const size_t inBytes = size_t(AV_CALL(av_get_bytes_per_sample)(format));
    const size_t outBytes = out.mBitsPerChannel / 8;
    std::vector<uint8_t> bytes(size_t(count) * channels * outBytes);
    const uint8_t* src = converted.data() + size_t(skip) * channels * inBytes;
    for (size_t i = 0; i < size_t(count) * channels; ++i) {
        // 24-bit samples are the top three bytes of the 32-bit ones; big-endian output
        // reverses each sample's bytes.
        const uint8_t* s = src + i * inBytes + (inBytes - outBytes);
        uint8_t* d = bytes.data() + i * outBytes;
        for (size_t b = 0; b < outBytes; ++b) d[b] = audio.bigEndian ? s[outBytes - 1 - b] : s[b];
    }
    SampleTimingInfo timing{MediaTime::make(1, outRate), MediaTime::make(first, outRate), MediaTime::invalid()};
    wrap(std::move(bytes), count, timing, out.mBytesPerFrame, outputFormat);
}

bool AssetReaderTrackOutput::Impl::takeVideo(AVFrame* decoded)
{
    if (!encoder) {
        const AVCodec* codec = encoderFor(video.codec);
        bool fits = false;
        for (const AVPixelFormat* f = codec ? codec->pix_fmts : nullptr; f && *f != AV_PIX_FMT_NONE; ++f)
            fits |= *f == decoded->format;
        const char* name = AV_CALL(av_get_pix_fmt_name)(AVPixelFormat(decoded->format));
        if (!fits) {
            state->fail(av::error(std::string("Frames of ") + (name ? name : "this sampling") + " at " +
                                  std::to_string(decoded->width) + "x" + std::to_string(decoded->height) +
                                  " cannot be encoded as requested without conversion"));
            return false;
        }
        encoder.reset(AV_CALL(avcodec_alloc_context3)(codec));
        encoder->width = decoded->width;
        encoder->height = decoded->height;
        encoder->pix_fmt = AVPixelFormat(decoded->format);
        encoder->sample_aspect_ratio = decoded->sample_aspect_ratio;
        AVRational rate = stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : stream->r_frame_rate;
        if (rate.num <= 0 || rate.den <= 0) rate = AVRational{25, 1};
        encoder->framerate = rate;
        encoder->time_base = stream->time_base;
        encoder->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;  // Motion JPEG from limited-range frames
        if (video.bitrate > 0) encoder->bit_rate = int64_t(video.bitrate);
        if (video.keyFrameInterval > 0) encoder->gop_size = int(video.keyFrameInterval);
        AVDictionary* options = nullptr;
        if ((video.codec >> 16) == (fourCC("ap  ") >> 16))
            AV_CALL(av_dict_set_int)(&options, "profile", proResProfile(video.codec), 0);
        const int rc = AV_CALL(avcodec_open2)(encoder.get(), codec, &options);
        AV_CALL(av_dict_free)(&options);
        if (rc < 0) {
            state->fail(av::error(rc, "Cannot encode frames of " + std::string(name ? name : "this sampling") + " at " +
                                          std::to_string(decoded->width) + "x" + std::to_string(decoded->height) +
                                          " as requested"));
            return false;
        }
        FourCharCode subType = video.codec;
        if (codec->id == AV_CODEC_ID_DVVIDEO) {
            // The DV encoder picks the variant that the frames' size, sampling and rate make.
            subType = av::dvSubType(decoded->width, decoded->height, encoder->pix_fmt, av_q2d(rate));
            if (subType != video.codec) {
                state->fail(av::error(std::string("Frames of ") + (name ? name : "this sampling") + " at " +
                                      std::to_string(decoded->width) + "x" + std::to_string(decoded->height) + " and " +
                                      format("%0.3g", av_q2d(rate)) + " fps make '" + fourCCText(subType) +
                                      "' video, not the requested '" + fourCCText(video.codec) + "'"));
                return false;
            }
        }
        FormatDescriptionRef plain;
        FormatDescription::createVideo(subType, decoded->width, decoded->height, &plain);
        outputFormat = plain;
    }
    decoded->pict_type = AV_PICTURE_TYPE_NONE;
    decoded->pts = decoded->best_effort_timestamp;
    AV_CALL(avcodec_send_frame)(encoder.get(), decoded);
    return drainEncoder();
}

bool AssetReaderTrackOutput::Impl::drainEncoder()
{
    while (AV_CALL(avcodec_receive_packet)(encoder.get(), packet.get()) == 0) {
        if (packet->duration <= 0) packet->duration = frameDuration();
        const int32_t scale = av::timescaleFor(stream->time_base);
        SampleTimingInfo timing{av::mediaTime(packet->duration, stream->time_base, scale),
                                av::mediaTime(packet->pts, stream->time_base, scale), MediaTime::invalid()};
        wrap(std::vector<uint8_t>(packet->data, packet->data + packet->size), 1, timing, size_t(packet->size),
             outputFormat);
        AV_CALL(av_packet_unref)(packet.get());
    }
    return true;
}

bool AssetReaderTrackOutput::Impl::pump()
{
    if (track->streamIndex() < 0) {
        // The made timecode track: its one sample, as stored.
        const auto& bytes = track->madeSample();
        SampleTimingInfo timing{track->duration(), MediaTime::zero(), MediaTime::invalid()};
        wrap(bytes, 1, timing, bytes.size(),
             track->formatDescriptions().empty() ? nullptr : track->formatDescriptions()[0]);
        return false;
    }
    if (inputDone) {
        if (!decoder) return false;
        // Drain the decoder (and the converter or encoder after it).
        AV_CALL(avcodec_send_packet)(decoder.get(), nullptr);
        while (AV_CALL(avcodec_receive_frame)(decoder.get(), frame.get()) == 0) {
            if (kind == OutputKind::LinearPCM)
                takeAudio(frame.get());
            else
                takeVideo(frame.get());
            AV_CALL(av_frame_unref)(frame.get());
        }
        if (kind == OutputKind::LinearPCM && resampler) takeAudio(nullptr);
        if (encoder) {
            AV_CALL(avcodec_send_frame)(encoder.get(), nullptr);
            drainEncoder();
        }
        return false;
    }
    const int rc = AV_CALL(av_read_frame)(input.get(), packet.get());
    if (rc == AVERROR_EOF) {
        if (endsEarly()) {
            state->fail(av::error(path + " ends before the last samples of its track: the file is cut short"));
            return false;
        }
        inputDone = true;
        return true;
    }
    if (rc < 0) {
        state->fail(av::error(rc, "Cannot read on"));
        return false;
    }
    std::unique_ptr<AVPacket, void (*)(AVPacket*)> unref(packet.get(), AV_CALL(av_packet_unref));
    if (packet->stream_index != stream->index) return true;
    if (packet->flags & AV_PKT_FLAG_CORRUPT) {
        state->fail(av::error(path + " is cut short or damaged: a sample of its track cannot be read whole"));
        return false;
    }
    if (packet->dts != AV_NOPTS_VALUE) lastDts = packet->dts;
    const int64_t pts = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    if (rangeEnd != AV_NOPTS_VALUE && pts != AV_NOPTS_VALUE && pts >= rangeEnd && kind != OutputKind::LinearPCM) {
        inputDone = true;
        return true;
    }

    if (kind == OutputKind::AsStored) {
        if (packet->duration <= 0 && stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
            packet->duration = frameDuration();
        if (rangeStart != AV_NOPTS_VALUE && pts != AV_NOPTS_VALUE &&
            pts + std::max<int64_t>(packet->duration, 1) <= rangeStart)
            return true;
        const int32_t scale = av::timescaleFor(stream->time_base);
        SampleTimingInfo timing{av::mediaTime(packet->duration, stream->time_base, scale),
                                av::mediaTime(pts, stream->time_base, scale),
                                av::mediaTime(packet->dts, stream->time_base, scale)};
        const FormatDescriptionRef& format =
            track->formatDescriptions().empty() ? outputFormat : track->formatDescriptions()[0];
        const size_t size = size_t(packet->size);
        wrap(std::vector<uint8_t>(packet->data, packet->data + size), 1, timing, size, format);
        return true;
    }
    // Damaged packets that the decoder refuses are skipped.
    if (AV_CALL(avcodec_send_packet)(decoder.get(), packet.get()) < 0) return true;
    while (AV_CALL(avcodec_receive_frame)(decoder.get(), frame.get()) == 0) {
        const int64_t t = frame->best_effort_timestamp;
        const bool early =
            kind == OutputKind::Encoded && rangeStart != AV_NOPTS_VALUE && t != AV_NOPTS_VALUE && t < rangeStart;
        if (!early) {
            if (kind == OutputKind::LinearPCM)
                takeAudio(frame.get());
            else if (!takeVideo(frame.get()))
                return false;
        }
        AV_CALL(av_frame_unref)(frame.get());
    }
    return state->reading();
}

std::unique_ptr<SampleBuffer> AssetReaderTrackOutput::Impl::next()
{
    if (!state || !state->reading()) return nullptr;
    while (ready.empty() && !ended) {
        if (!pump()) {
            ended = true;
            input.reset();
        }
    }
    if (ready.empty()) {
        // The reader completes once every output has said that it has nothing more.
        if (!counted) {
            counted = true;
            state->outputEnded();
        }
        return nullptr;
    }
    auto sample = std::move(ready.front());
    ready.pop_front();
    return sample;
}

AssetReaderTrackOutput::AssetReaderTrackOutput() : impl_(std::make_unique<Impl>()) {}
AssetReaderTrackOutput::~AssetReaderTrackOutput() = default;

std::shared_ptr<AssetReaderTrackOutput> AssetReaderTrackOutput::create(AssetTrackRef track)
{
    if (!track) return nullptr;
    std::shared_ptr<AssetReaderTrackOutput> output(new AssetReaderTrackOutput());  // NOLINT: private constructor
    output->impl_->track = std::move(track);
    return output;
}

std::shared_ptr<AssetReaderTrackOutput> AssetReaderTrackOutput::createAudio(AssetTrackRef track,
                                                                            const AudioOutputSettings& settings)
{
    if (!track || track->mediaType() != MediaType::Audio || !validAudioSettings(settings)) return nullptr;
    auto output = create(std::move(track));
    output->impl_->kind = OutputKind::LinearPCM;
    output->impl_->audio = settings;
    return output;
}

std::shared_ptr<AssetReaderTrackOutput> AssetReaderTrackOutput::createVideo(AssetTrackRef track,
                                                                            const VideoOutputSettings& settings)
{
    if (!track || track->mediaType() != MediaType::Video || !canEncodeVideo(settings.codec)) return nullptr;
    auto output = create(std::move(track));
    output->impl_->kind = OutputKind::Encoded;
    output->impl_->video = settings;
    return output;
}

const AssetTrackRef& AssetReaderTrackOutput::track() const { return impl_->track; }

std::unique_ptr<SampleBuffer> AssetReaderTrackOutput::copyNextSampleBuffer() { return impl_->next(); }

Result<std::unique_ptr<AssetReader>> AssetReader::create(AssetRef asset)
{
    if (!asset || !asset->isReadable())
        return asset && asset->error() ? *asset->error() : av::error("The asset cannot be read");
    std::unique_ptr<AssetReader> reader(new AssetReader());  // NOLINT: private constructor
    reader->asset_ = std::move(asset);
    reader->state_ = std::make_shared<AssetReaderState>();
    return reader;
}

AssetReader::~AssetReader() = default;

void AssetReader::setTimeRange(MediaTime start, MediaTime duration)
{
    std::lock_guard lock(state_->mutex);
    if (state_->status != AssetReaderStatus::Unknown) return;
    state_->rangeStart = start;
    state_->rangeDuration = duration;
}

bool AssetReader::canAddOutput(const AssetReaderTrackOutput& output) const
{
    if (status() != AssetReaderStatus::Unknown || output.impl_->state) return false;
    for (const auto& track : asset_->tracks())
        if (track == output.track()) return true;
    return false;
}

void AssetReader::addOutput(std::shared_ptr<AssetReaderTrackOutput> output)
{
    if (!output || !canAddOutput(*output)) return;
    output->impl_->state = state_;
    outputs_.push_back(std::move(output));
}

bool AssetReader::startReading()
{
    {
        std::lock_guard lock(state_->mutex);
        if (state_->status != AssetReaderStatus::Unknown) return false;
    }
    for (const auto& output : outputs_) {
        if (auto opened = output->impl_->open(asset_->path()); !opened) {
            std::lock_guard lock(state_->mutex);
            state_->status = AssetReaderStatus::Failed;
            state_->error = opened.error();
            return false;
        }
    }
    std::lock_guard lock(state_->mutex);
    state_->openOutputs = outputs_.size();
    state_->status = outputs_.empty() ? AssetReaderStatus::Completed : AssetReaderStatus::Reading;
    return true;
}

void AssetReader::cancelReading()
{
    std::lock_guard lock(state_->mutex);
    if (state_->status == AssetReaderStatus::Unknown || state_->status == AssetReaderStatus::Reading)
        state_->status = AssetReaderStatus::Cancelled;
}

AssetReaderStatus AssetReader::status() const
{
    std::lock_guard lock(state_->mutex);
    return state_->status;
}

std::optional<Error> AssetReader::error() const
{
    std::lock_guard lock(state_->mutex);
    return state_->error;
}

}  // namespace corvina
