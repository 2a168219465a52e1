// Wildcard paths, file names, sizes for people, empty files, touching and modification dates.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>

#include "Foundation/Format.h"
#include "Foundation/StringUtils.h"
#include "tq/TQAuthorization.h"
#include "tq/TQFileManager.h"
#include "tq/TQFileManagerSupport.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQTaskEx.h"

namespace corvina::tq {

namespace {

// Code points of a UTF-8 text (an invalid byte stands for itself), so that "?" takes one
// whole character.
std::u32string codePoints(std::string_view text)
{
    std::u32string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const int length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xe ? 3 : (c >> 3) == 0x1e ? 4 : 0;
        bool valid = length > 0 && i + length <= text.size();
        char32_t cp = length == 1 ? c : length ? (c & (0x7f >> length)) : c;
        for (int k = 1; valid && k < length; ++k) {
            const auto cc = static_cast<unsigned char>(text[i + k]);
            valid = (cc & 0xc0) == 0x80;
            cp = (cp << 6) | (cc & 0x3f);
        }
        if (!valid) {
            out.push_back(c);
            ++i;
        } else {
            out.push_back(cp);
            i += length;
        }
    }
    return out;
}

// "*" any run of characters (none included), "?" exactly one, everything else itself; the
// whole name must match.
bool isLike(std::string_view name, std::string_view pattern)
{
    const std::u32string s = codePoints(name);
    const std::u32string p = codePoints(pattern);
    size_t si = 0, pi = 0;
    size_t starP = std::u32string::npos, starS = 0;
    while (si < s.size()) {
        if (pi < p.size() && (p[pi] == U'?' || (p[pi] != U'*' && p[pi] == s[si]))) {
            ++si;
            ++pi;
        } else if (pi < p.size() && p[pi] == U'*') {
            starP = pi++;
            starS = si;
        } else if (starP != std::u32string::npos) {
            pi = starP + 1;
            si = ++starS;
        } else {
            return false;
        }
    }
    while (pi < p.size() && p[pi] == U'*') ++pi;
    return pi == p.size();
}

// Entry names of a folder in listing order, hidden ones included; nothing when the path is
// not a folder that can be read.
std::vector<std::string> folderEntries(const std::string& folder)
{
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), ::closedir);
    if (!dir) return names;
    while (const dirent* e = ::readdir(dir.get())) {
        const std::string_view name = e->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    return names;
}

std::string joined(const std::optional<std::string>& base, const std::string& component)
{
    return base ? corvina::appendPathComponent(*base, component) : component;
}

}  // namespace

std::vector<std::string> TQFileManager::filesMatchingWildcardPath(const std::string& pattern,
                                                                  const std::optional<std::string>& basePath,
                                                                  bool /*searchSubdirs*/)
{
    if (pattern.find('*') == std::string::npos) return {joined(basePath, pattern)};

    std::vector<std::string> components = corvina::pathComponents(pattern);
    // A trailing slash names the same folders as the pattern without it.
    if (components.size() > 1 && components.back() == "/") components.pop_back();

    const std::string start = basePath.value_or("/");
    std::vector<std::string> candidates{start};
    for (const auto& component : components) {
        std::vector<std::string> next;
        if (component.find('*') != std::string::npos) {
            for (const auto& candidate : candidates) {
                for (const auto& entry : folderEntries(candidate)) {
                    if (isLike(entry, component)) next.push_back(corvina::appendPathComponent(candidate, entry));
                }
            }
        } else if (component == "/") {
            next.push_back(start);
        } else {
            for (const auto& candidate : candidates) {
                std::string path = corvina::appendPathComponent(candidate, component);
                if (TQFileManager::fileExistsAtPath(path)) next.push_back(std::move(path));
            }
        }
        candidates = std::move(next);
        if (candidates.empty()) break;
    }
    return candidates;
}

std::optional<std::string> TQFileManager::decodeWildcardPath(const std::string& pattern,
                                                             const std::optional<std::string>& basePath)
{
    const auto found = filesMatchingWildcardPath(pattern, basePath, false);
    if (!found.empty()) return found.front();
    if (!basePath) return std::nullopt;
    return corvina::appendPathComponent(*basePath, pattern);
}

std::string TQFileManager::validateFilename(const std::string& name)
{
    if (name == ".") return "";
    std::string_view rest = name;
    if (!rest.empty() && rest.front() == '.') rest.remove_prefix(1);
    rest = corvina::trimWhitespaceAndNewlines(rest);
    std::string out;
    out.reserve(rest.size());
    for (const char c : rest) {
        if (c != '/' && c != ':') out.push_back(c);
    }
    return out;
}

std::string TQFileManager::formatFileSize(double bytes)
{
    static constexpr const char* kUnits[] = {"KB", "MB", "GB", "TB"};
    if (bytes < 1024.0) return corvina::format("%0.0f B", bytes);
    double value = bytes;
    size_t unit = 0;
    value *= 1.0 / 1024.0;
    while (unit + 1 < std::size(kUnits) && value >= 1024.0) {
        value *= 1.0 / 1024.0;
        ++unit;
    }
    return corvina::format("%0.2f %@", value, kUnits[unit]);
}

bool TQFileManager::createEmptyFile(const std::string& path)
{
    // An existing item is never replaced, not even with rights.
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) return false;
    const std::string temp = TQLocalPaths::tempFile();
    {
        tqfiles::Descriptor file(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (!file) return false;
    }
    bool moved = ::renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0;
    if (!moved && errno == EXDEV) {
        // Across file systems an empty file is simply made anew in its place.
        tqfiles::Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        moved = static_cast<bool>(file);
    } else if (!moved && (errno == EACCES || errno == EPERM)) {
        moved = TQAuthorization::sharedController().authExecTask("/usr/bin/mv", {"-n", "-T", "--", temp, path},
                                                                 false) == 0 &&
                ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 0;
    }
    ::unlink(temp.c_str());
    return moved;
}

bool TQFileManager::touchFile(const std::string& path, bool /*setCreationDate*/)
{
    // Creation dates cannot be set on this system; the flag changes nothing.
    if (path.empty()) return false;
    if (::access(path.c_str(), W_OK) == 0) {
        TQTaskEx::runTask("/usr/bin/touch", {"-c", path}, TQTaskEx::Timeout(5.0));
        return true;
    }
    return TQAuthorization::sharedController().authExecTask("/usr/bin/touch", {"-c", path}, false) == 0;
}

bool TQFileManager::setModificationDate(corvina::Date date, const std::string& path)
{
    const auto since = date.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
    const auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds);
    const struct timespec times[2] = {{0, UTIME_OMIT},
                                      {static_cast<time_t>(seconds.count()), static_cast<long>(nanos.count())}};
    return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

}  // namespace corvina::tq
