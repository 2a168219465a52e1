#!/usr/bin/env python3
"""Times whole helper runs against ffmpeg remuxing the same essence, and reports every speed
and memory aim of the helper from one run.

Sections (medians of --runs runs; ratios are taken within this run only):
  remux   DV NTSC 29.97 + 48 kHz stereo, and ProRes 422 HQ 1920x1080 29.97 + 48 kHz stereo:
          floor (cat of the inputs), ffmpeg -c copy, ffmpeg -c copy followed by a sync of its
          output (the helper syncs its movie before renaming it into place), the helper with its
          log at the default level (no per-sample lines) and with logging off, the ratios to both forms of the peer and the
          helper's peak memory in both modes. Neither side is timed removing its previous
          output.
  scale   the same 10 s of DV essence described with its usual audio runs and with one entry
          per audio frame (480,000 at 48 kHz): time and peak memory of each (logging off).
  read    a document of 1,000,000 entries whose data files do not exist: the run ends right
          after the document has been read, so its time is the reading time.

Usage: bench/movie_bench.py [--seconds 60] [--runs 3] [--build build/plain] [--only remux,scale,read]
                            [--tool path/to/make_sample_job]
"""
import argparse
import os
import plistlib
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time


CPU = []  # CPU seconds (user + system) of each run, in the order of the runs


