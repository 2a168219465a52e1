#include "recover/Recovery.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "helper/AppController.h"
#include "Foundation/PosixIO.h"
#include "Foundation/Value.h"
#include <memory>
#include "helper/MovieJob.h"
#include "recover/Report.h"

namespace corvina::recover {
using namespace corvina::helper;

namespace {

// Closes the descriptor it holds.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::string sysfsPath(dev_t device)
{
    char link[64];
    std::snprintf(link, sizeof link, "/sys/dev/block/%u:%u", major(device), minor(device));
    char resolved[PATH_MAX];
    return ::realpath(link, resolved) ? std::string(resolved) : std::string();
}

std::string absolutePath(const std::string& path)
{
    std::error_code ec;
    const auto absolute = std::filesystem::absolute(path, ec);
    return ec ? path : absolute.lexically_normal().string();
}

// NAME-NNN.EXT with the first number from `from` that no file in the folder uses yet.
std::string freeName(const std::string& folder, const std::string& stem, int& from,
                     const std::vector<std::string>& exts)
{
    for (;; ++from) {
        char name[64];
        std::snprintf(name, sizeof name, "%s-%03d", stem.c_str(), from);
        bool used = false;
        for (const std::string& ext : exts) used = used || std::filesystem::exists(folder + "/" + name + ext);
        if (!used) return folder + "/" + name;
    }
}

std::string xmlText(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else
            out += c;
    }
    return out;
}

// The settings document as an XML property list, written entry by entry: a clip of a million
// frames costs no tree of a million dictionaries. Written beside, synced, then renamed.
bool writeSettingsDocument(const Clip& clip, const std::string& video, const std::string& input,
                           const std::string& moviePath, const std::string& path)
{
    const std::string temp = path + ".partial";
    {
        std::FILE* file = std::fopen(temp.c_str(), "wx");
        if (!file) return false;
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> closer(file, std::fclose);
        const auto ranges = [&](const char* key, const std::vector<ByteRange>& list) {
            std::fprintf(file, "\t<key>%s</key>\n\t<array>\n", key);
            for (const ByteRange& r : list)
                std::fprintf(
                    file,
                    "\t\t<dict>\n\t\t\t<key>length</key>\n\t\t\t<integer>%llu</integer>\n\t\t\t<key>offset</key>"
                    "\n\t\t\t<integer>%llu</integer>\n\t\t</dict>\n",
                    static_cast<unsigned long long>(r.length), static_cast<unsigned long long>(r.offset));
            std::fputs("\t</array>\n", file);
        };
        std::fputs(
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n<dict>\n",
            file);
        std::fprintf(file, "\t<key>audioFormat</key>\n\t<integer>%lld</integer>\n",
                     static_cast<long long>(clip.audioFormat));
        ranges("audioOffsetArray", clip.audio);
        std::fprintf(file, "\t<key>destFilename</key>\n\t<string>%s</string>\n", xmlText(moviePath).c_str());
        std::fprintf(file, "\t<key>fHeight</key>\n\t<integer>%d</integer>\n", clip.height);
        std::fprintf(file, "\t<key>fWidth</key>\n\t<integer>%d</integer>\n", clip.width);
        std::fprintf(file, "\t<key>formatType</key>\n\t<integer>%lld</integer>\n",
                     static_cast<long long>(clip.formatType));
        std::fprintf(file, "\t<key>frameRate</key>\n\t<real>%.3f</real>\n", clip.frameRate);
        ranges("offsetArray", clip.frames);
        std::fprintf(file, "\t<key>tmpAudioFilename</key>\n\t<string>%s</string>\n", xmlText(input).c_str());
        std::fprintf(file, "\t<key>tmpFilename</key>\n\t<string>%s</string>\n", xmlText(video).c_str());
        std::fputs("</dict>\n</plist>\n", file);
        if (std::fflush(file) != 0 || ::fsync(::fileno(file)) != 0 || std::ferror(file)) {
            std::remove(temp.c_str());
            return false;
        }
    }
    if (std::rename(temp.c_str(), path.c_str()) != 0) {
        std::remove(temp.c_str());
        return false;
    }
    return true;
}

MovieJob jobFor(const Clip& clip, const std::string& videoFile, const std::string& input, const std::string& moviePath)
{
    MovieJob job;
    job.tmpFilename = videoFile;
    job.tmpAudioFilename = input;
    job.destFilename = moviePath;
    job.formatType = clip.formatType;
    job.audioFormat = clip.audioFormat;
    job.frameRate = float(std::round(clip.frameRate * 1000.0) / 1000.0);
    job.fWidth = int16_t(clip.width);
    job.fHeight = int16_t(clip.height);
    auto video = std::make_shared<MediaEntryTable>();
    video->reserve(clip.frames.size());
    for (const ByteRange& frame : clip.frames) video->push_back({frame.offset, frame.length, 1});
    auto audio = std::make_shared<MediaEntryTable>();
    for (const ByteRange& run : clip.audio) audio->push_back({run.offset, run.length, 0});
    job.videoEntries = std::move(video);
    job.audioEntries = std::move(audio);
    return job;
}

// Writes the clip's frames one after another to a new file at path, a frame cut in two put
// together again, and points the clip's frames into it: the helper takes each frame as one byte
// range of one file. False (with nothing left behind) when it cannot.
bool writeFramesFile(Clip& clip, int input, const std::string& path)
{
    Descriptor out(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (out.get() < 0) return false;
    std::vector<uint8_t> buffer(8u << 20);
    const auto copy = [&](const ByteRange& range) {
        for (uint64_t done = 0; done < range.length;) {
            const size_t want = size_t(std::min<uint64_t>(range.length - done, buffer.size()));
            const ssize_t got = ::pread(input, buffer.data(), want, off_t(range.offset + done));
            if (got <= 0) return false;
            for (ssize_t put = 0; put < got;) {
                const ssize_t n = ::write(out.get(), buffer.data() + put, size_t(got - put));
                if (n <= 0) return false;
                put += n;
            }
            done += uint64_t(got);
        }
        return true;
    };
    std::vector<ByteRange> frames;
    frames.reserve(clip.frames.size());
    uint64_t at = 0;
    auto cut = clip.cutFrames.begin();
    for (size_t i = 0; i < clip.frames.size(); ++i) {
        uint64_t length = clip.frames[i].length;
        bool ok = copy(clip.frames[i]);
        if (cut != clip.cutFrames.end() && cut->index == i) {
            ok = ok && copy(cut->tail);
            length += cut->tail.length;
            ++cut;
        }
        if (!ok) {
            std::remove(path.c_str());
            return false;
        }
        frames.push_back({at, length});
        at += length;
    }
    clip.frames = std::move(frames);
    clip.cutFrames.clear();
    return true;
}

// User and system time of all the process's threads so far.
double processCpuSeconds()
{
    struct rusage usage {};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void printProgress(const ScanProgress& p, std::chrono::steady_clock::time_point started)
{
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const double rate = seconds > 0 ? double(p.bytesScanned) / seconds : 0;
    const double left = rate > 0 ? double(p.bytesTotal - p.bytesScanned) / rate : 0;
    std::fprintf(stderr, "\rscanned %.0f of %.0f MB, %.0f MB/s, %llu frames, %.0f s left   ",
                 double(p.bytesScanned) / 1e6, double(p.bytesTotal) / 1e6, rate / 1e6,
                 static_cast<unsigned long long>(p.frames), left);
}

}  // namespace

size_t RecoverOutcome::moviesWritten() const
{
    size_t n = 0;
    for (const ClipOutcome& clip : clips) n += clip.moviePath.empty() ? 0 : 1;
    return n;
}

std::optional<std::string> outputFolderProblem(const std::string& input, const std::string& outdir)
{
    struct stat in {
    }, out{};
    if (::stat(input.c_str(), &in) != 0) return "cannot read " + input + ": " + std::strerror(errno);
    if (::stat(outdir.c_str(), &out) != 0) {
        // A folder that does not exist yet is made when the run starts, in a parent that does:
        // the parent's file system is the one it will be on.
        const int err = errno;
        const std::string parent = std::filesystem::path(outdir).lexically_normal().parent_path().string();
        if (err != ENOENT || ::stat(parent.empty() ? "." : parent.c_str(), &out) != 0 || !S_ISDIR(out.st_mode))
            return "cannot use the output folder " + outdir + ": " + std::strerror(err);
    }
    if (!S_ISDIR(out.st_mode)) return outdir + " is not a folder";
    if (S_ISBLK(in.st_mode)) {
        // The output's file system must not live on the device or on one of its partitions.
        const std::string device = sysfsPath(in.st_rdev), folderDevice = sysfsPath(out.st_dev);
        if (out.st_dev == in.st_rdev ||
            (!device.empty() && folderDevice.size() > device.size() &&
             folderDevice.compare(0, device.size(), device) == 0 && folderDevice[device.size()] == '/'))
            return "the output folder " + outdir + " is on the device being recovered, " + input +
                   ": writing there could destroy what is to be recovered";
        return std::nullopt;
    }
    if (!S_ISREG(in.st_mode)) return input + " is neither a file nor a block device";
    if (in.st_dev == out.st_dev)
        return "the output folder " + outdir + " is on the same file system as " + input +
               ": writing there could destroy what is to be recovered; choose a folder on another disk";
    return std::nullopt;
}

std::optional<std::string> makeOutputFolder(const std::string& outdir)
{
    if (::mkdir(outdir.c_str(), 0777) == 0 || errno == EEXIST) return std::nullopt;
    return "cannot make the output folder " + outdir + ": " + std::strerror(errno);
}

std::optional<Expectation> expectationFor(const RecoverOptions& options, std::string& error)
{
    Expectation expectation;
    if (options.reference) {
        AppController controller;
        const corvina::Value settings = controller.settingsForMovieFile(*options.reference);
        if (!settings.asDictionary()) {
            error =
                "the reference movie " + *options.reference + " cannot be read or is not a format the helper writes";
            return std::nullopt;
        }
        expectation.formatType = settings["formatType"].integerValue();
        expectation.frameRate = settings["frameRate"].doubleValue();
        expectation.width = settings["fWidth"].intValue();
        expectation.height = settings["fHeight"].intValue();
        expectation.audioFormat = settings["audioFormat"].integerValue();
    }
    if (options.formatRow) {
        const VideoFormatInfo* row = AppController::videoFormatForType(*options.formatRow);
        if (!row || *options.formatRow == 20) {
            error = "--format " + std::to_string(*options.formatRow) +
                    " is not a row the recovery finds (0-4, 10-12, 30-35)";
            return std::nullopt;
        }
        if (expectation.formatType && *expectation.formatType != *options.formatRow) {
            error = "--format and the reference movie name different formats";
            return std::nullopt;
        }
        expectation.formatType = *options.formatRow;
    }
    return expectation;
}

RecoverOutcome recoverInput(const RecoverOptions& options)
{
    RecoverOutcome outcome;
    const std::string input = absolutePath(options.input);
    const std::string outdir = absolutePath(options.outdir);
    std::string problem;
    const auto expectation = expectationFor(options, problem);
    if (!expectation) {
        outcome.error = problem;
        return outcome;
    }
    Descriptor fd(::open(input.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        outcome.error = "cannot open " + input + ": " + std::strerror(errno);
        return outcome;
    }
    const auto size = inputSize(fd.get());
    if (!size) {
        outcome.error = input + " is neither a file nor a block device whose size can be read";
        return outcome;
    }
    outcome.inputBytes = *size;

    ScanOptions scanOptions;
    if (expectation->formatType) {
        const int64_t row = *expectation->formatType;
        scanOptions.families = {row == 4 ? Family::JPEG : row >= 30 ? Family::ProRes : Family::DV};
    }
    scanOptions.stop = options.stop;
    scanOptions.jobs = options.jobs;
    const auto started = std::chrono::steady_clock::now();
    const double cpuBefore = processCpuSeconds();
    if (options.progress) scanOptions.progress = [started](const ScanProgress& p) { printProgress(p, started); };
    ScanResult scanned = scan(fd.get(), *size, scanOptions);
    outcome.scanSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    outcome.scanCpuSeconds = processCpuSeconds() - cpuBefore;
    if (options.progress) std::fputc('\n', stderr);
    outcome.bytesScanned = scanned.bytesScanned;
    outcome.rejectionsDropped = scanned.rejectionsDropped;
    outcome.stopped = scanned.stopped;
    if (!scanned.error.empty()) outcome.error = scanned.error;

    const int descriptor = fd.get();
    const ReadBytes read = [descriptor](uint64_t offset, std::span<uint8_t> into) {
        // As many bytes as the input holds there: a short count at its end.
        return corvina::posix::preadAll(descriptor, into, offset).count;
    };
    std::vector<Clip> clips =
        groupClips(scanned.frames, scanned.rejections, *expectation, read, &outcome.rejectedOutsideClips);
    scanned.frames = {};

    int number = 1;
    for (size_t i = 0; i < clips.size(); ++i) {
        ClipOutcome clipOutcome;
        clipOutcome.clip = std::move(clips[i]);
        if (options.stop && options.stop->load()) {
            outcome.stopped = true;
            clipOutcome.error = "not written: the run was stopped";
            outcome.clips.push_back(std::move(clipOutcome));
            continue;
        }
        const std::string base = freeName(outdir, "clip", number, {".mov", ".plist", ".frames"});
        ++number;
        const std::string moviePath = base + ".mov";
        clipOutcome.settingsPath = base + ".plist";
        if (options.progress)
            std::fprintf(stderr, "clip %zu of %zu: %zu frames -> %s\n", i + 1, clips.size(),
                         clipOutcome.clip.frames.size(), moviePath.c_str());
        // A clip with a frame cut in two reads its frames from a copy in OUTDIR, removed again
        // once the movie is made; its sound still comes from the input.
        std::string video = input;
        std::optional<Clip> copied;
        if (!clipOutcome.clip.cutFrames.empty()) {
            video = base + ".frames";
            copied = clipOutcome.clip;
            if (!writeFramesFile(*copied, fd.get(), video)) {
                clipOutcome.error = "the frames file " + video + " could not be written";
                outcome.clips.push_back(std::move(clipOutcome));
                continue;
            }
        }
        const Clip& made = copied ? *copied : clipOutcome.clip;
        if (!writeSettingsDocument(made, video, input, moviePath, clipOutcome.settingsPath)) {
            if (video != input) std::remove(video.c_str());
            clipOutcome.error = "the settings document " + clipOutcome.settingsPath + " could not be written";
            clipOutcome.settingsPath.clear();
            outcome.clips.push_back(std::move(clipOutcome));
            continue;
        }
        AppController controller;
        controller.setSettingsDocumentPath(clipOutcome.settingsPath);
        if (options.sessionHook) options.sessionHook(&controller);
        const int64_t status = controller.createQuickTimeMovie(jobFor(made, video, input, moviePath));
        if (video != input) std::remove(video.c_str());
        if (options.sessionHook) options.sessionHook(nullptr);
        if (status == 0)
            clipOutcome.moviePath = moviePath;
        else
            clipOutcome.error = controller.summary().firstError.empty() ? "the movie could not be written"
                                                                        : controller.summary().firstError;
        outcome.clips.push_back(std::move(clipOutcome));
    }

    // After a stop the report is written at once, without pictures: the signal's grace is short.
    writeReports(outcome, input, outdir, options.reportPictures && !outcome.stopped);
    return outcome;
}

}  // namespace corvina::recover
