#!/usr/bin/env python3
"""Times corvina-recover against photorec (Debian's testdisk package) on the same disk image.

    bench/recover_bench.py [--mb 1024] [--work /var/tmp] [--out /dev/shm] [--sparse-gb 100]
                           [--runs 3] [--jobs N] [--baseline OTHER-corvina-recover]

The image is noise with movies and raw DV streams made by ffmpeg placed on 4 KiB boundaries,
as a file system places files; it is read once before the runs so that both tools read it
from the page cache. Both tools write their results to --out, which must be on another file
system than --work. Then a sparse image of --sparse-gb with one recording in its middle is
scanned for the memory bound. Prints wall and CPU seconds, MB/s, the scan's CPU seconds per GB and the largest resident set,
the medians of --runs runs; --baseline times another build of corvina-recover on the same image
in the same run, alternating with this one.
"""
import argparse
import json
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
RECOVER = os.path.join(HERE, "..", "build", "plain", "corvina-recover")


def ffmpeg(path, video, fmt=None, seconds=4, size="720x576", rate="25", tc=False):
    args = ["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", f"testsrc=size={size}:rate={rate}",
            "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000", "-t", str(seconds)] + video
    args += ["-c:a", "pcm_s16le", "-ar", "48000", "-ac", "2"]
    if tc:
        args += ["-timecode", "10:00:00:00"]
    if fmt:
        args += ["-f", fmt]
    subprocess.run(args + [path], check=True)
    return path


def timed(argv):
    """Runs argv under /usr/bin/time -v: (wall, user + sys, max RSS in MiB, stderr)."""
    run = subprocess.run(["/usr/bin/time", "-v"] + argv, capture_output=True, text=True)
    text = run.stderr
    wall = re.search(r"Elapsed \(wall clock\) time.*: (?:(\d+):)?(\d+):([\d.]+)", text)
    seconds = (int(wall.group(1) or 0) * 3600 + int(wall.group(2)) * 60 + float(wall.group(3))) if wall else 0
    cpu = sum(float(x) for x in re.findall(r"(?:User|System) time \(seconds\): ([\d.]+)", text))
    rss = int(re.search(r"Maximum resident set size \(kbytes\): (\d+)", text).group(1)) / 1024
    return seconds, cpu, rss, text


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--mb", type=int, default=1024)
    parser.add_argument("--work", default="/var/tmp")
    parser.add_argument("--out", default="/dev/shm")
    parser.add_argument("--sparse-gb", type=int, default=100)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--jobs", type=int, default=0, help="--jobs for this build (0: its default)")
    parser.add_argument("--baseline", help="another corvina-recover to time on the same image")
    a = parser.parse_args()
    if os.stat(a.work).st_dev == os.stat(a.out).st_dev:
        sys.exit("--work and --out must be on different file systems")
    if not shutil.which("photorec"):
        sys.exit("photorec is missing: apt-get install testdisk")

    work = tempfile.mkdtemp(prefix="recover-bench-", dir=a.work)
    out = tempfile.mkdtemp(prefix="recover-bench-", dir=a.out)
    try:
        pieces = [
            ffmpeg(f"{work}/dv.dv", ["-c:v", "dvvideo", "-pix_fmt", "yuv420p"], "dv", tc=True),
            ffmpeg(f"{work}/dv.mov", ["-c:v", "dvvideo", "-pix_fmt", "yuv420p"]),
            ffmpeg(f"{work}/prores.mov", ["-c:v", "prores_ks", "-profile:v", "2"], size="1280x720"),
            ffmpeg(f"{work}/mjpeg.mov", ["-c:v", "mjpeg", "-pix_fmt", "yuvj422p"]),
        ]
        blobs = [open(p, "rb").read() for p in pieces]
        image = f"{work}/image.bin"
        placed = 0
        with open(image, "wb") as f:
            i = 0
            while f.tell() < a.mb << 20:
                f.write(os.urandom(8 << 20))
                blob = blobs[i % len(blobs)]
                f.write(blob + os.urandom(-len(blob) % 4096))
                placed += 1
                i += 1
        size = os.path.getsize(image)
        with open(image, "rb") as f:  # into the page cache
            while f.read(64 << 20):
                pass

        print(f"image: {size / 1e6:.0f} MB, {placed} recordings placed")
        builds = [("corvina-recover", [RECOVER] + (["--jobs", str(a.jobs)] if a.jobs else []))]
        if a.baseline:
            builds.append(("baseline", [a.baseline]))
        times = {name: [] for name, _ in builds}
        for run in range(a.runs):
            for name, argv in builds:
                ours_out = f"{out}/{name}-{run}"
                os.mkdir(ours_out)
                wall, cpu, rss, _ = timed(argv + [image, ours_out])
                report = json.load(open(f"{ours_out}/report.json"))
                frames = sum(c["frames"] for c in report["clips"])
                times[name].append((report["scanSeconds"], wall, cpu, rss, len(report["clips"]), frames,
                                    report.get("scanCpuSeconds", float("nan"))))
                shutil.rmtree(ours_out)
        for name, rows in times.items():
            scan = statistics.median(r[0] for r in rows)
            scan_cpu = statistics.median(r[6] for r in rows)
            print(f"{name}: median of {len(rows)}: scan {scan:.2f} s = {size / scan / 1e6:.0f} MB/s "
                  f"(each: {', '.join(f'{size / r[0] / 1e6:.0f}' for r in rows)}), "
                  f"scan CPU {scan_cpu / (size / 1e9):.2f} s/GB "
                  f"(each: {', '.join(f'{r[6] / (size / 1e9):.2f}' for r in rows)}), "
                  f"{statistics.median(r[1] for r in rows):.2f} s wall "
                  f"({statistics.median(r[2] for r in rows):.2f} s CPU), {rows[0][4]} clips, {rows[0][5]} frames, "
                  f"max RSS {max(r[3] for r in rows):.0f} MiB")

        theirs_out = f"{out}/theirs"
        os.mkdir(theirs_out)
        wall, cpu, rss, _ = timed(["photorec", "/log", "/d", f"{theirs_out}/r", "/cmd", image,
                                   "partition_none,blocksize,512,wholespace,fileopt,everything,enable,search"])
        found = sum(len(files) for _, _, files in os.walk(out + "/theirs"))
        print(f"photorec: {wall:.2f} s wall ({cpu:.2f} s CPU) = {size / wall / 1e6:.0f} MB/s, {found} files, "
              f"max RSS {rss:.0f} MiB")
        if os.path.exists("photorec.log"):
            os.remove("photorec.log")

        sparse = f"{work}/sparse.img"
        with open(sparse, "wb") as f:
            f.truncate(a.sparse_gb << 30)
            f.seek((a.sparse_gb << 30) // 2)
            f.write(blobs[0])
        sparse_out = f"{out}/sparse"
        os.mkdir(sparse_out)
        wall, cpu, rss, _ = timed([RECOVER, sparse, sparse_out])
        report = json.load(open(f"{sparse_out}/report.json"))
        print(f"sparse {a.sparse_gb} GB image: {wall:.2f} s wall, {sum(c['frames'] for c in report['clips'])} frames, "
              f"max RSS {rss:.0f} MiB")
    finally:
        shutil.rmtree(work, ignore_errors=True)
        shutil.rmtree(out, ignore_errors=True)


if __name__ == "__main__":
    main()
