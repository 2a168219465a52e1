#include "tq/TQLogSink.h"

namespace corvina::tq {

void TQLogTexts::materialize(size_t from)
{
    if (deferred_ == 0) return;
    for (size_t i = from; i < slots_.size(); ++i) {
        Slot& slot = slots_[i];
        if (!(slot.offset & kDeferred)) continue;
        const size_t start = bytes_.size();
        maker_(slot.data, slot.offset & ~kDeferred, bytes_);
        // The size was measured without making the text; the text made is what counts.
        assert(bytes_.size() - start == slot.size);
        slot = {nullptr, bytes_.size() - start, start};
        if (--deferred_ == 0) break;
    }
}

void TQLogTexts::trim(size_t keepBytes)
{
    if (bytes_.capacity() > keepBytes) {
        bytes_.clear();
        bytes_.shrink_to_fit();
    }
    if (slots_.capacity() * sizeof(Slot) > keepBytes) {
        slots_.clear();
        slots_.shrink_to_fit();
    }
}

void TQLogMemorySink::write(TQLogTexts& texts)
{
    uint64_t bytes = 0;
    for (size_t i = 0; i < texts.size(); ++i) bytes += texts.sizeAt(i);
    std::lock_guard<std::mutex> lock(mutex_);
    count_ += texts.size();
    bytes_ += bytes;
    if (!keepTexts_) return;
    texts.materialize(0);
    for (size_t i = 0; i < texts.size(); ++i) texts_.emplace_back(texts[i]);
}

std::vector<std::string> TQLogMemorySink::texts() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
}

uint64_t TQLogMemorySink::count() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}

uint64_t TQLogMemorySink::bytes() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return bytes_;
}

}  // namespace corvina::tq
