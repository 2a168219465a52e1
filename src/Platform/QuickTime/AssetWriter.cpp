#include "QuickTime/AssetWriter.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <mutex>
#include <vector>

#include "QuickTime/MovieAtoms.h"
#include "QuickTime/MovieFile.h"
#include "QuickTime/TrackTables.h"

namespace corvina {

namespace writer_internal {

// A chunk closes when it holds this much media time (in seconds, as a fraction) or data.
constexpr int64_t kInterleaveWindowNumerator = 1;
constexpr int64_t kInterleaveWindowDenominator = 2;
constexpr size_t kChunkBytes = 1u << 20;

struct WriterCore;

// One input's track. Everything but mediaType and core is guarded by the writer's mutex
// once the input has been added to a writer.
struct TrackState {
    MediaType mediaType = MediaType::Video;
    std::weak_ptr<WriterCore> core;
    bool added = false;
    bool finished = false;

    std::shared_ptr<DispatchQueue> queue;
    std::shared_ptr<Block> block;
    bool scheduled = false;  // a run of the block is submitted or running

    FormatDescriptionRef format;  // of the first sample
    uint32_t timescale = 0;       // 0 until the first sample
    qt::TrackTables tables;

    std::vector<uint8_t> chunk;  // the open chunk's bytes
    std::vector<uint8_t> spare;  // the storage of the last chunk written, for the next one
    uint32_t chunkSamples = 0;
    uint64_t chunkDuration = 0;  // in timescale
    size_t lastChunkBytes = 0;

    bool hasSamples() const { return timescale != 0; }
};

struct WriterCore : std::enable_shared_from_this<WriterCore> {
    std::string path;
    bool ownsName = true;      // false when the caller made the file and keeps its name
    mutable std::mutex mutex;  // state; taken before fileMutex when both are held
    AssetWriterStatus status = AssetWriterStatus::Unknown;
    std::optional<Error> error;
    std::vector<std::shared_ptr<TrackState>> tracks;

    std::mutex fileMutex;
    std::optional<qt::MovieFile> file;

    // --- all below: called with `mutex` held through `lock`

    // True when the track's media end is more than the window ahead of another open track
    // that is being fed (has samples or a registered block).
    bool aheadOfOthers(const TrackState& t) const
    {
        using i128 = __int128;
        i128 tDur = t.tables.mediaDuration(), tScale = t.timescale ? t.timescale : 1;
        for (const auto& o : tracks) {
            if (o.get() == &t || o->finished || (!o->block && !o->hasSamples())) continue;
            i128 oDur = o->tables.mediaDuration(), oScale = o->timescale ? o->timescale : 1;
            // tDur/tScale - oDur/oScale > N/D
            i128 lhs = (tDur * oScale - oDur * tScale) * kInterleaveWindowDenominator;
            if (lhs > i128(kInterleaveWindowNumerator) * tScale * oScale) return true;
        }
        return false;
    }

    bool readyLocked(const TrackState& t) const
    {
        if (!t.added || t.finished) return false;
        // After a failure or a cancel the inputs report ready so that pumps run on, see their
        // appends refused, and reach their end instead of waiting forever.
        if (status == AssetWriterStatus::Failed || status == AssetWriterStatus::Cancelled) return true;
        if (status != AssetWriterStatus::Writing) return false;
        return !aheadOfOthers(t);
    }

    void scheduleLocked(const std::shared_ptr<TrackState>& t)
    {
        if (!t->block || !t->queue || t->scheduled || !readyLocked(*t)) return;
        t->scheduled = true;
        auto self = shared_from_this();
        auto block = t->block;
        t->queue->async([self, t, block] {
            (*block)();
            std::lock_guard lock(self->mutex);
            t->scheduled = false;
            if (t->finished)
                t->block.reset();
            else
                self->scheduleLocked(t);
        });
    }

    void scheduleOthersLocked(const TrackState* except)
    {
        for (const auto& o : tracks)
            if (o.get() != except) scheduleLocked(o);
    }

    void failLocked(Error e)
    {
        if (status == AssetWriterStatus::Writing || status == AssetWriterStatus::Unknown) {
            status = AssetWriterStatus::Failed;
            error = std::move(e);
            scheduleOthersLocked(nullptr);
        }
    }

