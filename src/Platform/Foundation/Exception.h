// The platform's exception: a name such as "NSInvalidArgumentException" and a reason. Raised
// where the platform raises (file handle errors, invalid arguments) and caught at service
// boundaries; nothing else in the code base throws.
#pragma once

#include <stdexcept>
#include <string>

namespace corvina {

class PlatformException : public std::runtime_error {
public:
    PlatformException(std::string name, std::string reason);
    const std::string& name() const { return name_; }
    const std::string& reason() const { return reason_; }
    std::string description() const { return reason_; }

private:
    std::string name_;
    std::string reason_;
};

// Names the platform uses.
inline constexpr const char* kInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr const char* kFileHandleOperationException = "NSFileHandleOperationException";
inline constexpr const char* kInternalInconsistencyException = "NSInternalInconsistencyException";
inline constexpr const char* kPortTimeoutException = "NSPortTimeoutException";

}  // namespace corvina
