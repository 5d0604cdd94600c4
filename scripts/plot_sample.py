#!/usr/bin/python3
"""Draws what an extraction holds.

Without arguments the sample is made and extracted (scripts/extract.sh) and docs/sample.png drawn.
Needs python3-numpy and python3-matplotlib.
"""
import argparse
import json
import subprocess
import sys
from pathlib import Path

root = Path(__file__).resolve().parents[1]
parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("dir", nargs="?", type=Path, default=root / "out", help="what motrace wrote (%(default)s)")
parser.add_argument("image", nargs="?", type=Path, default=root / "docs/sample.png", help="(%(default)s)")
arguments = parser.parse_args()
folder, image = arguments.dir, arguments.image

try:
    import matplotlib
    import numpy as np
except ImportError as missing:
    sys.exit(f"{missing}: apt-get install python3-numpy python3-matplotlib")
matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402: after the choice of the backend

if len(sys.argv) == 1:
    subprocess.run([root / "scripts/extract.sh"], check=True)

motion = np.fromfile(folder / "gyro.dat", [("us", "<i8"), ("accel", "<f8", 3), ("gyro", "<f8", 3)])
exposure = np.sort(
    np.concatenate([np.fromfile(folder / f"exposure_{k}.dat", [("us", "<i8"), ("s", "<f8")])
                    for k in range(1, 7)]), order="us")
fixes = (json.loads((folder / "gps.json").read_text()) or {}).get("extended_gps_info", [])

figure, axes = plt.subplots(2, 2, figsize=(9, 4.8), dpi=90, layout="constrained")
seconds = motion["us"] * 1e-6
for axis, name, unit in ((axes[0, 0], "gyro", "gyroscope, rad/s"),
                         (axes[0, 1], "accel", "accelerometer, m/s²")):
    for k, label in enumerate("xyz"):
        axis.plot(seconds, motion[name][:, k], label=label, linewidth=1)
    axis.set(title=unit, xlabel="s")
    axis.legend(loc="center right", fontsize="small")
axes[1, 0].plot(exposure["us"] * 1e-6, exposure["s"] * 1e3, ".", markersize=3)
axes[1, 0].set(title="exposure time, ms", xlabel="s")
axes[1, 1].plot([fix["longitude"] for fix in fixes], [fix["latitude"] for fix in fixes], ".-",
                markersize=4, linewidth=1)
axes[1, 1].set(title="GPS track, degrees", xlabel="longitude", ylabel="latitude")
axes[1, 1].ticklabel_format(useOffset=False)
axes[1, 1].locator_params(nbins=4)
for axis in axes.flat:
    axis.grid(alpha=0.3)
figure.savefig(image, metadata={"Software": None})
print(image)
