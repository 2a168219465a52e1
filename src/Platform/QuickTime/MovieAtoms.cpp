#include "QuickTime/MovieAtoms.h"

#include <algorithm>

#include "QuickTime/AtomWriter.h"

namespace corvina::qt {

namespace {

constexpr uint16_t kLanguageUndetermined = 0x7FFF;

void writeMatrix(AtomWriter& w)
{
    const uint32_t identity[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};
    for (uint32_t v : identity) w.u32(v);
}

bool isVideo(const TrackInfo& t) { return t.format->mediaType() == MediaType::Video; }

// Duration fields are 32-bit in version 0 atoms; longer durations need version 1.
bool needsVersion1(uint64_t duration) { return duration > 0xFFFFFFFFull; }

void writeMvhd(AtomWriter& w, const std::vector<TrackInfo>& tracks, uint32_t now)
{
    uint64_t duration = 0;
    for (const auto& t : tracks) duration = std::max(duration, toMovieTime(t.tables->mediaDuration(), t.timescale));
    ScopedAtom atom(w, fourCC("mvhd"));
    bool v1 = needsVersion1(duration);
    w.versionAndFlags(v1 ? 1 : 0, 0);
    if (v1) {
        w.u64(now);
        w.u64(now);
        w.u32(kMovieTimescale);
        w.u64(duration);
    } else {
        w.u32(now);
        w.u32(now);
        w.u32(kMovieTimescale);
        w.u32(uint32_t(duration));
    }
    w.u32(0x00010000);  // preferred rate 1.0
    w.u16(0x0100);      // preferred volume 1.0
    w.zeros(10);
    writeMatrix(w);
    w.zeros(6 * 4);  // preview time/duration, poster time, selection time/duration, current time
    w.u32(uint32_t(tracks.size() + 1));
}

void writeTkhd(AtomWriter& w, const TrackInfo& t, uint64_t duration, uint32_t now)
{
    ScopedAtom atom(w, fourCC("tkhd"));
    bool v1 = needsVersion1(duration);
    w.versionAndFlags(v1 ? 1 : 0, 0xF);  // enabled, in movie, in preview, in poster
    if (v1) {
        w.u64(now);
        w.u64(now);
        w.u32(t.trackID);
        w.u32(0);
        w.u64(duration);
    } else {
        w.u32(now);
        w.u32(now);
        w.u32(t.trackID);
        w.u32(0);
        w.u32(uint32_t(duration));
    }
    w.zeros(8);
    w.u16(0);                        // layer
    w.u16(0);                        // alternate group
    w.u16(isVideo(t) ? 0 : 0x0100);  // volume
    w.u16(0);
    writeMatrix(w);
    w.u32(isVideo(t) ? uint32_t(t.format->width()) << 16 : 0);
    w.u32(isVideo(t) ? uint32_t(t.format->height()) << 16 : 0);
}

void writeEdts(AtomWriter& w, uint64_t duration)
{
    ScopedAtom edts(w, fourCC("edts"));
    ScopedAtom elst(w, fourCC("elst"));
    bool v1 = needsVersion1(duration);
    w.versionAndFlags(v1 ? 1 : 0, 0);
    w.u32(1);
    if (v1) {
        w.u64(duration);
        w.u64(0);
    } else {
        w.u32(uint32_t(duration));
        w.u32(0);  // media time
    }
    w.u32(0x00010000);  // rate 1.0
}

void writeMdhd(AtomWriter& w, const TrackInfo& t, uint32_t now)
{
    ScopedAtom atom(w, fourCC("mdhd"));
    uint64_t duration = t.tables->mediaDuration();
    bool v1 = needsVersion1(duration);
    w.versionAndFlags(v1 ? 1 : 0, 0);
    if (v1) {
        w.u64(now);
        w.u64(now);
        w.u32(t.timescale);
        w.u64(duration);
    } else {
        w.u32(now);
        w.u32(now);
        w.u32(t.timescale);
        w.u32(uint32_t(duration));
    }
    w.u16(kLanguageUndetermined);
    w.u16(0);  // quality
}

void writeHdlr(AtomWriter& w, FourCharCode componentType, FourCharCode subType, std::string_view name)
{
    ScopedAtom atom(w, fourCC("hdlr"));
    w.versionAndFlags(0, 0);
    w.fourcc(componentType);
    w.fourcc(subType);
    w.u32(0);  // manufacturer
    w.u32(0);  // flags
    w.u32(0);  // flags mask
    w.pascalString(name);
}

void writeMediaHeader(AtomWriter& w, const TrackInfo& t)
{
    if (isVideo(t)) {
        ScopedAtom atom(w, fourCC("vmhd"));
        w.versionAndFlags(0, 1);
        w.u16(0);  // graphics mode: copy
        w.u16(0x8000);
        w.u16(0x8000);
        w.u16(0x8000);
    } else {
        ScopedAtom atom(w, fourCC("smhd"));
        w.versionAndFlags(0, 0);
        w.i16(0);  // balance
        w.u16(0);
    }
}

void writeDinf(AtomWriter& w)
{
    ScopedAtom dinf(w, fourCC("dinf"));
    ScopedAtom dref(w, fourCC("dref"));
    w.versionAndFlags(0, 0);
    w.u32(1);
    ScopedAtom alis(w, fourCC("alis"));
    w.versionAndFlags(0, 1);  // the data is in this file
}

void writeVideoSampleDescription(AtomWriter& w, const FormatDescription& f)
{
    ScopedAtom entry(w, f.mediaSubType());
    w.zeros(6);
    w.u16(1);  // data reference index
    w.u16(0);  // version
    w.u16(0);  // revision
    w.u32(0);  // vendor
    w.u32(0);  // temporal quality
    w.u32(0);  // spatial quality
    w.u16(uint16_t(f.width()));
    w.u16(uint16_t(f.height()));
    w.u32(0x00480000);  // 72 dpi
    w.u32(0x00480000);
    w.u32(0);  // data size
    w.u16(1);  // frames per sample
    w.pascalString(compressorName(f.mediaSubType()), 32);
    w.u16(24);  // depth
    w.i16(-1);  // no colour table
}

void writeChannelLayout(AtomWriter& w, const AudioChannelLayout& layout)
{
    ScopedAtom chan(w, fourCC("chan"));
    w.versionAndFlags(0, 0);
    w.u32(layout.mChannelLayoutTag);
    w.u32(layout.mChannelBitmap);
    w.u32(uint32_t(layout.mChannelDescriptions.size()));
    for (const auto& d : layout.mChannelDescriptions) {
        w.u32(d.mChannelLabel);
        w.u32(d.mChannelFlags);
        for (float c : d.mCoordinates) w.f32(c);
    }
}

void writeSoundSampleDescription(AtomWriter& w, const FormatDescription& f)
{
    const AudioStreamBasicDescription& a = *f.streamBasicDescription();
    ScopedAtom entry(w, f.mediaSubType());
    w.zeros(6);
    w.u16(1);      // data reference index
    w.u16(2);      // version
    w.u16(0);      // revision
    w.u32(0);      // vendor
    w.u16(3);      // always 3
    w.u16(16);     // always 16
    w.i16(-2);     // always -2
    w.u16(0);      // always 0
    w.u32(65536);  // always 65536
    w.u32(72);     // size of the structure alone
    w.f64(a.mSampleRate);
    w.u32(a.mChannelsPerFrame);
    w.u32(0x7F000000);
    w.u32(a.mBitsPerChannel);
    w.u32(a.mFormatFlags);
    w.u32(a.mBytesPerFrame);
    w.u32(1);  // frames per packet
    if (const AudioChannelLayout* layout = f.channelLayout()) writeChannelLayout(w, *layout);
}

void writeStsd(AtomWriter& w, const TrackInfo& t)
{
    ScopedAtom atom(w, fourCC("stsd"));
    w.versionAndFlags(0, 0);
    w.u32(1);
    if (isVideo(t))
        writeVideoSampleDescription(w, *t.format);
    else
        writeSoundSampleDescription(w, *t.format);
}

void writeStts(AtomWriter& w, const TrackTables& tables)
{
    ScopedAtom atom(w, fourCC("stts"));
    w.versionAndFlags(0, 0);
    w.u32(uint32_t(tables.timeToSample().size()));
    for (const auto& run : tables.timeToSample()) {
        w.u32(run.count);
        w.u32(run.delta);
    }
}

void writeStsc(AtomWriter& w, const TrackTables& tables)
{
    ScopedAtom atom(w, fourCC("stsc"));
    w.versionAndFlags(0, 0);
    w.u32(uint32_t(tables.sampleToChunk().size()));
    for (const auto& run : tables.sampleToChunk()) {
        w.u32(run.firstChunk);
        w.u32(run.samplesPerChunk);
        w.u32(1);  // sample description
    }
}

void writeStsz(AtomWriter& w, const TrackTables& tables)
{
    ScopedAtom atom(w, fourCC("stsz"));
    w.versionAndFlags(0, 0);
    if (tables.sizesConstant()) {
        w.u32(tables.constantSize());
        w.u32(uint32_t(tables.sampleCount()));
    } else {
        w.u32(0);
        w.u32(uint32_t(tables.sampleSizes().size()));
        for (uint32_t s : tables.sampleSizes()) w.u32(s);
    }
}

void writeChunkOffsets(AtomWriter& w, const TrackTables& tables)
{
    bool wide = tables.needs64BitOffsets();
    ScopedAtom atom(w, wide ? fourCC("co64") : fourCC("stco"));
    w.versionAndFlags(0, 0);
    w.u32(uint32_t(tables.chunkOffsets().size()));
    for (uint64_t offset : tables.chunkOffsets()) {
        if (wide)
            w.u64(offset);
        else
            w.u32(uint32_t(offset));
    }
}

void writeTrak(AtomWriter& w, const TrackInfo& t, uint32_t now)
{
    uint64_t movieDuration = toMovieTime(t.tables->mediaDuration(), t.timescale);
    ScopedAtom trak(w, fourCC("trak"));
    writeTkhd(w, t, movieDuration, now);
    writeEdts(w, movieDuration);
    ScopedAtom mdia(w, fourCC("mdia"));
    writeMdhd(w, t, now);
    writeHdlr(w, fourCC("mhlr"), isVideo(t) ? fourCC("vide") : fourCC("soun"),
              isVideo(t) ? "Video Media Handler" : "Sound Media Handler");
    ScopedAtom minf(w, fourCC("minf"));
    writeMediaHeader(w, t);
    writeHdlr(w, fourCC("dhlr"), fourCC("alis"), "Alias Data Handler");
    writeDinf(w);
    ScopedAtom stbl(w, fourCC("stbl"));
    writeStsd(w, t);
    writeStts(w, *t.tables);
    writeStsc(w, *t.tables);
    writeStsz(w, *t.tables);
    writeChunkOffsets(w, *t.tables);
}

}  // namespace

std::string compressorName(FourCharCode codecType)
{
    struct Name {
        FourCharCode code;
        const char* name;
    };
    static constexpr Name kNames[] = {
        {fourCC("dvc "), "DV NTSC"},
        {fourCC("dvcp"), "DV PAL"},
        {fourCC("dv5n"), "DVCPRO50 NTSC"},
        {fourCC("dv5p"), "DVCPRO50 PAL"},
        {fourCC("jpeg"), "Motion JPEG"},
        {fourCC("dvhp"), "DVCPRO HD 720p60"},
        {fourCC("dvh6"), "DVCPRO HD 1080i60"},
        {fourCC("dvh5"), "DVCPRO HD 1080i50"},
        {fourCC("icod"), "AIC"},
        {fourCC("apch"), "ProRes 422 HQ"},
        {fourCC("apcn"), "ProRes 422"},
        {fourCC("apcs"), "ProRes 422 LT"},
        {fourCC("apco"), "ProRes 422 Proxy"},
        {fourCC("ap4h"), "ProRes 4444"},
        {fourCC("ap4x"), "ProRes 4444 XQ"},
    };
    for (const auto& n : kNames)
        if (n.code == codecType) return n.name;
    return fourCCText(codecType);
}

uint64_t toMovieTime(uint64_t mediaDuration, uint32_t timescale)
{
    if (timescale == 0) return 0;
    unsigned __int128 scaled = (unsigned __int128)mediaDuration * kMovieTimescale;
    return uint64_t((scaled + timescale - 1) / timescale);
}

std::vector<uint8_t> buildMovieAtom(const std::vector<TrackInfo>& tracks, uint32_t creationTime)
{
    AtomWriter w;
    {
        ScopedAtom moov(w, fourCC("moov"));
        writeMvhd(w, tracks, creationTime);
        for (const auto& t : tracks) writeTrak(w, t, creationTime);
    }
    return w.take();
}

}  // namespace corvina::qt
