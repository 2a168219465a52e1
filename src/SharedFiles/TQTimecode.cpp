#include "tq/TQTimecode.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>

namespace corvina::tq {

using corvina::FrameRate;

namespace {
constexpr double kTwo32 = 4294967296.0;
constexpr double kTwo63 = 9223372036854775808.0;
constexpr double kTwo64 = 18446744073709551616.0;

// Conversions from double that never leave the target range: NaN gives 0, values beyond
// the range saturate.
int64_t toInt64(double value)
{
    if (std::isnan(value)) return 0;
    if (value >= kTwo63) return std::numeric_limits<int64_t>::max();
    if (value < -kTwo63) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(value);
}

uint64_t toUInt64(double value)
{
    if (std::isnan(value) || value <= 0.0) return 0;
    if (value >= kTwo64) return std::numeric_limits<uint64_t>::max();
    return static_cast<uint64_t>(value);
}

// Truncates toward zero to a signed 32-bit integer, wrapping modulo 2^32.
double trunc32(double value)
{
    if (!std::isfinite(value)) return 0.0;
    double wrapped = std::fmod(std::trunc(value), kTwo32);  // exact
    if (wrapped < 0.0) wrapped += kTwo32;
    if (wrapped >= kTwo32 / 2) wrapped -= kTwo32;
    return wrapped;
}

// Two's-complement arithmetic on counts: out-of-range input wraps instead of overflowing.
int64_t wrapAdd(int64_t a, int64_t b)
{
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
int64_t wrapSub(int64_t a, int64_t b)
{
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}
int64_t wrapMul(int64_t a, int64_t b)
{
    return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

FrameRate effectiveRate(FrameRate rate) { return rate.isValid() ? rate : FrameRate::ntsc(30); }
int64_t effectiveStartFrame(int64_t startFrame) { return startFrame < 0 ? TQTimecode::kDefaultStartFrame : startFrame; }

std::string formatTimecode(long hours, long minutes, long seconds, long frames, bool dropFrame)
{
    char text[96];
    // Fields of at least two digits; negative fields keep their sign ("-01").
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    int length = dropFrame
                     ? std::snprintf(text, sizeof text, "%0.2li:%0.2li:%0.2li;%0.2li", hours, minutes, seconds, frames)
                     : std::snprintf(text, sizeof text, "%0.2li:%0.2li:%0.2li:%0.2li", hours, minutes, seconds, frames);
#pragma GCC diagnostic pop
    if (length < 0) return {};
    return std::string(text, static_cast<size_t>(length) < sizeof text ? length : sizeof text - 1);
}

// --- UTF-8 helpers: character lengths count code points --------------------------------

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

size_t characterCount(std::string_view text)
{
    size_t count = 0;
    for (char c : text)
        if (!isContinuation(c)) ++count;
    return count;
}

// Byte offset of the character with index `index` (text.size() when beyond the end).
size_t offsetOfCharacter(std::string_view text, size_t index)
{
    size_t seen = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (isContinuation(text[i])) continue;
        if (seen == index) return i;
        ++seen;
    }
    return text.size();
}

// Length in bytes of a white-space or newline character at `pos` (Unicode separators,
// tab to carriage return and U+0085), 0 when the character there is something else.
size_t spaceLengthAt(std::string_view text, size_t pos)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char c = byte(pos);
    if (c == ' ' || (c >= '\t' && c <= '\r')) return 1;
    if (c == 0xC2 && pos + 1 < text.size()) {
        const unsigned char c1 = byte(pos + 1);
        return (c1 == 0x85 || c1 == 0xA0) ? 2 : 0;
    }
    if (pos + 2 >= text.size()) return 0;
    const unsigned char c1 = byte(pos + 1), c2 = byte(pos + 2);
    if (c == 0xE1 && c1 == 0x9A && c2 == 0x80) return 3;  // U+1680
    if (c == 0xE2 && c1 == 0x80 && (c2 <= 0x8A || c2 == 0xA8 || c2 == 0xA9 || c2 == 0xAF))
        return 3;                                         // U+2000-200A, 2028, 2029, 202F
    if (c == 0xE2 && c1 == 0x81 && c2 == 0x9F) return 3;  // U+205F
    if (c == 0xE3 && c1 == 0x80 && c2 == 0x80) return 3;  // U+3000
    return 0;
}

size_t trailingSpaceLength(std::string_view text)
{
    // Longest space character that ends the text.
    for (size_t width = 1; width <= 3 && width <= text.size(); ++width) {
        const size_t pos = text.size() - width;
        if (spaceLengthAt(text, pos) == width) return width;
    }
    return 0;
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty()) {
        const size_t n = spaceLengthAt(text, 0);
        if (n == 0) break;
        text.remove_prefix(n);
    }
    while (!text.empty()) {
        const size_t n = trailingSpaceLength(text);
        if (n == 0) break;
        text.remove_suffix(n);
    }
    return text;
}

// The usual leading-integer reading: leading white space, an optional sign, digits; text
// that is no number reads as 0 and values beyond 64 bits saturate.
int64_t leadingInteger(std::string_view text)
{
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t n = spaceLengthAt(text, pos);
        if (n == 0) break;
        pos += n;
    }
    bool negative = false;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) negative = text[pos++] == '-';
    uint64_t magnitude = 0;
    bool saturated = false;
    const uint64_t limit = negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1;
    for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
        const uint64_t digit = static_cast<uint64_t>(text[pos] - '0');
        if (saturated || magnitude > (limit - digit) / 10) {
            saturated = true;
            continue;
        }
        magnitude = magnitude * 10 + digit;
    }
    if (saturated) magnitude = limit;
    return negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
}

}  // namespace