    // A chunk closes once it holds half a second of media or 1 MiB.
    static bool chunkFull(const TrackState& t)
    {
        return t.chunk.size() >= kChunkBytes ||
               t.chunkDuration * kInterleaveWindowDenominator >= uint64_t(t.timescale) * kInterleaveWindowNumerator;
    }

    // How many more samples of one size and duration the open chunk takes before it is full
    // (at least 1: a full chunk is closed as soon as it fills).
    static uint64_t samplesToCloseChunk(const TrackState& t, uint32_t size, uint32_t delta)
    {
        using u128 = unsigned __int128;
        const uint64_t held = t.chunk.size();
        const uint64_t bySize = held >= kChunkBytes ? 1 : (kChunkBytes - held + size - 1) / size;
        const u128 goal = u128(t.timescale) * kInterleaveWindowNumerator;
        const u128 have = u128(t.chunkDuration) * kInterleaveWindowDenominator;
        const u128 step = u128(delta) * kInterleaveWindowDenominator;
        const u128 byTime = have >= goal ? 1 : (goal - have + step - 1) / step;
        const u128 closing = std::min<u128>(bySize, byTime);
        return closing < 1 ? 1 : uint64_t(closing);
    }

    // Writes the open chunk. The state lock is let go during the write itself; the chunk's
    // place in the file is fixed before, so chunks land in the order they close.
    bool closeChunkLocked(std::unique_lock<std::mutex>& lock, TrackState& t)
    {
        if (t.chunkSamples == 0) return true;
        std::vector<uint8_t> bytes = std::move(t.chunk);
        t.chunk = {};
        t.lastChunkBytes = bytes.size();
        std::unique_lock fileLock(fileMutex);
        if (!file) return false;
        t.tables.addChunk(file->end(), t.chunkSamples);
        t.chunkSamples = 0;
        t.chunkDuration = 0;
        lock.unlock();
        Result<void> appended = file->append(bytes);
        fileLock.unlock();
        lock.lock();
        // The next chunk reuses this one's storage: fresh pages for every chunk cost a page
        // fault per page.
        if (t.spare.capacity() < bytes.capacity()) {
            bytes.clear();
            t.spare = std::move(bytes);
        }
        if (!appended) failLocked(appended.error());
        return appended.ok();
    }
};

namespace {

std::mutex clockMutex;
std::function<int64_t()> movieClock;

int64_t secondsSince1970()
{
    std::lock_guard lock(clockMutex);
    return movieClock ? movieClock() : int64_t(std::time(nullptr));
}

// A duration in the track's timescale; 0 when it is not a positive numeric time.
uint64_t durationIn(const MediaTime& d, uint32_t timescale)
{
    if (!d.isNumeric() || d.value <= 0) return 0;
    if (uint32_t(d.timescale) == timescale) return uint64_t(d.value);
    MediaTime c = d.convertScale(int32_t(timescale));
    if (!c.isNumeric()) return 0;
    return c.value > 0 ? uint64_t(c.value) : 1;
}

uint32_t chooseTimescale(const SampleBuffer& sample, const FormatDescription& format)
{
    if (const AudioStreamBasicDescription* asbd = format.streamBasicDescription()) {
        double rate = asbd->mSampleRate;
        if (rate >= 1 && rate <= 2147483647.0 && std::floor(rate) == rate) return uint32_t(rate);
    }
    MediaTime d = sample.duration(0);
    if (d.isNumeric()) return uint32_t(d.timescale);
    MediaTime p = sample.presentationTimeStamp(0);
    return p.isNumeric() ? uint32_t(p.timescale) : 0;
}

// How the samples of one buffer become movie samples.
struct SampleLayout {
    bool uniform = true;  // count samples of `size` bytes lasting `delta` each
    uint64_t count = 0;
    uint32_t size = 0;
    uint32_t delta = 0;
    uint64_t bytes = 0;  // bytes stored
    uint64_t duration = 0;
};

bool planLayout(const SampleBuffer& s, uint32_t timescale, SampleLayout* out)
{
    const int64_t n = s.numSamples();
    const size_t length = s.dataBuffer()->dataLength();
    const auto& sizes = s.sampleSizes();
    const auto& timing = s.timing();
    if (n < 1 || timing.empty()) return false;
    SampleLayout l;
    bool oneSampleOfN = n > 1 && timing.size() == 1 &&
                        ((sizes.size() == 1 && sizes[0] == length) || (sizes.empty() && length % size_t(n) != 0));
    if (n == 1 || oneSampleOfN) {
        uint64_t delta = durationIn(timing[0].duration, timescale) * uint64_t(n);
        size_t size = sizes.empty() ? length : sizes[0];
        if (delta == 0 || delta > UINT32_MAX || size == 0 || size > UINT32_MAX || size > length) return false;
        l = {true, 1, uint32_t(size), uint32_t(delta), size, delta};
    } else if (sizes.size() <= 1 && timing.size() == 1) {
        uint64_t delta = durationIn(timing[0].duration, timescale);
        size_t size = sizes.empty() ? length / size_t(n) : sizes[0];
        if (delta == 0 || delta > UINT32_MAX || size == 0 || size > UINT32_MAX) return false;
        if ((unsigned __int128)size * uint64_t(n) > length) return false;
        l = {true, uint64_t(n), uint32_t(size), uint32_t(delta), uint64_t(size) * uint64_t(n), delta * uint64_t(n)};
    } else {
        l.uniform = false;
        l.count = uint64_t(n);
        for (int64_t i = 0; i < n; ++i) {
            uint64_t delta = durationIn(s.duration(i), timescale);
            size_t size = s.sampleSize(i);
            if (delta == 0 || delta > UINT32_MAX || size == 0 || size > UINT32_MAX) return false;
            l.bytes += size;
            l.duration += delta;
        }
        if (l.bytes > length) return false;
    }
    *out = l;
    return true;
}

}  // namespace

}  // namespace writer_internal

using writer_internal::TrackState;
using writer_internal::WriterCore;

struct AssetWriterInput::State {
    std::shared_ptr<TrackState> track = std::make_shared<TrackState>();
};

struct AssetWriter::Impl {
    std::shared_ptr<WriterCore> core = std::make_shared<WriterCore>();
};

// ---------------------------------------------------------------------------------------
// AssetWriterInput

std::shared_ptr<AssetWriterInput> AssetWriterInput::create(MediaType mediaType, const void* outputSettings)
{
    if (outputSettings) return nullptr;
    std::shared_ptr<AssetWriterInput> input(new AssetWriterInput());  // NOLINT: private constructor
    input->state_ = std::make_shared<State>();
    input->state_->track->mediaType = mediaType;
    return input;
}

AssetWriterInput::~AssetWriterInput() = default;

MediaType AssetWriterInput::mediaType() const { return state_->track->mediaType; }

bool AssetWriterInput::isReadyForMoreMediaData() const
{
    const auto& t = state_->track;
    auto core = t->core.lock();
    if (!core) return false;
    std::lock_guard lock(core->mutex);
    return core->readyLocked(*t);
}

void AssetWriterInput::requestMediaDataWhenReadyOnQueue(std::shared_ptr<DispatchQueue> queue, Block block)
{
    const auto& t = state_->track;
    auto core = t->core.lock();
    if (!core) {
        // Not added yet: kept for when it is.
        t->queue = std::move(queue);
        t->block = std::make_shared<Block>(std::move(block));
        return;
    }
    std::lock_guard lock(core->mutex);
    if (t->finished) return;
    t->queue = std::move(queue);
    t->block = std::make_shared<Block>(std::move(block));
    core->scheduleLocked(t);
}

bool AssetWriterInput::appendSampleBuffer(const SampleBuffer& sample) { return append(sample, false); }

bool AssetWriterInput::appendSampleRun(const SampleBuffer& sample) { return append(sample, true); }

bool AssetWriterInput::append(const SampleBuffer& sample, bool eachAlone)
{
    using namespace writer_internal;
    TrackState& t = *state_->track;
    const FormatDescriptionRef& format = sample.formatDescription();
    if (!format || format->mediaType() != t.mediaType || !sample.dataBuffer()) return false;
    auto core = t.core.lock();
    if (!core) return false;
    std::unique_lock lock(core->mutex);
    if (core->status != AssetWriterStatus::Writing || t.finished) return false;

    uint32_t timescale = t.timescale ? t.timescale : chooseTimescale(sample, *format);
    if (timescale == 0) return false;
    SampleLayout layout;
    if (!planLayout(sample, timescale, &layout)) return false;
    // A run stops where one-sample appends would start failing; a buffer stored whole fits
    // whole or not at all.
    const uint64_t room = UINT32_MAX - t.tables.sampleCount();
    eachAlone = eachAlone && layout.uniform && layout.count > 1;
    if (room == 0 || (!eachAlone && layout.count > room)) return false;
    if (!t.hasSamples()) {
        t.format = format;
        t.timescale = timescale;
    }

    const uint8_t* bytes = sample.dataBuffer()->data();
    const auto store = [&t, &bytes](uint64_t bytesStored, uint64_t duration, uint32_t count) {
        if (t.chunk.capacity() == 0) {
            t.chunk = std::move(t.spare);
            t.spare = {};
            t.chunk.reserve(std::max(t.lastChunkBytes, size_t(bytesStored)));
        }
        t.chunk.insert(t.chunk.end(), bytes, bytes + bytesStored);
        bytes += bytesStored;
        t.chunkSamples += count;
        t.chunkDuration += duration;
    };
    bool ok = true;
    if (eachAlone) {
        // As one append per sample: the chunk closes after the very sample that fills it.
        uint64_t left = std::min(layout.count, room);
        while (left > 0) {
            const uint64_t closing = core->samplesToCloseChunk(t, layout.size, layout.delta);
            const uint64_t take = std::min(left, closing);
            t.tables.addSamples(take, layout.size, layout.delta);
            store(take * layout.size, take * layout.delta, uint32_t(take));
            left -= take;
            if (take == closing) {
                ok = core->closeChunkLocked(lock, t);
                if (!ok || core->status != AssetWriterStatus::Writing || t.finished) {
                    ok = false;
                    break;
                }
            }
        }
        ok = ok && layout.count <= room;
    } else {
        if (layout.uniform) {
            t.tables.addSamples(layout.count, layout.size, layout.delta);
        } else {
            for (int64_t i = 0; i < sample.numSamples(); ++i)
                t.tables.addSamples(1, uint32_t(sample.sampleSize(i)),
                                    uint32_t(durationIn(sample.duration(i), timescale)));
        }
        store(layout.bytes, layout.duration, uint32_t(layout.count));
        if (core->chunkFull(t)) ok = core->closeChunkLocked(lock, t);
    }
    core->scheduleOthersLocked(&t);
    return ok && core->status == AssetWriterStatus::Writing;
}

void AssetWriterInput::markAsFinished()
{
    const auto& t = state_->track;
    auto core = t->core.lock();
    if (!core) {
        t->finished = true;
        t->block.reset();
        return;
    }
    std::unique_lock lock(core->mutex);
    if (t->finished) return;
    t->finished = true;
    t->block.reset();  // a running block keeps its own reference
    if (core->status == AssetWriterStatus::Writing) core->closeChunkLocked(lock, *t);
    core->scheduleOthersLocked(t.get());
}

// ---------------------------------------------------------------------------------------
// AssetWriter

namespace {

Error unknownFileType(const std::string& fileType)
{
    return Error{"MovieWriterErrorDomain", -11828, "Cannot write files of type " + fileType};
}

}  // namespace

Result<std::unique_ptr<AssetWriter>> AssetWriter::create(const std::string& path, const std::string& fileType)
{
    if (fileType != kFileTypeQuickTimeMovie) return unknownFileType(fileType);
    auto file = qt::MovieFile::create(path);
    if (!file) return file.error();
    std::unique_ptr<AssetWriter> writer(new AssetWriter());  // NOLINT: private constructor
    writer->impl_ = std::make_unique<Impl>();
    writer->impl_->core->path = path;
    writer->impl_->core->file.emplace(std::move(*file));
    return writer;
}

Result<std::unique_ptr<AssetWriter>> AssetWriter::createOnDescriptor(int fd, const std::string& path,
                                                                     const std::string& fileType)
{
    if (fileType != kFileTypeQuickTimeMovie) {
        ::close(fd);
        return unknownFileType(fileType);
    }
    auto file = qt::MovieFile::createOnDescriptor(fd);
    if (!file) return file.error();
    std::unique_ptr<AssetWriter> writer(new AssetWriter());  // NOLINT: private constructor
    writer->impl_ = std::make_unique<Impl>();
    writer->impl_->core->path = path;
    writer->impl_->core->ownsName = false;
    writer->impl_->core->file.emplace(std::move(*file));
    return writer;
}

bool AssetWriter::fileStartsAsWritten(int fd) { return qt::MovieFile::startsWithHeaders(fd); }

AssetWriter::~AssetWriter()
{
    if (!impl_) return;
    auto& core = *impl_->core;
    std::unique_lock lock(core.mutex);
    for (auto& t : core.tracks) {
        t->finished = true;
        t->block.reset();
    }
    if (core.status == AssetWriterStatus::Unknown || core.status == AssetWriterStatus::Writing)
        core.status = AssetWriterStatus::Cancelled;
    std::lock_guard fileLock(core.fileMutex);
    core.file.reset();  // what was written stays
}

bool AssetWriter::canAddInput(const AssetWriterInput& input) const
{
    auto& core = *impl_->core;
    std::lock_guard lock(core.mutex);
    const auto& t = input.state_->track;
    return core.status == AssetWriterStatus::Unknown && !t->added && !t->finished;
}

void AssetWriter::addInput(std::shared_ptr<AssetWriterInput> input)
{
    if (!input || !canAddInput(*input)) return;
    auto& core = impl_->core;
    std::lock_guard lock(core->mutex);
    const auto& t = input->state_->track;
    t->core = core;
    t->added = true;
    core->tracks.push_back(t);
}

bool AssetWriter::startWriting()
{
    auto& core = *impl_->core;
    std::lock_guard lock(core.mutex);
    if (core.status != AssetWriterStatus::Unknown) return false;
    core.status = AssetWriterStatus::Writing;
    core.scheduleOthersLocked(nullptr);
    return true;
}

void AssetWriter::startSessionAtSourceTime(MediaTime) {}

bool AssetWriter::finishWriting()
{
    auto& core = *impl_->core;
    std::unique_lock lock(core.mutex);
    if (core.status == AssetWriterStatus::Completed) return true;
    if (core.status != AssetWriterStatus::Writing) return false;
    for (auto& t : core.tracks) {
        if (!t->finished) {
            t->finished = true;
            t->block.reset();
        }
        if (!core.closeChunkLocked(lock, *t)) return false;
    }
    if (core.status != AssetWriterStatus::Writing) return false;

    std::vector<qt::TrackInfo> infos;
    for (const auto& t : core.tracks) {
        if (!t->hasSamples()) continue;
        infos.push_back({uint32_t(infos.size() + 1), t->format, t->timescale, &t->tables});
    }
    constexpr uint64_t kSecondsFrom1904To1970 = 2082844800ull;
    uint32_t now = uint32_t(uint64_t(writer_internal::secondsSince1970()) + kSecondsFrom1904To1970);
    std::vector<uint8_t> moov = qt::buildMovieAtom(infos, now);

    std::unique_lock fileLock(core.fileMutex);
    Result<void> finished = core.file ? core.file->finish(moov) : Result<void>(Error{});
    core.file.reset();
    fileLock.unlock();
    if (finished)
        core.status = AssetWriterStatus::Completed;
    else
        core.failLocked(finished.error());
    return finished.ok();
}

void AssetWriter::setClock(std::function<int64_t()> secondsSince1970)
{
    std::lock_guard lock(writer_internal::clockMutex);
    writer_internal::movieClock = std::move(secondsSince1970);
}

void AssetWriter::cancelWriting()
{
    auto& core = *impl_->core;
    std::lock_guard lock(core.mutex);
    if (core.status != AssetWriterStatus::Unknown && core.status != AssetWriterStatus::Writing) return;
    core.status = AssetWriterStatus::Cancelled;
    {
        std::lock_guard fileLock(core.fileMutex);
        core.file.reset();
    }
    if (core.ownsName) ::unlink(core.path.c_str());
    core.scheduleOthersLocked(nullptr);
}

AssetWriterStatus AssetWriter::status() const
{
    std::lock_guard lock(impl_->core->mutex);
    return impl_->core->status;
}

std::optional<Error> AssetWriter::error() const
{
    std::lock_guard lock(impl_->core->mutex);
    return impl_->core->error;
}

const std::string& AssetWriter::outputPath() const { return impl_->core->path; }

}  // namespace corvina
