#include "Date.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>

namespace corvina {

namespace {

// Floor division of a time point into whole seconds since the epoch (dates before 1970 too).
long long secondsOf(Date date) { return std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count(); }

void put2(char* p, int v)
{
    p[0] = static_cast<char>('0' + v / 10 % 10);
    p[1] = static_cast<char>('0' + v % 10);
}

// Writes "yyyy-MM-dd HH:mm:ss +0000" (25 characters) and returns its length.
size_t writeDescription(long long seconds, char* out)
{
    const time_t t = static_cast<time_t>(seconds);
    struct tm tm {};
    if (!gmtime_r(&t, &tm)) {
        std::memcpy(out, "0000-00-00 00:00:00 +0000", 25);
        return 25;
    }
    const long long year = tm.tm_year + 1900LL;
    size_t n = 0;
    if (year >= 0 && year <= 9999) {
        out[0] = static_cast<char>('0' + year / 1000);
        out[1] = static_cast<char>('0' + year / 100 % 10);
        out[2] = static_cast<char>('0' + year / 10 % 10);
        out[3] = static_cast<char>('0' + year % 10);
        n = 4;
    } else {
        n = static_cast<size_t>(std::to_chars(out, out + 12, year).ptr - out);
    }
    out[n] = '-';
    put2(out + n + 1, tm.tm_mon + 1);
    out[n + 3] = '-';
    put2(out + n + 4, tm.tm_mday);
    out[n + 6] = ' ';
    put2(out + n + 7, tm.tm_hour);
    out[n + 9] = ':';
    put2(out + n + 10, tm.tm_min);
    out[n + 12] = ':';
    put2(out + n + 13, tm.tm_sec);
    std::memcpy(out + n + 15, " +0000", 6);
    return n + 21;
}

bool readInt(std::string_view text, size_t& i, size_t digits, int& value)
{
    if (i + digits > text.size()) return false;
    value = 0;
    for (size_t k = 0; k < digits; ++k) {
        const char c = text[i + k];
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    i += digits;
    return true;
}

bool expect(std::string_view text, size_t& i, char c)
{
    if (i >= text.size() || text[i] != c) return false;
    ++i;
    return true;
}

}  // namespace

std::string dateDescription(Date date)
{
    char buf[40];
    const size_t n = writeDescription(secondsOf(date), buf);
    return std::string(buf, n);
}

std::optional<Date> dateFromDescription(std::string_view text)
{
    size_t i = 0;
    int year, mon, day, hour, min, sec, zone;
    if (!readInt(text, i, 4, year) || !expect(text, i, '-') || !readInt(text, i, 2, mon) || !expect(text, i, '-') ||
        !readInt(text, i, 2, day) || !expect(text, i, ' ') || !readInt(text, i, 2, hour) || !expect(text, i, ':') ||
        !readInt(text, i, 2, min) || !expect(text, i, ':') || !readInt(text, i, 2, sec) || !expect(text, i, ' '))
        return std::nullopt;
    if (i >= text.size() || (text[i] != '+' && text[i] != '-')) return std::nullopt;
    const int sign = text[i++] == '-' ? -1 : 1;
    if (!readInt(text, i, 4, zone) || i != text.size()) return std::nullopt;
    if (mon < 1 || mon > 12 || day < 1 || day > 31 || hour > 23 || min > 59 || sec > 60 || zone % 100 > 59)
        return std::nullopt;
    struct tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = mon - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_sec = sec;
    const time_t t = timegm(&tm);
    const long long offset = sign * ((zone / 100) * 3600LL + (zone % 100) * 60LL);
    return Date(std::chrono::seconds(static_cast<long long>(t) - offset));
}

std::string_view CachedDateFormatter::now() { return format(Clock::now()); }

std::string_view CachedDateFormatter::format(Date date)
{
    const long long s = secondsOf(date);
    if (s != second_) {
        char buf[48];
        const size_t n = std::min(writeDescription(s, buf), sizeof text_ - 1);
        std::memcpy(text_, buf, n);
        text_[n] = 0;
        second_ = s;
    }
    return std::string_view(text_);
}

}  // namespace corvina
