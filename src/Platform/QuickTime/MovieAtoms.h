// The movie atom ('moov') of a finished movie, built from the tracks' formats and tables.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QuickTime/TrackTables.h"
#include "SampleBuffer/FormatDescription.h"

namespace corvina::qt {

inline constexpr uint32_t kMovieTimescale = 600;

struct TrackInfo {
    uint32_t trackID = 0;
    FormatDescriptionRef format;  // decides video or sound
    uint32_t timescale = 0;       // the media's own
    const TrackTables* tables = nullptr;
};

// The neutral name the video sample description carries for a codec type.
std::string compressorName(FourCharCode codecType);

// mediaDuration (in timescale) in movie time units, rounded up.
uint64_t toMovieTime(uint64_t mediaDuration, uint32_t timescale);

// creationTime: seconds since midnight, 1 January 1904 (UTC).
std::vector<uint8_t> buildMovieAtom(const std::vector<TrackInfo>& tracks, uint32_t creationTime);

}  // namespace corvina::qt
