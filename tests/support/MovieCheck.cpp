#include "support/MovieCheck.h"

#include "Foundation/ByteOrder.h"
#include "SampleBuffer/FormatDescription.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

namespace corvina::test {

namespace {

// Reads byte ranges of a file; movies above 4 GB are read where needed, never whole.
struct File {
    std::ifstream in;
    explicit File(const std::string& path) : in(path, std::ios::binary) {}
    bool readAt(uint64_t offset, void* out, size_t size)
    {
        in.clear();
        return bool(in.seekg(std::streamoff(offset)).read(static_cast<char*>(out), std::streamsize(size)));
    }
};

// A bounded big-endian cursor over a byte range.
struct Cursor {
    const uint8_t* p;
    size_t left;
    bool bad = false;

    bool need(size_t n)
    {
        if (left < n) bad = true;
        return !bad;
    }
    uint64_t be(int n)
    {
        if (!need(size_t(n))) return 0;
        const uint64_t v = corvina::loadBE(p, size_t(n));
        p += n;
        left -= size_t(n);
        return v;
    }
    uint8_t u8() { return uint8_t(be(1)); }
    uint16_t u16() { return uint16_t(be(2)); }
    uint32_t u32() { return uint32_t(be(4)); }
    uint64_t u64() { return be(8); }
    void skip(size_t n)
    {
        if (need(n)) {
            p += n;
            left -= n;
        }
    }
};

struct Atom {
    uint32_t type;
    const uint8_t* body;
    size_t size;  // body size
};

// An atom's header: its size, type and own length (8, or 16 with a 64-bit size). The problem
// when the header is cut short or the atom does not fit in `room` bytes; empty otherwise.
struct Header {
    uint64_t size;
    uint32_t type;
    size_t length = 8;
};
std::string readHeader(const uint8_t* p, size_t available, uint64_t room, Header& h)
{
    Cursor c{p, available};
    h = {c.u32(), c.u32()};
    if (h.size == 1) {
        h.size = c.u64();
        h.length = 16;
    }
    if (c.bad) return std::to_string(room) + " stray bytes at the end";
    if (h.size < h.length || h.size > room)
        return "atom '" + fourCCText(h.type) + "' of size " + std::to_string(h.size) + " does not fit";
    return {};
}

// Splits a range into atoms; reports atoms that do not fit.
std::vector<Atom> children(const uint8_t* p, size_t size, const std::string& where, std::vector<std::string>& problems)
{
    std::vector<Atom> out;
    Header h{};
    for (size_t at = 0; at < size; at += size_t(h.size)) {
        if (const std::string problem = readHeader(p + at, size - at, size - at, h); !problem.empty()) {
            problems.push_back(where + ": " + problem);
            break;
        }
        out.push_back({h.type, p + at + h.length, size_t(h.size) - h.length});
    }
    return out;
}

const Atom* find(const std::vector<Atom>& atoms, uint32_t type)
{
    for (const auto& a : atoms)
        if (a.type == type) return &a;
    return nullptr;
}

// One track's atoms: what the checks and the tests read. The writer's fixed fields (flags,
// resolutions, constants of the descriptions) are not looked at: any change in them shows in
// the helper's digest table.
struct TrackParser {
    MovieTrack& t_;
    std::vector<std::string>& problems_;
    std::string where_;

