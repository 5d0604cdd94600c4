#!/usr/bin/env python3
"""Looks at a report in headless Chromium: report_page.py CAMM SAMPLE.mp4, with the module camm on PYTHONPATH."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

import camm
import numpy as np
from browser import Browser

CAMM, SAMPLE = sys.argv[1], sys.argv[2]


class Report(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.path = pathlib.Path(cls.folder.name)
        cls.browser = Browser(cls.path / "profile")

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()
        cls.folder.cleanup()

    def report(self, *videos, code=0):
        page = self.path / "report.html"
        done = subprocess.run([CAMM, "report", "--force", *map(str, videos), "-o", page], capture_output=True, text=True)
        self.assertEqual(done.returncode, code, done.stderr)
        self.browser.open(page)
        return page

    # How many pixels of the first chart are drawn.
    DRAWN = """(() => { const c = document.querySelector('.chart canvas:nth-of-type(1)');
      return c.getContext('2d').getImageData(0, 0, c.width, c.height).data.filter((v, i) => i % 4 == 3 && v > 0).length })()"""

    def test_charts_are_drawn_and_zoom(self):
        self.report(SAMPLE)
        run = self.browser.run
        self.assertEqual(run("document.querySelectorAll('.chart').length"), 10)
        self.assertGreater(run(self.DRAWN), 1000)
        self.assertGreater(run("document.querySelectorAll('svg polyline').length"), 0)
        shown = "document.querySelector('output').textContent"
        self.assertEqual(run(shown), "0.000 s to 3.995 s")
        run("document.querySelector('[title=\"Zoom in\"]').click()")
        self.assertEqual(run(shown), "0.999 s to 2.996 s")
        run("document.querySelector('.chart').dispatchEvent(new KeyboardEvent('keydown', {key: 'Home'}))")
        self.assertEqual(run(shown), "0.000 s to 3.995 s")
        self.assertEqual(self.browser.errors(), [])

    def test_page_is_whole_by_itself(self):
        self.report(SAMPLE)
        loaded = self.browser.run("performance.getEntriesByType('resource').filter(e => !e.name.startsWith('data:')).length")
        self.assertEqual(loaded, 0)

    def test_hostile_names_and_numbers_stay_text(self):
        name = self.path / "<img src=x onerror=document.title='hit'>&quot;\x1b[31m.mp4"
        ride = camm.read(SAMPLE)
        ride.gyro["xyz_rad_s"][::2] = np.nan
        ride.gyro["x_rad_s"][1] = np.inf
        ride.accel["xyz_m_s2"] = np.nan
        ride.gps["latitude_deg"][:5] = np.nan
        camm.write(name, ride)
        self.report(name)
        self.assertEqual(self.browser.run("document.querySelectorAll('[onerror]').length"), 0)
        self.assertIn("<img src=x", self.browser.run("document.title"))
        self.assertGreater(self.browser.run(self.DRAWN), 100)
        self.report(name, SAMPLE, self.path / "missing.mp4", code=1)
        self.assertEqual(self.browser.run("document.querySelectorAll('li').length"), 3)
        self.browser.run("document.querySelector('a').click()")
        self.assertIn("<img src=x", self.browser.run("document.title"))
        self.assertEqual(self.browser.errors(), [])

    def test_long_recordings_keep_their_extremes_when_zoomed(self):
        time_ns = np.arange(200_000) * 1_000_000
        gyro = np.zeros(len(time_ns), camm.read(SAMPLE).gyro.dtype)
        gyro["time_ns"] = time_ns
        gyro["x_rad_s"][123_456] = 7
        camm.write(self.path / "long.mp4", type("Ride", (), {"gyro": gyro}), overwrite=True)
        page = self.report(self.path / "long.mp4")
        self.assertLess(page.stat().st_size, 3_000_000)
        highest = """(() => { const g = document.querySelector('.chart').chart.graph; let most = 0;
          for (let i = 0; i < g.numRows(); ++i) most = Math.max(most, g.getValue(i, 1)[2] ?? 0); return most })()"""
        self.assertEqual(self.browser.run(highest), 7)
        for _ in range(12):
            self.browser.run("document.querySelector('[title=\"Zoom in\"]').click()")
        # Charts out of sight keep their old window for a while; nothing may take it for the reader's choice.
        shown = "document.querySelector('output').textContent"
        before = self.browser.run(shown)
        self.browser.command("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark"}])
        self.browser.run("new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done)))")
        self.assertEqual(self.browser.run(shown), before)
        self.assertEqual(self.browser.errors(), [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
