#!/usr/bin/env python3
"""Compares what `camm` exports with a second decoder: export_truth.py CAMM SAMPLE FOLDER

The second decoder takes packets from `ffprobe -show_packets -show_data`. FOLDER holds what
make_recordings wrote. The formats are read back by readers that are not ours.
"""

import csv
import fractions
import io
import json
import math
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

import numpy as np

CAMM, SAMPLE, FOLDER = sys.argv[1], sys.argv[2], pathlib.Path(sys.argv[3])
TYPES = {
    0: ("angle_axis", "<fff", "x_rad y_rad z_rad"),
    1: ("exposure", "<ii", "pixel_exposure_ns rolling_shutter_skew_ns"),
    2: ("gyro", "<fff", "x_rad_s y_rad_s z_rad_s"),
    3: ("accel", "<fff", "x_m_s2 y_m_s2 z_m_s2"),
    4: ("position", "<fff", "x_m y_m z_m"),
    5: ("gps_min", "<ddd", "latitude_deg longitude_deg altitude_m"),
    6: ("gps", "<diddfffffff",
        "time_gps_s fix_type latitude_deg longitude_deg altitude_m horizontal_accuracy_m "
        "vertical_accuracy_m velocity_east_m_s velocity_north_m_s velocity_up_m_s "
        "speed_accuracy_m_s"),
    7: ("magnetic", "<fff", "x_ut y_ut z_ut"),
}


def probe(path):
    """(type name, time, {field: bytes}) of every sample, in file order."""
    shown = subprocess.run(
        ["ffprobe", "-v", "quiet", "-of", "json", "-show_streams", "-show_packets", "-show_data",
         f"file:{path}"], capture_output=True, check=True)
    shown = json.loads(shown.stdout)
    track = next(s for s in shown["streams"] if s["codec_tag_string"] == "camm")
    base = fractions.Fraction(track["time_base"])
    for packet in shown["packets"]:
        if packet["stream_index"] != track["index"]:
            continue
        data = bytes.fromhex("".join(line[10:50] for line in packet["data"].splitlines()))
        time = round(packet["pts"] * base * 10**9) if "pts" in packet else None
        while len(data) >= 4:
            kind = int.from_bytes(data[2:4], "little")
            if kind not in TYPES:
                break
            name, layout, fields = TYPES[kind]
            size = 4 + struct.calcsize(layout)
            if len(data) < size:
                break
            values = struct.unpack(layout, data[4:size])
            yield name, time, {f: (t, v) for f, t, v in zip(fields.split(), layout[1:], values)}
            data = data[size:]


def bits(kind, value):
    """The bytes of a value; every NaN counts as the same."""
    if kind == "i":
        return struct.pack("<i", int(value))
    return b"nan" if math.isnan(float(value)) else struct.pack("<" + kind, float(value))


def camm(*arguments, cwd=None):
    return subprocess.run([CAMM, *map(str, arguments)], capture_output=True, text=True, cwd=cwd)