double modulus(double x, double y) { return x - trunc32(x / y) * y; }

// --- Drop frame -------------------------------------------------------------------------

uint64_t TQTimecode::addDroppedFrames(uint64_t frames, FrameRate rate)
{
    const double fps = rate.framesPerSecond();
    // Rates at which the per-ten-minute or per-minute counts are not positive drop nothing.
    const double dropsPerMinute = std::round(fps * 0.06666666666666667);
    const double perTenMinutes = std::round(fps * 60 * 10);
    const double perMinute = std::round(fps) * 60 - dropsPerMinute;
    if (!(dropsPerMinute > 0) || !(perTenMinutes >= 1) || !(perMinute >= 1) || perTenMinutes >= kTwo63 ||
        perMinute >= kTwo63)
        return frames;

    const auto d = static_cast<int64_t>(dropsPerMinute);
    const auto T = static_cast<uint64_t>(perTenMinutes);
    const uint64_t D = frames / T;
    const uint64_t M = frames % T;
    const double base = static_cast<double>(frames) + 9.0 * dropsPerMinute * static_cast<double>(D);
    // M < T < 2^63, so the signed difference is exact.
    const int64_t intoBlock = static_cast<int64_t>(M) - d;
    if (intoBlock <= 0) return toUInt64(base);
    const auto P = static_cast<int64_t>(perMinute);
    return toUInt64(base + dropsPerMinute * static_cast<double>(intoBlock / P));
}

uint64_t TQTimecode::subtractDroppedFrames(uint64_t frames, FrameRate rate)
{
    // The smallest real count whose number (drops inserted) reaches `frames`: for every number
    // that exists this is its own count, and a number that drop-frame numbering skips reads as
    // the next frame that exists. Reading the number as if it were a real count estimates the
    // drops it holds to within a minute's drops; a short walk makes it exact, since numbering
    // grows with the count.
    const uint64_t drops = addDroppedFrames(frames, rate) - frames;
    uint64_t n = addDroppedFrames(drops, rate) + frames - 2 * drops;
    if (n > frames) n = frames;
    constexpr int kMaxSteps = 256;
    int steps = 0;
    while (n > 0 && addDroppedFrames(n - 1, rate) >= frames && ++steps < kMaxSteps) --n;
    while (addDroppedFrames(n, rate) < frames && n < frames && ++steps < kMaxSteps) ++n;
    if (steps < kMaxSteps) return n;
    // Far beyond any timecode (double precision no longer tells neighbours apart): bisect.
    uint64_t low = 0, high = frames;
    while (low < high) {
        const uint64_t mid = low + (high - low) / 2;
        if (addDroppedFrames(mid, rate) < frames)
            low = mid + 1;
        else
            high = mid;
    }
    return low;
}

// --- Frame counts and timecodes ---------------------------------------------------------

std::string TQTimecode::timecodeFromFrameCount(int64_t count, FrameRate rate, bool dropFrame, int64_t startFrame)
{
    rate = effectiveRate(rate);
    const double tb = static_cast<double>(rate.timebase());
    int64_t n = wrapAdd(count, effectiveStartFrame(startFrame));
    if (dropFrame) n = static_cast<int64_t>(addDroppedFrames(static_cast<uint64_t>(n), rate));
    const double x = static_cast<double>(n) / tb;
    const int64_t s = toInt64(std::floor(x));
    const int64_t f = toInt64(std::floor(modulus(static_cast<double>(n), tb)));
    return formatTimecode(static_cast<long>((s / 3600) % 24), static_cast<long>((s / 60) % 60),
                          static_cast<long>(s % 60), static_cast<long>(f), dropFrame);
}

