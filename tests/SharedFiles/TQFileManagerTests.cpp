// The file services: names, queries, attributes, locks, the trash, moves and folders.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "support/PrivilegedTools.h"
#include "Foundation/SystemLog.h"
#include "tq/TQFileManager.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQLog.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using namespace corvina::test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

namespace {

std::string trashFiles() { return TQLocalPaths::trashDirectory().value(); }

// The log's failure lines, without the header it writes when it starts.
std::vector<std::string> loggedProblems()
{
    TQLog::finishWriting();
    std::vector<std::string> out;
    for (const auto& line : logEntries(childLogPath()))
        if (line.rfind("Unable", 0) == 0 || line.rfind("Error", 0) == 0) out.push_back(line);
    return out;
}

}  // namespace

TEST(TQFileManagerWildcards, PatternsAgainstARealTree)
{
    TempDir scratch;
    const std::string& s = scratch.path();
    for (const char* f : {"Volumes/A/Media", "Volumes/B/other", "Volumes/.hidden/Media", "clips/x.mov", "clips/y.mov",
                          "clips/A.MOV", "clips/sub/z.mov", "clips/?.mov", "clips/ab.mov"})
        writeFile(scratch / f, "x");
    fs::create_directories(scratch / "Volumes/C/Media");
    const std::string clips = scratch / "clips";
    const std::string relative = s.substr(1);  // taken from the root when no base is given

    struct Row {
        std::string pattern;
        std::optional<std::string> base;
        std::vector<std::string> expected;
    } rows[] = {
        {s + "/Volumes/*", {}, {s + "/Volumes/.hidden", s + "/Volumes/A", s + "/Volumes/B", s + "/Volumes/C"}},
        {s + "/Volumes/*/Media", {}, {s + "/Volumes/.hidden/Media", s + "/Volumes/A/Media", s + "/Volumes/C/Media"}},
        {s + "/Volumes/*/", {}, {s + "/Volumes/.hidden", s + "/Volumes/A", s + "/Volumes/B", s + "/Volumes/C"}},
        {relative + "/Volumes/[AB]*", {}, {}},
        {relative + "/Volumes/*/Media",
         {},
         {s + "/Volumes/.hidden/Media", s + "/Volumes/A/Media", s + "/Volumes/C/Media"}},
        {"*.mov", clips, {clips + "/?.mov", clips + "/ab.mov", clips + "/x.mov", clips + "/y.mov"}},
        {"?.mov*", clips, {clips + "/?.mov", clips + "/x.mov", clips + "/y.mov"}},
        {"a*b*.mov", clips, {clips + "/ab.mov"}},
        {"*/z.mov", clips, {clips + "/sub/z.mov"}},
        {"*/missing.mov", clips, {}},
        {"*.avi", clips, {}},
        {"x.mov/*", clips, {}},
        // Without "*" nothing is looked up, "?" included.
        {"a/b.mov", std::string("/x"), {"/x/a/b.mov"}},
        {"?.mov", clips, {clips + "/?.mov"}},
        {"q?.mov", clips, {clips + "/q?.mov"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.pattern);
        for (bool searchSubdirs : {false, true})
            EXPECT_THAT(TQFileManager::filesMatchingWildcardPath(row.pattern, row.base, searchSubdirs),
                        UnorderedElementsAreArray(row.expected))
                << "searchSubdirs never descends";
    }

    EXPECT_EQ(TQFileManager::decodeWildcardPath("*/z.mov", clips), clips + "/sub/z.mov");
    EXPECT_EQ(TQFileManager::decodeWildcardPath("*.avi", clips), clips + "/*.avi");
    EXPECT_EQ(TQFileManager::decodeWildcardPath(s + "/nothing/*", std::nullopt), std::nullopt);
    EXPECT_EQ(TQFileManager::decodeWildcardPath(s + "/Volumes/A*", std::nullopt), s + "/Volumes/A");
}

TEST(TQFileManagerNames, CleanedFileNames)
{
    const std::pair<std::string, std::string> rows[] = {
        {".hidden", "hidden"},
        {" .name:1/2", ".name12"},
        {"..", "."},
        {".", ""},
        {"  take 1.mov \n", "take 1.mov"},
        {". x ", "x"},
        {"\xC2\xA0"
         "clip"
         "\xE3\x80\x80",
         "clip"},
        {"caf\xC3\xA9?*.mov", "caf\xC3\xA9?*.mov"},
    };
    for (const auto& [in, out] : rows) EXPECT_EQ(TQFileManager::validateFilename(in), out) << in;
}

TEST(TQFileManagerNames, SizesForPeople)
{
    const std::pair<double, std::string> rows[] = {
        {0, "0 B"},
        {1023, "1023 B"},
        {1024, "1.00 KB"},
        {1048575, "1024.00 KB"},
        {1073741824, "1.00 GB"},
        {1125899906842624.0 * 3, "3072.00 TB"},
    };
    for (const auto& [bytes, text] : rows) EXPECT_EQ(TQFileManager::formatFileSize(bytes), text) << bytes;
}

TEST(TQFileManagerNames, EmptyFilesNeverReplaceAnything)
{
    TempDir scratch;
    EXPECT_TRUE(TQFileManager::createEmptyFile(scratch / "new.mov"));
    EXPECT_EQ(fileSize(scratch / "new.mov"), 0);
    writeFile(scratch / "footage.mov", "precious");
    EXPECT_FALSE(TQFileManager::createEmptyFile(scratch / "footage.mov"));
    EXPECT_EQ(readFile(scratch / "footage.mov"), "precious");
    EXPECT_FALSE(TQFileManager::createEmptyFile(scratch / "no/folder/new.mov"));
}

TEST(TQFileManagerNames, TouchAndModificationDates)
{
    TempDir scratch;
    const std::string file = scratch / "take.mov";
    writeFile(file, "x");
    EXPECT_FALSE(TQFileManager::setModificationDate(corvina::Date(), scratch / "missing"));

    const auto before =
        std::chrono::duration_cast<std::chrono::seconds>(corvina::Clock::now().time_since_epoch()).count();
    EXPECT_TRUE(TQFileManager::touchFile(file));
    EXPECT_GE(mtimeSeconds(file), before);

    // A missing file: the privileged "touch -c", which creates nothing.
    Tools privileged;
    EXPECT_TRUE(TQFileManager::touchFile(scratch / "missing", true));
    EXPECT_FALSE(TQFileManager::touchFile(""));
    EXPECT_EQ(privileged.calls(), (std::vector<Tools::Call>{{"/usr/bin/touch", "-c", scratch / "missing"}}));
    EXPECT_EQ(privileged.async(), std::vector<bool>{false}) << "waited for";
    EXPECT_FALSE(fs::exists(scratch / "missing"));
}

TEST(TQFileManagerQueries, KindsOfItemsAndTheirDates)
{
    TempDir s;
    writeFile(s / "file.mov", "12345");
    fs::create_directories(s / "folder");
    fs::create_directories(s / "Tool.app/Contents");
    writeFile(s / "plain.app", "not a folder");
    fs::create_symlink(s / "file.mov", s / "fileLink");
    fs::create_symlink(s / "folder", s / "folderLink");
    fs::create_symlink(s / "gone", s / "dangling");
    struct Row {
        const char* name;
        bool exists, directory, package, link;
    } rows[] = {{"file.mov", 1, 0, 0, 0},  {"folder", 1, 1, 0, 0},   {"Tool.app", 1, 1, 1, 0},
                {"plain.app", 1, 0, 0, 0}, {"fileLink", 1, 0, 0, 1}, {"folderLink", 1, 1, 0, 1},
                {"dangling", 0, 0, 0, 1},  {"missing", 0, 0, 0, 0}};
    for (const auto& r : rows) {
        const std::string p = s / r.name;
        EXPECT_EQ(TQFileManager::fileExistsAtPath(p), r.exists) << r.name;
        EXPECT_EQ(TQFileManager::isDirectoryAtPath(p), r.directory) << r.name;
        EXPECT_EQ(TQFileManager::isPackageAtPath(p), r.package) << r.name;
        EXPECT_EQ(TQFileManager::isSymbolicLinkAtPath(p), r.link) << r.name;
        EXPECT_EQ(TQFileManager::modificationDateForFile(p).has_value(), r.link || r.exists) << "a link's own date";
    }
    const struct timespec times[2] = {{1000000000, 0}, {1234567890, 500000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (s / "file.mov").c_str(), times, 0), 0);
    const auto modified = TQFileManager::modificationDateForFile(s / "file.mov").value();
    EXPECT_EQ(std::chrono::duration_cast<std::chrono::milliseconds>(modified.time_since_epoch()).count(),
              1234567890500);
    EXPECT_FALSE(TQFileManager::creationDateForFile(s / "missing").has_value());
    if (const auto created = TQFileManager::creationDateForFile(s / "file.mov")) {
        EXPECT_GT(*created, modified) << "the birth time, not the modification time set above";
    }
}

TEST(TQFileManagerQueries, SizesAndEmptinessOfTrees)
{
    TempDir s;
    writeFile(s / "tree/a.raw", std::string(1000, 'a'));
    writeFile(s / "tree/sub/b.pcm", std::string(234, 'b'));
    writeFile(s / "tree/.hidden", "12");
    fs::create_symlink(s / "tree", s / "tree/sub/loop");  // a link back up ends the walk
    writeFile(s / "clutter/.DS_Store", "x");
    writeFile(s / "clutter/Icon\r", "x");
    writeFile(s / "clutter/sub/deeper/.DS_Store", "");
    writeFile(s / "deepfile/a/b/c/take.mov", "x");
    writeFile(s / "hidden/.anything", "x");
    EXPECT_EQ(TQFileManager::fileSize(s / "tree"), 1236u);
    EXPECT_EQ(TQFileManager::fileSize(s / "tree/a.raw"), 1000u);
    EXPECT_EQ(TQFileManager::fileSize(s / "clutter/sub"), 0u);
    EXPECT_EQ(TQFileManager::fileSize(s / "missing"), 0u);
    EXPECT_TRUE(TQFileManager::isFolderEmpty(s / "clutter"));
    EXPECT_TRUE(TQFileManager::isFolderEmpty(s / "clutter/sub/deeper"));
    EXPECT_FALSE(TQFileManager::isFolderEmpty(s / "deepfile"));
    EXPECT_FALSE(TQFileManager::isFolderEmpty(s / "hidden"));
    EXPECT_FALSE(TQFileManager::isFolderEmpty(s / "tree/sub"));
    EXPECT_TRUE(TQFileManager::isFolderEmpty(s / "missing"));
}

TEST(TQFileManagerQueries, FreeNames)
{
    TempDir s;
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "clip.mov"), s / "clip.mov");
    for (const char* taken : {"clip.mov", "clip 2.mov", "notes", "a.tar.gz"}) writeFile(s / taken, "x");
    fs::create_symlink(s / "nowhere", s / "link.mov");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "clip.mov"), s / "clip 3.mov");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "notes"), s / "notes 2");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "a.tar.gz"), s / "a.tar 2.gz");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "link.mov"), s / "link 2.mov") << "a dangling link takes its name";
}

