#!/usr/bin/env python3
"""Tests the module `camm`: python_module.py SAMPLE.mp4 MOTRACE, with the module on PYTHONPATH."""

import doctest
import gc
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import unittest

import camm
import numpy as np

SAMPLE, MOTRACE = sys.argv[1], sys.argv[2]


class Module(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        subprocess.run([MOTRACE, SAMPLE, cls.folder.name], stdout=subprocess.DEVNULL, check=True)
        cls.ride = camm.read(SAMPLE)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def test_documentation(self):
        os.chdir(self.folder.name)
        names = {"SAMPLE": SAMPLE, "MOTRACE_OUT": ".", "OUT": "with_motion.mp4", "camm": camm, "ride": self.ride}
        failed, tried = doctest.testmod(camm, extraglobs=names)
        self.assertEqual(failed, 0)
        self.assertGreater(tried, 8)

    def test_arrays_outlive_their_recording(self):
        gyro = camm.read(SAMPLE).gyro
        merged = camm.imu(self.ride)["xyz_rad_s"]
        gc.collect()
        self.assertTrue(np.array_equal(gyro["xyz_rad_s"], self.ride.gyro["xyz_rad_s"]))
        self.assertTrue(np.array_equal(gyro["xyz_rad_s"][:, 1], gyro["y_rad_s"]))
        self.assertTrue(np.array_equal(merged, gyro["xyz_rad_s"][: len(merged)]))

    def test_streaming_gives_what_reading_gives(self):
        seen = {}
        for sample in camm.samples(SAMPLE):
            seen.setdefault(sample.type, []).append((sample.time_ns, *sample.asdict().values()))
        for name, rows in seen.items():
            series = getattr(self.ride, name)
            columns = [n for n in series.dtype.names if series.dtype[n].shape == ()]
            self.assertEqual(rows, series[columns].tolist(), name)
        self.assertEqual(sum(map(len, seen.values())), 1776)

    def test_failures_say_what_the_program_says(self):
        empty = pathlib.Path(self.folder.name, "empty.mp4")
        empty.touch()
        for read in (camm.read, lambda path: next(camm.samples(path))):
            for path in ("ftp://127.0.0.1:9/ride.mp4", "not UTF-8: \udcff", empty):
                with self.assertRaises(camm.Error) as raised:
                    read(path)
                self.assertEqual(raised.exception.status, 3)
                self.assertIn(str(path), str(raised.exception))
        with self.assertRaises(camm.Error) as raised:
            camm.read(SAMPLE, stream=0)
        self.assertEqual(raised.exception.status, 4)
        with self.assertRaises(ValueError):
            camm.read(SAMPLE, origin="noon")

    def test_threads_read_at_once(self):
        lengths = []
        threads = [threading.Thread(target=lambda: lengths.append(len(camm.read(SAMPLE).gyro))) for _ in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(lengths, [800] * 8)

    def test_motrace_output_has_the_same_values(self):
        out = camm.load_motrace(self.folder.name)
        for name, field in (("gyro", "xyz_rad_s"), ("accel", "xyz_m_s2"), ("exposure", "pixel_exposure_ns")):
            self.assertTrue(np.array_equal(getattr(out, name)[field], getattr(self.ride, name)[field]), name)
        # Text of 15 digits in between.
        for field in ("time_gps_s", "latitude_deg", "longitude_deg", "altitude_m", "fix_type", "velocity_up_m_s"):
            np.testing.assert_allclose(out.gps[field], self.ride.gps[field], rtol=1e-14)
        offset = self.ride.gyro["time_ns"][0] - out.gyro["time_ns"][0]
        self.assertLessEqual(np.abs(out.gyro["time_ns"] + offset - self.ride.gyro["time_ns"]).max(), 1_000_000)

    def test_what_is_written_reads_back(self):
        path = pathlib.Path(self.folder.name, "alone.mp4")
        out = camm.load_motrace(self.folder.name)
        out.gyro["x_rad_s"][:3] = np.nan, np.inf, -0.0
        camm.write(path, out)
        back = camm.read(path)
        for name in ("gyro", "accel", "exposure", "gps"):
            self.assertEqual(getattr(back, name).tobytes(), getattr(out, name).tobytes(), name)
        with self.assertRaises(camm.Error):
            camm.write(path, out)
        camm.write(path, self.ride, overwrite=True)
        self.assertTrue(np.array_equal(camm.read(path).magnetic, self.ride.magnetic))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
