#!/usr/bin/env python3
"""Measures `camm` against the least that reading the same stream costs, and against `cp`.

    bench/camm/run.py [--runs N] [--dir SCRATCH] [--update]

Builds nothing: needs build/release with its benchmarks, and 7 GB of disk. Every reading row
alternates the command and the bare loop of the extraction benchmark over the same file of 1.24
million packets; writing rows alternate it and `cp` of the same file, whose bytes are all on disk.
Ratios of wall time are taken pair by pair. Memory is what a run takes at its peak. With --update the
table in docs/performance.md is written anew.
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

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "extraction"))
from run import BIN, ROOT, Run, alternate, replace_table, show_ratio, table  # noqa: E402

# The interpreter that the module was built for.
PYTHON = ["env", f"PYTHONPATH={BIN.parent / 'python'}", "/usr/bin/python3", "-c"]
SAMPLES = 1_242_000  # in ten minutes
READ = "import sys, camm; [camm.read(path) for path in sys.argv[1:]]"
WRITTEN_SECONDS = 300  # of video, in the files that are copied


class Bench:
    def __init__(self, scratch, runs):
        self.scratch = scratch
        self.runs = runs
        self.rows = []
        self.ride = {}
        for seconds in (1, WRITTEN_SECONDS, 600, 3600):
            self.ride[seconds] = scratch / f"{seconds}.mp4"
            subprocess.run([BIN / "bench_make_input", self.ride[seconds], str(seconds)], check=True)

    def row(self, figure, value):
        self.rows.append((figure, value))
        print(f"{figure}: {value}", file=sys.stderr, flush=True)

    def versus(self, what, baseline, pairs):
        seconds = statistics.median(a.seconds for a, _ in pairs)
        ratio = show_ratio([a.seconds / b.seconds for a, b in pairs])
        megabytes = statistics.median(a.peak_kib for a, _ in pairs) * 1024 / 1e6
        self.row(f"{what}: wall time; ratio to {baseline}; memory",
                 f"{seconds:.2f} s; {ratio}; {megabytes:.0f} MB")

    def camm(self, verb, seconds=600):
        ride = self.ride[seconds]
        if verb == "info":
            return Run([BIN / "camm", "info", ride])
        if verb == "report":
            return Run([BIN / "camm", "report", ride, "-o", self.scratch / "report.html", "--force"])
        return Run([BIN / "camm", "export", ride, "-f", verb, "-o", self.scratch / "out", "--force"])

    def bare(self, seconds=600):
        return Run([BIN / "bench_bare_loop", self.ride[seconds]])

    def reading(self):
        for verb in ("info", "csv", "jsonl", "gcsv", "report"):
            pairs = alternate(self.runs, lambda: self.camm(verb), self.bare)  # pylint: disable=W0640
            self.versus(verb if verb in ("info", "report") else f"export -f {verb}", "the bare loop", pairs)
        for verb in ("csv", "jsonl", "gcsv"):
            extra = [statistics.median(self.camm(verb, s).peak_kib - self.bare(s).peak_kib for _ in range(3))
                     for s in (600, 3600)]
            self.row(f"{verb}: peak memory beyond the bare loop's at 10 min, 60 min",
                     ", ".join(f"{kib / 1024:.1f} MiB" for kib in extra))
        self.row("report: MB of the page",
                 f"{(self.scratch / 'report.html').stat().st_size / 1e6:.2f}")

    def python(self):
        # Starting the interpreter and NumPy is no part of reading.
        start = statistics.median(Run([*PYTHON, READ]).seconds for _ in range(self.runs))
        pairs = alternate(self.runs, lambda: Run([*PYTHON, READ, self.ride[600]]), self.bare)
        self.row("Python's read: wall time without the interpreter's start, ratio to the bare loop",
                 show_ratio([(a.seconds - start) / b.seconds for a, b in pairs]))
        extra_kib = (statistics.median(a.peak_kib for a, _ in pairs)
                     - Run([*PYTHON, READ, self.ride[1]]).peak_kib
                     - statistics.median(b.peak_kib for _, b in pairs) + self.bare(1).peak_kib)
        self.row("Python's read: peak memory beyond the bare loop's, bytes a motion sample",
                 f"{extra_kib * 1024 / SAMPLES:.1f}")

    def writing(self):
        video = self.scratch / "stored.mp4"
        subprocess.run(["cp", "--sparse=never", self.ride[WRITTEN_SECONDS], video], check=True)
        log = self.scratch / "log"
        subprocess.run([BIN / "camm", "export", "-q", video, "-f", "csv", "-o", log], check=True)
        out = self.scratch / "out.mp4"

        def fresh(*command):
            out.unlink(missing_ok=True)
            os.sync()  # what one run has left to write is not the next one's
            return Run(command)

        def write(verb, to=video):
            source = ("copy", "--from", video, "--to", to) if verb == "copy" else ("inject", to, log)
            return fresh(BIN / "camm", *source, "-o", out, "--replace")

        for verb in ("copy", "inject"):
            pairs = alternate(self.runs, lambda: write(verb), lambda: fresh("cp", video, out))  # pylint: disable=W0640
            self.versus(f"{verb} into {video.stat().st_size / 1e9:.2f} GB", "cp", pairs)
            sizes = [write(verb, self.ride[s]).peak_kib / 1024 for s in (1, 3600)]
            self.row(f"{verb}: peak memory, into 7.5 MB and 27 GB of video",
                     ", ".join(f"{mib:.0f} MiB" for mib in sizes))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--runs", type=int, default=7, help="counted pairs a row, at least 5")
    parser.add_argument("--dir", default=None, help="where the inputs are made")
    parser.add_argument("--update", action="store_true", help="write the tables anew")
    args = parser.parse_args()
    if args.runs < 5:
        parser.error("at least 5 runs: a median of fewer says little on a busy machine")
    scratch = pathlib.Path(tempfile.mkdtemp(prefix="camm-bench-", dir=args.dir))
    try:
        bench = Bench(scratch, args.runs)
        bench.reading()
        bench.writing()
        bench.python()
    finally:
        shutil.rmtree(scratch)
    stamp = (f"Measured {datetime.date.today()} on {os.cpu_count()} {platform.machine()} cores by "
             f"`bench/camm/run.py --runs {args.runs}`.\n\n")
    full = stamp + table(bench.rows)
    print(full)
    if args.update:
        replace_table(ROOT / "docs" / "performance.md", full, "camm")


if __name__ == "__main__":
    main()