TEST(TQFileManagerQueries, VolumesFolderRules)
{
    for (const char* p : {"/Volumes", "/Users/x", "/", "relative/x"})
        EXPECT_TRUE(TQFileManager::isVolumeMountedForPath(p) && TQFileManager::isDriveMountedForPath(p)) << p;
    EXPECT_FALSE(TQFileManager::isVolumeMountedForPath("/Volumes/Gone/x") ||
                 TQFileManager::isDriveMountedForPath("/Volumes/Gone/x"));
    EXPECT_FALSE(TQFileManager::isVolumeMountedForPath("/VolumesX/a")) << "no slash needed after /Volumes";
    EXPECT_TRUE(TQFileManager::isDriveMountedForPath("/VolumesX/a"));
    EXPECT_EQ(TQFileManager::volumeMountPointForPath("/Volumes/Gone/x"), std::nullopt);
    EXPECT_EQ(TQFileManager::volumeMountPointForPath("/Users/x"), "/");
}

TEST(TQFileManagerQueries, MountedVolumesAndTheirDisks)
{
    TempDir s;
    ScopedMount memory(s / "Media Card");  // the kernel's table escapes the space
    MOUNT_OR_SKIP(memory);
    fs::create_directories(s / "Media Cardboard");
    EXPECT_THAT(TQFileManager::mountedLocalVolumePaths(),
                ::testing::AllOf(Contains(memory.path()), Contains("/proc").Times(0)));
    EXPECT_EQ(TQFileManager::volumeMountPointForPath(memory / "DCIM/clip.mov"), memory.path());
    EXPECT_EQ(TQFileManager::volumeMountPointForPath(memory.path()), memory.path());
    EXPECT_NE(TQFileManager::volumeMountPointForPath(s / "Media Cardboard/x"), memory.path());
    writeFile(memory / "fill", std::string(1 << 20, 'x'));
    for (const std::string& asked : {memory.path(), memory.path() + "/"}) {
        const auto info = TQFileManager::infoForDiskAtMountpoint(asked).value_or(corvina::Value());
        EXPECT_EQ(info["MountPoint"].stringValue(), memory.path());
        EXPECT_EQ(info["VolumeName"].stringValue(), "Media Card");
        EXPECT_EQ(info["FilesystemType"].stringValue(), "tmpfs");
        EXPECT_EQ(info["TotalSize"].unsignedLongLongValue(), 4u << 20);
        EXPECT_LE(info["FreeSpace"].unsignedLongLongValue(), 3u << 20);
        EXPECT_TRUE(info["WritableVolume"].boolValue());
        EXPECT_TRUE(info["DeviceNode"].isNone()) << "memory has no device";
    }
    EXPECT_FALSE(TQFileManager::infoForDiskAtMountpoint(s / "Media Cardboard").has_value());
}

