// The run's reports in the output folder: report.json for programs (per clip: format, frames,
// duration, start timecode, byte ranges used, frames rejected and why) and report.html for a
// person (the same with a picture of the first, middle and last frame and the waveform of
// each written clip). Both are written beside and renamed into place.
#pragma once

#include <string>
#include <vector>

namespace corvina::recover {

struct RecoverOutcome;
struct Clip;
struct ByteRange;

void writeReports(RecoverOutcome& outcome, const std::string& input, const std::string& outdir, bool pictures);

// The JSON text of the report.
std::string reportJSON(const RecoverOutcome& outcome, const std::string& input);

// The input byte ranges a clip uses, frames and audio together, touching ranges merged.
std::vector<ByteRange> rangesUsed(const Clip& clip);

// Pictures of the movie's video frames at `indexes` as BMP files `width` pixels wide, decoded
// with the media libraries in one pass over the movie (its other tracks left unread); each
// empty when that frame cannot be decoded.
std::vector<std::vector<unsigned char>> thumbnailsBMP(const std::string& moviePath, const std::vector<long>& indexes,
                                                      int width);

}  // namespace corvina::recover
