// Reading property lists: XML and binary through libplist, after checks that keep hostile
// documents from reaching the library's recursion; UTF-16 XML is made UTF-8 first.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "ByteOrder.h"
#include "Format.h"
#include "LargeBuffer.h"
#include "PosixIO.h"
#include "PropertyListLibrary.h"
#include "Value.h"

namespace corvina {

using namespace plist_detail;

namespace {

// A binary list may refer to one object from many places; the reader copies each use, so the
// number of values it would make is bounded too.
constexpr uint64_t kMaxExpandedObjects = 16u << 20;
// Property-list files above this size are refused before they are read.
constexpr uint64_t kMaxFileBytes = 512u << 20;

std::optional<Value> fromNode(plist_t node, int depth)
{
    if (!node || depth > kMaxDepth) return std::nullopt;
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return Value(b != 0);
    }
    case PLIST_UINT: {
        uint64_t bits = 0;
        plist_get_uint_val(node, &bits);
        if (bits <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
            return Value(static_cast<int64_t>(bits));
        // Above int64: a negative number or a large unsigned one. The node's text tells.
        char* xml = nullptr;
        uint32_t length = 0;
        plist_to_xml(node, &xml, &length);
        CPtr<char> owned(xml);
        const bool negative =
            xml && std::memchr(xml, '-', length) != nullptr && std::strstr(xml, "<integer>-") != nullptr;
        if (negative) return Value(static_cast<int64_t>(bits));
        return Value(bits);
    }
    case PLIST_UID: {
        uint64_t uid = 0;
        plist_get_uid_val(node, &uid);
        return Value(uid);
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return Value(d);
    }
    case PLIST_STRING: {
        // By pointer and length: a string may hold a NUL, which the copying getter refuses
        // with an assertion.
        uint64_t length = 0;
        const char* s = plist_get_string_ptr(node, &length);
        return Value(s ? std::string(s, static_cast<size_t>(length)) : std::string());
    }
    case PLIST_KEY:
        // A key outside a dictionary is not a property list (and the library's getter for
        // it asserts on a key holding a NUL).
        return std::nullopt;
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        const auto since1970 = std::chrono::seconds(kPlistEpoch + sec) + std::chrono::microseconds(usec);
        return Value::date(Date(std::chrono::duration_cast<Clock::duration>(since1970)));
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        CPtr<char> owned(bytes);
        const auto* p = reinterpret_cast<const uint8_t*>(bytes);
        return Value::data(p ? Value::DataType(p, p + length) : Value::DataType());
    }
    case PLIST_ARRAY: {
        Value::ArrayType array;
        const uint32_t n = plist_array_get_size(node);
        array.reserve(n);
        for (uint32_t i = 0; i < n; ++i) {
            auto item = fromNode(plist_array_get_item(node, i), depth + 1);
            if (!item) return std::nullopt;
            array.push_back(std::move(*item));
        }
        return Value(std::move(array));
    }
    case PLIST_DICT: {
        Value::DictionaryType dict;
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(node, &iter);
        CPtr<void> ownedIter(iter);
        while (true) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, iter, &key, &item);
            CPtr<char> ownedKey(key);
            if (!item || !key) break;
            auto value = fromNode(item, depth + 1);
            if (!value) return std::nullopt;
            dict.insert_or_assign(std::string(key), std::move(*value));
        }
        return Value(std::move(dict));
    }
    default:
        return std::nullopt;
    }
}

// True when XML text nests arrays or dictionaries deeper than we accept. libplist's XML
// reader recurses once per level and would overflow the stack on hostile input.
bool xmlNestsTooDeep(const char* text, size_t length)
{
    const std::string_view xml(text, length);
    if (xml.substr(0, 6) == "bplist") return false;
    int depth = 0;
    size_t i = 0;
    while ((i = xml.find('<', i)) != std::string_view::npos) {
        ++i;
        const bool closing = i < xml.size() && xml[i] == '/';
        const size_t name = closing ? i + 1 : i;
        const bool container = xml.compare(name, 5, "array") == 0 || xml.compare(name, 4, "dict") == 0;
        if (!container) continue;
        const size_t end = xml.find('>', name);
        if (end == std::string_view::npos) break;
        if (closing)
            --depth;
        else if (xml[end - 1] != '/' && ++depth > kMaxDepth)
            return true;
        i = end + 1;
    }
    return false;
}