TEST(TQFileManagerQueries, FileSystemReferences)
{
    TempDir s;
    writeFile(s / "take.mov", "x");
    const auto ref = TQFileManager::stringToFSRef(s / "take.mov");
    EXPECT_EQ(TQFileManager::stringWithFSRef(&ref), fs::canonical(s / "take.mov").string());
    writeFile(s / "other", "y");
    fs::rename(s / "other", s / "take.mov");
    EXPECT_EQ(TQFileManager::stringWithFSRef(&ref), std::nullopt) << "another item under the same name";
    const auto missing = TQFileManager::stringToFSRef(s / "missing");
    EXPECT_FALSE(missing.valid || TQFileManager::stringWithFSRef(&missing) || TQFileManager::stringWithFSRef(nullptr));
}

TEST(TQFileManagerLocks, FoldersOnFileSystemsWithAndWithoutTheFlag)
{
    if (!inChild()) return expectChildPasses();
    ScopedMount flags(childHome() + "/tmpfs", "tmpfs", "size=1m");
    ScopedMount none(childHome() + "/ramfs", "ramfs", "");
    MOUNT_OR_SKIP(flags);
    MOUNT_OR_SKIP(none);
    TQLog::createNewLog("Services");
    for (const char* f : {"card/a.mov", "card/sub/b.mov", "outside.mov"}) writeFile(flags / f, "x");
    fs::create_symlink(flags / "outside.mov", flags / "card/link");
    TQFileManager::lockFolder(flags / "card");
    EXPECT_TRUE(TQFileManager::isFileLocked(flags / "card/a.mov") &&
                TQFileManager::isFileLocked(flags / "card/sub/b.mov"));
    EXPECT_FALSE(TQFileManager::isFileLocked(flags / "card") || TQFileManager::isFileLocked(flags / "card/sub"));
    EXPECT_FALSE(TQFileManager::isFileLocked(flags / "outside.mov")) << "links are not followed";
    std::error_code ec;
    EXPECT_FALSE(fs::remove(flags / "card/sub/b.mov", ec));
    EXPECT_TRUE(TQFileManager::removeFile(flags / "card/a.mov", false)) << "a locked item is unlocked, then removed";
    EXPECT_FALSE(fs::exists(flags / "card/a.mov"));
    TQFileManager::unlockFolder(flags / "card");
    EXPECT_FALSE(TQFileManager::isFileLocked(flags / "card/sub/b.mov"));
    TQFileManager::unlockFolder(flags / "not-a-folder");

    writeFile(none / "c.mov", "c");
    TQFileManager::lockFile(none / "c.mov");
    EXPECT_FALSE(TQFileManager::isFileLocked(none / "c.mov"));
    EXPECT_TRUE(TQFileManager::removeFile(none / "c.mov", false)) << "nothing to unlock: no failure";
    TQFileManager::setPosixPermissions(0640, flags / "outside.mov");
    TQFileManager::setPosixPermissions(0644, flags / "missing");
    struct stat st {};
    EXPECT_EQ(::stat((flags / "outside.mov").c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0640u);
    EXPECT_THAT(loggedProblems(),
                ElementsAre("Unable to lock file " + flags / "card/link: Operation not supported",
                            "Unable to lock file " + none / "c.mov: Operation not supported",
                            "Error setting permissions for file " + flags / "missing: No such file or directory"));
}

TEST(TQFileManagerLocks, UnlockingNeverNeedsToReadTheItem)
{
    if (!inChild()) return expectChildPasses();
    const std::string file = childHome() + "/sealed.mov";
    writeFile(file, "x");
    ::chmod(file.c_str(), 0);
    ::chown(file.c_str(), 65534, 65534);
    becomeNobody();
    TQLog::createNewLog("Services");
    TQFileManager::unlockFile(file);
    EXPECT_TRUE(TQFileManager::removeFile(file, false));
    EXPECT_TRUE(TQFileManager::removeFile(file)) << "a missing item counts as removed";
    EXPECT_THAT(loggedProblems(), ElementsAre("Unable to unlock file " + file + ": No such file or directory"));
}

TEST(TQFileManagerLog, UnremovableItemFallsBackToPrivilegedRemovalOnlyWhenAllowed)
{
    // A file in a locked folder cannot be removed, not even by root.
    if (!inChild()) return expectChildPasses();
    const std::string folder = childHome() + "/sealed";
    const std::string file = folder + "/take.mov";
    writeFile(file, "x");
    struct Unlock {  // so that the folder can go
        std::string path;
        ~Unlock() { TQFileManager::unlockFile(path); }
    } unlock{folder};
    TQFileManager::lockFile(folder);
    if (!TQFileManager::isFileLocked(folder)) GTEST_SKIP() << "no immutable flag here";
    TQLog::createNewLog("Services");
    Tools tools;
    EXPECT_FALSE(TQFileManager::removeFile(file, false));
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_TRUE(fs::exists(file));
    TQLog::finishWriting();
    EXPECT_EQ(
        std::ranges::count(logEntries(childLogPath()), "Error removing file: Operation not permitted. Authorizing..."),
        1);
    // The recorded privileged tool removes nothing, and the result says so.
    if (::getuid() != 0) return;
    EXPECT_FALSE(TQFileManager::removeFile(file));
    EXPECT_EQ(tools.calls(), (std::vector<Tools::Call>{{"/bin/rm", "-Rdf", "--one-file-system", "--", file}}));
}

TEST(TQFileManagerMetadata, AttributesAsOtherToolsReadThem)
{
    TempDir s;
    const std::string file = s / "take.mov";
    writeFile(file, "x");
    EXPECT_TRUE(TQFileManager::setMetadataValue("Reel 7 \xc3\xa9", "com.example.reel", file));
    EXPECT_EQ(getfattr(file, "user.com.example.reel"), "Reel 7 \xc3\xa9");
    EXPECT_EQ(TQFileManager::metadataValueForKey("com.example.reel", file), "Reel 7 \xc3\xa9");
    EXPECT_TRUE(TQFileManager::setMetadataValue("named", "user.explicit", file));
    EXPECT_EQ(getfattr(file, "user.explicit"), "named") << "a namespace given is kept";
    corvina::ScopedSystemLogCapture capture;
    EXPECT_EQ(TQFileManager::metadataValueForKey("com.example.none", file), std::nullopt);
    EXPECT_THAT(capture.messages(), ElementsAre("buffer val: -1", "Error retrieving file attribute: 61"));
    runProgram({"setfattr", "-n", "user.bad", "-v", "0xff00fe", file});
    EXPECT_EQ(TQFileManager::metadataValueForKey("bad", file), std::nullopt) << "not UTF-8";
    EXPECT_FALSE(TQFileManager::setMetadataValue("v", "k", s / "missing"));
    EXPECT_EQ(capture.messages().back(), "Error setting extended attribute for file " + (s / "missing") + " - -1");

    TQFileManager::setFinderProgress(0.25f, file);
    EXPECT_EQ(getfattr(file, "user.com.apple.progress.fractionCompleted"), "0.250");
    TQFileManager::removeFinderProgressForFile(file);
    EXPECT_EQ(getfattr(file, "user.com.apple.progress.fractionCompleted"), "");
}

TEST(TQFileManagerMetadata, ColourLabelsInTheFinderInfoRecord)
{
    TempDir s;
    const std::string file = s / "take.mov";
    const char* record = "user.com.apple.FinderInfo";
    writeFile(file, "x");
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(file), 0);
    TQFileManager::setFinderColorIndex(6, file);
    EXPECT_EQ(getfattr(file, record), std::string(9, '\0') + '\x0c' + std::string(22, '\0'));
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(file), 6);
    // A record written by someone else keeps its other bits.
    runProgram({"setfattr", "-n", record, "-v",
                "0x54455854545454540"
                "0F1" +
                    std::string(42, '0') + "AB",
                file});
    TQFileManager::setFinderColorIndex(3, file);
    const std::string info = getfattr(file, record);
    EXPECT_EQ(info.substr(0, 4) + info.substr(9, 1) + info.substr(31), "TEXT\xF7\xAB");
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(file), 3);
    EXPECT_EQ(TQFileManager::finderColorForPath(file), TQFileManager::finderColorForColorIndex(3));
    TQFileManager::setFinderColorIndex(4, s / "plain");
    writeFile(s / "plain", "x");
    TQFileManager::setFinderColorIndex(4, s / "plain");
    TQFileManager::setFinderColorIndex(0, s / "plain");
    EXPECT_EQ(getfattr(s / "plain", record), "") << "an all-zero record goes";
    EXPECT_EQ(TQFileManager::finderColorForColorIndex(0), std::nullopt);
    EXPECT_EQ(TQFileManager::finderColorForColorIndex(8), std::nullopt);
}