    void parseTrak(const Atom& trak)
    {
        auto kids = children(trak.body, trak.size, where_, problems_);
        if (const Atom* a = require(kids, "tkhd")) parseTkhd(*a);
        if (const Atom* edts = require(kids, "edts")) {
            auto e = children(edts->body, edts->size, where_ + "/edts", problems_);
            if (const Atom* elst = require(e, "elst")) parseElst(*elst);
        }
        const Atom* mdia = require(kids, "mdia");
        if (!mdia) return;
        auto m = children(mdia->body, mdia->size, where_ + "/mdia", problems_);
        if (const Atom* a = require(m, "mdhd")) parseMdhd(*a);
        if (const Atom* a = require(m, "hdlr")) {
            Cursor c{a->body, a->size};
            c.skip(8);
            t_.handler = c.u32();
        }
        const Atom* minf = require(m, "minf");
        if (!minf) return;
        auto mi = children(minf->body, minf->size, where_ + "/minf", problems_);
        const Atom* stbl = require(mi, "stbl");
        if (!stbl) return;
        auto s = children(stbl->body, stbl->size, where_ + "/stbl", problems_);
        if (const Atom* a = require(s, "stsd")) parseStsd(*a);
        if (const Atom* a = require(s, "stts")) parseStts(*a);
        if (const Atom* a = require(s, "stsc")) parseStsc(*a);
        if (const Atom* a = require(s, "stsz")) parseStsz(*a);
        const Atom* stco = find(s, fourCC("stco"));
        const Atom* co64 = find(s, fourCC("co64"));
        if (!stco && !co64) problem("no chunk offset table");
        if (stco && co64) problem("both stco and co64");
        if (stco || co64) parseChunkOffsets(stco ? *stco : *co64, co64 != nullptr);
    }

    void problem(const std::string& text) { problems_.push_back(where_ + ": " + text); }
    const Atom* require(const std::vector<Atom>& atoms, const char (&type)[5])
    {
        const Atom* a = find(atoms, fourCC(type));
        if (!a) problem(std::string("missing '") + type + "'");
        return a;
    }
    void checked(const Cursor& c, const char* what)
    {
        if (c.bad) problem(std::string(what) + " is truncated");
    }

