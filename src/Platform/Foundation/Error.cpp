#include "Error.h"

#include <cstring>

#include "Format.h"

namespace corvina {

std::string Error::description() const
{
    return format("Error Domain=%@ Code=%lld \"%@\"", domain, code, localizedDescription);
}

Error Error::fromErrno(int err, std::string context)
{
    char buf[256];
    // GNU strerror_r may return a static string instead of filling buf.
    const char* text = strerror_r(err, buf, sizeof buf);
    Error e;
    e.domain = "NSPOSIXErrorDomain";
    e.code = err;
    e.localizedDescription = context.empty() ? std::string(text) : context + ": " + text;
    return e;
}

}  // namespace corvina
