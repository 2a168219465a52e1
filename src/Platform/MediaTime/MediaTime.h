// Exact media time: a signed 64-bit value over a signed 32-bit timescale, with validity
// flags, as movie files keep time. Arithmetic is exact (rational) wherever the result fits;
// it never goes through floating point except getSeconds().
#pragma once

#include <compare>
#include <cstdint>
#include <string>

namespace corvina {

struct MediaTime {
    enum Flags : uint32_t {
        kValid = 1,
        kHasBeenRounded = 2,
        kPositiveInfinity = 4,
        kNegativeInfinity = 8,
        kIndefinite = 16,
    };

    int64_t value = 0;
    int32_t timescale = 0;
    uint32_t flags = 0;
    int64_t epoch = 0;

    static constexpr MediaTime make(int64_t value, int32_t timescale)
    {
        // A timescale of 0 or less makes an invalid time, as on the platform.
        return timescale > 0 ? MediaTime{value, timescale, kValid, 0} : MediaTime{};
    }
    static constexpr MediaTime zero() { return MediaTime{0, 1, kValid, 0}; }
    static constexpr MediaTime invalid() { return MediaTime{}; }
    static constexpr MediaTime positiveInfinity() { return MediaTime{0, 0, kValid | kPositiveInfinity, 0}; }
    static constexpr MediaTime indefinite() { return MediaTime{0, 0, kValid | kIndefinite, 0}; }

    constexpr bool isValid() const { return (flags & kValid) != 0; }
    constexpr bool isNumeric() const
    {
        return (flags & (kValid | kPositiveInfinity | kNegativeInfinity | kIndefinite)) == kValid;
    }
    double getSeconds() const;  // NaN for invalid or indefinite times
    // The same instant in another timescale, rounded half away from zero (kHasBeenRounded set
    // when inexact).
    MediaTime convertScale(int32_t newTimescale) const;
    std::string description() const;  // "{3003/30000 = 0.100}" or "{INVALID}"
};

// Exact sum and difference (common timescale = lcm when it fits in 32 bits, else the larger
// one with rounding). Invalid in, invalid out.
MediaTime operator+(MediaTime a, MediaTime b);
MediaTime operator-(MediaTime a, MediaTime b);
MediaTime operator*(MediaTime t, int32_t multiplier);
// Orders numeric times exactly; invalid sorts before everything, as on the platform.
int compare(MediaTime a, MediaTime b);
inline bool operator==(MediaTime a, MediaTime b) { return compare(a, b) == 0; }
inline std::strong_ordering operator<=>(MediaTime a, MediaTime b) { return compare(a, b) <=> 0; }

}  // namespace corvina