TEST(TQFileManagerTrash, RoundTripThroughTheFreedesktopTrash)
{
    if (!inChild()) return expectChildPasses();
    const std::string h = childHome();
    const char* items[] = {"/day1/my report.txt", "/day2/my report.txt", "/day3/my report.txt", "/a/Notes/n",
                           "/b/Notes/n"};
    for (const char* item : items) writeFile(h + item, item);
    for (const char* item :
         {"/day1/my report.txt", "/day2/my report.txt", "/day3/my report.txt", "/a/Notes", "/b/Notes"})
        ASSERT_TRUE(TQFileManager::trashFile(h + item, false)) << item;
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(trashFiles())) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    // The third report is trashed within the second of the second one, or not.
    const auto later = MatchesRegex(R"(my report_[0-9]{14}( 2)?\.txt)");
    ASSERT_THAT(names, ElementsAre("Notes", MatchesRegex(R"(Notes_[0-9]{14}\.)"), "my report.txt", later, later));
    // Each record names the original place (percent-encoded) and the time; following it restores it.
    for (const auto& name : names) {
        const std::string info =
            readFile(fs::path(trashFiles()).parent_path().string() + "/info/" + name + ".trashinfo");
        std::smatch m;
        ASSERT_TRUE(std::regex_match(info, m,
                                     std::regex("\\[Trash Info\\]\nPath=(/[A-Za-z0-9%/._~-]+)\n"
                                                "DeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n")))
            << info;
        const std::string original = std::regex_replace(m[1].str(), std::regex("%20"), " ");
        ASSERT_FALSE(fs::exists(original)) << original;
        fs::rename(trashFiles() + "/" + name, original);
    }
    for (const char* item : items) EXPECT_EQ(readFile(h + item), item);
}

