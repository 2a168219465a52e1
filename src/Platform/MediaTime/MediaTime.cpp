#include "MediaTime/MediaTime.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numeric>

namespace corvina {

namespace {

using i128 = __int128;

constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();
constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();

bool fitsInt64(i128 v) { return v >= i128(kInt64Min) && v <= i128(kInt64Max); }

// value * num / den (den > 0) rounded as asked; sets *inexact when a remainder was dropped.
i128 scaleRounded(i128 value, i128 num, i128 den, bool* inexact,
                  MediaTime::Rounding rounding = MediaTime::Rounding::halfAwayFromZero)
{
    i128 product = value * num;
    i128 quotient = product / den;
    i128 remainder = product % den;
    if (remainder != 0) {
        *inexact = true;
        if (rounding == MediaTime::Rounding::towardPositiveInfinity) {
            if (remainder > 0) quotient += 1;
        } else {
            i128 twice = remainder < 0 ? -remainder * 2 : remainder * 2;
            if (twice >= den) quotient += product < 0 ? -1 : 1;
        }
    }
    return quotient;
}

MediaTime saturated(i128 v)
{
    return v > 0 ? MediaTime::positiveInfinity() : MediaTime{0, 0, MediaTime::kValid | MediaTime::kNegativeInfinity, 0};
}

// Non-numeric operands of + and -: the platform's rules, reduced to what callers meet.
bool nonNumericResult(MediaTime a, MediaTime b, bool subtract, MediaTime* out)
{
    if (!a.isValid() || !b.isValid()) {
        *out = MediaTime::invalid();
        return true;
    }
    if (a.isNumeric() && b.isNumeric()) return false;
    if ((a.flags & MediaTime::kIndefinite) || (b.flags & MediaTime::kIndefinite)) {
        *out = MediaTime::indefinite();
        return true;
    }
    auto sign = [](MediaTime t) {
        if (t.flags & MediaTime::kPositiveInfinity) return 1;
        if (t.flags & MediaTime::kNegativeInfinity) return -1;
        return 0;
    };
    int sa = sign(a);
    int sb = subtract ? -sign(b) : sign(b);
    if (sa != 0 && sb != 0 && sa != sb) {
        *out = MediaTime::indefinite();
        return true;
    }
    int s = sa != 0 ? sa : sb;
    *out = s > 0 ? MediaTime::positiveInfinity() : MediaTime{0, 0, MediaTime::kValid | MediaTime::kNegativeInfinity, 0};
    return true;
}

MediaTime addNumeric(MediaTime a, MediaTime b, bool subtract)
{
    int64_t g = std::gcd(int64_t(a.timescale), int64_t(b.timescale));
    int64_t lcm = int64_t(a.timescale) / g * int64_t(b.timescale);
    bool inexact = false;
    int32_t scale;
    i128 va, vb;
    if (lcm <= std::numeric_limits<int32_t>::max()) {
        scale = int32_t(lcm);
        va = i128(a.value) * (lcm / a.timescale);
        vb = i128(b.value) * (lcm / b.timescale);
    } else {
        scale = a.timescale > b.timescale ? a.timescale : b.timescale;
        va = scaleRounded(a.value, scale, a.timescale, &inexact);
        vb = scaleRounded(b.value, scale, b.timescale, &inexact);
    }
    i128 sum = subtract ? va - vb : va + vb;
    if (!fitsInt64(sum)) {
        return sum > 0 ? MediaTime::positiveInfinity()
                       : MediaTime{0, 0, MediaTime::kValid | MediaTime::kNegativeInfinity, 0};
    }
    MediaTime r = MediaTime::make(int64_t(sum), scale);
    if (inexact || (a.flags & MediaTime::kHasBeenRounded) || (b.flags & MediaTime::kHasBeenRounded))
        r.flags |= MediaTime::kHasBeenRounded;
    return r;
}

}  // namespace

double MediaTime::getSeconds() const
{
    if (!isValid() || (flags & kIndefinite)) return std::nan("");
    if (flags & kPositiveInfinity) return std::numeric_limits<double>::infinity();
    if (flags & kNegativeInfinity) return -std::numeric_limits<double>::infinity();
    return double(value) / double(timescale);
}

MediaTime MediaTime::convertScale(int32_t newTimescale, Rounding rounding) const
{
    if (!isValid() || newTimescale <= 0) return invalid();
    if (!isNumeric()) return *this;
    if (newTimescale == timescale) return *this;
    bool inexact = false;
    i128 v = scaleRounded(value, newTimescale, timescale, &inexact, rounding);
    if (!fitsInt64(v)) return v > 0 ? positiveInfinity() : MediaTime{0, 0, kValid | kNegativeInfinity, 0};
    MediaTime r = make(int64_t(v), newTimescale);
    if (inexact || (flags & kHasBeenRounded)) r.flags |= kHasBeenRounded;
    return r;
}

std::string MediaTime::description() const
{
    if (!isValid()) return "{INVALID}";
    if (flags & kIndefinite) return "{INDEFINITE}";
    if (flags & kPositiveInfinity) return "{+INFINITY}";
    if (flags & kNegativeInfinity) return "{-INFINITY}";
    char text[96];
    std::snprintf(text, sizeof text, "{%" PRId64 "/%" PRId32 " = %.3f%s}", value, timescale, getSeconds(),
                  (flags & kHasBeenRounded) ? ", rounded" : "");
    return text;
}

MediaTime operator+(MediaTime a, MediaTime b)
{
    MediaTime r;
    if (nonNumericResult(a, b, false, &r)) return r;
    return addNumeric(a, b, false);
}

MediaTime operator-(MediaTime a, MediaTime b)
{
    MediaTime r;
    if (nonNumericResult(a, b, true, &r)) return r;
    return addNumeric(a, b, true);
}

MediaTime operator*(MediaTime t, int32_t multiplier)
{
    if (!t.isValid()) return MediaTime::invalid();
    if (!t.isNumeric()) {
        if (t.flags & MediaTime::kIndefinite) return t;
        if (multiplier == 0) return MediaTime::indefinite();
        bool positive = ((t.flags & MediaTime::kPositiveInfinity) != 0) == (multiplier > 0);
        return positive ? MediaTime::positiveInfinity()
                        : MediaTime{0, 0, MediaTime::kValid | MediaTime::kNegativeInfinity, 0};
    }
    i128 v = i128(t.value) * multiplier;
    if (!fitsInt64(v)) {
        return v > 0 ? MediaTime::positiveInfinity()
                     : MediaTime{0, 0, MediaTime::kValid | MediaTime::kNegativeInfinity, 0};
    }
    MediaTime r = t;
    r.value = int64_t(v);
    return r;
}

int compare(MediaTime a, MediaTime b)
{
    auto rank = [](MediaTime t) {
        if (!t.isValid()) return 0;
        if (t.flags & MediaTime::kNegativeInfinity) return 1;
        if (t.flags & MediaTime::kPositiveInfinity) return 3;
        if (t.flags & MediaTime::kIndefinite) return 4;
        return 2;
    };
    int ra = rank(a), rb = rank(b);
    if (ra != rb) return ra < rb ? -1 : 1;
    if (ra != 2) return 0;
    i128 l = i128(a.value) * b.timescale;
    i128 r = i128(b.value) * a.timescale;
    return l < r ? -1 : (l > r ? 1 : 0);
}

// --- FrameRate ---------------------------------------------------------------------------

namespace {

constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();
// A rate this close (relative) to a whole number is that number: float keeps about seven
// digits, so a whole rate read from a document is exact or a few parts in 10^8 off.
constexpr double kWholeTolerance = 1e-6;
// A rate this close to N x 1000/1001 is that NTSC rate: documents round these rates to two
// decimals (23.98) or three (23.976), never further off than half a hundredth.
constexpr double kNTSCTolerance = 0.005;

}  // namespace

FrameRate FrameRate::make(int64_t num, int64_t den)
{
    if (num <= 0 || den <= 0) return {};
    if (den == 1001 && num % 1000 == 0) return ntsc(num / 1000);
    const int64_t g = std::gcd(num, den);
    return FrameRate(num / g, den / g);
}

FrameRate FrameRate::fromDouble(double fps)
{
    if (!(fps > 0.0) || !(fps <= kMaxFramesPerSecond)) return {};
    const double nearestWhole = std::round(fps);
    if (nearestWhole >= 1.0 && std::fabs(fps - nearestWhole) <= kWholeTolerance * nearestWhole)
        return whole(int64_t(nearestWhole));
    const double timebase = std::round(fps * 1.001);
    if (timebase >= 1.0 && std::fabs(fps - timebase * 1000.0 / 1001.0) < kNTSCTolerance) return ntsc(int64_t(timebase));
    return make(int64_t(std::round(fps * 1000.0)), 1000);
}

double FrameRate::framesPerSecond() const { return isValid() ? double(num_) / double(den_) : 0.0; }

MediaTime FrameRate::frameDuration() const
{
    if (!isValid()) return MediaTime::invalid();
    const i128 scaled = i128(num_) * 1000;
    if (scaled % den_ == 0 && scaled / den_ <= kInt32Max) return MediaTime::make(1000, int32_t(scaled / den_));
    if (num_ <= kInt32Max) return MediaTime::make(den_, int32_t(num_));
    return MediaTime::invalid();
}

MediaTime FrameRate::durationOfFrames(int64_t count) const
{
    MediaTime one = frameDuration();
    if (!one.isValid()) return one;
    const i128 v = i128(one.value) * count;
    if (!fitsInt64(v)) return saturated(v);
    one.value = int64_t(v);
    return one;
}

std::strong_ordering operator<=>(FrameRate a, FrameRate b)
{
    if (!a.isValid() || !b.isValid()) return a.isValid() <=> b.isValid();
    return i128(a.num_) * b.den_ <=> i128(b.num_) * a.den_;
}

std::string FrameRate::description() const
{
    if (!isValid()) return "{INVALID}";
    return std::to_string(num_) + "/" + std::to_string(den_);
}

}  // namespace corvina
