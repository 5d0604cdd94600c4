"""Camera motion metadata (CAMM) of video files as NumPy arrays.

>>> import camm
>>> ride = camm.read(SAMPLE)
>>> ride.gyro["time_ns"][:3]
Series([       0,  5000000, 10000000])
>>> ride.gyro["xyz_rad_s"].shape
(800, 3)

A recording has one array for each type of sample: `angle_axis`, `exposure`, `gyro`, `accel`,
`position`, `gps_min`, `gps` and `magnetic`. Their fields are the columns of `camm export --format csv`,
`time_ns` first; `xyz_…` is the three components together. Arrays are views of the samples as they
were read: nothing is copied, and they stay valid as long as one of them is held.

Times are nanoseconds of the container's own time line, as `ffprobe` shows them; `NO_TIME` where a
packet has none.
"""

import json
import os
import pathlib
from types import SimpleNamespace

import numpy as np

from . import _camm
from ._camm import NO_TIME, Error, Sample

__all__ = ["Error", "NO_TIME", "Recording", "Sample", "Series", "imu", "load_motrace", "read", "samples", "write"]

Error.__doc__ = """A file that could not be read.

`status` is the exit code of the program `camm` for the same file: 3 it cannot be opened, 4 it holds
no `camm` track, 5 the track holds no sample.

>>> camm.read("missing.mp4")
Traceback (most recent call last):
    ...
camm.Error: missing.mp4: cannot be read: No such file or directory
"""
Error.__module__ = "camm"


class Series(np.ndarray):
    """Samples of one type in file order: a structured array, shape (samples,).

    >>> ride.gps.to_pandas()[["time_ns", "latitude_deg"]].head(2)
         time_ns  latitude_deg
    0          0     48.137000
    1  100000000     48.137001
    """

    def to_pandas(self):
        """A pandas.DataFrame with a column a field (`xyz_…` is left out: it repeats x, y, z)."""
        import pandas

        columns = [name for name in self.dtype.names if self.dtype[name].shape == ()]
        return pandas.DataFrame({name: np.asarray(self[name]) for name in columns})


class Recording:
    """All samples of a track, one `Series` a type.

    `path` is the file's name, `problems` what is wrong with the file, in words.

    >>> len(ride.accel), len(ride.magnetic), ride.problems
    (800, 4, [])
    """

    def __init__(self, native, path):
        self._native = native
        self.path = path
        self.problems = native.problems
        for name in _camm.DTYPES:
            setattr(self, name, getattr(native, name).view(Series))

    def info(self):
        """The figures of `camm info --json`, as a dict.

        >>> ride.info()["types"]["gyro"]["rate_hz"]
        200.0
        """
        return json.loads(_camm.info(self._native, _name(self.path)))

    def __repr__(self):
        held = ", ".join(f"{len(getattr(self, name))} {name}" for name in _camm.DTYPES if len(getattr(self, name)))
        return f"<camm.Recording {self.path!r}: {held}>"


def _name(path):
    name = os.fsencode(path)
    if b"\0" in name:  # it would end there
        raise ValueError("embedded null byte")
    return name


def read(path, *, stream=-1, origin="container"):
    """Reads a file's `camm` track into a `Recording`. Other threads run meanwhile.

    `stream` is the index of the stream to read; -1 takes the first `camm` track that holds packets.
    `origin` is "container" or "first packet" (the time that `motrace` counts from).

    >>> camm.read(SAMPLE, origin="first packet").gyro["time_ns"][0]  # video decodes before it shows
    66666667
    """
    return Recording(_camm.read(_name(path), stream, origin), os.fsdecode(path))


def samples(path, *, stream=-1, origin="container"):
    """Yields a file's samples one at a time, in file order; memory does not grow with the length.

    A sample has `type`, `time_ns`, its fields as attributes, and `asdict()`. Arguments as for `read`.

    >>> next(sample for sample in camm.samples(SAMPLE) if sample.type == "exposure").pixel_exposure_ns
    8000000
    """
    return _camm.samples(_name(path), stream, origin)


