#include "tq/TQLogFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>

#include "Foundation/Exception.h"
#include "Foundation/FileHandle.h"
#include "Foundation/FolderDescriptor.h"
#include "Foundation/Format.h"
#include "Foundation/ProcessInfo.h"
#include "Foundation/PosixIO.h"
#include "Foundation/StringUtils.h"
#include "Foundation/Value.h"
#include "tq/TQLocalPaths.h"

namespace fs = std::filesystem;

namespace corvina::tq {

namespace {

constexpr const char* kLogFolder = "/Logs/Brantwell";
constexpr const char* kGlobalPrefs = "com.brantwell.global.plist";
constexpr std::string_view kTruncated = "Log truncated at 500KB";
constexpr size_t kDateEvery = 256;  // texts written between two looks at the clock
constexpr size_t kKeptBuffer = 1 << 20;

std::optional<corvina::Value> globalPreferences()
{
    auto prefs = TQLocalPaths::prefsDirectory(true);
    if (!prefs) return std::nullopt;
    auto plist = corvina::Value::fromPropertyListFile(corvina::appendPathComponent(*prefs, kGlobalPrefs));
    if (!plist || !plist->asDictionary()) return std::nullopt;
    return std::move(*plist);
}

bool preferencesDisableLogging()
{
    const auto plist = globalPreferences();
    if (!plist) return false;
    const corvina::Value& value = (*plist)["disable-logging"];
    if (const std::string* s = value.asString()) return *s == "1";
    return value.isNumber() && value.doubleValue() == 1.0;
}

std::optional<std::string> logFolder(bool asRoot)
{
    auto library = TQLocalPaths::libraryDirectory(!asRoot);
    if (!library) return std::nullopt;
    return *library + kLogFolder;
}

std::string numberedPath(const std::string& folder, const std::string& base, long n)
{
    return folder + corvina::format("/%@.%li.log", base, n);
}

// The log folder as a descriptor. As root it is the machine-wide folder: made 0755 and
// reached without following a link anywhere on its path; a user's own folder is made and
// opened as usual.
corvina::UniqueFd openLogFolder(const std::string& folder, bool create)
{
    if (::geteuid() == 0) return corvina::UniqueFd(corvina::openFolderNoFollow(folder, create, 0755));
    std::error_code ec;
    if (create) fs::create_directories(folder, ec);
    return corvina::UniqueFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::string numberedName(const std::string& base, long n) { return corvina::format("%@.%li.log", base, n); }

// What is at the name in the folder, links not followed; 0 when nothing is.
mode_t kindAt(int folder, const std::string& name)
{
    struct stat st {};
    return ::fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 ? (st.st_mode & S_IFMT) : 0;
}

// The folder's lock, held while files are rotated and a new one is created, so that runs
// starting together take turns: each finds the other's file and rotates it instead of
// replacing it.
class FolderLock {
public:
    explicit FolderLock(int folder) : folder_(folder)
    {
        corvina::posix::retryInterrupted([&] { return ::flock(folder_, LOCK_EX); });
    }
    ~FolderLock() { ::flock(folder_, LOCK_UN); }
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

private:
    int folder_;
};

// What the header says about the program and the machine; the same for the whole run.
struct HeaderFacts {
    std::optional<std::string> version;
    std::string path;
    std::string system;
};

// Built once and never destroyed: the writer thread may still write a header while the
// process runs its exit handlers, after ordinary statics are gone.
const HeaderFacts& headerFacts()
{
    alignas(HeaderFacts) static unsigned char storage[sizeof(HeaderFacts)];
    static const HeaderFacts* const facts = ::new (storage) HeaderFacts([] {
        namespace pi = corvina::processinfo;
        HeaderFacts f;
        if (auto v = pi::version()) f.version = std::string(corvina::trimWhitespaceAndNewlines("Version: " + *v));
        if (std::string exe = pi::executablePath(); !exe.empty())
            f.path = std::string(corvina::trimWhitespaceAndNewlines("Path: " + exe));
        f.system = corvina::format("System: macOS %@, %li CPU(s), %0.2f GB RAM", pi::operatingSystemVersionString(),
                                   static_cast<long>(pi::processorCount()),
                                   static_cast<double>(pi::physicalMemory()) / 1024.0 / 1024.0 / 1024.0);
        f.system = std::string(corvina::trimWhitespaceAndNewlines(f.system));
        return f;
    }());
    return *facts;
}

}  // namespace

TQLogFile::TQLogFile(std::atomic<bool>& disabled, const std::atomic<bool>& noPrinting)
    : disabled_(disabled), noPrinting_(noPrinting)
{
}

TQLogFile::~TQLogFile() = default;

std::string TQLogFile::appName() const
{
    std::lock_guard<std::mutex> lock(nameMutex_);
    if (appName_) return *appName_;
    return corvina::deletingPathExtension(corvina::processinfo::processName());
}

void TQLogFile::setAppName(std::optional<std::string> name)
{
    std::lock_guard<std::mutex> lock(nameMutex_);
    appName_ = std::move(name);
}

bool TQLogFile::isOpen() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return handle_ != nullptr;
}

void TQLogFile::print(std::string_view text) const
{
    if (noPrinting_.load(std::memory_order_relaxed)) return;
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

bool TQLogFile::open(std::optional<std::string> name)
{
    if (disabled_.load()) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    return startFile(std::move(name), false);
}

void TQLogFile::close()
{
    std::lock_guard<std::mutex> lock(mutex_);
    handle_.reset();
}

// With the mutex held. clearAll removes every kept file instead of rotating them one place
// up: what a run of restarts that rotates all of them out leaves behind.
bool TQLogFile::startFile(std::optional<std::string> name, bool clearAll)
{
    handle_.reset();
    if (preferencesDisableLogging()) {
        print("Logging is disabled\n");
        disabled_.store(true);
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(nameMutex_);
        if (name && !appName_) appName_ = std::move(name);
    }
    bytesWritten_.store(0);
    if (appName().empty()) setAppName("Unknown");
    const std::string base = appName();

    auto folder = logFolder(getuid() == 0);
    if (!folder) {
        print(corvina::format("Unable to create folder %s.\n", "(null)"));
        return false;
    }
    const corvina::UniqueFd dir = openLogFolder(*folder, true);
    if (!dir) {
        print(corvina::format("Unable to create folder %s.\n", *folder));
        return false;
    }
    const FolderLock lock(dir.get());
    const std::string current = numberedName(base, 1);
    // Only regular files are removed: anything else in their place is not this log's.
    auto removeFile = [&](long n) {
        if (kindAt(dir.get(), numberedName(base, n)) == S_IFREG)
            ::unlinkat(dir.get(), numberedName(base, n).c_str(), 0);
    };
    if (clearAll) {
        for (long n = 1; n <= kKeptFiles; ++n) removeFile(n);
    } else if (kindAt(dir.get(), current) != 0) {
        removeFile(kKeptFiles);
        for (long n = kKeptFiles - 1; n >= 1; --n) {
            const std::string from = numberedName(base, n);
            if (kindAt(dir.get(), from) == 0) continue;
            const std::string to = numberedName(base, n + 1);
            // A move never replaces an existing item.
            if (::renameat2(dir.get(), from.c_str(), dir.get(), to.c_str(), RENAME_NOREPLACE) != 0) {
                print(corvina::format("Unable to move file %s to %s.\n", *folder + "/" + from, *folder + "/" + to));
                return false;
            }
        }
    }
    // Made new and empty in one step; an item at the name (a link among them) is never
    // opened or replaced.
    const int fd = ::openat(dir.get(), current.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        print(corvina::format("Unable to create log file %s - %s\n", *folder + "/" + current, std::strerror(errno)));
        return false;
    }
    handle_ = corvina::FileHandle::forUpdatingDescriptor(fd);
    return handle_ != nullptr;
}

std::vector<TQLogFile::HeaderLine> TQLogFile::header(std::string_view date) const
{
    const HeaderFacts& facts = headerFacts();
    std::vector<HeaderLine> lines;
    lines.push_back({"Log started: " + std::string(date)});
    if (facts.version) lines.push_back({*facts.version});
    if (!facts.path.empty()) lines.push_back({facts.path});
    lines.push_back({facts.system, true});
    lines.push_back({"Running in 64-bit mode"});
    return lines;
}

bool TQLogFile::preferencesAskForSamples()
{
    const auto plist = globalPreferences();
    if (!plist) return false;
    const std::string* level = (*plist)["log-level"].asString();
    if (!level || level->size() != 7) return false;
    std::string lower = *level;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower == "verbose";
}

std::vector<std::string> TQLogFile::availableLogs(const std::string& appName)
{
    std::vector<std::string> logs;
    auto folder = logFolder(false);
    if (!folder) return logs;
    std::error_code ec;
    for (long n = 1; n <= kKeptFiles; ++n) {
        std::string path = corvina::format("%@/%@.%li.log", *folder, appName, n);
        if (fs::exists(path, ec)) logs.push_back(std::move(path));
    }
    return logs;
}

void TQLogFile::write(TQLogTexts& texts)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (disabled_.load()) return;

    // "{date} - "; the date's text changes once a second.
    char prefix[64];
    size_t prefixSize = 0;
    std::string_view date;
    auto lookAtClock = [&] {
        date = dates_.now();
        std::memcpy(prefix, date.data(), date.size());
        std::memcpy(prefix + date.size(), " - ", 3);
        prefixSize = date.size() + 3;
    };
    lookAtClock();

    uint64_t written = bytesWritten_.load();
    auto flush = [&] {
        if (!out_.empty() && handle_) {
            try {
                handle_->writeData(out_);
            } catch (const corvina::PlatformException& e) {
                print(corvina::format("Exception writing to log: %s\n", e.reason()));
            }
        }
        out_.clear();
    };
    // One entry; true when the file has reached the size limit.
    auto put = [&](std::string_view text) {
        if (!handle_) {
            if (auto folder = logFolder(getuid() == 0)) {
                const corvina::UniqueFd dir = openLogFolder(*folder, false);
                if (dir) {
                    const std::string name = numberedName(appName(), 1);
                    handle_ = corvina::FileHandle::forUpdatingDescriptor(
                        ::openat(dir.get(), name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
                }
            }
            if (!handle_) {
                print(corvina::format("Unable to log the following information: %s\n", text));
                print("Unable to open log for output\n");
                return false;
            }
        }
        out_.append(prefix, prefixSize).append(text).push_back('\n');
        written += prefixSize + text.size() + 1;
        return written >= kSizeLimit;
    };
    // A new current file with its header and the truncation line; false when the
    // preferences turned logging off.
    auto restart = [&](bool clearAll) {
        flush();
        startFile(appName(), clearAll);
        if (disabled_.load()) return false;
        written = bytesWritten_.load();
        if (handle_) {
            for (const HeaderLine& line : header(date)) put(line.text);
        }
        put(kTruncated);
        return true;
    };

    size_t next = 0;
    if (shortcut_.load(std::memory_order_relaxed) && handle_) next = firstKeptText(texts, written, prefixSize);
    texts.materialize(next);
    if (next > 0 && !restart(true)) return;

    for (size_t i = next; i < texts.size(); ++i) {
        if ((i - next) % kDateEvery == kDateEvery - 1) lookAtClock();
        if (put(texts[i]) && !restart(false)) return;
    }
    flush();
    bytesWritten_.store(written);
    if (out_.capacity() > kKeptBuffer) out_.shrink_to_fit();
}

// The index of the first text of the oldest file that outlives the batch, when the batch
// restarts the file often enough to rotate its own first files out of the kept ones; 0
// otherwise. Sizes are exact: every entry is its text plus the date prefix and a line feed.
size_t TQLogFile::firstKeptText(const TQLogTexts& texts, uint64_t written, size_t prefixSize)
{
    uint64_t headerBytes = prefixSize + kTruncated.size() + 1;
    for (const HeaderLine& line : header(std::string(prefixSize - 3, '0')))
        headerBytes += prefixSize + line.text.size() + 1;
    uint64_t restarts = 0;
    size_t starts[kKeptFiles] = {};  // first text of the last files begun, by restart count
    uint64_t position = written;
    for (size_t i = 0; i < texts.size(); ++i) {
        position += prefixSize + texts.sizeAt(i) + 1;
        if (position >= kSizeLimit) {
            ++restarts;
            starts[restarts % kKeptFiles] = i + 1;
            position = headerBytes;
        }
    }
    if (restarts < static_cast<uint64_t>(kKeptFiles)) return 0;
    // The files this batch ends with are the last kKeptFiles it begins; the earlier ones (and
    // every file from before the batch) end up rotated out. The shortcut stands aside when a
    // restart would end differently: logging turned off, or an item that cannot be removed.
    if (preferencesDisableLogging()) return 0;
    if (auto folder = logFolder(getuid() == 0)) {
        std::error_code ec;
        const std::string base = appName();
        for (long n = 1; n <= kKeptFiles; ++n)
            if (fs::is_directory(fs::symlink_status(numberedPath(*folder, base, n), ec))) return 0;
    }
    shortcutsTaken_.fetch_add(1, std::memory_order_relaxed);
    const uint64_t firstKept = restarts - (kKeptFiles - 1);
    return starts[firstKept % kKeptFiles];
}

void TQLogFile::lockForFork()
{
    mutex_.lock();
    nameMutex_.lock();
}

void TQLogFile::unlockAfterFork()
{
    nameMutex_.unlock();
    mutex_.unlock();
}

}  // namespace corvina::tq
