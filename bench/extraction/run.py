#!/usr/bin/env python3
"""Measures the extraction against the least that reading the same stream costs.

    bench/extraction/run.py [--runs N] [--dir SCRATCH] [--update]

Builds nothing: needs build/release with its benchmarks. The inputs are sparse files made on the
spot (some 0.5 GB of disk in all while it runs). Every row alternates the two commands that it
compares; ratios are taken pair by pair, and the table shows their median with the quartiles. With
--update the tables in README.md (seconds and megabytes) and docs/performance.md are written anew.
"""

import argparse
import datetime
import os
import pathlib
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BIN = ROOT / "build" / "release" / "bin"


class Run:
    """One finished process: wall seconds, peak memory in KiB, bytes it read through system calls."""

    def __init__(self, command, output=None):
        with open(output or os.devnull, "wb") as log:
            start = time.monotonic()
            process = subprocess.Popen([str(c) for c in command], stdout=log,
                                       stderr=subprocess.DEVNULL)
            # Left unreaped for a moment: the kernel's account of what it read goes with it.
            os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOWAIT)
            self.seconds = time.monotonic() - start
            io = pathlib.Path(f"/proc/{process.pid}/io").read_text()
            self.read = int(io.split("rchar:")[1].split()[0])
            _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            self.peak_kib = usage.ru_maxrss
        if process.returncode != 0:
            sys.exit(f"{command[0]} failed with {process.returncode}")


def alternate(runs, first, second):
    """The two functions in turn; the first round is a warm-up and not counted."""
    pairs = [(first(), second()) for _ in range(runs + 1)]
    return pairs[1:]


def show_ratio(values):
    low, middle, high = statistics.quantiles(values, n=4)
    return f"{middle:.2f} ({low:.2f} to {high:.2f})"