def imu(recording):
    """The gyroscope with the accelerometer interpolated to its times, which strictly increase.

    Returns a `Series` with `time_ns` (ns), `xyz_rad_s` (rad/s) and `xyz_m_s2` (m/s²). Nothing is
    extrapolated: gyroscope samples before the first and after the last acceleration are left out.

    >>> camm.imu(ride)["xyz_m_s2"][0]
    Series([0.  , 0.3 , 9.81], dtype=float32)
    """
    return _camm.imu(recording._native).view(Series)


def write(path, recording, *, video=None, replace=False, overwrite=False):
    """Writes the recording's samples as a `camm` track, in the order of time.

    `recording` is a `Recording` or anything else that has some of its arrays. `video` is the MP4 or
    QuickTime file whose other tracks the new file holds as well; `replace` takes the place of its
    `camm` tracks. A file at `path` stays unless `overwrite`; on failure nothing is left behind.

    >>> camm.write(OUT, ride, video=SAMPLE, replace=True)
    >>> camm.read(OUT)
    <camm.Recording 'with_motion.mp4': 4 angle_axis, 120 exposure, 800 gyro, 800 accel, 4 position, 4 gps_min, 40 gps, 4 magnetic>
    """
    arrays = {
        name: np.ascontiguousarray(getattr(recording, name), dtype=dtype)
        for name, dtype in _camm.DTYPES.items()
        if hasattr(recording, name)
    }
    _camm.write(_name(path), arrays, _name(video or ""), replace, overwrite)


def load_motrace(directory):
    """What `motrace` wrote into a directory, as the arrays of `read`: `gyro`, `accel`, `exposure`, `gps`.

    The clock is motrace's own, `clock` names it: whole milliseconds from the file's first packet.
    `gyro` and `accel` are paired by position and share their times, which are the accelerometer's.

    >>> camm.load_motrace(MOTRACE_OUT).gyro["time_ns"][0]
    67000000
    """
    directory = pathlib.Path(directory)
    pairs = np.fromfile(
        directory / "gyro.dat", [("time_us", "<i8"), ("xyz_m_s2", "<f8", 3), ("xyz_rad_s", "<f8", 3)]
    )
    deals = [
        np.fromfile(directory / f"exposure_{k}.dat", [("time_us", "<i8"), ("exposure_s", "<f8")]) for k in range(1, 7)
    ]
    # Exposures were dealt out over six files in turn.
    exposures = np.empty(sum(map(len, deals)), deals[0].dtype)
    for k, deal in enumerate(deals):
        exposures[k::6] = deal
    fixes = (json.loads((directory / "gps.json").read_text()) or {}).get("extended_gps_info", [])

    def series(name, count, **fields):
        made = np.zeros(count, _camm.DTYPES[name]).view(Series)
        for field, values in fields.items():
            made[field] = values
        return made

    def values(key):
        # Numbers that are none are null in the file.
        return [np.nan if fix[key] is None else fix[key] for fix in fixes]

    time_ns = pairs["time_us"] * 1000
    return SimpleNamespace(
        clock="motrace: whole milliseconds from the file's first packet",
        gyro=series("gyro", len(pairs), time_ns=time_ns, xyz_rad_s=pairs["xyz_rad_s"]),
        accel=series("accel", len(pairs), time_ns=time_ns, xyz_m_s2=pairs["xyz_m_s2"]),
        exposure=series(
            "exposure",
            len(exposures),
            time_ns=exposures["time_us"] * 1000,
            pixel_exposure_ns=np.rint(exposures["exposure_s"] * 1e9),
        ),
        gps=series(
            "gps",
            len(fixes),
            time_ns=[fix["pts"] * 1_000_000 for fix in fixes],
            time_gps_s=values("time_gps_epoch"),
            fix_type=values("gps_fix_type"),
            latitude_deg=values("latitude"),
            longitude_deg=values("longitude"),
            altitude_m=values("altitude"),
            horizontal_accuracy_m=values("horizontal_accuracy"),
            vertical_accuracy_m=values("vertical_accuracy"),
            velocity_east_m_s=values("velocity_east"),
            velocity_north_m_s=values("velocity_north"),
            velocity_up_m_s=values("velocity_up"),
            speed_accuracy_m_s=values("speed_accuracy"),
        ),
    )
