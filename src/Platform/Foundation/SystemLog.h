// The system log: syslog(3) under the program's name and a copy on standard error, as the
// platform's console log does. Tests capture what is written with ScopedSystemLogCapture.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Format.h"

namespace corvina {

void systemLogMessage(std::string_view message);

template <class... A>
void systemLog(std::string_view fmt, const A&... args)
{
    systemLogMessage(format(fmt, args...));
}

// While an instance lives, system-log messages are collected here (and still go to syslog,
// but not to standard error). Captures nest; the innermost one receives.
class ScopedSystemLogCapture {
public:
    ScopedSystemLogCapture();
    ~ScopedSystemLogCapture();
    ScopedSystemLogCapture(const ScopedSystemLogCapture&) = delete;
    ScopedSystemLogCapture& operator=(const ScopedSystemLogCapture&) = delete;
    std::vector<std::string> messages() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace corvina