class Bench:
    def __init__(self, scratch, runs):
        self.scratch = pathlib.Path(scratch)
        self.runs = runs
        self.out = self.scratch / "out"
        self.out.mkdir()
        self.log = self.scratch / "log"
        self.rows = []
        self.users = []  # seconds, megabytes read and in memory of the ten-minute file

    def make(self, name, seconds, *flags):
        path = self.scratch / f"{name}.mp4"
        subprocess.run([BIN / "bench_make_input", path, str(seconds), *flags], check=True)
        os.sync()  # or the disk is busy with it while runs are timed
        return path

    def motrace(self, path):
        return lambda: Run([BIN / "motrace", path, self.out], self.log)

    def bare(self, path):
        return lambda: Run([BIN / "bench_bare_loop", path])

    def all_streams(self, path):
        return lambda: Run([BIN / "bench_extract_all_streams", path, self.out], self.log)

    def row(self, figure, value):
        """One line of the maintainers' table."""
        self.rows.append((figure, value))
        print(f"{figure}: {value}", file=sys.stderr, flush=True)

    def versus_bare(self, label, path):
        pairs = alternate(self.runs, self.motrace(path), self.bare(path))
        self.row(f"{label}: wall time, ratio to the bare loop",
                 show_ratio([a.seconds / b.seconds for a, b in pairs]))
        return pairs

    def stream_facts(self, path):
        out = subprocess.run([BIN / "bench_bare_loop", path], check=True, capture_output=True)
        packets, payload = map(int, out.stdout.split())
        return packets, payload

    def main_file(self, label, path, motion_samples):
        pairs = self.versus_bare(label, path)
        packets, payload = self.stream_facts(path)
        size = path.stat().st_size
        # What follows the media data box is moov.
        needed = payload + moov_size(path)
        read = statistics.median(a.read for a, _ in pairs)
        self.row(f"{label}: bytes read, ratio to moov and samples",
                 f"{read / needed:.2f} ({100 * read / size:.2f} % of the file)")
        extra = statistics.median((a.peak_kib - b.peak_kib) * 1024 for a, b in pairs)
        self.row(f"{label}: peak memory beyond the bare loop's, bytes a motion sample",
                 f"{extra / motion_samples:.1f}")
        seconds = statistics.median(a.seconds for a, _ in pairs)
        return packets / seconds

    def other_container(self, label, path):
        pairs = self.versus_bare(label, path)
        read = statistics.median(a.read for a, _ in pairs)
        self.row(f"{label}: bytes read, part of the file",
                 f"{100 * read / path.stat().st_size:.1f} %")
        path.unlink()

    def run(self):
        main = self.make("600", 600, "--interleaved")
        paired = self.make("600p", 600, "--paired", "--interleaved")
        rate = self.main_file("10 min, a sample a packet", main, 1_200_000)
        self.main_file("10 min, two samples a packet", paired, 1_200_000)

        def user_row(what, runs):
            middle = [statistics.median(values) for values in zip(
                *((r.seconds, r.read / 1e6, r.peak_kib * 1024 / 1e6) for r in runs))]
            self.users.append((what, f"{middle[0]:.2f} s", f"{middle[1]:.0f} MB", f"{middle[2]:.0f} MB"))

        pairs = alternate(self.runs, self.motrace(main), self.bare(main))
        user_row("`motrace`", [a for a, _ in pairs])
        user_row("a bare loop over the motion track", [b for _, b in pairs])
        pairs = alternate(max(self.runs // 2, 3), self.all_streams(main), self.motrace(main))
        user_row("the same work with every stream read", [a for a, _ in pairs])
        self.row("10 min: wall time with every stream read, ratio to ours",
                 show_ratio([a.seconds / b.seconds for a, b in pairs]))

        short = self.make("1", 1, "--interleaved")

        def hundred(run):
            def repeat():
                total = [run() for _ in range(100)]
                total[0].seconds = sum(r.seconds for r in total)
                return total[0]
            return repeat

        pairs = alternate(self.runs, hundred(self.motrace(short)), hundred(self.bare(short)))
        self.row("a hundred runs over one second of video: wall time, ratio to the bare loop",
                 show_ratio([a.seconds / b.seconds for a, b in pairs]))

        # Without an index of samples the container itself is the index.
        fragmented = self.make("600f", 600, "--fragmented")
        self.other_container("10 min, fragmented MP4", fragmented)
        self.other_container("10 s, MPEG-TS", self.make("10t", 10, "--mpegts"))

        times = []
        for seconds in (10, 60, 600, 3600):
            path = main
            if seconds != 600:
                path = self.make(str(seconds), seconds, "--interleaved")
            took = statistics.median(self.motrace(path)().seconds for _ in range(self.runs))
            times.append((seconds, took))
            if seconds != 600:
                path.unlink()
        per_second = [1e6 * took / seconds for seconds, took in times]
        self.row("microseconds a second of video at 10 s, 1 min, 10 min, 60 min",
                 ", ".join(f"{v:.0f}" for v in per_second))
        self.row("10 min: packets a second", f"{rate / 1e6:.2f} million")


def moov_size(path):
    """Size of the movie box: the file's boxes are walked."""
    with open(path, "rb") as file:
        while header := file.read(8):
            size, kind = int.from_bytes(header[:4], "big"), header[4:]
            head = 8
            if size == 1:
                size, head = int.from_bytes(file.read(8), "big"), 16
            if kind == b"moov":
                return size
            file.seek(size - head, os.SEEK_CUR)
    sys.exit(f"{path} has no moov box")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--runs", type=int, default=7, help="counted pairs a row, at least 5")
    parser.add_argument("--update", action="store_true", help="write the tables anew")
    parser.add_argument("--dir", default=None, help="where the inputs are made")
    args = parser.parse_args()
    if args.runs < 5:
        parser.error("at least 5 runs: a median of fewer says little on a busy machine")

    scratch = tempfile.mkdtemp(prefix="motrace-bench-", dir=args.dir)
    try:
        bench = Bench(scratch, args.runs)
        bench.run()
    finally:
        shutil.rmtree(scratch)

    stamp = (f"Measured {datetime.date.today()} on {os.cpu_count()} {platform.machine()} cores by "
             f"`bench/extraction/run.py --runs {args.runs}`.\n\n")
    full = stamp + table(bench.rows)
    print(full)
    if args.update:
        replace_table(ROOT / "docs" / "performance.md", full)
        replace_table(ROOT / "README.md", stamp + table(bench.users, USERS))


USERS = ["| | Time | Read | Memory |", "|---|---|---|---|"]


def table(rows, head=("| Figure | Median (quartiles) |", "|---|---|")):
    return "\n".join(list(head) + ["| " + " | ".join(row) + " |" for row in rows])


def replace_table(path, text, name="extraction"):
    """Replaces what stands between the two marks."""
    start, end = f"<!-- {name} table: begin -->\n", f"<!-- {name} table: end -->"
    page = path.read_text()
    head, rest = page.split(start)
    path.write_text(head + start + text + "\n" + end + rest.split(end)[1])


if __name__ == "__main__":
    main()
