// Existing movies, read through libavformat and libavcodec: an asset opened from a path or a
// URL, its tracks by media type, each with the format descriptions that label its samples.
//
// An asset is inspected once when it is made (container, tracks, durations, descriptions) and
// keeps no file open; readers (AssetReader.h) open the file again for themselves. Assets are
// immutable after creation and may be shared between threads.
//
// Timecode: a stored timecode track ('tmcd' in QuickTime and MP4 files) is a track of its own.
// Containers that keep the start timecode as a property (MXF, DV streams) get a timecode track
// made from it, holding one sample with the start frame number, so callers see one model.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Foundation/Error.h"
#include "MediaTime/MediaTime.h"
#include "SampleBuffer/FormatDescription.h"

namespace corvina {

class Asset;

class AssetTrack {
public:
    int32_t trackID() const { return trackID_; }
    MediaType mediaType() const { return mediaType_; }
    // Frames per second of a video track (0 for other tracks or when unknown).
    float nominalFrameRate() const { return nominalFrameRate_; }
    const std::vector<FormatDescriptionRef>& formatDescriptions() const { return formats_; }
    MediaTime duration() const { return duration_; }

    // Where the samples come from: a stream of the container, or (streamIndex -1) the one
    // stored timecode sample of a timecode kept as a container property.
    int streamIndex() const { return streamIndex_; }
    const std::vector<uint8_t>& madeSample() const { return madeSample_; }

private:
    friend class Asset;
    int32_t trackID_ = 0;
    MediaType mediaType_ = MediaType::Metadata;
    float nominalFrameRate_ = 0;
    std::vector<FormatDescriptionRef> formats_;
    MediaTime duration_ = MediaTime::invalid();
    int streamIndex_ = -1;
    std::vector<uint8_t> madeSample_;
};

using AssetTrackRef = std::shared_ptr<const AssetTrack>;

class Asset {
public:
    // A local file. A path that cannot be opened or holds no media still gives an asset; it
    // is then not readable and has no tracks (error() says why).
    static std::shared_ptr<const Asset> assetWithPath(const std::string& path);
    // A URL: file URLs (percent escapes decoded) are opened like paths; remote schemes (http,
    // https, ftp, ...) are not fetched: such an asset has no tracks and is not readable.
    static std::shared_ptr<const Asset> assetWithURL(const std::string& url);

    // The URL the asset was made from ("file://" + the path for assetWithPath).
    const std::string& url() const { return url_; }
    std::string urlScheme() const;                     // lower case; empty when none
    const std::string& path() const { return path_; }  // the local path, empty for remote URLs
    bool isReadable() const { return readable_; }
    const std::optional<Error>& error() const { return error_; }

    // The end of the longest track (zero when nothing could be read).
    MediaTime duration() const { return duration_; }
    // The container as libavformat names it ("mov,mp4,m4a,3gp,3g2,mj2", "mxf", "avi", "dv").
    const std::string& containerName() const { return containerName_; }

    const std::vector<AssetTrackRef>& tracks() const { return tracks_; }
    std::vector<AssetTrackRef> tracksWithMediaType(MediaType type) const;

private:
    Asset() = default;
    void inspect();

    std::string url_;
    std::string path_;
    bool readable_ = false;
    std::optional<Error> error_;
    MediaTime duration_ = MediaTime::zero();
    std::string containerName_;
    std::vector<AssetTrackRef> tracks_;
};

using AssetRef = std::shared_ptr<const Asset>;

// The error domain of the asset layer's errors; codes are libav's error numbers where libav
// reported the failure.
inline constexpr const char* kAssetErrorDomain = "CorvinaAssetErrorDomain";

}  // namespace corvina
