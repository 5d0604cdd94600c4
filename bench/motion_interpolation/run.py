#!/usr/bin/env python3
"""Measures the optical flow and prints the tables of docs/optical_flow.md.

    bench/motion_interpolation/run.py PAIRS TRIPLETS [--pair NAME] [--update]

PAIRS holds a folder for each pair with ground truth (see flow_accuracy --help), TRIPLETS one for each
three frames, 0.ppm to 2.ppm. NAME is the pair that speed is measured on, best on an otherwise idle
machine. Builds nothing: needs build/release with its benchmarks. With --update the tables in the page
are written anew.
"""

import argparse
import datetime
import pathlib
import re
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "extraction"))
from run import BIN, ROOT, replace_table, table  # noqa: E402


def output(program, *args):
    return subprocess.run([BIN / program, *args], check=True, capture_output=True, text=True).stdout


def tables(text):
    """The lines of Markdown tables, and the empty ones between them."""
    return "\n".join(line for line in text.splitlines() if line[:1] in ("|", "")).strip()


def decibels(text):
    """The figures of each line: of the flow, of the plain average."""
    return [[f"{float(flow):.2f}", f"{float(average):.2f}"]
            for flow, average in re.findall(r"flow ([\d.]+) dB, plain average ([\d.]+) dB", text)]


def interpolation(pairs, triplets):
    rows = []
    for folder in sorted(p for p in triplets.iterdir() if p.is_dir()):
        frames = [folder / f"{i}.ppm" for i in range(3)]
        rows.append([f"three real frames, {folder.name}", *decibels(output("flow_interpolate", *frames))[0]])
    text = output("flow_interpolate", "--pairs", pairs)
    rows += [[f"the true flow's frame, {line.split()[0]}", *values]
             for line, values in zip(text.splitlines(), decibels(text))]
    rows.append(["a random texture that turns and shifts", *decibels(output("flow_interpolate", "--synthetic"))[0]])
    return table(rows, ("| PSNR in grey, dB | interpolated | plain average |", "|---|---|---|"))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("pairs", type=pathlib.Path)
    parser.add_argument("triplets", type=pathlib.Path)
    parser.add_argument("--pair", default="sintel_alley_1_clean", help="(%(default)s)")
    parser.add_argument("--update", action="store_true", help="write the tables anew")
    args = parser.parse_args()
    pair = args.pairs / args.pair
    measured = {
        "accuracy": tables(output("flow_accuracy", args.pairs, "--mirrored")),
        "interpolation": interpolation(args.pairs, args.triplets),
        "speed": f"Measured {datetime.date.today()} on {pair.name}.\n\n" + tables(output("flow_speed", pair)),
    }
    for name, text in measured.items():
        print(text + "\n")
        if args.update:
            replace_table(ROOT / "docs" / "optical_flow.md", text, name)


if __name__ == "__main__":
    main()
