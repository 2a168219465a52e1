// Reporting of platform exceptions caught at service boundaries, in one fixed form:
//   "Exception in -[TQTaskEx launchAsyncTask]. NSInvalidArgumentException - launch path not accessible."
#pragma once

#include <string>

#include "Foundation/Exception.h"

namespace corvina::tq {

class TQException {
public:
    TQException() = delete;

    // Builds the message, writes it to the log and standard output (as finished text, so
    // percent signs in the reason stay as they are) and returns it.
    static std::string logException(const corvina::PlatformException& exception, const char* method);
    // True when the exception's name is exactly "NSPortTimeoutException".
    static bool didTimeout(const corvina::PlatformException& exception);
};

}  // namespace corvina::tq
