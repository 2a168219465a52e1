// Archives, waiting for writers, and refusals compared with rm, cp -n, mv -n and unzip on
// twin trees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

#include "support/PrivilegedTools.h"
#include "Foundation/FileOperations.h"
#include "Foundation/Format.h"
#include "Foundation/SystemLog.h"
#include "Process/Process.h"
#include "tq/TQFileManager.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQLog.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using namespace corvina::test;

namespace {

// Every item below root: "f:bytes", "d", "l:target" or "special", with the mode when asked.
std::map<std::string, std::string> listing(const std::string& root, bool modes = false)
{
    std::map<std::string, std::string> out;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        const std::string p = it->path().string();
        struct stat st {};
        ::lstat(p.c_str(), &st);
        std::string what = S_ISREG(st.st_mode)   ? "f:" + readFile(p)
                           : S_ISDIR(st.st_mode) ? "d"
                           : S_ISLNK(st.st_mode) ? "l:" + fs::read_symlink(p).string()
                                                 : "special";
        if (modes) what += corvina::format(" %o", st.st_mode & 07777);
        out[it->path().lexically_relative(root).string()] = what;
    }
    return out;
}

long long allocated(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_blocks) * 512 : -1;
}

// Nested folders, an empty one, a link, a file of several read blocks, names with blanks.
void makeTree(const std::string& root)
{
    makeFile(root + "/clip 1.mov", 3 * 1048576 + 11, 5);
    makeFile(root + "/audio/take.pcm", 70000, 6);
    makeFile(root + "/audio/deeper/notes.txt", 0);
    fs::create_directories(root + "/empty");
    fs::create_symlink("clip 1.mov", root + "/link.mov");
}

// Entry names that unzip lists for the archive.
std::vector<std::string> unzipNames(const std::string& archive)
{
    std::vector<std::string> names = splitLines(runProgram({"unzip", "-Z1", archive}).out);
    std::sort(names.begin(), names.end());
    return names;
}

void backdate(const std::string& path, int secondsAgo)
{
    TQFileManager::setModificationDate(corvina::Clock::now() - std::chrono::seconds(secondsAgo), path);
}

}  // namespace

TEST(TQFileManagerRefusals, RemovalRefusesWhatRmRefuses)
{
    TempDir s;
    // A tree T with links out of it into O, and, in the last row, a file system of its own.
    const struct {
        const char* path;
        bool mount;
        bool removed;
    } rows[] = {
        {"T/a/b/..", false, false}, {"T/a/.", false, false}, {"T/lnk/..", false, false}, {"T/a/b/../", false, false},
        {"T/a/./", false, false},   {"T", false, true},      {"T/lnk", false, true},     {"T", true, false},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        const auto& row = rows[i];
        SCOPED_TRACE(std::string(row.path) + (row.mount ? " with a mount inside" : ""));
        const std::string ours = s / ("ours" + std::to_string(i)), theirs = s / ("rm" + std::to_string(i));
        std::unique_ptr<ScopedMount> cards[2];
        for (int t = 0; t < 2; ++t) {
            const std::string root = t ? theirs : ours;
            for (const char* f : {"/T/a/b/f", "/T/a/g", "/O/x/o"}) writeFile(root + f, f);
            fs::create_symlink("../O/x", root + "/T/lnk");
            fs::create_symlink("../../O", root + "/T/a/out");
            if (!row.mount) continue;
            cards[t] = std::make_unique<ScopedMount>(root + "/T/a/card");
            if (cards[t]->mounted()) writeFile(root + "/T/a/card/clip.mov", "clip");
        }
        if (row.mount && !(cards[0]->mounted() && cards[1]->mounted())) continue;  // may not mount here
        EXPECT_EQ(TQFileManager::removeFile(ours + "/" + row.path, false), row.removed);
        EXPECT_EQ(runProgram({"rm", "-rf", "--one-file-system", theirs + "/" + row.path}).status == 0, row.removed);
        EXPECT_EQ(listing(ours), listing(theirs));
        EXPECT_EQ(readFile(ours + "/O/x/o"), "/O/x/o");
    }
    // "lnk/": rm empties the folder it leads to; we remove the link alone, privileged or not.
    writeFile(s / "O/x/o", "o");
    fs::create_symlink(s / "O/x", s / "lnk");
    EXPECT_TRUE(TQFileManager::removeFile(s / "lnk/", false));
    EXPECT_FALSE(fs::exists(fs::symlink_status(s / "lnk")));
    EXPECT_EQ(readFile(s / "O/x/o"), "o");
    fs::create_symlink(s / "O/x", s / "lnk");
    Tools tools;
    corvina::ScopedSystemLogCapture log;
    EXPECT_FALSE(TQAuthorization::sharedController().authRemoveFile(s / "O/x/.."));
    EXPECT_FALSE(TQAuthorization::sharedController().authRemoveFile(s / "lnk/"));
    EXPECT_EQ(tools.calls(), (std::vector<Tools::Call>{{"/bin/rm", "-Rdf", "--one-file-system", "--", s / "lnk"}}));
    EXPECT_EQ(log.messages().front(),
              "Unable to delete path " + s / "O/x/.." + ": a path ending in \".\" or \"..\" is refused");
    for (const char* root : {"/", "//", "/.", "/tmp/.."}) EXPECT_TRUE(corvina::removalRefusal(root)) << root;
}

