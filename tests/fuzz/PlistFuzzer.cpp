// Fuzzes the property-list reader: any bytes must give a value or a refusal with a reason,
// never a crash, a hang or unbounded memory; what reads can be described and written.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "Foundation/Error.h"
#include "Foundation/Value.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto value = corvina::Value::fromPropertyListData(data, size);
    if (!value) {
        if (value.error().localizedDescription.empty()) std::abort();  // a refusal always says why
        return 0;
    }
    (void)value->description();
    (void)value->toXMLPropertyList();
    (void)value->toBinaryPropertyList();
    return 0;
}
