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

// A picture of video frame `index` of the movie as a BMP file `width` pixels wide, decoded
// with the media libraries; empty when it cannot be decoded.
std::vector<unsigned char> thumbnailBMP(const std::string& moviePath, long index, int width);

}  // namespace corvina::recover
