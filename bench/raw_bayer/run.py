#!/usr/bin/env python3
"""Measures the raw Bayer kernels on the processor and prints the tables of docs/raw_bayer.md.

    bench/raw_bayer/run.py [--update]

Builds nothing: needs build/release with its benchmarks, and an otherwise idle machine. With --update the
tables in the page are written anew.
"""

import argparse
import datetime
import json
import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "extraction"))
from run import BIN, ROOT, replace_table, table  # noqa: E402

SCENES = ("few", "scene", "many", "noise", "dark")
SETS = ("avx512", "avx2", "baseline", "plain")
ROWS = ["SplitRaw", "SplitRaw/aligned", "SplitRaw/fresh", "MergeRaw",
        *(f"{kernel}/{scene}" for kernel in ("FixBadPixels", "FixBadPixels2") for scene in SCENES)]
WANTED = {"SplitRaw": ("0.70", ""), "SplitRaw/aligned": ("0.70", ""), "SplitRaw/fresh": ("", ""), "MergeRaw": ("0.70", "")}


def show(run, counter):
    return f"{run[counter]:.2f} ({run[counter + '_q1']:.2f} to {run[counter + '_q3']:.2f})"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--update", action="store_true", help="write the tables anew")
    args = parser.parse_args()
    places = "|".join(("processor", *SETS))
    command = [BIN / "raw_bayer_bench", f"--benchmark_filter=/({places})/", "--benchmark_format=json"]
    report = json.loads(subprocess.run(command, check=True, capture_output=True, text=True).stdout)
    runs = {run["name"].split("/iterations")[0]: run for run in report["benchmarks"] if "vs_memcpy" in run}

    rows = []
    for name in ROWS:
        run, wanted = runs[f"{name}/processor"], WANTED.get(name, ("0.40", "8"))
        rows.append([f"`{name}`", show(run, "vs_memcpy"), wanted[0], show(run, "vs_scalar"), wanted[1]])
    first = (f"Measured {datetime.date.today()}; `memcpy` ran at "
             f"{min(r['memcpy_GBps'] for r in runs.values()):.1f} to "
             f"{max(r['memcpy_GBps'] for r in runs.values()):.1f} GB/s.\n\n" +
             table(rows, ("| | vs `memcpy` | wanted | vs plain loop | wanted |", "|---|---|---|---|---|")))
    sets = [s for s in SETS if f"MergeRaw/{s}" in runs]
    rows = [[f"`{name}`", *(f"{runs[f'{name}/{s}']['vs_memcpy']:.2f}" for s in sets)] for name in ROWS]
    second = table(rows, ("| vs `memcpy` | " + " | ".join(sets) + " |", "|---" * (len(sets) + 1) + "|"))
    for name, text in (("processor", first), ("sets", second)):
        print(text + "\n")
        if args.update:
            replace_table(ROOT / "docs" / "raw_bayer.md", text, name)


if __name__ == "__main__":
    main()
