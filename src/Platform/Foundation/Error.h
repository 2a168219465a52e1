// The platform's error object: a domain, a code and a localized description. Used for the
// "%@" of a failure message and as the writer's error.
#pragma once

#include <cstdint>
#include <string>

namespace corvina {

struct Error {
    std::string domain;
    int64_t code = 0;
    std::string localizedDescription;

    // As the platform prints an error: Error Domain=D Code=C "description"
    std::string description() const;

    // An error from errno with strerror's text, in the POSIX domain.
    static Error fromErrno(int err, std::string context = {});
};

}  // namespace corvina
