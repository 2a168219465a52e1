// Writing property lists: the value becomes a libplist tree, which writes the XML or binary
// form; a file is written whole or, atomically, through a temporary beside it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

#include "FileOperations.h"
#include "Format.h"
#include "PosixIO.h"
#include "PropertyListLibrary.h"
#include "Value.h"

namespace corvina {

using namespace plist_detail;

namespace {

plist_t toNode(const Value& v, int depth)
{
    if (depth > kMaxDepth) return nullptr;
    switch (v.type()) {
    case Value::Type::String:
        return plist_new_string(v.asString()->c_str());
    case Value::Type::Integer: {
        const uint64_t bits = v.unsignedLongLongValue();
        const double asReal = v.doubleValue();
        if (bits > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) && asReal > 0) {
            // A large unsigned number: libplist keeps its width when it reads the text.
            const std::string xml = format("<plist version=\"1.0\"><integer>%llu</integer></plist>", bits);
            plist_t node = nullptr;
            plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &node);
            if (node) return node;
        }
        return plist_new_uint(bits);
    }
    case Value::Type::Real:
        return plist_new_real(v.doubleValue());
    case Value::Type::Boolean:
        return plist_new_bool(v.boolValue() ? 1 : 0);
    case Value::Type::Date: {
        const auto micros =
            std::chrono::duration_cast<std::chrono::microseconds>(v.asDate()->time_since_epoch()).count() -
            kPlistEpoch * 1000000;
        int64_t sec = micros / 1000000;
        int64_t usec = micros % 1000000;
        if (usec < 0) {
            usec += 1000000;
            sec -= 1;
        }
        sec = std::clamp<int64_t>(sec, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max());
        return plist_new_date(static_cast<int32_t>(sec), static_cast<int32_t>(usec));
    }
    case Value::Type::Data: {
        const auto* d = v.asData();
        return plist_new_data(reinterpret_cast<const char*>(d->data()), d->size());
    }
    case Value::Type::Array: {
        PlistPtr array(plist_new_array());
        for (const auto& item : *v.asArray()) {
            plist_t node = toNode(item, depth + 1);
            if (!node) return nullptr;
            plist_array_append_item(array.get(), node);
        }
        return array.release();
    }
    case Value::Type::Dictionary: {
        PlistPtr dict(plist_new_dict());
        for (const auto& [key, item] : *v.asDictionary()) {
            plist_t node = toNode(item, depth + 1);
            if (!node) return nullptr;
            plist_dict_set_item(dict.get(), key.c_str(), node);
        }
        return dict.release();
    }
    default:
        return nullptr;
    }
}

}  // namespace

std::string Value::toXMLPropertyList() const
{
    PlistPtr root(toNode(*this, 0));
    if (!root) return {};
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root.get(), &xml, &length);
    if (!xml) return {};
    std::string out(xml, length);
    plist_to_xml_free(xml);
    return out;
}

std::vector<uint8_t> Value::toBinaryPropertyList() const
{
    PlistPtr root(toNode(*this, 0));
    if (!root) return {};
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(root.get(), &bin, &length);
    if (!bin) return {};
    std::vector<uint8_t> out(reinterpret_cast<uint8_t*>(bin), reinterpret_cast<uint8_t*>(bin) + length);
    plist_to_bin_free(bin);
    return out;
}

bool Value::writeToFile(const std::string& path, bool atomically) const
{
    if (path.empty()) return false;
    const std::string xml = toXMLPropertyList();
    if (xml.empty()) return false;
    if (!atomically) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd < 0) return false;
        const bool ok = bool(posix::writeFully(fd, xml));
        return (::close(fd) == 0) && ok;
    }
    return writeFileAtomically(path, xml);
}

}  // namespace corvina
