#include "helper/RunSummary.h"

#include "Foundation/Format.h"

namespace corvina::helper {

using corvina::format;

namespace {

std::string trackLine(const char* name, const RunSummary::Track& track)
{
    if (track.format.empty()) return format("\n  %s: none", name);
    std::string line = format("\n  %s: %@; entries read %llu of %llu, frames written %llu of %llu", name, track.format,
                              track.entriesRead, track.entriesDescribed, track.framesWritten, track.framesDescribed);
    if (!track.firstError.empty()) line += format("\n  %s track ended early: %@", name, track.firstError);
    return line;
}

}  // namespace

std::string RunSummary::text() const
{
    std::string out = format("Summary: status %lld after %0.3f s", status, elapsedSeconds);
    out += format("\n  settings document: %@", settingsDocument.empty() ? std::string("(none)") : settingsDocument);
    out += trackLine("video", video);
    out += trackLine("audio", audio);
    if (!firstError.empty()) out += format("\n  first error: %@", firstError);
    if (!moviePath.empty() && movieBytes)
        out += format("\n  movie: %@ (%llu bytes)", moviePath, *movieBytes);
    else
        out += "\n  movie: none written";
    return out;
}

}  // namespace corvina::helper
