#include "tq/TQException.h"

#include "Foundation/Format.h"
#include "tq/TQLog.h"

namespace corvina::tq {

std::string TQException::logException(const corvina::PlatformException& exception, const char* method)
{
    std::string message = corvina::format("Exception in %s. %@ - %@.", method, exception.name(), exception.reason());
    TQLog::appendMessageAndPrint(message);
    return message;
}

bool TQException::didTimeout(const corvina::PlatformException& exception)
{
    return exception.name() == corvina::kPortTimeoutException;
}

}  // namespace corvina::tq