TEST(TQFileManagerRefusals, PrivilegedMovesAndCopiesNeverReplace)
{
    Tools tools(Tools::run);  // the real tools, with this process's own rights
    TQAuthorization& auth = TQAuthorization::sharedController();
    TempDir s;
    // sameAsTool false: the tool moves or copies into the folder there; we change nothing.
    const struct {
        bool move;
        const char* from;
        const char* to;
        bool done;
        bool sameAsTool;
    } rows[] = {
        {true, "a.mov", "b.mov", false, true},      {true, "a.mov", "dir", false, false},
        {true, "a.mov", "new.mov", true, true},     {false, "a.mov", "b.mov", false, true},
        {false, "tree", "dir", false, false},       {false, "tree", "copy", true, true},
        {false, "a.mov", "dir/k.mov", false, true},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        const auto& row = rows[i];
        SCOPED_TRACE(std::string(row.move ? "mv " : "cp ") + row.from + " " + row.to);
        const std::string ours = s / ("ours" + std::to_string(i)), theirs = s / ("tool" + std::to_string(i));
        for (const auto& root : {ours, theirs})
            for (const char* f : {"/a.mov", "/b.mov", "/dir/k.mov", "/tree/t.mov"}) writeFile(root + f, f);
        const auto before = listing(ours);
        const std::string from = ours + "/" + row.from, to = ours + "/" + row.to;
        EXPECT_EQ(row.move ? auth.authMoveFile(from, to) : auth.authCopyFile(from, to), row.done);
        const std::string tFrom = theirs + "/" + row.from, tTo = theirs + "/" + row.to;
        const auto tool =
            row.move ? Tools::Call{"mv", "-n", tFrom, tTo} : Tools::Call{"cp", "-n", "-R", "-p", tFrom, tTo};
        EXPECT_EQ(runProgram(tool).status, 0) << "the tool reports success either way";
        EXPECT_EQ(listing(ours), row.sameAsTool ? listing(theirs) : before);
    }
    for (const auto& call : tools.calls())
        EXPECT_THAT(call, ::testing::AllOf(::testing::Contains("-n"), ::testing::Contains("-T"),
                                           ::testing::Not(::testing::Contains("-f"))));
    EXPECT_FALSE(auth.authCreateDir(s / "ours0/a.mov/x")) << "mkdir failed, and the result says so";

    // Something arrives before the tool runs: "mv -n" leaves it and ends with 0; the move failed.
    writeFile(s / "late/a.mov", "a");
    TQAuthorization::setExecHookForTesting([&](const std::string& t, std::vector<std::string> args, bool) {
        writeFile(s / "late/b.mov", "arrived");
        args.insert(args.begin(), t);
        return runProgram(args).status;
    });
    corvina::ScopedSystemLogCapture log;
    EXPECT_FALSE(auth.authMoveFile(s / "late/a.mov", s / "late/b.mov"));
    EXPECT_EQ(readFile(s / "late/b.mov") + readFile(s / "late/a.mov"), "arriveda");
    EXPECT_EQ(log.messages(), std::vector<std::string>{"Error in authMoveFile: " + s / "late/a.mov" +
                                                       " was not moved to " + s / "late/b.mov" + " (status 0)"});
}