int64_t TQTimecode::frameCountFromTimecode(std::string_view timecode, FrameRate rate, bool dropFrame,
                                           int64_t startFrame)
{
    const std::string_view text = trimmed(timecode);
    int64_t fields[4] = {};
    size_t parts = 0;
    size_t begin = 0;
    for (size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] != ':' && text[i] != ';') continue;
        if (parts < 4) fields[parts] = leadingInteger(text.substr(begin, i - begin));
        ++parts;
        begin = i + 1;
    }
    if (parts < 4) return 0;

    rate = effectiveRate(rate);
    const int64_t seconds = wrapAdd(wrapAdd(wrapMul(fields[0], 3600), wrapMul(fields[1], 60)), fields[2]);
    int64_t n = wrapAdd(wrapMul(seconds, rate.timebase()), fields[3]);
    if (dropFrame) n = static_cast<int64_t>(subtractDroppedFrames(static_cast<uint64_t>(n), rate));
    return wrapSub(n, effectiveStartFrame(startFrame));
}

std::string TQTimecode::timecode(std::string_view timecode, int64_t incrementBy, FrameRate rate, bool dropFrame)
{
    const int64_t count = frameCountFromTimecode(timecode, rate, dropFrame, 0);
    return timecodeFromFrameCount(wrapAdd(count, incrementBy), rate, dropFrame, 0);
}

std::string TQTimecode::addTimecode(std::string_view a, std::string_view toTimecode, FrameRate rate, bool dropFrame)
{
    const int64_t sum =
        wrapAdd(frameCountFromTimecode(a, rate, dropFrame, 0), frameCountFromTimecode(toTimecode, rate, dropFrame, 0));
    return timecodeFromFrameCount(sum, rate, dropFrame, 0);
}

std::optional<std::string> TQTimecode::subtractTimecode(std::string_view a, std::string_view fromTimecode,
                                                        FrameRate rate, bool dropFrame)
{
    const int64_t subtrahend = frameCountFromTimecode(a, rate, dropFrame, 0);
    const int64_t minuend = frameCountFromTimecode(fromTimecode, rate, dropFrame, 0);
    if (static_cast<uint64_t>(minuend) < static_cast<uint64_t>(subtrahend)) return std::nullopt;
    return timecodeFromFrameCount(wrapSub(minuend, subtrahend), rate, dropFrame, 0);
}

bool TQTimecode::timecodeInRange(std::string_view timecode, std::string_view start, std::string_view end)
{
    if (timecode == start || timecode == end) return true;
    const auto weigh = [](std::string_view text) {
        return static_cast<uint64_t>(frameCountFromTimecode(text, FrameRate::whole(24), false, 0));
    };
    const uint64_t value = weigh(timecode);
    return weigh(start) <= value && value <= weigh(end);
}

FrameRate TQTimecode::frameRateFromTimebase(int64_t timebase, bool isNTSC)
{
    if (!isNTSC) return FrameRate::whole(timebase);
    if (timebase == 24 || timebase == 30 || timebase == 60) return FrameRate::ntsc(timebase);
    return {};
}

// --- Timecode strings from other sources ------------------------------------------------

