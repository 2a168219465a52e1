// Waiting on files another process produces, and zip archives (libarchive).
#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "Foundation/FileOperations.h"
#include "Foundation/StringUtils.h"
#include "Workspace/Workspace.h"
#include "tq/TQFileManager.h"
#include "tq/TQFileManagerSupport.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQLog.h"

namespace corvina::tq {

namespace {

using namespace std::chrono_literals;

constexpr auto kStillWritingAge = 5s;

// The file counts as being written while its date is at most five seconds old. A date far in
// the future (a clock that was wrong when it was written) does not.
bool recentlyModified(const std::optional<corvina::Date>& date, corvina::Date now)
{
    return date && *date >= now - kStillWritingAge && *date <= now + kStillWritingAge;
}

}  // namespace

// ---- Waiting on files ----------------------------------------------------------------------

void TQFileManager::waitForFileWrites(const std::string& path, const std::optional<std::string>& lockFile)
{
    auto date = modificationDateForFile(path);
    const bool writing = recentlyModified(date, corvina::Clock::now()) || (lockFile && fileExistsAtPath(*lockFile));
    if (!writing) return;
    TQLog::appendLog("File %@ is currently being written to. Waiting...", path);
    // The answer changes only when the date does or when it grows old, so sleep until the
    // moment it would be old and look again.
    while (recentlyModified(date, corvina::Clock::now())) {
        const auto due = *date + kStillWritingAge + 1ms;
        std::this_thread::sleep_for(std::clamp<corvina::Clock::duration>(due - corvina::Clock::now(), 500us, 1s));
        date = modificationDateForFile(path);
    }
    TQLog::appendLog("File %@ finished writing.", path);
}

bool TQFileManager::fileIsOpenForWriting(const std::string& path)
{
    struct stat target {};
    if (::stat(path.c_str(), &target) != 0) return false;
    std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
    if (!proc) return false;
    while (const dirent* p = ::readdir(proc.get())) {
        if (!std::isdigit(static_cast<unsigned char>(p->d_name[0]))) continue;
        const std::string base = std::string("/proc/") + p->d_name;
        std::unique_ptr<DIR, int (*)(DIR*)> fds(::opendir((base + "/fd").c_str()), ::closedir);
        if (!fds) continue;
        while (const dirent* f = ::readdir(fds.get())) {
            if (!std::isdigit(static_cast<unsigned char>(f->d_name[0]))) continue;
            struct stat st {};
            // The descriptor's link leads to the open file itself, renamed or not.
            if (::stat((base + "/fd/" + f->d_name).c_str(), &st) != 0) continue;
            if (st.st_dev != target.st_dev || st.st_ino != target.st_ino) continue;
            std::ifstream info(base + "/fdinfo/" + f->d_name);
            for (std::string line; std::getline(info, line);) {
                if (line.rfind("flags:", 0) != 0) continue;
                const unsigned long flags = std::strtoul(line.c_str() + 6, nullptr, 8);
                if ((flags & O_ACCMODE) == O_WRONLY || (flags & O_ACCMODE) == O_RDWR) return true;
                break;
            }
        }
    }
    return false;
}

void TQFileManager::waitForFileCreation(const std::string& path, std::chrono::seconds timeout)
{
    const auto start = std::chrono::steady_clock::now();
    bool told = false;
    for (;;) {
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0 && st.st_size > 0) return;
        const auto waited = std::chrono::steady_clock::now() - start;
        if (waited > timeout) return;
        if (!told) TQLog::appendLog("File %@ is not yet created. Waiting...", path);
        told = true;
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(10ms, timeout - waited + 1us));
    }
}

// ---- Zip archives ----------------------------------------------------------------------------

namespace {

struct ArchiveWriter {
    archive* a = archive_write_new();
    ~ArchiveWriter()
    {
        if (a) archive_write_free(a);
    }
};

struct ArchiveReader {
    archive* a = archive_read_new();
    ~ArchiveReader()
    {
        if (a) archive_read_free(a);
    }
};

class ZipPacker {
public:
    // output: the archive being written, which is left out should it lie inside the folder.
    ZipPacker(archive* a, const std::string& output) : a_(a), buffer_(tqfiles::kCopyBlockSize)
    {
        ::stat(output.c_str(), &output_);
    }

