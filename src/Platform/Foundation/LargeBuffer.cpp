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

void freeLargeBuffer(void* buffer, size_t bytes) noexcept
{
    if (bytes < 2 * kHugePageBytes)
        ::operator delete(buffer);
    else
        ::operator delete(buffer, std::align_val_t(kHugePageBytes));
}

}  // namespace corvina