TEST(TQFileManagerTrash, FolderWideTrashing)
{
    if (!inChild()) return expectChildPasses();
    const std::string c = childHome() + "/cards";
    for (const char* f :
         {"/a.mov", "/deep/er/b.Mov", "/Take.mov/c.MOV", "/readme.txt", "/deep/readme.txt", "/deep/README.txt"})
        writeFile(c + f, "x");
    EXPECT_THAT(TQFileManager::trashFilesOfType("MOV", c),
                UnorderedElementsAre(c + "/a.mov", c + "/deep/er/b.Mov", c + "/Take.mov/c.MOV"));
    EXPECT_TRUE(fs::is_directory(c + "/Take.mov")) << "a folder named like a movie is searched";
    EXPECT_THAT(TQFileManager::trashFilesNamed("readme.txt", c),
                UnorderedElementsAre(c + "/readme.txt", c + "/deep/readme.txt"));
    EXPECT_TRUE(fs::exists(c + "/deep/README.txt"));
    EXPECT_TRUE(TQFileManager::trashFilesOfType("mov", c + "/missing").empty());
    EXPECT_TRUE(TQFileManager::trashDirectoryContents(c) && fs::is_empty(c)) << "the folder itself stays";
    EXPECT_TRUE(TQFileManager::trashDirectoryContents(c + "/x") &&
                TQFileManager::trashFile(c + "/x", std::chrono::seconds(0)));
}

