// One movie to assemble, read once from the settings document: the paths, the format codes,
// the frame size, the exact frame timing and the byte ranges of every frame and audio run in
// packed tables. Nothing of the property-list tree survives the reading, so a document of a
// million entries costs about 24 bytes an entry while the movie is written.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Foundation/Error.h"
#include "Foundation/Result.h"
#include "Foundation/Value.h"
#include "MediaTime/MediaTime.h"

namespace corvina::helper {

// One offset entry: a byte range of a raw data file and, for video, how many frames it holds.
struct MediaEntry {
    uint64_t offset = 0;
    uint64_t length = 0;
    int64_t frameCount = 0;  // as the document gives it (0 when missing); the video feeder raises it to 1
    bool operator==(const MediaEntry&) const = default;
};
static_assert(sizeof(MediaEntry) == 24);

using MediaEntryTable = std::vector<MediaEntry>;

struct MovieJob {
    std::string tmpFilename;
    std::string tmpAudioFilename;
    std::string destFilename;
    int64_t formatType = 0;
    int64_t audioFormat = 0;
    float frameRate = 0.0f;
    int16_t fWidth = 0;
    int16_t fHeight = 0;
    // Shared with the feeders, never copied.
    std::shared_ptr<const MediaEntryTable> videoEntries = std::make_shared<MediaEntryTable>();
    std::shared_ptr<const MediaEntryTable> audioEntries = std::make_shared<MediaEntryTable>();
    // The file the job was read from, when it was read from one.
    std::string documentPath;

    // The exact rate frameRate stands for (FrameRate::fromDouble).
    corvina::FrameRate frameTiming() const { return corvina::FrameRate::fromDouble(frameRate); }

    // The job a settings dictionary describes. Values convert as the document's accessors
    // convert them (a missing key is 0 or empty; entries that are no dictionary read as 0).
    static MovieJob fromSettings(const corvina::Value& settings);
    // A table of offset entries as the document's arrays hold them.
    static MediaEntryTable entriesFrom(const corvina::Value& array);
    // Reads a settings document from a file: its bytes are copied into memory once, then
    // parsed. Fails when the file is missing, malformed or holds no dictionary.
    static corvina::Result<MovieJob> readDocument(const std::string& path);
    // The job a document's bytes describe. XML documents are read as a stream, one entry at
    // a time; binary ones, and whatever the stream refuses, through the property-list reader.
    static corvina::Result<MovieJob> fromDocumentBytes(std::string_view bytes);
    // The streaming reader alone: the document's keys mapped to the job's fields over
    // corvina::PropertyListStream. Nullopt where the stream cannot be sure of the document (a
    // binary one, dates or data among the values, anything malformed), so that the caller can
    // fall back on the full property-list reader.
    static std::optional<MovieJob> readXMLDocument(const char* text, size_t length);
};

}  // namespace corvina::helper
