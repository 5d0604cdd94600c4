#!/usr/bin/env python3
"""Measures the extraction of a file that a web server has, against FFmpeg's own reading over HTTP.

    bench/extraction/remote.py [--runs N] [--dir SCRATCH]

Builds nothing: needs build/release with its benchmarks. The server (samples/file_server.py) runs on
this machine, adds 30 ms to each request and gives 50 MB/s a connection. The file is the ten-minute
one of run.py. Every output is compared with that of the local file.
"""

import argparse
import filecmp
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile

from run import BIN, ROOT, Run, moov_size, show_ratio, table


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--dir", default=None, help="where the input is made")
    args = parser.parse_args()
    scratch = pathlib.Path(tempfile.mkdtemp(prefix="motrace-bench-", dir=args.dir))
    video = scratch / "600.mp4"
    subprocess.run([BIN / "bench_make_input", video, "600", "--interleaved"], check=True)
    payload = int(subprocess.run([BIN / "bench_bare_loop", video], check=True,
                                 capture_output=True).stdout.split()[1])
    server = subprocess.Popen([ROOT / "samples/file_server.py", "--delay", "30", "--rate", "50", scratch],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    address = f"http://127.0.0.1:{server.stdout.readline().strip()}/plain/600.mp4"

    def measured(*command):
        run = Run(command, scratch / "log")
        server.stdin.write("\n")
        server.stdin.flush()
        run.requests, run.at_once, run.connections, run.served = map(int, server.stdout.readline().split())
        return run

    local, remote = scratch / "local", scratch / "remote"
    ours, theirs = [], []
    for out in local, remote:
        out.mkdir()
    Run([BIN / "motrace", video, local], scratch / "log")
    for _ in range(args.runs):
        ours.append(measured(BIN / "motrace", address, remote))
        names = [file.name for file in local.iterdir()]
        if filecmp.cmpfiles(local, remote, names, shallow=False)[0] != names:
            sys.exit("the outputs differ from the local file's")
        theirs.append(measured(BIN / "bench_bare_loop", address))
    server.stdin.close()
    server.wait()

    def row(name, runs):
        def middle(what):
            return statistics.median(getattr(run, what) for run in runs)
        return (name, f"{middle('seconds'):.1f} s", f"{middle('served') / 1e6:.1f} MB, "
                f"{middle('served') / (payload + moov_size(video)):.2f}", f"{middle('requests'):.0f}",
                f"{middle('connections'):.0f}", f"{middle('peak_kib') * 1024 / 1e6:.0f} MB")

    print(table([row("`motrace`", ours), row("the bare loop, over FFmpeg's HTTP", theirs)],
                ("| | Time | Served, ratio to moov and samples | Requests | Connections | Memory |",
                 "|---|---|---|---|---|---|")))
    print("Time, ratio to the bare loop: " + show_ratio([a.seconds / b.seconds for a, b in zip(ours, theirs)]))
    shutil.rmtree(scratch)


if __name__ == "__main__":
    main()
