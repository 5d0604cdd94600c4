#!/usr/bin/env python3
"""Prints the files that motrace wrote as text: read_motion.py SAVE_DIR

A reader of its own: it shares nothing with the program that wrote the files.
"""
import json
import pathlib
import struct
import sys


def records(path, layout):
    """The fixed-size records of a file; the time stamp comes first, in microseconds."""
    return list(struct.iter_unpack(layout, path.read_bytes()))


def main():
    directory = pathlib.Path(sys.argv[1])

    gyro = records(directory / "gyro.dat", "<q6d")
    print(f"gyro.dat: {len(gyro)} records")
    for time, *values in gyro:
        accelerometer = " ".join(f"{value:.17g}" for value in values[:3])
        gyroscope = " ".join(f"{value:.17g}" for value in values[3:])
        print(f"  {time} us: accelerometer {accelerometer}, gyroscope {gyroscope}")

    for number in range(1, 7):
        exposure = records(directory / f"exposure_{number}.dat", "<qd")
        print(f"exposure_{number}.dat: {len(exposure)} records")
        for time, seconds in exposure:
            print(f"  {time} us: {seconds:.17g} s")

    # Numbers keep the text that they have in the file.
    gps = json.loads((directory / "gps.json").read_bytes(), parse_int=str, parse_float=str)
    fixes = [] if gps is None else gps["extended_gps_info"]
    print(f"gps.json: {len(fixes)} records")
    for fix in fixes:
        print("  " + " ".join(f"{key}={value}" for key, value in fix.items()))


if __name__ == "__main__":
    main()