def run(cmd, env=None, ok=(0,)):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.perf_counter()
    proc = subprocess.run(cmd, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    elapsed = time.perf_counter() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    CPU.append(after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime)
    if proc.returncode not in ok:
        sys.exit(f"failed ({proc.returncode}): {' '.join(cmd)}\n{proc.stderr.decode(errors='replace')[-2000:]}")
    return elapsed


def peak_rss_mib(cmd, env, ok=(0,)):
    # A fresh python child so that ru_maxrss belongs to this one run only.
    code = ("import resource,subprocess,sys;"
            "r=subprocess.run(sys.argv[2:],stdout=subprocess.DEVNULL,stderr=subprocess.DEVNULL);"
            "ok=[int(x) for x in sys.argv[1].split(',')];"
            "sys.exit(3) if r.returncode not in ok else None;"
            "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)")
    out = subprocess.run([sys.executable, "-c", code, ",".join(map(str, ok))] + cmd, env=env,
                         capture_output=True, text=True, check=True)
    return int(out.stdout.strip()) / 1024.0


class Home:
    """A private home for helper runs: the replay document and, unless logging, the preference
    that turns the log off."""

    def __init__(self, root, name, logging):
        self.path = os.path.join(root, name)
        os.makedirs(os.path.join(self.path, "Downloads"))
        if not logging:
            prefs = os.path.join(self.path, "Library", "Preferences")
            os.makedirs(prefs)
            with open(os.path.join(prefs, "com.brantwell.global.plist"), "wb") as f:
                plistlib.dump({"disable-logging": "1"}, f)
        self.env = dict(os.environ, TQ_CONSOLE_USER="", HOME=self.path,
                        TQ_LOCAL_ROOT=os.path.join(self.path, "root"))

    def set_document(self, settings):
        with open(os.path.join(self.path, "Downloads", "corvina.plist"), "wb") as f:
            plistlib.dump(settings, f)

    def clear_logs(self):
        for sub in (("Library", "Logs"), ("root", "Library", "Logs")):
            shutil.rmtree(os.path.join(self.path, *sub), ignore_errors=True)


def make_job(tool, jobdir, seconds, options):
    os.makedirs(jobdir)
    movie = os.path.join(jobdir, "movie.mov")
    subprocess.run([tool, "--out", jobdir, "--seconds", str(seconds), "--dest", movie] + options,
                   check=True, stdout=subprocess.DEVNULL)
    with open(os.path.join(jobdir, "settings.plist"), "rb") as f:
        return plistlib.load(f), movie


def remux_section(args, helper, tool, work):
    jobs = [
        ("DV NTSC + 48k stereo", ["--video", "0", "--audio", "2"]),
        ("ProRes 422 HQ 1080 + 48k stereo", ["--video", "30", "--audio", "2", "--width", "1920", "--height", "1080",
                                              "--frame-rate", "29.97", "--distinct-frames", "30"]),
    ]
    print(f"remux: {args.seconds:g} s jobs, median of {args.runs} runs")
    print(f"  {'job':32} {'floor s':>8} {'ffmpeg s':>9} {'+sync s':>8} {'log s':>8} {'nolog s':>8} {'log/ff':>7}"
          f" {'nolog/ff':>8} {'log/ffs':>8} {'nolog/ffs':>9} {'peak log':>9} {'peak nolog':>10}")
    for name, options in jobs:
        jobdir = os.path.join(work, "remux-" + name.split()[0])
        settings, movie = make_job(tool, jobdir, args.seconds, options)
        home = Home(jobdir, "home", True)
        home_nl = Home(jobdir, "home-nolog", False)
        home.set_document(settings)
        home_nl.set_document(settings)
        inputs = [settings["tmpFilename"], settings["tmpAudioFilename"]]
        remuxed = os.path.join(jobdir, "remuxed.mov")
        times = {k: [] for k in ("floor", "ffmpeg", "ffsync", "log", "nolog")}
        run([helper], home_nl.env)  # warms the cache and makes the movie ffmpeg remuxes
        source = os.path.join(jobdir, "source.mov")
        shutil.move(movie, source)
        for _ in range(args.runs):
            times["floor"].append(run(["sh", "-c", 'cat "$@" > /dev/null', "cat"] + inputs))
            if os.path.exists(remuxed):
                os.remove(remuxed)
            ffmpeg = ["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", source, "-map", "0", "-c", "copy", "-f", "mov"]
            times["ffmpeg"].append(run(ffmpeg + [remuxed]))
            os.remove(remuxed)
            # The helper syncs its movie before it renames it into place; the same for the peer.
            times["ffsync"].append(run(["sh", "-c", '"$@" && sync "$0"', remuxed] + ffmpeg + [remuxed]))
            # Neither the peer nor the helper is timed removing its previous output.
            home.clear_logs()
            for key, env in (("log", home.env), ("nolog", home_nl.env)):
                if os.path.exists(movie):
                    os.remove(movie)
                times[key].append(run([helper], env))
        home.clear_logs()
        peak_log = peak_rss_mib([helper], home.env)
        peak_nolog = peak_rss_mib([helper], home_nl.env)
        med = {k: statistics.median(v) for k, v in times.items()}
        print(f"  {name:32} {med['floor']:8.3f} {med['ffmpeg']:9.3f} {med['ffsync']:8.3f} {med['log']:8.3f}"
              f" {med['nolog']:8.3f} {med['log'] / med['ffmpeg']:7.2f} {med['nolog'] / med['ffmpeg']:8.2f}"
              f" {med['log'] / med['ffsync']:8.2f} {med['nolog'] / med['ffsync']:9.2f}"
              f" {peak_log:7.1f}Mi {peak_nolog:8.1f}Mi")
        for path in (source, remuxed, settings["tmpFilename"], settings["tmpAudioFilename"]):
            if os.path.exists(path):
                os.remove(path)


def one_frame_runs(settings, bytes_per_frame=4):
    entries = []
    for run_entry in settings["audioOffsetArray"]:
        for k in range(run_entry["length"] // bytes_per_frame):
            entries.append({"offset": run_entry["offset"] + k * bytes_per_frame, "length": bytes_per_frame})
    return entries


def scale_section(args, helper, tool, work):
    jobdir = os.path.join(work, "scale")
    settings, _ = make_job(tool, jobdir, 10, ["--video", "0", "--audio", "2"])
    split = dict(settings, audioOffsetArray=one_frame_runs(settings))
    homes = {}
    for key, doc in (("runs", settings), ("frames", split)):
        homes[key] = Home(jobdir, "home-" + key, False)
        homes[key].set_document(doc)
    size = os.path.getsize(os.path.join(homes["frames"].path, "Downloads", "corvina.plist")) / 2**20
    times = {k: [] for k in homes}
    cpu = {k: [] for k in homes}
    run([helper], homes["runs"].env)
    for _ in range(args.runs):
        for key, home in homes.items():
            times[key].append(run([helper], home.env))
            cpu[key].append(CPU[-1])
    peaks = {k: peak_rss_mib([helper], h.env) for k, h in homes.items()}
    med = {k: statistics.median(v) for k, v in times.items()}
    mcpu = {k: statistics.median(v) for k, v in cpu.items()}
    print(f"scale: 10 s of DV + 48k stereo, logging off, median of {args.runs} runs (wall, CPU)")
    print(f"  {len(settings['audioOffsetArray']):7d} audio runs      {med['runs']:7.3f} s {mcpu['runs']:7.3f} s"
          f"  peak {peaks['runs']:6.1f} MiB")
    print(f"  {len(split['audioOffsetArray']):7d} one-frame runs  {med['frames']:7.3f} s {mcpu['frames']:7.3f} s"
          f"  peak {peaks['frames']:6.1f} MiB  ({size:.0f} MB document)"
          f"  ratio {med['frames'] / med['runs']:.2f}x wall, {mcpu['frames'] / mcpu['runs']:.2f}x CPU")


def read_section(args, helper, work):
    jobdir = os.path.join(work, "read")
    os.makedirs(jobdir)
    count = 1_000_000
    doc = {"tmpFilename": os.path.join(jobdir, "missing-video.raw"),
           "tmpAudioFilename": os.path.join(jobdir, "missing-audio.raw"),
           "destFilename": os.path.join(jobdir, "movie.mov"), "formatType": 0, "audioFormat": 2,
           "frameRate": 29.97,
           "offsetArray": [{"offset": i * 120000, "length": 120000, "frameCount": 1} for i in range(count // 2)],
           "audioOffsetArray": [{"offset": i * 4, "length": 4} for i in range(count - count // 2)]}
    home = Home(jobdir, "home", False)
    home.set_document(doc)
    size = os.path.getsize(os.path.join(home.path, "Downloads", "corvina.plist")) / 2**20
    times, cpu = [], []
    for _ in range(args.runs):
        times.append(run([helper], home.env, ok=(0, 1)))
        cpu.append(CPU[-1])
    peak = peak_rss_mib([helper], home.env, ok=(0, 1))
    print(f"read: {count} entries ({size:.0f} MB document), median of {args.runs} runs")
    print(f"  {statistics.median(times):7.3f} s wall {statistics.median(cpu):7.3f} s CPU  peak {peak:6.1f} MiB")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--seconds", type=float, default=60)
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--build", default=os.path.join(os.path.dirname(__file__), "..", "build", "plain"))
    ap.add_argument("--only", default="remux,scale,read")
    ap.add_argument("--tool", help="make_sample_job to use (default: the one of --build)")
    args = ap.parse_args()
    build = os.path.abspath(args.build)
    helper = os.path.join(build, "CorvinaAVFHelper")
    tool = args.tool or os.path.join(build, "tools", "make_sample_job", "make_sample_job")
    sections = set(args.only.split(","))
    work = tempfile.mkdtemp(prefix="corvina-bench-")
    try:
        if "remux" in sections:
            remux_section(args, helper, tool, work)
        if "scale" in sections:
            scale_section(args, helper, tool, work)
        if "read" in sections:
            read_section(args, helper, work)
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
