// Digests, the verified copy and zip archives against the command-line tools they replace.
//
//   file_services_bench [folder]     (default: $TMPDIR, else /tmp)
//
// Works on a 1 GiB file kept in the page cache. Every measurement is the median of three
// runs, as wall-clock time and as processor time (user + system, the tools' included); the
// ratio is ours divided by the tools' (below 1 is faster). On a busy machine the processor
// times are the steadier comparison.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tq/TQFileManager.h"

namespace fs = std::filesystem;

using namespace corvina::tq;

namespace {

struct Timing {
    double wall = 0;
    double cpu = 0;  // user + system time of this process and of the tools it ran
};

double cpuSeconds()
{
    double total = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        struct rusage u {};
        ::getrusage(who, &u);
        total += u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
    }
    return total;
}

// Medians of three timed runs; prepare() runs untimed before each.
Timing median3(
    const std::function<void()>& run, const std::function<void()>& prepare = [] {})
{
    std::vector<double> wall, cpu;
    for (int i = 0; i < 3; ++i) {
        prepare();
        const double c = cpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        run();
        wall.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        cpu.push_back(cpuSeconds() - c);
    }
    std::sort(wall.begin(), wall.end());
    std::sort(cpu.begin(), cpu.end());
    return {wall[1], cpu[1]};
}

void sh(const std::string& command)
{
    if (std::system(command.c_str()) != 0) std::fprintf(stderr, "command failed: %s\n", command.c_str());
}

void writePattern(const std::string& path, size_t size, uint64_t seed, bool compressible)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    std::vector<uint64_t> block(1 << 17);
    uint64_t x = seed * 0x9E3779B97F4A7C15ull + 1;
    for (size_t done = 0; done < size;) {
        for (auto& w : block) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            w = compressible ? (x & 0x0F0F0F0F0F0F0F0Full) | 0x4040404040404040ull : x;
        }
        const size_t n = std::min(size - done, block.size() * sizeof(uint64_t));
        std::fwrite(block.data(), 1, n, f);
        done += n;
    }
    std::fclose(f);
}

void report(const char* what, Timing ours, Timing theirs)
{
    std::printf("%-50s wall: ours %7.3f s, tools %7.3f s, ratio %.2f | cpu: ours %7.3f s, tools %7.3f s, ratio %.2f\n",
                what, ours.wall, theirs.wall, ours.wall / theirs.wall, ours.cpu, theirs.cpu, ours.cpu / theirs.cpu);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    const char* tmp = std::getenv("TMPDIR");
    const std::string root = (argc > 1 ? std::string(argv[1]) : std::string(tmp && *tmp ? tmp : "/tmp")) +
                             "/corvina-file-bench-" + std::to_string(::getpid());
    fs::create_directories(root);
    const std::string source = root + "/source.bin";
    writePattern(source, size_t(1) << 30, 1, false);
    sh("cat '" + source + "' > /dev/null");
    std::printf("1 GiB in the page cache at %s\n", root.c_str());

    const struct {
        const char* name;
        const char* tool;
        std::optional<std::string> (*ours)(const std::string&, std::shared_ptr<TQHashDelegate>);
    } digests[] = {{"md5HashForFile vs md5sum", "md5sum", TQFileManager::md5HashForFile},
                   {"sha1HashForFile vs sha1sum", "sha1sum", TQFileManager::sha1HashForFile},
                   {"sha512HashForFile vs sha512sum", "sha512sum", TQFileManager::sha512HashForFile}};
    for (const auto& d : digests) {
        const Timing ours = median3([&] { d.ours(source, nullptr); });
        const Timing theirs = median3([&] { sh(std::string(d.tool) + " '" + source + "' > /dev/null"); });
        report(d.name, ours, theirs);
    }

    const std::string a = root + "/a.bin", b = root + "/b.bin";
    const auto clean = [&] {
        fs::remove(a);
        fs::remove(b);
        sh("sync");
    };
    const Timing copy = median3(
        [&] {
            TQFileManager::copyFileWithProgress(source, {a, b}, TQVerificationType::SHA256, nullptr);
        },
        clean);
    const Timing pipeline = median3(
        [&] {
            sh("cp '" + source + "' '" + a + "' && cp '" + source + "' '" + b + "' && sha256sum '" + source +
               "' > /dev/null && sha256sum '" + a + "' > /dev/null && sha256sum '" + b + "' > /dev/null");
        },
        clean);
    report("verified copy x2 SHA-256 vs cp x2 + sha256sum x3", copy, pipeline);
    clean();

    // The plain copy (copyFile) of the same file, and of a 1 GiB file that is one hole with
    // 1 MiB of data in its middle, with the space each copy takes.
    const Timing plainCopy = median3([&] { TQFileManager::copyFile(source, a, false); }, clean);
    const Timing cpTool = median3([&] { sh("cp '" + source + "' '" + a + "'"); }, clean);
    report("copyFile vs cp", plainCopy, cpTool);
    const std::string sparse = root + "/sparse.bin";
    {
        const int fd = ::open(sparse.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::vector<char> data(1 << 20, 'd');
        if (fd < 0 || ::ftruncate(fd, off_t(1) << 30) != 0 ||
            ::pwrite(fd, data.data(), data.size(), off_t(1) << 29) != static_cast<ssize_t>(data.size()))
            std::fprintf(stderr, "cannot write the sparse file\n");
        ::close(fd);
    }
    const auto allocated = [](const std::string& path) {
        struct stat st {};
        return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_blocks) * 512 : -1LL;
    };
    const Timing sparseCopy = median3([&] { TQFileManager::copyFile(sparse, a, false); }, clean);
    const long long ourSpace = allocated(a);
    const Timing sparseTool = median3([&] { sh("cp '" + sparse + "' '" + a + "'"); }, clean);
    report("copyFile vs cp, 1 GiB sparse with 1 MiB of data", sparseCopy, sparseTool);
    std::printf("space taken by the sparse copy: ours %lld, cp %lld bytes\n", ourSpace, allocated(a));
    clean();
    fs::remove(sparse);

    // 1,000 small files and one of 200 MB.
    const std::string folder = root + "/Footage";
    fs::create_directories(folder + "/small");
    for (int i = 0; i < 1000; ++i)
        writePattern(folder + "/small/frame" + std::to_string(i) + ".txt", 1000 + (i * 37) % 20000, i + 2, true);
    writePattern(folder + "/clip.mov", 200000000, 99, false);
    const std::string ourZip = root + "/ours.zip", toolZip = root + "/tools.zip";
    const Timing pack =
        median3([&] { TQFileManager::compressFile(folder, ourZip, true); }, [&] { fs::remove(ourZip); });
    const Timing zipTool =
        median3([&] { sh("cd '" + root + "' && zip -qr '" + toolZip + "' Footage"); }, [&] { fs::remove(toolZip); });
    report("compressFile vs zip -r", pack, zipTool);
    const std::string ourOut = root + "/ours-out", toolOut = root + "/tools-out";
    const Timing unpack =
        median3([&] { TQFileManager::decompressFile(ourZip, ourOut); }, [&] { fs::remove_all(ourOut); });
    const Timing unzipTool =
        median3([&] { sh("unzip -qo '" + toolZip + "' -d '" + toolOut + "'"); }, [&] { fs::remove_all(toolOut); });
    report("decompressFile vs unzip", unpack, unzipTool);
    std::printf("archive sizes: ours %lld, zip %lld bytes\n", static_cast<long long>(fs::file_size(ourZip)),
                static_cast<long long>(fs::file_size(toolZip)));

    fs::remove_all(root);
    return 0;
}
