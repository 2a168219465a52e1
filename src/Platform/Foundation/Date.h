// Dates in the platform's default description: "yyyy-MM-dd HH:mm:ss +0000", always UTC.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace corvina {

using Clock = std::chrono::system_clock;
using Date = Clock::time_point;

std::string dateDescription(Date date);
inline std::string currentDateDescription() { return dateDescription(Clock::now()); }

// Writes the current date's description into a fixed 25-character buffer, reusing the
// formatted text while the second has not changed. For hot paths (the log writer); one
// instance per thread.
class CachedDateFormatter {
public:
    // Returns a view valid until the next call on this instance.
    std::string_view now();
    std::string_view format(Date date);

private:
    long long second_ = -1;
    char text_[32] = {};
};

}  // namespace corvina