TEST(TQFileManagerRefusals, HostileArchiveUnpacksAsUnzipDoes)
{
    TempDir s;
    fs::create_directories(s / "outside");
    // Set-id bits, special files, an owner in Info-ZIP's "ux" field, a name twice, escapes, and
    // an entry through a link out of the folder (refused; its log line once read freed memory).
    const std::string zip = s / "hostile.zip";
    runProgram({"python3", "-c", R"(
import stat, struct, sys, warnings, zipfile
warnings.simplefilter('ignore')
z = zipfile.ZipFile(sys.argv[1], 'w')
def add(name, data, mode, extra=b''):
    i = zipfile.ZipInfo(name); i.create_system = 3; i.external_attr = mode << 16; i.extra = extra; z.writestr(i, data)
add('suid', 'x', stat.S_IFREG | 0o4755); add('sgid', 'x', stat.S_IFREG | 0o2750); add('sticky/', '', stat.S_IFDIR | 0o1777)
for name, kind in (('fifo', stat.S_IFIFO), ('chr', stat.S_IFCHR), ('blk', stat.S_IFBLK), ('sock', stat.S_IFSOCK)):
    add(name, '', kind | 0o666)
add('owned.txt', 'o', stat.S_IFREG | 0o640, struct.pack('<HHBBIBI', 0x7875, 11, 1, 4, 4242, 4, 4242))
add('dup.txt', 'first', stat.S_IFREG | 0o644); add('dup.txt', 'second', stat.S_IFREG | 0o644)
add('../escape.txt', 'x', stat.S_IFREG | 0o644); add('/abs-escape.txt', 'x', stat.S_IFREG | 0o644)
add('lnk', sys.argv[2], stat.S_IFLNK | 0o777); add('lnk/evil.txt', 'evil', stat.S_IFREG | 0o644)
z.close())",
                zip, s / "outside"});
    ASSERT_TRUE(fs::exists(zip));
    // A long folder name, so that reading the refused entry's old name is caught by ASan.
    const std::string folder = s / std::string(200, 'o');
    ASSERT_TRUE(TQFileManager::decompressFile(zip, folder));
    runProgram({"unzip", "-q", "-n", zip, "-d", s / "unzip"});
    const auto ours = listing(folder, true), theirs = listing(s / "unzip", true);
    for (const char* name : {"suid", "sgid", "sticky", "owned.txt", "dup.txt", "lnk"}) {
        ASSERT_TRUE(ours.count(name)) << name;
        EXPECT_EQ(ours.at(name), theirs.at(name)) << name;
    }
    EXPECT_EQ(ours.at("suid") + ", " + ours.at("sticky") + ", " + ours.at("dup.txt"), "f:x 755, d 777, f:first 644");
    // unzip makes an empty file of each; we leave them out.
    for (const char* special : {"fifo", "chr", "blk", "sock"}) {
        EXPECT_EQ(theirs.at(special), "f: 666") << special;
        EXPECT_TRUE(!ours.count(special) || ours.at(special) == "f: 666") << special;
    }
    EXPECT_TRUE(fs::is_empty(s / "outside"));
    EXPECT_FALSE(fs::exists(s / "escape.txt") || fs::exists("/abs-escape.txt"));
    for (const auto& root : {folder, s / "unzip"}) {
        for (const auto& e : fs::recursive_directory_iterator(root)) {
            struct stat st {};
            ::lstat(e.path().c_str(), &st);
            EXPECT_EQ(st.st_uid, ::geteuid()) << e.path() << ": the owner is whoever unpacks";
        }
    }
    // No archive, or none to be read: nothing is made.
    makeFile(s / "garbage.zip", 5000);
    TQFileManager::decompressFile(s / "garbage.zip", s / "g");  // must not crash
    EXPECT_FALSE(TQFileManager::decompressFile(s / "missing.zip", s / "m"));
    EXPECT_FALSE(TQFileManager::compressFile(s / "missing", s / "m.zip"));
    EXPECT_FALSE(fs::exists(s / "m.zip"));
}