// ---- binary lists: structure checked before libplist recurses through it ---------------------

enum class BinaryCheck { Fine, Malformed, TooDeep };

// Walks the object graph of a binary list without recursion: every container's nesting depth
// and expanded size once (memoised), a reference cycle counts as too deep.
BinaryCheck checkBinaryPlist(const uint8_t* data, size_t length)
{
    constexpr size_t kHeader = 8, kTrailer = 32;
    if (length < kHeader + kTrailer) return BinaryCheck::Malformed;
    const uint8_t* trailer = data + length - kTrailer;
    const unsigned offsetSize = trailer[6], refSize = trailer[7];
    const uint64_t count = loadBE(trailer + 8, 8);
    const uint64_t top = loadBE(trailer + 16, 8);
    const uint64_t tableOffset = loadBE(trailer + 24, 8);
    const auto validSize = [](unsigned n) { return n == 1 || n == 2 || n == 4 || n == 8; };
    if (!validSize(offsetSize) || !validSize(refSize) || count == 0 || top >= count) return BinaryCheck::Malformed;
    const uint64_t body = length - kTrailer;
    if (tableOffset < kHeader || tableOffset > body || count > (body - tableOffset) / offsetSize)
        return BinaryCheck::Malformed;

    // Children of object i: their references, or none for a value that holds none.
    struct Refs {
        uint64_t first = 0;  // byte position of the first reference
        uint64_t count = 0;
    };
    // The count in an object's marker, or in the integer that follows it; false when that
    // integer is malformed.
    const auto countOf = [&](uint64_t at, uint64_t* n, uint64_t* pos) -> bool {
        *n = data[at] & 0x0F;
        *pos = at + 1;
        if (*n != 0x0F) return true;
        if (*pos >= tableOffset || (data[*pos] >> 4) != 0x1) return false;
        const unsigned size = 1u << (data[*pos] & 0x0F);
        if (size > 8 || *pos + 1 + size > tableOffset) return false;
        *n = loadBE(data + *pos + 1, size);
        *pos += 1 + size;
        return true;
    };
    const auto refsOf = [&](uint64_t object, Refs* refs) -> bool {
        const uint64_t at = loadBE(data + tableOffset + object * offsetSize, offsetSize);
        if (at < kHeader || at >= tableOffset) return false;
        const unsigned type = data[at] >> 4;
        *refs = {};
        uint64_t n = 0;
        uint64_t pos = 0;
        if (type == 0x5 || type == 0x6) {
            // A string holding a NUL is refused: the library's text getters assert on one.
            if (!countOf(at, &n, &pos)) return false;
            const uint64_t unit = type == 0x6 ? 2 : 1;
            if (n > (tableOffset - pos) / unit) return true;  // the library judges the length
            for (uint64_t i = 0; i < n; ++i) {
                const uint8_t* c = data + pos + i * unit;
                if (c[0] == 0 && (unit == 1 || c[1] == 0)) return false;
            }
            return true;
        }
        if (type != 0xA && type != 0xC && type != 0xD) return true;
        if (!countOf(at, &n, &pos)) return false;
        const uint64_t refs2 = type == 0xD ? 2 : 1;
        if (n > (tableOffset - pos) / refSize / refs2) return false;
        *refs = {pos, n * refs2};
        return true;
    };

    std::vector<uint8_t> state(count, 0);  // 0 unseen, 1 on the path, 2 done
    std::vector<uint16_t> depth(count, 0);
    std::vector<uint64_t> expanded(count, 0);
    struct Frame {
        uint64_t object;
        Refs refs;
        uint64_t next;
    };
    std::vector<Frame> path;
    const auto enter = [&](uint64_t object) -> BinaryCheck {
        Frame frame{object, {}, 0};
        if (!refsOf(object, &frame.refs)) return BinaryCheck::Malformed;
        if (path.size() >= static_cast<size_t>(kMaxDepth)) return BinaryCheck::TooDeep;
        state[object] = 1;
        path.push_back(frame);
        return BinaryCheck::Fine;
    };
    if (auto r = enter(top); r != BinaryCheck::Fine) return r;
    while (!path.empty()) {
        Frame& frame = path.back();
        if (frame.next < frame.refs.count) {
            const uint64_t child = loadBE(data + frame.refs.first + frame.next * refSize, refSize);
            ++frame.next;
            if (child >= count) return BinaryCheck::Malformed;
            if (state[child] == 1) return BinaryCheck::TooDeep;  // a cycle
            if (state[child] == 0)
                if (auto r = enter(child); r != BinaryCheck::Fine) return r;
            continue;
        }
        uint16_t deepest = 0;
        uint64_t size = 1;
        for (uint64_t i = 0; i < frame.refs.count; ++i) {
            const uint64_t child = loadBE(data + frame.refs.first + i * refSize, refSize);
            deepest = std::max(deepest, depth[child]);
            size = expanded[child] > kMaxExpandedObjects - size ? kMaxExpandedObjects + 1 : size + expanded[child];
            if (size > kMaxExpandedObjects) return BinaryCheck::TooDeep;
        }
        depth[frame.object] = static_cast<uint16_t>(deepest + 1);
        expanded[frame.object] = size;
        state[frame.object] = 2;
        path.pop_back();
    }
    return BinaryCheck::Fine;
}

