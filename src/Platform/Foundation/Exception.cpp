#include "Exception.h"

namespace corvina {

PlatformException::PlatformException(std::string name, std::string reason)
    : std::runtime_error(name + ": " + reason), name_(std::move(name)), reason_(std::move(reason))
{
}

}  // namespace corvina