    // Adds the item under the name, folders with everything in them (in name order).
    bool add(const std::string& path, const std::string& name)
    {
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) return false;
        if (S_ISDIR(st.st_mode)) {
            if (!name.empty() && !writeHeader(st, name + "/", {})) return false;
            std::vector<std::string> names;
            if (auto dir = std::unique_ptr<DIR, int (*)(DIR*)>(::opendir(path.c_str()), ::closedir)) {
                while (const dirent* e = ::readdir(dir.get())) {
                    const std::string_view n = e->d_name;
                    if (n != "." && n != "..") names.emplace_back(n);
                }
            } else {
                return false;
            }
            std::sort(names.begin(), names.end());
            for (const auto& n : names) {
                if (!add(corvina::appendPathComponent(path, n), name.empty() ? n : name + "/" + n)) return false;
            }
            return true;
        }
        if (S_ISLNK(st.st_mode)) {
            std::string target(static_cast<size_t>(st.st_size) + 1, '\0');
            const ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
            if (n < 0) return false;
            target.resize(static_cast<size_t>(n));
            return writeHeader(st, name, target);
        }
        if (!S_ISREG(st.st_mode)) return true;  // devices, pipes and sockets have no place in a zip
        if (st.st_dev == output_.st_dev && st.st_ino == output_.st_ino) return true;
        // Opened without waiting, should a pipe have taken the file's place since lstat.
        tqfiles::Descriptor file(corvina::openRegularFile(path, O_RDONLY | O_NOFOLLOW));
        if (!file || !writeHeader(st, name, {})) return false;
        ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
        for (;;) {
            const auto got = corvina::posix::readAll(file.get(), std::span(buffer_.data(), buffer_.size()));
            if (got.failed()) return false;
            if (got.count == 0) break;
            if (archive_write_data(a_, buffer_.data(), got.count) != static_cast<la_ssize_t>(got.count)) return false;
        }
        return true;
    }

private:
    bool writeHeader(const struct stat& st, const std::string& name, const std::string& linkTarget)
    {
        std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
        archive_entry_copy_stat(entry.get(), &st);
        archive_entry_set_pathname_utf8(entry.get(), name.c_str());
        if (S_ISDIR(st.st_mode)) archive_entry_set_size(entry.get(), 0);
        if (S_ISLNK(st.st_mode)) archive_entry_set_symlink_utf8(entry.get(), linkTarget.c_str());
        archive_entry_set_nlink(entry.get(), 1);
        return archive_write_header(a_, entry.get()) == ARCHIVE_OK;
    }

    archive* a_;
    tqfiles::AlignedBuffer buffer_;
    struct stat output_ {};
};

// A relative entry name without ".." components.
bool staysInside(std::string_view name)
{
    if (name.empty() || name.front() == '/') return false;
    for (const auto& part : corvina::pathComponents(name)) {
        if (part == "..") return false;
    }
    return true;
}

}  // namespace

bool TQFileManager::compressFile(const std::string& path, const std::string& archivePath, bool includeParent)
{
    if (fileExistsAtPath(archivePath) && !trashFile(archivePath)) {
        TQLog::appendLog("Unable to move the existing archive %@ to the trash", archivePath);
        return false;
    }
    // Written beside the archive and renamed into place once complete.
    const std::string partial = archivePath + ".partial-" + TQLocalPaths::randomString(8);
    bool ok = false;
    {
        ArchiveWriter writer;
        ok = writer.a && archive_write_set_format_zip(writer.a) == ARCHIVE_OK &&
             archive_write_set_options(writer.a, "zip:compression=deflate,zip:compression-level=6") == ARCHIVE_OK &&
             archive_write_set_bytes_in_last_block(writer.a, 1) == ARCHIVE_OK &&
             archive_write_open_filename(writer.a, partial.c_str()) == ARCHIVE_OK;
        if (ok) {
            struct stat st {};
            const bool folder = ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
            const std::string name = corvina::lastPathComponent(path);
            ok = ZipPacker(writer.a, partial).add(path, folder && !includeParent ? std::string() : name);
        }
        const bool closed = writer.a && archive_write_close(writer.a) == ARCHIVE_OK;
        if (ok && !closed) ok = false;
        if (!ok && writer.a)
            TQLog::appendLog("Error packing %@ into %@: %@", path, archivePath,
                             archive_error_string(writer.a) ? archive_error_string(writer.a) : "");
    }
    if (ok) ok = ::rename(partial.c_str(), archivePath.c_str()) == 0;
    if (!ok) ::unlink(partial.c_str());
    return fileExistsAtPath(archivePath);
}

