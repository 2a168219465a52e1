#include "Foundation/LargeBuffer.h"

#include <sys/mman.h>

#include <new>

namespace corvina {

void* allocateLargeBuffer(size_t bytes, size_t ordinaryBytes)
{
    if (bytes < 2 * kHugePageBytes) return ::operator new(bytes);
    void* buffer = ::operator new(bytes, std::align_val_t(kHugePageBytes));
    const size_t from = (ordinaryBytes + kHugePageBytes - 1) & ~(kHugePageBytes - 1);
    if (from < bytes)
        ::madvise(static_cast<char*>(buffer) + from, (bytes - from) & ~(kHugePageBytes - 1), MADV_HUGEPAGE);
    return buffer;
}

void adviseHugePages(void* block, size_t bytes) noexcept
{
    if (block == nullptr || bytes < 2 * kHugePageBytes) return;
    const uintptr_t start = (reinterpret_cast<uintptr_t>(block) + kHugePageBytes - 1) & ~(kHugePageBytes - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + bytes) & ~(kHugePageBytes - 1);
    if (end > start) ::madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
}

void freeLargeBuffer(void* buffer, size_t bytes) noexcept
{
    if (bytes < 2 * kHugePageBytes)
        ::operator delete(buffer);
    else
        ::operator delete(buffer, std::align_val_t(kHugePageBytes));
}

}  // namespace corvina