TEST(TQFileManagerRefusals, PipesAndDevicesNeverHoldHashingOrCopying)
{
    TempDir s;
    const std::string pipe = s / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0644), 0);
    const std::string movie = makeFile(s / "take.mov", 1000);
    // Should an open wait for the other end after all, one comes after twenty seconds, and says so.
    std::atomic<bool> done{false}, rescued{false};
    std::thread other([&] {
        const auto rescue = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (; !done; ::usleep(10000)) {
            if (std::chrono::steady_clock::now() < rescue) continue;
            rescued = true;
            ::close(::open(pipe.c_str(), O_RDWR | O_NONBLOCK));
        }
    });
    corvina::ScopedSystemLogCapture log;
    EXPECT_FALSE(TQFileManager::md5HashForFile(pipe));
    EXPECT_FALSE(TQFileManager::copyFileWithProgress(pipe, s / "out.mov", nullptr));
    EXPECT_FALSE(TQFileManager::copyFileWithProgress(movie, pipe, nullptr));
    EXPECT_FALSE(
        TQFileManager::copyFileWithProgress(movie, {s / "new.mov", "/dev/null"}, TQVerificationType::None, nullptr));
    done = true;
    other.join();
    EXPECT_FALSE(rescued) << "an open waited for the pipe's other end";
    const std::string abort = ". Aborting copy process...";
    EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                  "Error: Unable to open destination file " + pipe + ". Aborting hash verification...",
                                  "Error: Unable to read source file " + pipe + abort,
                                  "Error: Unable to open destination file " + pipe + abort,
                                  "Error: Unable to open destination file /dev/null" + abort}));
    EXPECT_FALSE(fs::exists(s / "out.mov") || fs::exists(s / "new.mov")) << "a refused copy leaves nothing it made";
}

TEST(TQFileManagerRefusals, SparseFilesStaySparseAsWithCpAndMv)
{
    if (!inChild()) return expectChildPasses();
    const std::string h = childHome();
    ScopedMount card(h + "/card", "tmpfs", "size=16m");
    MOUNT_OR_SKIP(card);
    // 64 MiB that hold 1 MiB of data in the middle and 4 KiB at the end.
    const auto sparse = [](const std::string& path) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const std::string data = patternBytes(1 << 20);
        EXPECT_TRUE(fd >= 0 && ::ftruncate(fd, 64 << 20) == 0 &&
                    ::pwrite(fd, data.data(), data.size(), 16 << 20) == ssize_t(data.size()) &&
                    ::pwrite(fd, data.data(), 4096, (64 << 20) - 4096) == 4096);
        ::close(fd);
        return path;
    };
    const std::string digest = toolDigest("md5sum", sparse(h + "/model"));
    const std::string trash = TQLocalPaths::trashDirectory().value();
    const struct {
        const char* name;
        std::function<bool(const std::string&, const std::string&)> ours;
        const char* tool;
        bool fromCard;
        bool toTrash;
    } rows[] = {
        {"copyFile", [](auto& a, auto& b) { return TQFileManager::copyFile(a, b, false); }, "cp", false, false},
        {"verified copy", [](auto& a, auto& b) { return TQFileManager::copyFileWithProgress(a, b, nullptr); }, "cp",
         false, false},
        {"move across volumes", [](auto& a, auto& b) { return TQFileManager::moveFile(a, b, false); }, "mv", true,
         false},
        {"trash across volumes", [](auto& a, auto&) { return TQFileManager::trashFile(a, false); }, "mv", true, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string from = sparse((row.fromCard ? card.path() : h) + "/take.mov");
        const std::string to = row.toTrash ? trash + "/take.mov" : h + "/ours.mov";
        ASSERT_TRUE(row.ours(from, h + "/ours.mov"));
        sparse(from);
        runProgram({row.tool, from, h + "/tool.mov"});
        EXPECT_EQ(toolDigest("md5sum", to), digest);
        EXPECT_LE(allocated(to), allocated(h + "/tool.mov") + 65536) << allocated(to) << " bytes taken";
        EXPECT_LT(allocated(to), 2 << 20);
        fs::remove(to);
        fs::remove(h + "/tool.mov");
    }
}

