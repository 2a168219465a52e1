#include "support/MovieCheck.h"

#include "Foundation/ByteOrder.h"
#include "SampleBuffer/FormatDescription.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

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
    uint16_t u16() { return uint16_t(be(2)); }
    uint32_t u32() { return uint32_t(be(4)); }
    uint64_t u64() { return be(8); }
    uint64_t wide(bool v1) { return v1 ? u64() : u32(); }
    void skip(size_t n)
    {
        if (need(n)) {
            p += n;
            left -= n;
        }
    }
    // A full atom's version and flags, then its two dates: true for version 1 (64-bit fields).
    bool versionAndDates()
    {
        const bool v1 = (u32() >> 24) == 1;
        skip(v1 ? 16 : 8);
        return v1;
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
// brands, track numbers, constants of the descriptions) are not looked at: any change in them
// shows in the helper's digest table.
struct TrackParser {
    MovieTrack& t;
    std::vector<std::string>& problems;
    std::string where;

    void problem(const std::string& text) { problems.push_back(where + ": " + text); }
    std::vector<Atom> inside(const Atom& a) { return children(a.body, a.size, where, problems); }
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

    void parse(const Atom& trak)
    {
        const auto kids = inside(trak);
        if (const Atom* a = require(kids, "tkhd")) {
            Cursor c{a->body, a->size};
            const bool v1 = c.versionAndDates();
            t.trackID = c.u32();
            c.skip(4);
            t.tkhdDuration = c.wide(v1);
            checked(c, "tkhd");
        }
        const Atom* edts = require(kids, "edts");
        const auto edits = edts ? inside(*edts) : std::vector<Atom>{};
        if (const Atom* a = edts ? require(edits, "elst") : nullptr) {
            Cursor c{a->body, a->size};
            const bool v1 = (c.u32() >> 24) == 1;
            c.skip(4);  // entry count
            t.editDuration = c.wide(v1);
            checked(c, "elst");
        }
        const Atom* mdia = require(kids, "mdia");
        if (!mdia) return;
        const auto m = inside(*mdia);
        if (const Atom* a = require(m, "mdhd")) {
            Cursor c{a->body, a->size};
            const bool v1 = c.versionAndDates();
            t.timescale = c.u32();
            t.mediaDuration = c.wide(v1);
            checked(c, "mdhd");
        }
        if (const Atom* a = require(m, "hdlr")) {
            Cursor c = table(*a);
            c.skip(4);  // pre-defined
            t.handler = c.u32();
        }
        const Atom* minf = require(m, "minf");
        const auto mi = minf ? inside(*minf) : std::vector<Atom>{};
        const Atom* stbl = minf ? require(mi, "stbl") : nullptr;
        if (!stbl) return;
        const auto s = inside(*stbl);
        if (const Atom* a = require(s, "stsd")) parseStsd(*a);
        if (const Atom* a = require(s, "stts")) {
            Cursor c = table(*a);
            for (uint32_t n = c.u32(), i = 0; i < n && !c.bad; ++i) {
                const uint32_t count = c.u32();
                t.timeToSample.emplace_back(count, c.u32());
            }
            checked(c, "stts");
        }
        if (const Atom* a = require(s, "stsc")) {
            Cursor c = table(*a);
            for (uint32_t n = c.u32(), i = 0; i < n && !c.bad; ++i) {
                const uint32_t first = c.u32();
                t.sampleToChunk.emplace_back(first, c.u32());
                c.skip(4);  // sample description
            }
            checked(c, "stsc");
        }
        if (const Atom* a = require(s, "stsz")) parseStsz(*a);
        const Atom* stco = find(s, fourCC("stco"));
        const Atom* co64 = find(s, fourCC("co64"));
        if (!stco && !co64) problem("no chunk offset table");
        if (stco && co64) problem("both stco and co64");
        if (stco || co64) parseChunkOffsets(stco ? *stco : *co64, co64 != nullptr);
    }

    // A table's body after its version and flags.
    static Cursor table(const Atom& a)
    {
        Cursor c{a.body, a.size};
        c.skip(4);
        return c;
    }

    void parseStsd(const Atom& a)
    {
        Cursor c = table(a);
        c.skip(4);  // entry count
        auto entries = children(c.p, c.left, where + "/stsd", problems);
        if (entries.empty()) return;
        Cursor d{entries[0].body, entries[0].size};
        d.skip(8);
        if (t.handler == fourCC("vide")) {
            d.skip(2 + 2 + 4 + 4 + 4);
            t.sampleWidth = d.u16();
            t.sampleHeight = d.u16();
            checked(d, "video sample description");
        } else if (t.handler == fourCC("soun")) {
            // Version 2: the rate, channels and format flags, then the bytes of a frame.
            d.skip(2 + 2 + 4 + 2 + 2 + 2 + 2 + 4 + 4 + 8 + 4 + 4 + 4 + 4);
            t.bytesPerFrame = d.u32();
            d.skip(4);  // frames per packet
            checked(d, "sound description");
            auto ext = children(d.p, d.left, where + "/soun", problems);
            if (const Atom* chan = find(ext, fourCC("chan"))) {
                Cursor ch{chan->body, chan->size};
                ch.skip(4);
                t.layoutTag = ch.u32();
                ch.skip(4);  // bitmap
                for (uint32_t n = ch.u32(), i = 0; i < n && !ch.bad; ++i) {
                    t.channelLabels.push_back(ch.u32());
                    ch.skip(16);
                }
                if (ch.left != 0) problem("chan has stray bytes");
                checked(ch, "chan");
            }
        }
    }
    void parseStsz(const Atom& a)
    {
        Cursor c = table(a);
        t.constantSize = c.u32();
        t.sampleCount = c.u32();
        if (t.constantSize == 0 && !c.need(size_t(t.sampleCount) * 4)) return problem("stsz is truncated");
        for (uint64_t i = 0; t.constantSize == 0 && i < t.sampleCount; ++i) t.sampleSizes.push_back(c.u32());
        checked(c, "stsz");
    }
    void parseChunkOffsets(const Atom& a, bool wide)
    {
        t.co64 = wide;
        Cursor c = table(a);
        const uint32_t n = c.u32();
        if (!c.need(size_t(n) * (wide ? 8 : 4))) return problem("chunk offsets are truncated");
        for (uint32_t i = 0; i < n; ++i) t.chunkOffsets.push_back(c.wide(wide));
    }
};

uint64_t toMovieTime(uint64_t d, uint32_t ts, uint32_t movieScale)
{
    if (!ts) return 0;
    return uint64_t(((unsigned __int128)d * movieScale + ts - 1) / ts);
}

void checkTrack(const MovieTrack& t, const MovieSummary& m, std::vector<std::string>& problems)
{
    const std::string where = "track " + std::to_string(t.trackID);
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
    const uint64_t expected = toMovieTime(t.mediaDuration, t.timescale, m.movieTimescale);
    if (t.tkhdDuration != expected)
        problem("tkhd duration " + std::to_string(t.tkhdDuration) + " != " + std::to_string(expected));
    if (t.editDuration != expected)
        problem("elst duration " + std::to_string(t.editDuration) + " != " + std::to_string(expected));
    if (t.tkhdDuration > m.movieDuration) problem("track is longer than the movie");
    if (t.sampleToChunk.empty()) {
        if (t.sampleCount) problem("empty stsc");
        return;
    }
    if (t.sampleToChunk[0].first != 1) problem("stsc does not start at chunk 1");
    for (size_t i = 1; i < t.sampleToChunk.size(); ++i)
        if (t.sampleToChunk[i].first <= t.sampleToChunk[i - 1].first) problem("stsc runs out of order");
    if (t.sampleToChunk.back().first > t.chunkOffsets.size()) return problem("stsc names chunks that do not exist");
    const auto per = t.samplesPerChunk();
    uint64_t stscCount = 0;
    for (uint32_t n : per) stscCount += n;
    if (stscCount != t.sampleCount)
        return problem("stsc covers " + std::to_string(stscCount) + " samples, stsz " + std::to_string(t.sampleCount));
    // Every chunk inside mdat.
    uint64_t sample = 0;
    for (size_t c = 0; c < per.size(); ++c) {
        uint64_t bytes = 0;
        for (uint32_t i = 0; i < per[c]; ++i) bytes += t.sampleSize(sample++);
        if (t.chunkOffsets[c] < m.mdatDataStart || t.chunkOffsets[c] + bytes > m.mdatDataEnd)
            problem("chunk " + std::to_string(c + 1) + " lies outside mdat");
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
    Header h{};
    for (uint64_t at = 0; at < fileSize; at += h.size) {
        uint8_t bytes[16];
        const size_t got = size_t(std::min<uint64_t>(16, fileSize - at));
        const std::string problem =
            fd.readAt(at, bytes, got) ? readHeader(bytes, got, fileSize - at, h) : "cannot read";
        if (!problem.empty()) {
            problems.push_back("top level: " + problem);
            break;
        }
        if (h.type == fourCC("mdat")) {
            m.mdatDataStart = at + h.length;
            m.mdatDataEnd = at + h.size;
        } else if (h.type == fourCC("moov")) {
            moov.resize(size_t(h.size - h.length));
            if (!fd.readAt(at + h.length, moov.data(), moov.size())) problems.push_back("cannot read moov");
        }
    }
    if (moov.empty()) problems.push_back("no moov");
    if (!m.mdatDataEnd) problems.push_back("no mdat");

    const auto top = children(moov.data(), moov.size(), "moov", problems);
    if (const Atom* mvhd = find(top, fourCC("mvhd"))) {
        Cursor c{mvhd->body, mvhd->size};
        const bool v1 = c.versionAndDates();
        m.movieTimescale = c.u32();
        m.movieDuration = c.wide(v1);
        if (c.bad) problems.push_back("mvhd is truncated");
    } else if (!moov.empty()) {
        problems.push_back("missing mvhd");
    }
    for (const auto& a : top) {
        if (a.type != fourCC("trak")) continue;
        MovieTrack t;
        TrackParser{t, problems, "trak " + std::to_string(m.tracks.size() + 1)}.parse(a);
        m.tracks.push_back(std::move(t));
    }
    uint64_t longest = 0;
    for (const auto& t : m.tracks) {
        checkTrack(t, m, problems);
        longest = std::max(longest, t.tkhdDuration);
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
    const auto per = track.samplesPerChunk();
    uint64_t sample = 0;
    for (size_t c = 0; fd.in && c < per.size() && sample < first + count; ++c) {
        uint64_t at = track.chunkOffsets[c];
        for (uint32_t i = 0; i < per[c] && sample < first + count; ++i, ++sample) {
            const uint32_t size = track.sampleSize(sample);
            if (sample >= first) {
                out.resize(out.size() + size);
                if (!fd.readAt(at, out.data() + out.size() - size, size)) return {};
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
