// Exact media time: a signed 64-bit value over a signed 32-bit timescale, with validity
// flags, as movie files keep time. Arithmetic is exact (rational) wherever the result fits;
// it never goes through floating point except getSeconds().
//
// FrameRate: frames per second as an exact fraction, the one rate type of the tree (movie
// frame timing, timecode).
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
    enum class Rounding { halfAwayFromZero, towardPositiveInfinity };
    // The same instant in another timescale, rounded as asked (kHasBeenRounded set when
    // inexact).
    MediaTime convertScale(int32_t newTimescale, Rounding rounding = Rounding::halfAwayFromZero) const;
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

// Frames per second as an exact fraction numerator / denominator. An NTSC rate keeps the
// form N x 1000 / 1001 (30000/1001, and 7000/1001 although that reduces), so that its
// frames last 1001 units of a timescale of N x 1000; every other rate is in lowest terms
// (25/1, 25/2). A default-made rate is invalid (0/1).
class FrameRate {
public:
    constexpr FrameRate() = default;
    // fps frames a second; invalid unless fps > 0.
    static constexpr FrameRate whole(int64_t fps) { return fps > 0 ? FrameRate(fps, 1) : FrameRate(); }
    // timebase x 1000/1001; invalid unless 0 < timebase and timebase x 1000 fits.
    static constexpr FrameRate ntsc(int64_t timebase)
    {
        return timebase > 0 && timebase <= kMaxNumerator / 1000 ? FrameRate(timebase * 1000, 1001) : FrameRate();
    }
    // num/den in lowest terms (ntsc() for the NTSC form); invalid unless both are positive.
    static FrameRate make(int64_t num, int64_t den);
    // The rate a document's floating-point rate stands for (decisions/frame-rate.md):
    //  - not a number, 0 or less, or above kMaxFramesPerSecond: invalid;
    //  - within a millionth (relative) of a whole number n: n;
    //  - within half a hundredth of N x 1000/1001 for a whole N: ntsc(N), since documents
    //    write these rates to two or three decimals (23.98, 29.97, 59.94, 47.952, 119.88);
    //  - any other rate: its value to the nearest thousandth in lowest terms (12.5 -> 25/2,
    //    7.5 -> 15/2, 12.345 -> 2469/200), the precision documents keep rates in.
    static FrameRate fromDouble(double framesPerSecond);
    // The largest rate fromDouble takes: 1000 x rate must fit a 32-bit timescale.
    static constexpr double kMaxFramesPerSecond = 2147483.0;

    constexpr int64_t numerator() const { return num_; }
    constexpr int64_t denominator() const { return den_; }
    constexpr bool isValid() const { return num_ > 0; }
    constexpr bool isNTSC() const { return den_ == 1001; }
    // Frame numbers a timecode second counts: the rate rounded up (30 for 29.97, 13 for
    // 12.5); 0 when invalid.
    constexpr int64_t timebase() const { return num_ / den_ + (num_ % den_ != 0); }
    double framesPerSecond() const;  // 0.0 when invalid
    // How long one frame lasts: 1000 units of a timescale of 1000 x rate when that is whole
    // (25 -> 1000/25000, 12.5 -> 1000/12500), else den units of a timescale of num (29.97 ->
    // 1001/30000). Invalid when the rate is, or when the timescale would not fit 32 bits.
    MediaTime frameDuration() const;
    // count frames, exactly, in frameDuration()'s timescale; +/- infinity beyond 64 bits.
    MediaTime durationOfFrames(int64_t count) const;

    // Exact comparison of the rates as numbers; invalid rates sort first.
    friend std::strong_ordering operator<=>(FrameRate a, FrameRate b);
    friend bool operator==(FrameRate a, FrameRate b) { return (a <=> b) == 0; }

    std::string description() const;  // "30000/1001", "25/2", "{INVALID}"

private:
    static constexpr int64_t kMaxNumerator = INT64_MAX;
    constexpr FrameRate(int64_t num, int64_t den) : num_(num), den_(den) {}
    int64_t num_ = 0;
    int64_t den_ = 1;
};

}  // namespace corvina
