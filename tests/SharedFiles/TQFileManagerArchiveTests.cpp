#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "Process/Process.h"
#include "support/TestSupport.h"
#include "tq/TQFileManager.h"
#include "tq/TQLog.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using namespace corvina::test;

namespace {

// A folder of footage-like items: nested folders, an empty one, a link, a file of several
// read blocks and names with blanks.
void makeTree(const std::string& root)
{
    makeFile(root + "/clip 1.mov", 3 * 1048576 + 11, 5);
    makeFile(root + "/audio/take.pcm", 70000, 6);
    makeFile(root + "/audio/deeper/notes.txt", 0);
    fs::create_directories(root + "/empty");
    fs::create_symlink("clip 1.mov", root + "/link.mov");
}

// Relative path -> content (or "-> target" for links, "/" for folders) of everything below.
std::map<std::string, std::string> treeContents(const std::string& root)
{
    std::map<std::string, std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(root)) {
        const std::string rel = fs::relative(e.path(), root).string();
        if (e.is_symlink())
            out[rel] = "-> " + fs::read_symlink(e.path()).string();
        else if (e.is_directory())
            out[rel] = "/";
        else
            out[rel] = readFile(e.path());
    }
    return out;
}

// Entry names that unzip lists for the archive.
std::vector<std::string> unzipNames(const std::string& archive)
{
    std::vector<std::string> names;
    std::stringstream ss(runProgram({"unzip", "-Z1", archive}).out);
    for (std::string line; std::getline(ss, line);) names.push_back(line);
    std::sort(names.begin(), names.end());
    return names;
}

void backdate(const std::string& path, int secondsAgo)
{
    TQFileManager::setModificationDate(corvina::Clock::now() - std::chrono::seconds(secondsAgo), path);
}

}  // namespace

TEST(TQFileManagerArchive, RoundTripWithAndWithoutTheParentFolder)
{
    if (!inChild()) return expectChildPasses();
    const std::string home = childHome();
    const std::string tree = home + "/Footage";
    makeTree(tree);
    const auto original = treeContents(tree);

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
        EXPECT_EQ(treeContents(parent ? ours + "/Footage" : ours), original);
        EXPECT_EQ(treeContents(parent ? theirs + "/Footage" : theirs), original);
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

    // A second archive of the same name goes beside the first, under a dated name.
    ASSERT_TRUE(TQFileManager::compressFile(home + "/a", home + "/pack.zip"));
    int archives = 0;
    for (const auto& e : fs::directory_iterator(trash + "/files"))
        archives += e.path().filename().string().rfind("pack", 0) == 0 ? 1 : 0;
    EXPECT_EQ(archives, 2);
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
    const auto log = logEntries(childLogPath());
    const std::vector<std::string> expected = {
        "File " + old + " is currently being written to. Waiting...",
        "File " + old + " finished writing.",
        "File " + home + "/missing.mov is currently being written to. Waiting...",
        "File " + home + "/missing.mov finished writing.",
        "File " + file + " is currently being written to. Waiting...",
        "File " + file + " finished writing."};
    std::vector<std::string> waits;
    for (const auto& l : log)
        if (l.rfind("File ", 0) == 0) waits.push_back(l);
    EXPECT_EQ(waits, expected);
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
