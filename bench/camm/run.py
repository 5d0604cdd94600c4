#!/usr/bin/env python3
"""Measures `camm` against the least that reading the same stream costs.

    bench/camm/run.py [--runs N] [--dir SCRATCH]

Builds nothing: needs build/release with its benchmarks. Every row alternates the command and the
bare loop of the extraction benchmark over the same file of 1.24 million packets; ratios of wall time
are taken pair by pair. Memory is what a run takes at its peak, at 10 minutes and at an hour.
"""

import argparse
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "extraction"))
from run import BIN, Run, alternate, show_ratio, table  # noqa: E402

GOALS = {"info": "at most 1.2", "csv": "at most 2.5", "gcsv": "at most 2", "report": "at most 3"}
# The interpreter that the module was built for.
PYTHON = ["env", f"PYTHONPATH={BIN.parent / 'python'}", "/usr/bin/python3", "-c"]
SAMPLES = 1_242_000  # in ten minutes
READ = "import sys, camm; [camm.read(path) for path in sys.argv[1:]]"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--runs", type=int, default=7, help="counted pairs a row, at least 5")
    parser.add_argument("--dir", default=None, help="where the inputs are made")
    args = parser.parse_args()
    if args.runs < 5:
        parser.error("at least 5 runs: a median of fewer says little on a busy machine")
    scratch = pathlib.Path(tempfile.mkdtemp(prefix="camm-bench-", dir=args.dir))
    try:
        ride = {}
        for seconds in (1, 600, 3600):
            ride[seconds] = scratch / f"{seconds}.mp4"
            subprocess.run([BIN / "bench_make_input", ride[seconds], str(seconds)], check=True)

        def camm(verb, seconds=600):
            if verb == "info":
                return Run([BIN / "camm", "info", ride[seconds]])
            if verb == "report":
                return Run([BIN / "camm", "report", ride[seconds], "-o", scratch / "report.html",
                            "--force"])
            return Run([BIN / "camm", "export", ride[seconds], "-f", verb, "-o", scratch / "out",
                        "--force"])

        def bare(seconds=600):
            return Run([BIN / "bench_bare_loop", ride[seconds]])

        rows = []
        for verb in ("info", "csv", "jsonl", "gcsv", "report"):
            pairs = alternate(args.runs, lambda: camm(verb), bare)  # pylint: disable=W0640
            rows.append((f"{verb}: wall time, ratio to the bare loop",
                         show_ratio([a.seconds / b.seconds for a, b in pairs]),
                         GOALS.get(verb, "stated only")))
            print(*rows[-1], sep=" | ", file=sys.stderr, flush=True)
        for verb, goal in (("csv", "equal"), ("jsonl", "equal"), ("gcsv", "stated only")):
            extra = [statistics.median(camm(verb, s).peak_kib - bare(s).peak_kib for _ in range(3))
                     for s in (600, 3600)]
            rows.append((f"{verb}: peak memory beyond the bare loop's at 10 min, 60 min",
                         ", ".join(f"{kib / 1024:.1f} MiB" for kib in extra), goal))
            print(*rows[-1], sep=" | ", file=sys.stderr, flush=True)
        rows.append(("report: MB of the page", f"{(scratch / 'report.html').stat().st_size / 1e6:.2f}",
                     "at most 3"))
        # Starting the interpreter and NumPy is no part of reading.
        start = [Run([*PYTHON, READ]) for _ in range(args.runs)]
        start_seconds = statistics.median(run.seconds for run in start)
        pairs = alternate(args.runs, lambda: Run([*PYTHON, READ, ride[600]]), bare)
        rows.append(("Python's read: wall time without the interpreter's start, ratio to the bare loop",
                     show_ratio([(a.seconds - start_seconds) / b.seconds for a, b in pairs]),
                     "at most 1.3"))
        extra_kib = (statistics.median(a.peak_kib for a, _ in pairs)
                     - Run([*PYTHON, READ, ride[1]]).peak_kib
                     - statistics.median(b.peak_kib for _, b in pairs) + bare(1).peak_kib)
        rows.append(("Python's read: peak memory beyond the bare loop's, bytes a motion sample",
                     f"{extra_kib * 1024 / SAMPLES:.1f}", "at most 40"))
        print(table(rows))
    finally:
        shutil.rmtree(scratch)


if __name__ == "__main__":
    main()
