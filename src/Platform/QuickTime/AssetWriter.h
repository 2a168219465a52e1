// The QuickTime movie writer, behind an asset-writer-like interface: a writer for one file,
// inputs per media type that take samples as they are (pass-through: no output settings,
// nothing decoded or re-encoded), a pull model where each input asks for data on a queue.
//
// Samples are stored exactly as given: the bytes of every sample land in the file unchanged,
// with the format description's codec type and the samples' exact times. Chunks alternate
// between the tracks about every half second of media time (a chunk also closes at 1 MiB).
// An input is not ready while its track is more than that window ahead of another open track
// that is still being fed; its block is called again when it becomes ready. Memory grows with
// the number of chunks, not samples. Files above 4 GB get a 64-bit mdat and co64 tables.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Dispatch/Dispatch.h"
#include "Foundation/Error.h"
#include "Foundation/Result.h"
#include "MediaTime/MediaTime.h"
#include "SampleBuffer/SampleBuffer.h"

namespace corvina {

class AssetWriter;

enum class AssetWriterStatus { Unknown, Writing, Completed, Failed, Cancelled };

inline constexpr const char* kFileTypeQuickTimeMovie = "quicktime-movie";

class AssetWriterInput : public std::enable_shared_from_this<AssetWriterInput> {
public:
    // outputSettings must be null: only pass-through inputs exist.
    static std::shared_ptr<AssetWriterInput> create(MediaType mediaType, const void* outputSettings = nullptr);
    ~AssetWriterInput();

    MediaType mediaType() const;

    bool isReadyForMoreMediaData() const;
    // The block is run on the queue whenever the input is ready for more data, until the
    // input is marked finished. The block should append while the input is ready and return.
    void requestMediaDataWhenReadyOnQueue(std::shared_ptr<DispatchQueue> queue, Block block);
    // Stores the sample. False when the writer is not writing, the input is finished, or the
    // sample does not fit the track (another media type); the writer's error says why when
    // the writer failed (a full disk, for instance).
    bool appendSampleBuffer(const SampleBuffer& sample);
    // Stores a buffer of samples of one size and duration as one appendSampleBuffer call per
    // sample would: chunks close between samples exactly where those calls would close them,
    // so the file is the same byte for byte. Other buffers are stored as appendSampleBuffer
    // stores them.
    bool appendSampleRun(const SampleBuffer& sample);
    void markAsFinished();

private:
    friend class AssetWriter;
    AssetWriterInput() = default;
    bool append(const SampleBuffer& sample, bool eachAlone);
    struct State;
    std::shared_ptr<State> state_;
};

class AssetWriter {
public:
    // Fails when the file cannot be created there (missing folder, no rights, an unknown file
    // type); an existing file is an error too, as on the platform.
    static Result<std::unique_ptr<AssetWriter>> create(const std::string& path, const std::string& fileType);
    // A writer into an empty file that the caller created and opened for writing (the writer
    // owns the descriptor from here on); `path` only names it. The file's name stays the
    // caller's: cancelling closes the file but removes nothing.
    static Result<std::unique_ptr<AssetWriter>> createOnDescriptor(int fd, const std::string& path,
                                                                   const std::string& fileType);
    ~AssetWriter();

    // True when the file open at fd starts as every movie file a writer makes does, from the
    // moment it is created: the mark of a file that a killed writer left unfinished.
    static bool fileStartsAsWritten(int fd);

    bool canAddInput(const AssetWriterInput& input) const;
    void addInput(std::shared_ptr<AssetWriterInput> input);

    bool startWriting();
    void startSessionAtSourceTime(MediaTime time);
    // Blocks until the movie is complete on disk (or failed); true on success. Inputs not yet
    // marked finished are finished first.
    bool finishWriting();
    void cancelWriting();

    // Where the movie's header dates come from: seconds since 1970 (UTC). Every writer of the
    // process uses it; null restores the system clock. Tests fix it to compare whole files.
    static void setClock(std::function<int64_t()> secondsSince1970);

    AssetWriterStatus status() const;
    std::optional<Error> error() const;
    const std::string& outputPath() const;

private:
    AssetWriter() = default;
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace corvina