    void parseTkhd(const Atom& a)
    {
        Cursor c{a.body, a.size};
        bool v1 = (c.u32() >> 24) == 1;
        c.skip(v1 ? 16 : 8);
        t_.trackID = c.u32();
        c.skip(4);
        t_.tkhdDuration = v1 ? c.u64() : c.u32();
        checked(c, "tkhd");
    }
    void parseElst(const Atom& a)
    {
        Cursor c{a.body, a.size};
        bool v1 = (c.u32() >> 24) == 1;
        if (c.u32() != 1) problem("elst does not have one entry");
        t_.editDuration = v1 ? c.u64() : c.u32();
        int64_t mediaTime = v1 ? int64_t(c.u64()) : int32_t(c.u32());
        if (mediaTime != 0) problem("edit does not start at media time 0");
        checked(c, "elst");
    }
    void parseMdhd(const Atom& a)
    {
        Cursor c{a.body, a.size};
        bool v1 = (c.u32() >> 24) == 1;
        c.skip(v1 ? 16 : 8);
        t_.timescale = c.u32();
        t_.mediaDuration = v1 ? c.u64() : c.u32();
        checked(c, "mdhd");
    }
    void parseStsd(const Atom& a)
    {
        Cursor c{a.body, a.size};
        c.skip(4);
        if (c.u32() != 1) problem("stsd does not have one entry");
        auto entries = children(c.p, c.left, where_ + "/stsd", problems_);
        if (entries.empty()) return;
        const Atom& e = entries[0];
        t_.codec = e.type;
        Cursor d{e.body, e.size};
        d.skip(8);
        if (t_.handler == fourCC("vide")) {
            d.skip(2 + 2 + 4 + 4 + 4);
            t_.sampleWidth = d.u16();
            t_.sampleHeight = d.u16();
            checked(d, "video sample description");
        } else if (t_.handler == fourCC("soun")) {
            // Version 2: the rate and channels, format flags, then the bytes of a frame.
            d.skip(2 + 2 + 4 + 2 + 2 + 2 + 2 + 4 + 4 + 8);
            t_.channels = d.u32();
            d.skip(4 + 4 + 4);
            t_.bytesPerFrame = d.u32();
            d.skip(4);  // frames per packet
            checked(d, "sound description");
            auto ext = children(d.p, d.left, where_ + "/soun", problems_);
            if (const Atom* chan = find(ext, fourCC("chan"))) {
                Cursor ch{chan->body, chan->size};
                ch.skip(4);
                t_.layoutTag = ch.u32();
                ch.skip(4);  // bitmap
                uint32_t n = ch.u32();
                for (uint32_t i = 0; i < n && !ch.bad; ++i) {
                    t_.channelLabels.push_back(ch.u32());
                    ch.skip(16);
                }
                if (ch.left != 0) problem("chan has stray bytes");
                checked(ch, "chan");
            }
        }
    }
    void parseStts(const Atom& a)
    {
        Cursor c{a.body, a.size};
        c.skip(4);
        uint32_t n = c.u32();
        for (uint32_t i = 0; i < n && !c.bad; ++i) {
            const uint32_t count = c.u32();
            t_.timeToSample.emplace_back(count, c.u32());
        }
        checked(c, "stts");
    }
    void parseStsc(const Atom& a)
    {
        Cursor c{a.body, a.size};
        c.skip(4);
        uint32_t n = c.u32();
        for (uint32_t i = 0; i < n && !c.bad; ++i) {
            uint32_t first = c.u32();
            uint32_t per = c.u32();
            if (c.u32() != 1) problem("stsc names another sample description");
            t_.sampleToChunk.emplace_back(first, per);
        }
        checked(c, "stsc");
    }
    void parseStsz(const Atom& a)
    {
        Cursor c{a.body, a.size};
        c.skip(4);
        t_.constantSize = c.u32();
        t_.sampleCount = c.u32();
        if (t_.constantSize == 0) {
            if (!c.need(size_t(t_.sampleCount) * 4)) {
                problem("stsz is truncated");
                return;
            }
            t_.sampleSizes.reserve(t_.sampleCount);
            for (uint64_t i = 0; i < t_.sampleCount; ++i) t_.sampleSizes.push_back(c.u32());
        }
        checked(c, "stsz");
    }
    void parseChunkOffsets(const Atom& a, bool wide)
    {
        t_.co64 = wide;
        Cursor c{a.body, a.size};
        c.skip(4);
        uint32_t n = c.u32();
        if (!c.need(size_t(n) * (wide ? 8 : 4))) {
            problem("chunk offsets are truncated");
            return;
        }
        t_.chunkOffsets.reserve(n);
        for (uint32_t i = 0; i < n; ++i) t_.chunkOffsets.push_back(wide ? c.u64() : c.u32());
    }
};

uint64_t toMovieTime(uint64_t d, uint32_t ts, uint32_t movieScale)
{
    if (!ts) return 0;
    return uint64_t(((unsigned __int128)d * movieScale + ts - 1) / ts);
}

void checkTrack(const MovieTrack& t, const MovieSummary& m, std::vector<std::string>& problems)
{
    std::string where = "track " + std::to_string(t.trackID);
    auto problem = [&](const std::string& s) { problems.push_back(where + ": " + s); };
    uint64_t sttsCount = 0, sttsSum = 0;
    for (auto [count, delta] : t.timeToSample) {
        sttsCount += count;
        sttsSum += uint64_t(count) * delta;
        if (delta == 0) problem("zero sample duration");
    }
    if (sttsCount != t.sampleCount)
        problem("stts counts " + std::to_string(sttsCount) + " samples, stsz " + std::to_string(t.sampleCount));
    if (sttsSum != t.mediaDuration)
        problem("stts adds up to " + std::to_string(sttsSum) + ", mdhd says " + std::to_string(t.mediaDuration));
    uint64_t expected = toMovieTime(t.mediaDuration, t.timescale, m.movieTimescale);
    if (t.tkhdDuration != expected)
        problem("tkhd duration " + std::to_string(t.tkhdDuration) + " != " + std::to_string(expected));
    if (t.editDuration != expected)
        problem("elst duration " + std::to_string(t.editDuration) + " != " + std::to_string(expected));
    if (t.tkhdDuration > m.movieDuration) problem("track is longer than the movie");
    if (t.sampleToChunk.empty() && t.sampleCount) problem("empty stsc");
    if (!t.sampleToChunk.empty() && t.sampleToChunk[0].first != 1) problem("stsc does not start at chunk 1");
    for (size_t i = 1; i < t.sampleToChunk.size(); ++i)
        if (t.sampleToChunk[i].first <= t.sampleToChunk[i - 1].first) problem("stsc runs out of order");
    if (!t.sampleToChunk.empty() && t.sampleToChunk.back().first > t.chunkOffsets.size()) {
        problem("stsc names chunks that do not exist");
    } else if (!t.sampleToChunk.empty()) {
        const auto per = t.samplesPerChunk();
        uint64_t stscCount = 0;
        for (uint32_t n : per) stscCount += n;
        if (stscCount != t.sampleCount) {
            problem("stsc covers " + std::to_string(stscCount) + " samples, stsz " + std::to_string(t.sampleCount));
        } else {
            // Every chunk inside mdat.
            uint64_t sample = 0;
            for (size_t c = 0; c < per.size(); ++c) {
                uint64_t bytes = 0;
                for (uint32_t i = 0; i < per[c]; ++i) bytes += t.sampleSize(sample++);
                if (t.chunkOffsets[c] < m.mdatDataStart || t.chunkOffsets[c] + bytes > m.mdatDataEnd)
                    problem("chunk " + std::to_string(c + 1) + " lies outside mdat");
            }
        }
    }
}

}  // namespace

const MovieTrack* MovieSummary::track(uint32_t handler) const
{
    for (const auto& t : tracks)
        if (t.handler == handler) return &t;
    return nullptr;
}

std::vector<uint32_t> MovieTrack::samplesPerChunk() const
{
    std::vector<uint32_t> out(chunkOffsets.size(), 0);
    for (size_t r = 0; r < sampleToChunk.size(); ++r) {
        size_t first = sampleToChunk[r].first;
        size_t last = r + 1 < sampleToChunk.size() ? sampleToChunk[r + 1].first - 1 : chunkOffsets.size();
        for (size_t c = first; c <= last && c >= 1 && c <= out.size(); ++c) out[c - 1] = sampleToChunk[r].second;
    }
    return out;
}

std::vector<std::string> checkMovieStructure(const std::string& path, MovieSummary* summaryOut)
{
    std::vector<std::string> problems;
    MovieSummary m;
    File fd(path);
    if (!fd.in) return {"cannot open " + path};
    const auto fileSize = uint64_t(test::fileSize(path));
    std::vector<uint8_t> moov;
    uint64_t at = 0;
    while (at < fileSize) {
        uint8_t bytes[16];
        const size_t got = size_t(std::min<uint64_t>(16, fileSize - at));
        Header h{};
        const std::string problem =
            fd.readAt(at, bytes, got) ? readHeader(bytes, got, fileSize - at, h) : "cannot read";
        if (!problem.empty()) {
            problems.push_back("top level: " + problem);
            break;
        }
        const uint64_t size = h.size, header = h.length;
        const uint32_t type = h.type;
        if (at == 0) {
            // ftyp: major brand, minor version, then the first compatible brand.
            uint8_t f[12] = {};
            const bool read = type == fourCC("ftyp") && size >= 20 && fd.readAt(at + 8, f, 12);
            Cursor fc{f, 12};
            const uint32_t major = fc.u32();
            fc.skip(4);
            if (!read || major != fourCC("qt  ") || fc.u32() != fourCC("qt  "))
                problems.push_back("the file does not start with an ftyp of brand 'qt  ', compatible with 'qt  '");
        } else if (type == fourCC("mdat")) {
            m.mdatDataStart = at + header;
            m.mdatDataEnd = at + size;
            m.mdat64 = header == 16;
        } else if (type == fourCC("moov")) {
            moov.resize(size_t(size - header));
            if (!fd.readAt(at + header, moov.data(), moov.size())) problems.push_back("cannot read moov");
        }
        at += size;
    }
    if (moov.empty()) problems.push_back("no moov");
    if (!m.mdatDataEnd) problems.push_back("no mdat");

    auto top = children(moov.data(), moov.size(), "moov", problems);
    if (const Atom* mvhd = find(top, fourCC("mvhd"))) {
        Cursor c{mvhd->body, mvhd->size};
        bool v1 = (c.u32() >> 24) == 1;
        c.skip(v1 ? 16 : 8);
        m.movieTimescale = c.u32();
        m.movieDuration = v1 ? c.u64() : c.u32();
        c.skip(4 + 2 + 10 + 36 + 24);
        m.nextTrackID = c.u32();
        if (c.bad) problems.push_back("mvhd is truncated");
    } else if (!moov.empty()) {
        problems.push_back("missing mvhd");
    }
    for (const auto& a : top) {
        if (a.type != fourCC("trak")) continue;
        MovieTrack t;
        TrackParser{t, problems, "trak " + std::to_string(m.tracks.size() + 1)}.parseTrak(a);
        m.tracks.push_back(std::move(t));
    }
    uint64_t longest = 0;
    for (const auto& t : m.tracks) {
        checkTrack(t, m, problems);
        longest = std::max(longest, t.tkhdDuration);
        if (t.trackID == 0 || t.trackID >= m.nextTrackID)
            problems.push_back("bad track id " + std::to_string(t.trackID));
    }
    if (!m.tracks.empty() && longest != m.movieDuration)
        problems.push_back("movie duration " + std::to_string(m.movieDuration) + " is not the longest track's " +
                           std::to_string(longest));
    if (summaryOut) *summaryOut = std::move(m);
    return problems;
}

std::vector<uint8_t> readSamples(const std::string& path, const MovieTrack& track, uint64_t first, uint64_t count)
{
    std::vector<uint8_t> out;
    File fd(path);
    if (!fd.in) return out;
    auto per = track.samplesPerChunk();
    uint64_t sample = 0;
    for (size_t c = 0; c < per.size() && sample < first + count; ++c) {
        uint64_t at = track.chunkOffsets[c];
        for (uint32_t i = 0; i < per[c] && sample < first + count; ++i, ++sample) {
            uint32_t size = track.sampleSize(sample);
            if (sample >= first) {
                size_t old = out.size();
                out.resize(old + size);
                if (!fd.readAt(at, out.data() + old, size)) return {};
            }
            at += size;
        }
    }
    return out;
}

std::vector<KeyValues> ffprobeStreams(const std::string& path)
{
    std::vector<KeyValues> streams;
    for (const auto& line : splitLines(
             runProgram({"ffprobe", "-v", "error", "-count_packets", "-show_streams", "-of", "default", path}).out)) {
        if (line == "[STREAM]") {
            streams.emplace_back();
        } else if (!streams.empty() && line != "[/STREAM]") {
            auto eq = line.find('=');
            if (eq != std::string::npos) streams.back()[line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    return streams;
}

std::vector<uint8_t> extractStreamBytes(const std::string& path, char streamType)
{
    const std::string map = streamType == 'a' ? "0:a:0" : "0:v:0";
    const ProcessResult r =
        runProgram({"ffmpeg", "-nostdin", "-v", "error", "-i", path, "-map", map, "-c", "copy", "-f", "data", "-"});
    if (r.status != 0) return {};
    return std::vector<uint8_t>(r.out.begin(), r.out.end());
}

void expectToolsAccept(const std::string& path, bool decode, const std::vector<uint8_t>* video,
                       const std::vector<uint8_t>* audio)
{
    std::vector<std::string> ffmpeg = {"ffmpeg", "-nostdin", "-v", "error", "-i", path, "-f", "null", "-"};
    if (!decode) ffmpeg.insert(ffmpeg.end() - 3, {"-map", "0", "-c", "copy"});
    const ProcessResult read = runProgram(ffmpeg);
    // A demux still probes a few frames, and synthetic essence makes decoders complain: then
    // only the demuxer's own messages (and lines of no context) count.
    std::string kept;
    for (const auto& line : splitLines(read.err)) {
        const bool decoderLine = !line.empty() && line[0] == '[' && line.rfind("[mov,", 0) != 0;
        if (decode || (!decoderLine && line.find("Last message repeated") == std::string::npos)) kept += line + "\n";
    }
    EXPECT_TRUE(read.status == 0 && kept.empty()) << "ffmpeg: " << read.status << " " << kept;
    const ProcessResult info = runProgram({"mediainfo", path});
    const std::string out = info.out + info.err;
    EXPECT_TRUE(info.status == 0 && out.find("General") != std::string::npos &&
                (out.find("\nVideo") != std::string::npos || out.find("\nAudio") != std::string::npos))
        << "mediainfo: " << out;
    if (video) {
        EXPECT_TRUE(extractStreamBytes(path, 'v') == *video) << "the stored video differs from what went in";
    }
    if (audio) {
        EXPECT_TRUE(extractStreamBytes(path, 'a') == *audio) << "the stored audio differs from what went in";
    }
}

}  // namespace corvina::test