bool TQFileManager::decompressFile(const std::string& archivePath, const std::string& destinationFolder)
{
    // Out of the way without the privileged fallback; whether it went is not looked at, as
    // only the folder's existence afterwards is the result.
    if (fileExistsAtPath(destinationFolder)) {
        if (const auto trash = TQLocalPaths::trashDirectory()) (void)corvina::trash::recycle(destinationFolder, *trash);
    }

    ArchiveReader reader;
    std::unique_ptr<archive, int (*)(archive*)> disk(archive_write_disk_new(), archive_write_free);
    if (!reader.a || !disk) return false;
    archive_read_support_format_zip(reader.a);
    // Nothing that exists is replaced (a name given twice, an entry over a link an earlier one
    // made), nothing is written through a link or above the folder, and ownership is never
    // taken from the archive.
    archive_write_disk_set_options(disk.get(), ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM |
                                                   ARCHIVE_EXTRACT_NO_OVERWRITE | ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                                   ARCHIVE_EXTRACT_SECURE_SYMLINKS);
    if (archive_read_open_filename(reader.a, archivePath.c_str(), tqfiles::kCopyBlockSize) != ARCHIVE_OK) {
        TQLog::appendLog("Error unpacking %@: %@", archivePath, archive_error_string(reader.a));
        return false;
    }
    std::error_code ec;
    std::filesystem::create_directories(destinationFolder, ec);
    // Entries go below the folder's real path, so that links on the way to it are no
    // reason to refuse them, while links inside it are.
    const std::string root = std::filesystem::weakly_canonical(destinationFolder, ec).string();

    const auto inside = [&](const std::string& name) { return corvina::appendPathComponent(root, name); };
    archive_entry* entry = nullptr;
    int status = ARCHIVE_OK;
    while ((status = archive_read_next_header(reader.a, &entry)) == ARCHIVE_OK || status == ARCHIVE_WARN) {
        // Copies: rewriting the entry's names below frees the texts the entry handed out.
        const char* rawName = archive_entry_pathname(entry);
        if (!rawName || !*rawName) continue;
        const std::string name = rawName;
        const char* rawLink = archive_entry_hardlink(entry);
        const std::optional<std::string> link = rawLink ? std::optional<std::string>(rawLink) : std::nullopt;
        if (!staysInside(name) || (link && !staysInside(*link))) {
            TQLog::appendLog("Error unpacking %@: the entry leads outside the folder", name);
            continue;
        }
        const auto type = archive_entry_filetype(entry);
        if (!link && type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK) {
            TQLog::appendLog("Error unpacking %@: devices, pipes and sockets are not unpacked", name);
            continue;
        }
        // As unzip does: permission bits without set-user-ID, set-group-ID and sticky, and the
        // owner is whoever unpacks (root's files stay root's), never the ids the archive names.
        archive_entry_set_perm(entry, archive_entry_perm(entry) & 0777);
        archive_entry_set_uid(entry, ::geteuid());
        archive_entry_set_gid(entry, ::getegid());
        archive_entry_set_uname(entry, nullptr);
        archive_entry_set_gname(entry, nullptr);
        archive_entry_copy_pathname(entry, inside(name).c_str());
        if (link) archive_entry_copy_hardlink(entry, inside(*link).c_str());
        if (archive_write_header(disk.get(), entry) < ARCHIVE_WARN) {
            TQLog::appendLog("Error unpacking %@: %@", name, archive_error_string(disk.get()));
            continue;
        }
        const void* block = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        int r = ARCHIVE_OK;
        while ((r = archive_read_data_block(reader.a, &block, &size, &offset)) == ARCHIVE_OK) {
            if (archive_write_data_block(disk.get(), block, size, offset) < ARCHIVE_OK) break;
        }
        if (r < ARCHIVE_WARN) TQLog::appendLog("Error unpacking %@: %@", name, archive_error_string(reader.a));
        archive_write_finish_entry(disk.get());
        if (r == ARCHIVE_FATAL) break;
    }
    if (status == ARCHIVE_FATAL)
        TQLog::appendLog("Error unpacking %@: %@", archivePath, archive_error_string(reader.a));
    archive_write_close(disk.get());
    return fileExistsAtPath(destinationFolder);
}

}  // namespace corvina::tq
