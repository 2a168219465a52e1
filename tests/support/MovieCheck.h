// Reads back a QuickTime movie written by the writer: a structural check of atoms and
// sample tables, a parsed summary for reading samples back, and wrappers around
// independent tools (ffprobe, ffmpeg, mediainfo) that must accept every movie.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace corvina::test {

struct MovieTrack {
    uint32_t trackID = 0;
    uint32_t handler = 0;  // 'vide' or 'soun'
    uint32_t timescale = 0;
    uint64_t mediaDuration = 0;  // mdhd
    uint64_t tkhdDuration = 0;   // movie timescale
    uint64_t editDuration = 0;   // elst, movie timescale
    // Video sample description.
    uint16_t sampleWidth = 0, sampleHeight = 0;
    // Sound sample description (version 2) and its channel layout.
    uint32_t bytesPerFrame = 0;
    uint32_t layoutTag = 0;
    std::vector<uint32_t> channelLabels;
    // Tables.
    std::vector<std::pair<uint32_t, uint32_t>> timeToSample;   // (count, delta)
    std::vector<std::pair<uint32_t, uint32_t>> sampleToChunk;  // (first chunk, samples per chunk)
    uint32_t constantSize = 0;                                 // stsz sample size; 0 when sizes vary
    std::vector<uint32_t> sampleSizes;                         // per sample when sizes vary
    uint64_t sampleCount = 0;                                  // stsz count
    std::vector<uint64_t> chunkOffsets;
    bool co64 = false;

    uint32_t sampleSize(uint64_t i) const { return constantSize ? constantSize : sampleSizes[i]; }
    // Samples in each chunk, from the sample-to-chunk runs.
    std::vector<uint32_t> samplesPerChunk() const;
};

struct MovieSummary {
    uint64_t mdatDataStart = 0, mdatDataEnd = 0;
    uint32_t movieTimescale = 0;
    uint64_t movieDuration = 0;
    std::vector<MovieTrack> tracks;

    const MovieTrack* track(uint32_t handler) const;
};

// The problems found (empty: the movie is sound). Fills summary when given.
std::vector<std::string> checkMovieStructure(const std::string& path, MovieSummary* summary = nullptr);

// The bytes of samples [first, first + count) of a track, read from the file.
std::vector<uint8_t> readSamples(const std::string& path, const MovieTrack& track, uint64_t first, uint64_t count);

// Independent tools.
using KeyValues = std::map<std::string, std::string>;
// Each stream's fields as ffprobe shows them, nb_read_packets (the packets counted) included.
std::vector<KeyValues> ffprobeStreams(const std::string& path);
// The stored bytes of the first video ('v') or audio ('a') stream, as the demuxer reads them.
std::vector<uint8_t> extractStreamBytes(const std::string& path, char streamType);
// What every finished movie must pass, each failure failing the test: ffmpeg reads all of it
// (a full decode; with decode false a demux, for synthetic essence that no decoder takes),
// mediainfo recognises it, and its first video and audio streams hold the bytes given.
void expectToolsAccept(const std::string& path, bool decode, const std::vector<uint8_t>* video = nullptr,
                       const std::vector<uint8_t>* audio = nullptr);

}  // namespace corvina::test
