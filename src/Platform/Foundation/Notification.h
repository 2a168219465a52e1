// A notification record: a name, an optional sender and a user-info dictionary. Records are
// handed from one object to another directly; there is no notification centre.
#pragma once

#include <string>

#include "Value.h"

namespace corvina {

// The user-info key under which a record carries a chunk of data read from a file handle.
inline constexpr const char* kFileHandleNotificationDataItem = "NSFileHandleNotificationDataItem";

struct Notification {
    std::string name;
    const void* sender = nullptr;
    Value userInfo;  // a dictionary, or none
};

}  // namespace corvina
