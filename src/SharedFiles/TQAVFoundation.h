// Media inspection helpers. This part names the coding of media: the printable form of a
// four-character code.
#pragma once

#include <cstdint>
#include <string>

class TQAVFoundation {
public:
    // The four characters of the code, most significant byte first, with spaces and tabs
    // trimmed from both ends: 'aac ' prints as "aac", 0x20202020 as "". Other bytes are
    // escaped as corvina::fourCCText does.
    static std::string fourCCString(uint32_t code);
};