std::string TQTimecode::timecodeFromUserString(const std::optional<std::string>& text, bool dropFrame,
                                               const std::optional<std::string>& startTimecode)
{
    const std::string_view typed = text ? std::string_view(*text) : std::string_view();
    if (characterCount(typed) == 11) return std::string(typed);

    // A trailing run of separators stands for pairs of zeros. Every replacement ends in a
    // digit, so once one rule fires no later suffix can match.
    struct Shorthand {
        std::string_view suffix, replacement;
    };
    static constexpr Shorthand kShorthands[] = {
        {"....", "00000000"}, {"...", ".000000"}, {"..", ".0000"}, {".", ".00"},
        {",,,,", "00000000"}, {",,,", ",000000"}, {",,", ",0000"}, {",", ",00"},
    };
    std::string_view head = typed, tail;
    for (const Shorthand& rule : kShorthands) {
        if (head.ends_with(rule.suffix)) {
            head.remove_suffix(rule.suffix.size());
            tail = rule.replacement;
            break;
        }
    }
    const size_t expandedSize = head.size() + tail.size();
    const auto at = [&](size_t i) { return i < head.size() ? head[i] : tail[i - head.size()]; };

    // Join the pieces between "." and ","; a one-character piece gets a "0" in front.
    // Typed ":" and ";" are dropped after that decision.
    std::string result;
    result.reserve(expandedSize + expandedSize / 2 + 16);
    size_t pieceStart = 0;
    for (size_t i = 0; i <= expandedSize; ++i) {
        if (i < expandedSize && at(i) != '.' && at(i) != ',') continue;
        size_t pieceCharacters = 0;
        for (size_t j = pieceStart; j < i && pieceCharacters < 2; ++j)
            if (!isContinuation(at(j))) ++pieceCharacters;
        if (pieceCharacters == 1) result.push_back('0');
        for (size_t j = pieceStart; j < i; ++j)
            if (at(j) != ':' && at(j) != ';') result.push_back(at(j));
        pieceStart = i + 1;
    }

    size_t length = characterCount(result);
    if (length >= 9) {
        result.erase(0, offsetOfCharacter(result, length - 8));
        length = 8;
    }

    if (length >= 3) {
        // At most 8 characters of at most 4 bytes each.
        char digits[40];
        const size_t digitBytes = result.size() < sizeof digits ? result.size() : sizeof digits;
        result.copy(digits, digitBytes);
        const std::string_view source(digits, digitBytes);
        result.clear();
        size_t pos = 0;
        if (length % 2 == 1) {
            pos = offsetOfCharacter(source, 1);
            result.push_back('0');
            result.append(source.substr(0, pos));
        }
        for (size_t index = length % 2; index < length; index += 2) {
            const size_t end = offsetOfCharacter(source, index + 2);
            if (index + 2 >= length)
                result.push_back(dropFrame ? ';' : ':');
            else if (index != 0)
                result.push_back(':');
            result.append(source.substr(pos, end - pos));
            pos = end;
        }
        length = characterCount(result);
    }

    std::string_view start = startTimecode ? std::string_view(*startTimecode) : std::string_view();
    if (start.empty()) start = dropFrame ? "00:00:00;00" : "00:00:00:00";
    const size_t startLength = characterCount(start);
    if (startLength > length) result.insert(0, start.substr(0, offsetOfCharacter(start, startLength - length)));
    return result;
}

std::string TQTimecode::timecodeFromSeconds(double seconds, FrameRate rate, bool dropFrame)
{
    const uint64_t frames = toUInt64(std::round(seconds * rate.framesPerSecond()));
    return timecodeFromFrameCount(static_cast<int64_t>(frames), rate, dropFrame, 0);
}

std::string TQTimecode::timeOfDayTimecode(FrameRate rate, bool dropFrame)
{
    return timeOfDayTimecode(std::chrono::system_clock::now(), rate, dropFrame);
}

std::string TQTimecode::timeOfDayTimecode(std::chrono::system_clock::time_point when, FrameRate frameRate,
                                          bool dropFrame)
{
    const double rate = frameRate.framesPerSecond();
    const auto sinceEpoch = when.time_since_epoch();
    const auto wholeSeconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    const std::time_t clock = static_cast<std::time_t>(wholeSeconds.count());
    std::tm local{};
    if (localtime_r(&clock, &local) == nullptr) return {};
    // Hundredths of the second, truncated, like a two-digit fraction field.
    const auto hundredths =
        std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - wholeSeconds).count() / 10;
    const int64_t frames = toInt64(std::floor(static_cast<double>(hundredths) / 100.0 * rate));

    const auto field = [](int64_t value) { return value < 10 ? "0" : ""; };
    char text[128];
    const int length = std::snprintf(
        text, sizeof text, "%s%li:%s%li:%s%li%s%s%li", field(local.tm_hour), static_cast<long>(local.tm_hour),
        field(local.tm_min), static_cast<long>(local.tm_min), field(local.tm_sec), static_cast<long>(local.tm_sec),
        dropFrame ? ";" : ":", field(frames), static_cast<long>(frames));
    if (length < 0) return {};
    return std::string(text, static_cast<size_t>(length) < sizeof text ? length : sizeof text - 1);
}

std::optional<std::string> TQTimecode::sanitizeTimecodeForFilename(const std::optional<std::string>& timecode)
{
    if (!timecode) return std::nullopt;
    std::string result = *timecode;
    for (char& c : result)
        if (c == ':' || c == ';') c = '.';
    return result;
}

}  // namespace corvina::tq
