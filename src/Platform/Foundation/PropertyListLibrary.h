// Private to the property-list reader and writer: the libplist handles they share and the
// limits both keep. Nothing outside Foundation's property-list files includes it.
#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace corvina::plist_detail {

// Seconds between 1970-01-01 and 2001-01-01, the epoch of property-list dates.
constexpr int64_t kPlistEpoch = 978307200;
// Property lists nested deeper than this are refused rather than recursed into.
constexpr int kMaxDepth = 512;

struct PlistFree {
    void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

struct CFree {
    void operator()(void* p) const { std::free(p); }
};
template <class T>
using CPtr = std::unique_ptr<T, CFree>;

}  // namespace corvina::plist_detail
