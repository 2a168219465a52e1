#include "TQAVFoundation.h"

#include "Foundation/Format.h"
#include "Foundation/StringUtils.h"

std::string TQAVFoundation::fourCCString(uint32_t code)
{
    const std::string text = corvina::format("%c%c%c%c", char((code >> 24) & 0xFF), char((code >> 16) & 0xFF),
                                             char((code >> 8) & 0xFF), char(code & 0xFF));
    return std::string(corvina::trimWhitespace(text));
}
