#!/usr/bin/env python3
"""Times whole helper runs against ffmpeg remuxing the same essence, in one run.

For each job (DV NTSC 29.97 with 48 kHz stereo; ProRes 422 HQ 1920x1080 29.97 with 48 kHz
stereo) it measures, as medians of several runs:
  floor      reading the raw input files once (cat > /dev/null)
  ffmpeg     ffmpeg -c copy remuxing the same essence (the helper's own movie) into a .mov
  helper     CorvinaAVFHelper with its complete log
  helper-nl  CorvinaAVFHelper with logging turned off by the global preference
and the helper's peak memory. Usage: bench/movie_bench.py [--seconds 60] [--runs 5] [--build build/plain]
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

def run(cmd, env=None):
    start = time.perf_counter()
    before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    proc = subprocess.run(cmd, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    elapsed = time.perf_counter() - start
    if proc.returncode != 0:
        sys.exit(f"failed ({proc.returncode}): {' '.join(cmd)}\n{proc.stderr.decode(errors='replace')[-2000:]}")
    return elapsed

def peak_rss_kib(cmd, env):
    # A fresh python child so that ru_maxrss belongs to this one run only.
    code = ("import resource,subprocess,sys;"
            "subprocess.run(sys.argv[1:],stdout=subprocess.DEVNULL,stderr=subprocess.DEVNULL,check=True);"
            "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)")
    out = subprocess.run([sys.executable, "-c", code] + cmd, env=env, capture_output=True, text=True, check=True)
    return int(out.stdout.strip())

def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--seconds", type=float, default=60)
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--build", default=os.path.join(os.path.dirname(__file__), "..", "build", "plain"))
    args = ap.parse_args()
    build = os.path.abspath(args.build)
    helper = os.path.join(build, "CorvinaAVFHelper")
    tool = os.path.join(build, "tools", "make_sample_job", "make_sample_job")
    jobs = [
        ("DV NTSC + 48k stereo", ["--video", "0", "--audio", "2"]),
        ("ProRes 422 HQ 1080 + 48k stereo", ["--video", "30", "--audio", "2", "--width", "1920", "--height", "1080",
                                              "--frame-rate", "29.97", "--distinct-frames", "30"]),
    ]
    work = tempfile.mkdtemp(prefix="corvina-bench-")
    try:
        print(f"{args.seconds:g} s jobs, median of {args.runs} runs")
        print(f"{'job':34} {'floor s':>8} {'ffmpeg s':>9} {'helper s':>9} {'nolog s':>8} {'helper/ff':>9} {'nolog/ff':>9} {'peak MiB':>9} {'lines':>10}")
        for name, options in jobs:
            jobdir = os.path.join(work, name.split()[0])
            os.makedirs(jobdir)
            movie = os.path.join(jobdir, "movie.mov")
            subprocess.run([tool, "--out", jobdir, "--seconds", str(args.seconds), "--dest", movie] + options,
                           check=True, stdout=subprocess.DEVNULL)
            with open(os.path.join(jobdir, "settings.plist"), "rb") as f:
                settings = plistlib.load(f)
            home = os.path.join(jobdir, "home")
            home_nl = os.path.join(jobdir, "home-nolog")
            for h in (home, home_nl):
                os.makedirs(os.path.join(h, "Downloads"))
                with open(os.path.join(h, "Downloads", "corvina.plist"), "wb") as f:
                    plistlib.dump(settings, f)
            os.makedirs(os.path.join(home_nl, "Library", "Preferences"))
            with open(os.path.join(home_nl, "Library", "Preferences", "com.brantwell.global.plist"), "wb") as f:
                plistlib.dump({"disable-logging": "1"}, f)
            base_env = dict(os.environ, TQ_CONSOLE_USER="")
            env = dict(base_env, HOME=home, TQ_LOCAL_ROOT=os.path.join(home, "root"))
            env_nl = dict(base_env, HOME=home_nl, TQ_LOCAL_ROOT=os.path.join(home_nl, "root"))
            inputs = [settings["tmpFilename"], settings["tmpAudioFilename"]]
            remuxed = os.path.join(jobdir, "remuxed.mov")
            times = {k: [] for k in ("floor", "ffmpeg", "helper", "nolog")}
            run([helper], env)  # warm the cache and make the essence ffmpeg remuxes
            source = os.path.join(jobdir, "source.mov")
            shutil.copy(movie, source)
            for _ in range(args.runs):
                times["floor"].append(run(["sh", "-c", 'cat "$@" > /dev/null', "cat"] + inputs))
                if os.path.exists(remuxed):
                    os.remove(remuxed)
                times["ffmpeg"].append(run(["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", source, "-map", "0",
                                            "-c", "copy", "-f", "mov", remuxed]))
                times["helper"].append(run([helper], env))
                times["nolog"].append(run([helper], env_nl))
            peak = peak_rss_kib([helper], env_nl) / 1024.0
            med = {k: statistics.median(v) for k, v in times.items()}
            log_dir = os.path.join(home, "Library", "Logs", "Brantwell")
            if not os.path.isdir(log_dir):
                log_dir = os.path.join(home, "root", "Library", "Logs", "Brantwell")
            audio_frames = sum(e["length"] // 4 for e in settings["audioOffsetArray"])
            lines = len(settings["offsetArray"]) + 1 + 2 * audio_frames
            print(f"{name:34} {med['floor']:8.3f} {med['ffmpeg']:9.3f} {med['helper']:9.3f} {med['nolog']:8.3f} "
                  f"{med['helper'] / med['ffmpeg']:9.2f} {med['nolog'] / med['ffmpeg']:9.2f} {peak:9.1f} {lines:10d}")
    finally:
        shutil.rmtree(work, ignore_errors=True)

if __name__ == "__main__":
    main()
