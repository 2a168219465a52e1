#include "QuickTime/TrackTables.h"

namespace corvina::qt {

void TrackTables::addChunk(uint64_t offset, uint32_t samplesInChunk)
{
    offsets_.push_back(offset);
    if (stsc_.empty() || stsc_.back().samplesPerChunk != samplesInChunk)
        stsc_.push_back({uint32_t(offsets_.size()), samplesInChunk});
}

}  // namespace corvina::qt