TEST(TQFileManagerMove, AcrossFileSystemsKeepsTreesWhole)
{
    TempDir s;
    ScopedMount card(s / "card");
    MOUNT_OR_SKIP(card);
    writeFile(card / "DCIM/clip.mov", "frames");
    writeFile(card / "DCIM/sub/audio.pcm", "pcm");
    ::chmod((card / "DCIM/clip.mov").c_str(), 0640);
    const struct timespec times[2] = {{1000000000, 0}, {1100000000, 0}};
    ::utimensat(AT_FDCWD, (card / "DCIM/clip.mov").c_str(), times, 0);
    fs::create_symlink("clip.mov", card / "DCIM/latest");
    TQFileManager::setFinderColorIndex(2, card / "DCIM/clip.mov");

    ASSERT_TRUE(TQFileManager::moveFile(card / "DCIM", s / "imported", false));
    EXPECT_TRUE(!fs::exists(card / "DCIM") && readFile(s / "imported/sub/audio.pcm") == "pcm");
    EXPECT_EQ(fs::read_symlink(s / "imported/latest"), "clip.mov");
    struct stat st {};
    ASSERT_EQ(::stat((s / "imported/clip.mov").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1100000000);
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(s / "imported/clip.mov"), 2);
    ASSERT_TRUE(TQFileManager::copyFile(s / "imported", card / "again", false));
    EXPECT_EQ(readFile(card / "again/clip.mov") + readFile(s / "imported/clip.mov"), "framesframes");
    // A copy that does not fit leaves nothing half-written.
    writeFile(s / "big.raw", std::string(5 << 20, 'x'));
    EXPECT_FALSE(TQFileManager::copyFile(s / "big.raw", card / "big.raw", false));
    EXPECT_FALSE(fs::exists(card / "big.raw"));
}

