#include "StringUtils.h"

#include <unistd.h>

#include <cstdlib>

namespace corvina {

size_t utf16Length(std::string_view utf8)
{
    size_t units = 0;
    size_t i = 0;
    const size_t n = utf8.size();
    while (i < n) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        size_t len = 1;
        if (c >= 0xF0 && c <= 0xF4)
            len = 4;
        else if (c >= 0xE0)
            len = c <= 0xEF ? 3 : 1;
        else if (c >= 0xC2)
            len = 2;
        bool valid = len > 1 && i + len <= n;
        for (size_t k = 1; valid && k < len; ++k) valid = (static_cast<unsigned char>(utf8[i + k]) & 0xC0) == 0x80;
        if (!valid) {
            units += 1;
            i += 1;
            continue;
        }
        units += len == 4 ? 2 : 1;
        i += len;
    }
    return units;
}

namespace {

// Length of the white-space character starting at text[i], or 0.
size_t whitespaceAt(std::string_view text, size_t i)
{
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == ' ' || (c >= 0x09 && c <= 0x0D)) return 1;
    if (c == 0xC2 && i + 1 < text.size()) {
        const auto d = static_cast<unsigned char>(text[i + 1]);
        return (d == 0x85 || d == 0xA0) ? 2 : 0;
    }
    if ((c == 0xE1 || c == 0xE2 || c == 0xE3) && i + 2 < text.size()) {
        const auto d = static_cast<unsigned char>(text[i + 1]);
        const auto e = static_cast<unsigned char>(text[i + 2]);
        if (c == 0xE1) return (d == 0x9A && e == 0x80) ? 3 : 0;  // U+1680
        if (c == 0xE3) return (d == 0x80 && e == 0x80) ? 3 : 0;  // U+3000
        if (d == 0x80 && ((e >= 0x80 && e <= 0x8A) || e == 0xA8 || e == 0xA9 || e == 0xAF)) return 3;
        if (d == 0x81 && e == 0x9F) return 3;  // U+205F
    }
    return 0;
}

// Length of a white-space character ending at text[end-1], or 0.
size_t whitespaceBefore(std::string_view text, size_t end)
{
    for (size_t len = 1; len <= 3 && len <= end; ++len)
        if (whitespaceAt(text, end - len) == len) return len;
    return 0;
}

}  // namespace

std::string_view trimWhitespaceAndNewlines(std::string_view text)
{
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t len = whitespaceAt(text, begin);
        if (len == 0) break;
        begin += len;
    }
    size_t end = text.size();
    while (end > begin) {
        const size_t len = whitespaceBefore(text, end);
        if (len == 0 || end - len < begin) break;
        end -= len;
    }
    return text.substr(begin, end - begin);
}

std::string_view trimWhitespace(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

std::string replaceAll(std::string_view text, std::string_view from, std::string_view to)
{
    if (from.empty()) return std::string(text);
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (true) {
        const size_t hit = text.find(from, i);
        if (hit == std::string_view::npos) break;
        out.append(text.substr(i, hit - i));
        out.append(to);
        i = hit + from.size();
    }
    out.append(text.substr(i));
    return out;
}

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

namespace {

// The path without trailing slashes (but "/" stays "/").
std::string_view stripTrailingSlashes(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    return path;
}

}  // namespace

std::string appendPathComponent(std::string_view path, std::string_view component)
{
    while (!component.empty() && component.front() == '/') component.remove_prefix(1);
    std::string_view base = stripTrailingSlashes(path);
    std::string out;
    if (component.empty()) {
        out = std::string(base);
    } else if (base.empty()) {
        out = std::string(component);
    } else if (base == "/") {
        out = "/" + std::string(component);
    } else {
        out.reserve(base.size() + 1 + component.size());
        out.append(base).append("/").append(component);
    }
    // Collapse repeated slashes and drop a trailing one, as the platform standardises.
    std::string clean;
    clean.reserve(out.size());
    for (char c : out)
        if (!(c == '/' && !clean.empty() && clean.back() == '/')) clean += c;
    if (clean.size() > 1 && clean.back() == '/') clean.pop_back();
    return clean;
}

std::string lastPathComponent(std::string_view path)
{
    if (path.empty()) return {};
    std::string_view p = stripTrailingSlashes(path);
    if (p == "/") return "/";
    const auto slash = p.rfind('/');
    return std::string(slash == std::string_view::npos ? p : p.substr(slash + 1));
}

std::string deletingLastPathComponent(std::string_view path)
{
    std::string_view p = stripTrailingSlashes(path);
    if (p == "/") return "/";
    const auto slash = p.rfind('/');
    if (slash == std::string_view::npos) return {};
    if (slash == 0) return "/";
    return std::string(stripTrailingSlashes(p.substr(0, slash)));
}

std::string pathExtension(std::string_view path)
{
    const std::string last = lastPathComponent(path);
    const auto dot = last.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return {};
    if (last.find('/') != std::string::npos) return {};
    return last.substr(dot + 1);
}

std::string deletingPathExtension(std::string_view path)
{
    std::string_view p = stripTrailingSlashes(path);
    const std::string ext = pathExtension(p);
    if (ext.empty()) return std::string(p);
    return std::string(p.substr(0, p.size() - ext.size() - 1));
}

std::vector<std::string> pathComponents(std::string_view path)
{
    std::vector<std::string> parts;
    if (path.empty()) return parts;
    size_t i = 0;
    if (path.front() == '/') {
        parts.emplace_back("/");
        while (i < path.size() && path[i] == '/') ++i;
    }
    while (i < path.size()) {
        size_t next = path.find('/', i);
        if (next == std::string_view::npos) next = path.size();
        parts.emplace_back(path.substr(i, next - i));
        i = next;
        while (i < path.size() && path[i] == '/') ++i;
        if (i == path.size() && next < path.size()) parts.emplace_back("/");
    }
    return parts;
}

}  // namespace corvina
