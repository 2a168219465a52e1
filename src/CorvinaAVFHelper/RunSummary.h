// The closing story of one run, written to the log as a single entry whatever happened, so
// that it survives however many per-sample lines came before it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace corvina::helper {

struct RunSummary {
    struct Track {
        std::string format;  // empty: the track was not described
        uint64_t entriesRead = 0;
        uint64_t entriesDescribed = 0;
        uint64_t framesWritten = 0;
        uint64_t framesDescribed = 0;
        std::string firstError;  // what ended the track before its last entry
    };

    std::string settingsDocument;
    Track video;
    Track audio;
    std::string firstError;  // the first line that ended the run
    std::string moviePath;   // empty: no movie was put in place
    std::optional<uint64_t> movieBytes;
    double elapsedSeconds = 0;
    int64_t status = 1;

    // Keeps only the first error it is given.
    void noteError(const std::string& line)
    {
        if (firstError.empty()) firstError = line;
    }
    std::string text() const;
};

}  // namespace corvina::helper
