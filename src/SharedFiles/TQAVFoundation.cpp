#include "TQAVFoundation.h"

#include "SampleBuffer/FormatDescription.h"

std::string TQAVFoundation::fourCCString(uint32_t code)
{
    return corvina::fourCCText(code, true);
}