TEST(TQFileManagerMove, NothingIsOverwrittenOrLost)
{
    TempDir s;
    writeFile(s / "a.mov", "a");
    writeFile(s / "b.mov", "b");
    fs::create_directories(s / "folder");
    EXPECT_FALSE(TQFileManager::moveFile(s / "a.mov", s / "b.mov", false));
    EXPECT_FALSE(TQFileManager::copyFile(s / "a.mov", s / "b.mov", false));
    EXPECT_FALSE(TQFileManager::copyFile(s / "missing", s / "c.mov", false));
    EXPECT_FALSE(TQFileManager::copyFile("", s / "c.mov", false) || TQFileManager::copyFile(s / "a.mov", "", false));
    EXPECT_FALSE(TQFileManager::copyFile(s / "folder", s / "folder/inside", false)) << "a folder into itself";
    EXPECT_EQ(readFile(s / "a.mov") + readFile(s / "b.mov"), "ab");
    // Letter case only: the rename goes through and ends at the new name.
    writeFile(s / "Movie.mov", "m");
    EXPECT_TRUE(TQFileManager::moveFile(s / "Movie.mov", s / "movie.mov", false));
    EXPECT_TRUE(TQFileManager::moveFile(s / "movie.mov", s / "MOVIE.mov", std::chrono::seconds(0)));
    EXPECT_EQ(readFile(s / "MOVIE.mov"), "m");
    EXPECT_FALSE(fs::exists(s / "Movie.mov") || fs::exists(s / "movie.mov"));
    // Two items that differ in case only: the move fails and both stay where they were.
    writeFile(s / "Take.mov", "upper");
    writeFile(s / "take.mov", "lower");
    EXPECT_FALSE(TQFileManager::moveFile(s / "Take.mov", s / "take.mov", false));
    EXPECT_EQ(readFile(s / "Take.mov") + readFile(s / "take.mov"), "upperlower");
    EXPECT_FALSE(fs::exists(s / "take 2.mov"));
}