class Truth(unittest.TestCase):
    def setUp(self):
        self.out = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.out)

    def export(self, path, formats, *options, code=0):
        done = camm("export", path, "-f", formats, "-o", self.out, "--force", *options)
        self.assertEqual(done.returncode, code, done.stderr)
        return done

    def rows(self, name):
        with open(self.out / name, newline="") as file:
            return list(csv.DictReader(file))

    def test_every_sample_and_field_equals_the_second_decoders(self):
        names = ["all", "fine", "odd", "fragments", "edited", "early", "two", "camera", "damaged"]
        for path in [SAMPLE] + [FOLDER / f"{name}.mp4" for name in names]:
            with self.subTest(path=path):
                for old in self.out.iterdir():
                    old.unlink()
                damaged = "damaged" in str(path)
                self.export(path, "csv,jsonl,npz", code=1 if damaged else 0)
                expected = list(probe(path))
                self.assertGreater(len(expected), 40)
                stem = pathlib.Path(path).stem
                tables = {name: iter(self.rows(f"{name}.csv")) for name in {e[0] for e in expected}}
                arrays = np.load(self.out / f"{stem}.npz")
                counts = dict.fromkeys(tables, 0)
                with open(self.out / f"{stem}.jsonl") as lines:
                    for name, time, fields in expected:
                        line = json.loads(next(lines))
                        row = next(tables[name])
                        self.assertEqual((line["type"], line["time_ns"]), (name, time))
                        self.assertEqual(row["time_ns"], str(time))
                        self.assertEqual(list(row), ["time_ns", *fields])
                        self.assertEqual(list(line), ["type", "time_ns", *fields])
                        number = counts[name]
                        counts[name] += 1
                        self.assertEqual(arrays[f"{name}_time_ns"][number], time)
                        for axis, (field, (kind, value)) in enumerate(fields.items()):
                            self.assertEqual(bits(kind, row[field]), bits(kind, value))
                            if line[field] is None:
                                self.assertFalse(math.isfinite(value))
                            else:
                                self.assertEqual(bits(kind, line[field]), bits(kind, value))
                            array = (arrays[f"{name}_xyz_{field[2:]}"][number][axis]
                                     if field.startswith(("x_", "y_", "z_"))
                                     else arrays[f"{name}_{field}"][number])
                            self.assertEqual(bits(kind, array), bits(kind, value))
                    self.assertEqual(next(lines, None), None)
                self.assertEqual([next(table, None) for table in tables.values()],
                                 [None] * len(tables))
                self.assertEqual({f.stem for f in self.out.glob("*.csv")}, set(tables))

    def test_maps_are_well_formed_and_name_what_they_leave_out(self):
        said = self.export(FOLDER / "all.mp4", "gpx,geojson,kml", "--start-time",
                           "2026-01-02T10:11:12Z").stderr
        self.assertIn("2 points without a fix left out", said)
        self.assertIn("1 points that are nowhere on Earth left out", said)
        space = "{http://www.topografix.com/GPX/1/1}"
        tracks = ElementTree.parse(self.out / "all.gpx").getroot().findall(space + "trk")
        points = [[len(s.findall(space + "trkpt")) for s in t.findall(space + "trkseg")]
                  for t in tracks]
        self.assertEqual(points, [[2, 1], [2]])  # a gap of 20 s cuts
        first, second = tracks[0].find(space + "trkseg").findall(space + "trkpt")
        self.assertEqual(first.find(space + "time").text, "2024-05-17T16:53:02.000Z")
        self.assertTrue(second.find(space + "time").text.startswith("2026-01-02T10:11:"))
        speed, course = [e for e in first.iter() if e.tag.endswith(("speed", "course"))]
        self.assertEqual(speed.text, "5")
        self.assertAlmostEqual(float(course.text), 360 - math.degrees(math.atan2(3, 4)), places=4)
        last = tracks[0].findall(space + "trkseg")[1].find(space + "trkpt")
        self.assertEqual(last.find(space + "time").text, "2017-01-01T00:00:00.500Z")
        schema = pathlib.Path(__file__).parent / "gpx.xsd"
        checked = subprocess.run(["xmllint", "--noout", "--schema", schema, self.out / "all.gpx"],
                                 capture_output=True, text=True)
        self.assertEqual(checked.returncode, 0, checked.stderr)

        def refuse(constant):
            raise ValueError(constant)
        features = json.loads((self.out / "all.geojson").read_text(), parse_constant=refuse)
        for feature in features["features"]:
            places = feature["geometry"]["coordinates"]
            if feature["geometry"]["type"] == "Point":
                places = [places]
            self.assertEqual(len(feature["properties"]["coordTimes"]), len(places))
        kml = ElementTree.parse(self.out / "all.kml").getroot()
        tags = [e.tag.rpartition("}")[2] for e in kml.iter()]
        self.assertEqual(tags.count("when"), tags.count("coord"))
        self.assertEqual(tags.count("coord"), 5)
        self.export(SAMPLE, "gpx", "--types", "gps")
        back = subprocess.run(["gpsbabel", "-t", "-i", "gpx", "-f", self.out / "sample.gpx",
                               "-o", "unicsv", "-F", "-"], capture_output=True, text=True, check=True)
        back = list(csv.DictReader(io.StringIO(back.stdout)))
        expected = [f for name, _, f in probe(SAMPLE) if name == "gps"]
        self.assertEqual(len(back), len(expected))
        for row, fields in zip(back, expected):
            for column, field in (("Latitude", "latitude_deg"), ("Longitude", "longitude_deg"),
                                  ("Altitude", "altitude_m")):
                self.assertAlmostEqual(float(row[column]), fields[field][1], delta=0.06
                                       if column == "Altitude" else 1e-6)
            self.assertEqual(row["FIX"], "3d")

    def test_leap_seconds_rate_and_start_time_can_be_given(self):
        def times(*options):
            self.export(FOLDER / "camera.mp4", "gpx", "--types", options[0], *options[1:])
            return re.findall("<time>(.*?)</time>", (self.out / "camera.gpx").read_text())
        table, other = times("gps"), times("gps", "--leap-seconds", "17")
        self.assertEqual(int(other[0][17:19]) - int(table[0][17:19]), 1)
        self.assertEqual(len(times("gps", "--rate", "2")), len(table) // 5)
        self.assertEqual(times("gps_min"), [])
        self.assertEqual(times("gps_min", "--start-time", "2026-01-02 11:00:00+01:00")[1],
                         "2026-01-02T10:00:01.000Z")

    def test_imu_logs_hold_the_gyroscope_with_interpolated_accelerations(self):
        done = self.export(FOLDER / "all.mp4", "gcsv,euroc,kalibr")
        samples = list(probe(FOLDER / "all.mp4"))
        rates = {t: [v for _, v in f.values()] for n, t, f in samples if n == "gyro"}
        forces = sorted((t, [v for _, v in f.values()]) for n, t, f in samples if n == "accel")
        times = sorted(t for t in rates if forces[0][0] <= t <= forces[-1][0])
        self.assertIn(f"{len(rates) - len(times)} gyroscope samples outside", done.stderr)
        ftimes = [t for t, _ in forces]
        expected = []
        for time in times:
            force = [np.interp(time, ftimes, [v[axis] for _, v in forces]) for axis in range(3)]
            expected.append([*rates[time], *force])
        log = (self.out / "all.gcsv").read_text().splitlines()
        start = next(i for i, line in enumerate(log) if line.startswith("t,"))
        header = dict(line.split(",", 1) for line in log[1:start])
        self.assertEqual(log[0], "GYROFLOW IMU LOG")
        self.assertEqual(log[start], "t,gx,gy,gz,ax,ay,az,mx,my,mz")
        self.assertEqual((header["version"], header["orientation"]), ("1.3", "XYZ"))
        self.assertEqual(float(header["ascale"]) * 9.80665, 1)
        self.assertGreater(float(header["frame_readout_time"]), 0)
        self.assertEqual(float(header["tscale"]), 1e-9)
        tables = [[line.split(",")[:7] for line in log[start + 1:]]]
        for name in ("mav0/imu0/data.csv", "imu0.csv"):
            tables.append([line.split(",") for line in
                           (self.out / name).read_text().splitlines()[1:]])
        self.assertEqual({len(row[0]) for row in tables[2]}, {19})
        for table, offset in zip(tables, (0, 0, 10**18)):
            self.assertEqual([int(row[0]) - offset for row in table], times)
            np.testing.assert_allclose([[float(v) for v in row[1:]] for row in table], expected,
                                       rtol=2e-7, atol=1e-7)

    def test_frames_stand_in_presentation_order_with_what_is_known_of_each(self):
        self.export(SAMPLE, "frames,euroc,odm,colmap", "--interpolate")
        shown = subprocess.run(["ffprobe", "-v", "quiet", "-select_streams", "v", "-of", "json",
                                "-show_streams", "-show_packets", SAMPLE], capture_output=True,
                               check=True)
        shown = json.loads(shown.stdout)
        base = fractions.Fraction(shown["streams"][0]["time_base"])
        pts = sorted(round(p["pts"] * base * 10**9) for p in shown["packets"])
        rows = self.rows("frames.csv")
        self.assertEqual([int(r["pts_ns"]) for r in rows], pts)
        images = (self.out / "mav0/cam0/data.csv").read_text().splitlines()[1:]
        self.assertEqual(images, [f"{time},{time}.png" for time in pts])
        exposures = {t: f for n, t, f in probe(SAMPLE) if n == "exposure"}
        fixes = [(t, f["latitude_deg"][1]) for n, t, f in probe(SAMPLE) if n == "gps"]
        for row in rows:
            time = min(exposures, key=lambda t: abs(t - int(row["pts_ns"])))
            exposure = [exposures[time][f][1] for f in TYPES[1][2].split()]
            self.assertEqual([int(row["exposure_ns"]), int(row["skew_ns"])], exposure)
            middle = int(row["mid_exposure_ns"])
            self.assertEqual(middle, int(row["pts_ns"]) + sum(exposure) // 2)
            if fixes[0][0] <= middle <= fixes[-1][0]:
                self.assertAlmostEqual(float(row["latitude_deg"]), np.interp(middle, *zip(*fixes)),
                                       places=9)
            else:
                self.assertEqual(row["latitude_deg"], "")
        placed = sum(row["latitude_deg"] != "" for row in rows)
        geo = (self.out / "geo.txt").read_text().splitlines()
        self.assertEqual((geo[0], len(geo) - 1), ("EPSG:4326", placed))
        name, longitude, latitude, _ = geo[1].split()
        self.assertEqual([name, latitude, longitude],
                         (self.out / "colmap.txt").read_text().split()[:3])
        self.assertEqual(name, "frame_000001.jpg")
        self.export(SAMPLE, "odm", "--every-metres", "1", "--images", "i%d.png")
        walked = (self.out / "geo.txt").read_text().splitlines()[1:]
        self.assertTrue(3 <= len(walked) <= 6, walked)
        self.assertTrue(walked[0].startswith("i1.png "))

    def test_command_lines(self):
        name = "2026-01-02T10:11:12 -x\x1b[2J.mp4"
        shutil.copy(FOLDER / "camera.mp4", self.out / name)
        shutil.copy(FOLDER / "camera.mp4", self.out / "-x.mp4")
        shutil.copy(FOLDER / "camera.mp4", self.out / "...mp4")
        (self.out / "text.mp4").write_text("this is no video")
        (self.out / "taken" / "gyro.csv").mkdir(parents=True)
        good, whole = FOLDER / "camera.mp4", "gyro accel exposure gps"
        table = [  # arguments, exit code, on standard output, on standard error
            (["--version"], 0, "camm ", ""),
            (["export", "--help"], 0, "Example: camm export", ""),
            ([], 2, "", "subcommand is required"),
            (["export", good], 2, "", "--format is required"),
            (["export", good, "-f", "csv,xls"], 2, "", "no format 'xls'; there are csv"),
            (["export", good, "-f", "csv", "--types", "gyros"], 2, "", "no sample type 'gyros'"),
            (["export", good, "-f", "csv", "-o", "-"], 2, "", "takes one file: choose with --types"),
            (["export", good, "-f", "gpx", "--start-time", "now"], 2, "", "'now' is no time"),
            (["export", good, "-f", "kalibr", "--epoch-offset", "x"], 2, "", "'x' is no time"),
            (["export", good, "-f", "odm", "--images", "a.jpg"], 2, "", "--images must be"),
            (["export", good, "-f", "csv", "-o", "taken"], 3, "", "gyro.csv: exists; --force"),
            (["export", good, "-f", "csv", "-o", "text.mp4"], 3, "", "text.mp4: cannot be made"),
            (["export", "none.mp4", "-f", "csv"], 3, "", "none.mp4: cannot be read: No such file"),
            (["info", "ftp://localhost/a.mp4"], 3, "", "cannot be read: No such file"),
            (["info", "text.mp4"], 3, "", "text.mp4: cannot be read"),
            (["info", FOLDER / "other.mp4"], 4, "", "no camm track"),
            (["info", FOLDER / "empty.mp4"], 5, "", "holds no samples"),
            (["export", FOLDER / "empty.mp4", "-f", "csv"], 5, "", "holds no samples"),
            (["info", FOLDER / "damaged.mp4"], 1, "gyro", "unknown type 9"),
            (["info", FOLDER / "two.mp4", "--stream", "0"], 0, "not read", "2 camm tracks"),
            (["info", good, FOLDER / "empty.mp4"], 1, "gyro", ""),
            (["info", "-q", FOLDER / "two.mp4"], 0, "gyro", None),
            (["info", name], 0, "-x\\x1B[2J.mp4", None),
            (["export", "-f", "csv", "--types", "gyro", "-o", "-", "--", "-x.mp4"], 0,
             "time_ns,x_rad_s,y_rad_s,z_rad_s\n0,", None),
            (["export", good, "-f", "jsonl", "-o", "-"], 0, '{"type":"gyro","time_ns":0,', None),
            (["export", FOLDER / "two.mp4", "-f", "gpx", "--types", "gyro", "-o", "n"], 5, "",
             "gpx: no GPS samples"),
            (["export", good, "-f", "gpx,csv", "--types", "gyro", "-o", "m", "--json"], 1,
             '"written": [\n    "m/gyro.csv"', "gpx: not written"),
            (["export", "-x.mp4", "-f", "gcsv"], 2, "", ""),
            (["export", "./-x.mp4", "-f", "gcsv"], 0, "", None),
            (["export", "./-x.mp4", "-f", "gcsv"], 3, "", "-x.gcsv: exists"),
            (["export", good, "...mp4", SAMPLE, good, "none.mp4", "-f", "csv", "-o", "several",
              "-j", "3"], 1, "whole", "none.mp4: cannot be read"),
        ]
        for arguments, code, out, err in table:
            with self.subTest(arguments=arguments):
                done = camm(*arguments, cwd=self.out)
                self.assertEqual(done.returncode, code, done.stdout + done.stderr)
                self.assertIn(out, done.stdout)
                self.assertEqual(done.stderr, "") if err is None else self.assertIn(err, done.stderr)
                self.assertNotIn("\x1b", done.stdout + done.stderr)
        self.assertEqual(sorted(p.name for p in (self.out / "several").iterdir()),
                         ["...mp4", "camera", "camera-2", pathlib.Path(SAMPLE).stem])
        self.assertFalse((self.out / "n").exists() and any((self.out / "n").iterdir()))
        self.assertTrue((self.out / "-x.gcsv").is_file())
        self.assertEqual(list(self.out.rglob(".*.part")), [])

    def test_a_full_disk_leaves_nothing_behind(self):
        limited = f'ulimit -f 1; exec "$0" export "$1" -f csv,gpx -o "$2"'
        done = subprocess.run(["bash", "-c", limited, CAMM, FOLDER / "camera.mp4", self.out],
                              capture_output=True, text=True)
        self.assertEqual(done.returncode, 3, done.stderr)
        self.assertIn("cannot be written: File too large", done.stderr)
        self.assertEqual(os.listdir(self.out), [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