TEST(TQFileManagerArchive, RoundTripWithAndWithoutTheParentFolder)
{
    if (!inChild()) return expectChildPasses();
    const std::string home = childHome();
    const std::string tree = home + "/Footage";
    makeTree(tree);
    const auto original = listing(tree);

    const std::vector<std::string> inside = {
        "audio/", "audio/deeper/", "audio/deeper/notes.txt", "audio/take.pcm", "clip 1.mov", "empty/", "link.mov"};
    for (const bool parent : {true, false}) {
        SCOPED_TRACE(parent);
        const std::string archive = home + (parent ? "/with.zip" : "/without.zip");
        ASSERT_TRUE(TQFileManager::compressFile(tree, archive, parent));
        std::vector<std::string> expected;
        if (parent) expected.push_back("Footage/");
        for (const auto& n : inside) expected.push_back(parent ? "Footage/" + n : n);
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(unzipNames(archive), expected);
        EXPECT_NE(runProgram({"unzip", "-tq", archive}).out.find("No errors detected"), std::string::npos);

        // Unpacked by us and by the independent tool: the same bytes as the folder.
        const std::string ours = home + (parent ? "/ours-with" : "/ours-without");
        const std::string theirs = home + (parent ? "/theirs-with" : "/theirs-without");
        ASSERT_TRUE(TQFileManager::decompressFile(archive, ours));
        runProgram({"unzip", "-q", archive, "-d", theirs});
        EXPECT_EQ(listing(parent ? ours + "/Footage" : ours), original);
        EXPECT_EQ(listing(parent ? theirs + "/Footage" : theirs), original);
    }

    // A single file is stored under its own name; the default keeps the parent.
    ASSERT_TRUE(TQFileManager::compressFile(tree + "/audio/take.pcm", home + "/one.zip"));
    EXPECT_EQ(unzipNames(home + "/one.zip"), std::vector<std::string>{"take.pcm"});
    // An archive written into the folder it packs leaves itself out.
    ASSERT_TRUE(TQFileManager::compressFile(tree + "/audio", tree + "/audio/self.zip", false));
    EXPECT_EQ(unzipNames(tree + "/audio/self.zip"),
              (std::vector<std::string>{"deeper/", "deeper/notes.txt", "take.pcm"}));
}

TEST(TQFileManagerArchive, ExistingArchiveAndFolderGoToTheTrash)
{
    if (!inChild()) return expectChildPasses();
    const std::string home = childHome();
    const std::string trash = home + "/.local/share/Trash";
    makeFile(home + "/a/one.txt", 10);
    writeFile(home + "/pack.zip", "an older archive");
    writeFile(home + "/out/keep.txt", "older output");

    ASSERT_TRUE(TQFileManager::compressFile(home + "/a", home + "/pack.zip"));
    EXPECT_EQ(unzipNames(home + "/pack.zip"), (std::vector<std::string>{"a/", "a/one.txt"}));
    EXPECT_EQ(readFile(trash + "/files/pack.zip"), "an older archive");
    EXPECT_NE(readFile(trash + "/info/pack.zip.trashinfo").find("Path=" + home + "/pack.zip"), std::string::npos);

    ASSERT_TRUE(TQFileManager::decompressFile(home + "/pack.zip", home + "/out"));
    EXPECT_TRUE(fs::exists(home + "/out/a/one.txt"));
    EXPECT_FALSE(fs::exists(home + "/out/keep.txt"));
    EXPECT_EQ(readFile(trash + "/files/out/keep.txt"), "older output");
}