TEST(TQFileManagerFolders, CreatingMirroringAndRemovingFolders)
{
    TempDir s;
    corvina::ScopedSystemLogCapture capture;
    Tools privileged;
    EXPECT_TRUE(TQFileManager::createDirectory(s / "a/b/c") && TQFileManager::createDirectory(s / "a/b/c", false));
    EXPECT_TRUE(TQFileManager::createDirectory(s / "d/e", std::chrono::seconds(0)));
    EXPECT_FALSE(TQFileManager::createDirectory("/Volumes/Gone/x"));
    EXPECT_THAT(capture.messages(), Contains("Unable to create directory. Drive is not mounted."));
    writeFile(s / "file", "x");
    EXPECT_FALSE(TQFileManager::createDirectory(s / "file", false));
    EXPECT_TRUE(privileged.calls().empty());

    writeFile(s / "shoot/day1/clip.mov", "x");
    fs::create_directories(s / "shoot/Tool.app");
    const std::string mirror = s / "mirror" + s.path() + "/shoot";
    EXPECT_EQ(TQFileManager::createDirectoryStructure(s / "shoot/day1/clip.mov", s / "mirror"), mirror + "/day1");
    EXPECT_EQ(TQFileManager::createDirectoryStructure(s / "shoot/day1", s / "mirror"), mirror + "/day1");
    EXPECT_EQ(TQFileManager::createDirectoryStructure(s / "shoot/Tool.app", s / "mirror"), mirror);
    EXPECT_TRUE(fs::is_directory(mirror + "/day1") && !fs::exists(mirror + "/Tool.app"));
    writeFile(s / "clutter/.DS_Store", "x");
    fs::create_directories(s / "clutter/empty");
    EXPECT_TRUE(TQFileManager::removeFolderIfEmpty(s / "clutter"));
    EXPECT_FALSE(fs::exists(s / "clutter"));
    EXPECT_FALSE(TQFileManager::removeFolderIfEmpty(s / "shoot") || !fs::exists(s / "shoot/day1/clip.mov"));
    EXPECT_TRUE(TQFileManager::removeFolderIfEmpty(s / "missing"));

    // Contents are copied until the first failure; here everything is there already.
    Tools refused(1);
    for (const char* f : {"src/1.mov", "src/2.mov", "src/sub/3.mov"}) writeFile(s / f, f);
    EXPECT_TRUE(TQFileManager::copyContentsOfDirectory(s / "src", s / "d", std::chrono::seconds(1)));
    EXPECT_EQ(readFile(s / "d/sub/3.mov"), "src/sub/3.mov");
    EXPECT_TRUE(TQFileManager::copyContentsOfDirectory(s / "empty", s / "d", std::chrono::seconds(1)));
    EXPECT_FALSE(TQFileManager::copyContentsOfDirectory(s / "src", s / "d", std::chrono::seconds(0)));
    EXPECT_TRUE(refused.calls().empty()) << "the privileged copy refuses an occupied destination itself";
}

TEST(TQFileManagerPrivileged, RefusedWithoutPromptForAnUnprivilegedUser)
{
    if (!inChild()) return expectChildPasses();
    const std::string h = childHome();
    writeFile(h + "/rootonly/take.mov", "x");  // a folder of root's that nobody may change
    fs::create_directories(h + "/mine");
    becomeNobody();
    auto& auth = TQAuthorization::sharedController(false);  // may not ask
    ASSERT_FALSE(auth.isAuthorized());
    EXPECT_FALSE(auth.hasGUI() || auth.canAuthorize());
    EXPECT_FALSE(auth.authStartWithUser(std::nullopt, "pw") || auth.authStartWithUser("nobody", std::nullopt));
    corvina::ScopedSystemLogCapture capture;
    EXPECT_FALSE(TQFileManager::removeFile(h + "/rootonly/take.mov"));
    EXPECT_FALSE(TQFileManager::trashFile(h + "/rootonly/take.mov"));
    EXPECT_FALSE(TQFileManager::moveFile(h + "/rootonly/take.mov", h + "/mine/take.mov"));
    EXPECT_FALSE(TQFileManager::createDirectory(h + "/rootonly/new"));
    EXPECT_FALSE(TQFileManager::copyFile(h + "/mine", h + "/rootonly/copy"));
    EXPECT_EQ(auth.authExecTask("/bin/rm", {"-Rdf", h + "/rootonly/take.mov"}), -1) << "nothing asked or run";
    EXPECT_TRUE(fs::exists(h + "/rootonly/take.mov"));
    EXPECT_FALSE(fs::exists(h + "/mine/take.mov"));
    EXPECT_THAT(capture.messages(), Contains("Unable to authorize").Times(6));
    const std::string info = fs::path(trashFiles()).parent_path().string() + "/info";
    EXPECT_TRUE(!fs::exists(info) || fs::is_empty(info)) << "nothing of the trash attempt is left";
}

}  // namespace corvina::tq
