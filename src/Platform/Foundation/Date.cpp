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

}  // namespace

std::string dateDescription(Date date)
{
    char buf[40];
    const size_t n = writeDescription(secondsOf(date), buf);
    return std::string(buf, n);
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