TEST(TQFileManagerWait, WritesByAnotherProcessAreWaitedOut)
{
    if (!inChild()) return expectChildPasses();
    TQLog::createNewLog("Services");
    const std::string home = childHome();
    const std::string file = home + "/growing.mov";
    const std::string old = home + "/old.mov";
    const std::string lock = home + "/old.lock";
    writeFile(old, "x");
    backdate(old, 10);

    TQFileManager::waitForFileWrites(old);  // old, no lock file: at once, silently
    writeFile(lock, "");
    TQFileManager::waitForFileWrites(old, lock);  // the lock file only starts the wait
    TQFileManager::waitForFileWrites(home + "/missing.mov", lock);

    // Another process appends for a while; the wait ends only five seconds after its last write.
    corvina::Process writer;
    writer.setLaunchPath("/bin/sh");
    writer.setArguments({"-c", "for i in 1 2 3 4 5 6; do echo $i >> \"$1\"; sleep 0.3; done", "sh", file});
    writer.launch();
    while (!fs::exists(file)) ::usleep(1000);
    TQFileManager::waitForFileWrites(file);
    EXPECT_FALSE(writer.isRunning()) << "the writer had finished";
    EXPECT_EQ(readFile(file), "1\n2\n3\n4\n5\n6\n");
    struct stat st {};
    ::stat(file.c_str(), &st);
    EXPECT_GT(std::chrono::duration_cast<std::chrono::seconds>(corvina::Clock::now().time_since_epoch()).count() -
                  st.st_mtim.tv_sec,
              4);

    TQLog::finishWriting();
    std::vector<std::string> waits;
    for (const auto& l : logEntries(childLogPath()))
        if (l.rfind("File ", 0) == 0) waits.push_back(l);
    EXPECT_THAT(waits, ::testing::ElementsAre("File " + old + " is currently being written to. Waiting...",
                                              "File " + old + " finished writing.",
                                              "File " + home + "/missing.mov is currently being written to. Waiting...",
                                              "File " + home + "/missing.mov finished writing.",
                                              "File " + file + " is currently being written to. Waiting...",
                                              "File " + file + " finished writing."));
}

TEST(TQFileManagerWait, OpenForWritingByAnyProcess)
{
    TempDir scratch;
    const std::string file = scratch / "take.mov";
    writeFile(file, "x");
    EXPECT_FALSE(TQFileManager::fileIsOpenForWriting(file));
    EXPECT_FALSE(TQFileManager::fileIsOpenForWriting(scratch / "missing"));
    {
        const int reader = ::open(file.c_str(), O_RDONLY);
        EXPECT_FALSE(TQFileManager::fileIsOpenForWriting(file));
        const int both = ::open(file.c_str(), O_RDWR);
        EXPECT_TRUE(TQFileManager::fileIsOpenForWriting(file));
        ::close(both);
        ::close(reader);
    }
    // Another process appending to it, even after the file was renamed.
    corvina::Process writer;
    writer.setLaunchPath("/bin/sh");
    writer.setArguments({"-c", "exec 3>>\"$1\"; exec sleep 60", "sh", file});
    writer.launch();
    bool seen = false;
    for (int i = 0; i < 3000 && !(seen = TQFileManager::fileIsOpenForWriting(file)); ++i) ::usleep(10000);
    EXPECT_TRUE(seen);
    fs::rename(file, scratch / "renamed.mov");
    EXPECT_TRUE(TQFileManager::fileIsOpenForWriting(scratch / "renamed.mov"));
    writer.terminate();
    writer.waitUntilExit();
    EXPECT_FALSE(TQFileManager::fileIsOpenForWriting(scratch / "renamed.mov"));
}

TEST(TQFileManagerWait, CreationIsWaitedForUntilTheTimeOut)
{
    TempDir scratch;
    const std::string file = scratch / "later.mov";
    TQFileManager::waitForFileCreation(file, std::chrono::seconds(0));  // returns after one look
    EXPECT_FALSE(fs::exists(file));

    std::thread maker([&] {
        ::usleep(200000);
        writeFile(file, "");  // an empty file does not count yet
        ::usleep(200000);
        writeFile(file, "frames");
    });
    TQFileManager::waitForFileCreation(file, std::chrono::seconds(60));
    EXPECT_EQ(readFile(file), "frames");
    maker.join();
}

}  // namespace corvina::tq