// ---- UTF-16 XML --------------------------------------------------------------------------------

// XML text in UTF-16 (with a byte-order mark, or starting "<" with a zero byte beside it)
// becomes UTF-8, its declaration saying so; anything else is left alone (false).
bool utf16ToUtf8(const uint8_t* data, size_t length, std::string* out)
{
    bool bigEndian;
    size_t start = 0;
    if (length >= 2 && data[0] == 0xFE && data[1] == 0xFF) {
        bigEndian = true;
        start = 2;
    } else if (length >= 2 && data[0] == 0xFF && data[1] == 0xFE) {
        bigEndian = false;
        start = 2;
    } else if (length >= 2 && data[0] == 0 && data[1] == '<') {
        bigEndian = true;
    } else if (length >= 2 && data[0] == '<' && data[1] == 0) {
        bigEndian = false;
    } else {
        return false;
    }
    out->clear();
    out->reserve(length / 2 + 16);
    const auto unit = [&](size_t i) -> uint32_t {
        return uint32_t(bigEndian ? loadBE16(data + i) : loadLE16(data + i));
    };
    for (size_t i = start; i + 1 < length; i += 2) {
        uint32_t c = unit(i);
        if (c >= 0xD800 && c <= 0xDBFF && i + 3 < length && unit(i + 2) >= 0xDC00 && unit(i + 2) <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (unit(i + 2) - 0xDC00);
            i += 2;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;  // a lone surrogate
        }
        if (c < 0x80) {
            out->push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out->push_back(static_cast<char>(0xC0 | c >> 6));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out->push_back(static_cast<char>(0xE0 | c >> 12));
            out->push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out->push_back(static_cast<char>(0xF0 | c >> 18));
            out->push_back(static_cast<char>(0x80 | (c >> 12 & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    // The declaration must no longer claim UTF-16.
    const size_t declarationEnd = out->find("?>");
    if (out->compare(0, 5, "<?xml") == 0 && declarationEnd != std::string::npos) {
        for (const char* name : {"UTF-16", "utf-16", "UTF-16LE", "UTF-16BE", "utf-16le", "utf-16be"}) {
            const size_t at = out->find(std::string("\"") + name + "\"");
            if (at != std::string::npos && at < declarationEnd) {
                out->replace(at + 1, std::strlen(name), "UTF-8");
                break;
            }
        }
    }
    return true;
}

// A failure to read a property list, in the platform's domain and code.
Error plistError(std::string text) { return Error{"NSPropertyListErrorDomain", 3840, std::move(text)}; }

}  // namespace

Result<Value> Value::fromPropertyListData(const void* bytes, size_t length)
{
    if (!bytes || length == 0) {
        return plistError("The data is empty.");
    }
    if (length > std::numeric_limits<uint32_t>::max()) {
        return plistError("The data is too large for a property list.");
    }
    std::string utf8;
    if (utf16ToUtf8(static_cast<const uint8_t*>(bytes), length, &utf8)) {
        if (utf8.empty()) {
            return plistError("The data is empty.");
        }
        bytes = utf8.data();
        length = utf8.size();
    }
    // A UTF-8 byte order mark, as some editors write, is not part of the document.
    if (length > 3 && std::memcmp(bytes, "\xEF\xBB\xBF", 3) == 0) {
        bytes = static_cast<const char*>(bytes) + 3;
        length -= 3;
    }
    const bool binary = length >= 6 && std::memcmp(bytes, "bplist", 6) == 0;
    if (binary) {
        switch (checkBinaryPlist(static_cast<const uint8_t*>(bytes), length)) {
        case BinaryCheck::Fine:
            break;
        case BinaryCheck::TooDeep:
            return plistError("The data couldn't be read because it nests too deeply or refers to itself.");
        case BinaryCheck::Malformed:
            return plistError("The data couldn't be read because it isn't in the correct format.");
        }
    } else if (xmlNestsTooDeep(static_cast<const char*>(bytes), length)) {
        return plistError("The data couldn't be read because it nests too deeply.");
    }
    plist_t root = nullptr;
    plist_from_memory(static_cast<const char*>(bytes), static_cast<uint32_t>(length), &root);
    PlistPtr owned(root);
    if (!root) {
        return plistError("The data couldn't be read because it isn't in the correct format.");
    }
    auto value = fromNode(root, 0);
    if (!value) return plistError("The data couldn't be read because it isn't in the correct format.");
    return std::move(*value);
}

Result<std::string> Value::propertyListFileBytes(const std::string& path)
{
    // Opened without blocking, so that a FIFO or a device at the path cannot hold us up; only
    // regular files are read.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return Error::fromErrno(errno);
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        const int err = errno;
        const bool statFailed = st.st_mode == 0;
        ::close(fd);
        if (statFailed) return Error::fromErrno(err);
        if (S_ISDIR(st.st_mode)) return Error::fromErrno(EISDIR);
        return plistError(S_ISFIFO(st.st_mode) ? "It is a FIFO, not a regular file."
                                               : "It is a device or a socket, not a regular file.");
    }
    if (static_cast<uint64_t>(st.st_size) > kMaxFileBytes) {
        ::close(fd);
        return plistError(
            format("It is too large for a property list (%lld bytes).", static_cast<long long>(st.st_size)));
    }
    // Read straight into the result, sized from the file with room to notice that it grew; a
    // file that keeps growing is read on until it passes the limit, which the parser refuses.
    const size_t room = static_cast<size_t>(std::min<uint64_t>(uint64_t(st.st_size) + 65536, kMaxFileBytes + 1));
    std::string bytes;
    bytes.reserve(room);
    adviseHugePages(bytes.data(), room);
    bytes.resize(room);
    size_t have = 0;
    for (;;) {
        const posix::Transfer got =
            posix::readAll(fd, {reinterpret_cast<uint8_t*>(bytes.data()) + have, bytes.size() - have});
        have += got.count;
        if (got.failed()) {
            ::close(fd);
            return Error::fromErrno(got.error);
        }
        if (have < bytes.size() || bytes.size() > kMaxFileBytes) break;
        bytes.resize(std::min<size_t>(bytes.size() * 2, kMaxFileBytes + 1));
    }
    bytes.resize(have);
    ::close(fd);
    return bytes;
}

Result<Value> Value::fromPropertyListFile(const std::string& path)
{
    const auto bytes = propertyListFileBytes(path);
    if (!bytes) return bytes.error();
    return fromPropertyListData(bytes->data(), bytes->size());
}
}  // namespace corvina
