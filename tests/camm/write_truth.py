#!/usr/bin/env python3
"""Compares what `camm` writes with what was to be written: write_truth.py CAMM MOTRACE SAMPLE FOLDER

FOLDER holds what make_recordings wrote. The other streams of a file are compared by ffprobe.
"""

import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

CAMM, MOTRACE, SAMPLE, FOLDER = *sys.argv[1:4], pathlib.Path(sys.argv[4])


def run(*command, code=0):
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True, check=False)
    assert done.returncode == code, f"{command}: {done.returncode}: {done.stdout}{done.stderr}"
    return done


def camm(*arguments, code=0):
    return run(CAMM, *arguments, code=code)


def tables(folder):
    return {path.name: path.read_bytes() for path in folder.glob("*.csv")}


def packets(path):
    """Every packet that is not of a motion track: stream, times, flags and checksum of its bytes."""
    shown = json.loads(run("ffprobe", "-v", "quiet", "-of", "json", "-show_streams", "-show_packets",
                           "-show_data_hash", "md5", f"file:{path}").stdout)
    motion = {s["index"] for s in shown["streams"] if s["codec_tag_string"] == "camm"}
    rows = [tuple(p.get(key) for key in ("stream_index", "pts", "dts", "duration", "flags", "data_hash"))
            for p in shown["packets"] if p["stream_index"] not in motion]
    return sorted(rows, key=str)


class Truth(unittest.TestCase):
    def setUp(self):
        self.dir = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.dir)
        self.out, self.video = self.dir / "out.mp4", self.dir / "video.mp4"

    def make_video(self, *options):
        run("ffmpeg", "-v", "error", "-y", "-i", SAMPLE, "-map", "0:v", "-map", "0:a", "-c", "copy", *options,
            self.video)

    def export(self, path, formats):
        to = pathlib.Path(tempfile.mkdtemp(dir=self.dir))
        camm("export", "-q", path, "-f", formats, "-o", to)
        return to

    def test_exports_come_back_as_they_were(self):
        self.make_video()
        for name in ("all", "fine", "odd", "early", "two", "camera"):
            before = self.export(FOLDER / f"{name}.mp4", "csv,jsonl")
            # JSON has no infinities: they come back as NaN.
            logs = [before] + ([before / "camera.jsonl"] if name == "camera" else [])
            for log in logs:
                with self.subTest(log=log):
                    camm("inject", "-q", self.video, log, "-o", self.out, "--force")
                    self.assertEqual(tables(self.export(self.out, "csv")), tables(before))
        logs = self.export(SAMPLE, "euroc,gcsv,kalibr,csv")
        kept = {name: text for name, text in tables(logs).items() if name in ("gyro.csv", "accel.csv")}
        for log in ("", "mav0/imu0/data.csv", "imu0.csv", "sample.gcsv"):
            offset = "-1000000000" if log == "imu0.csv" else "0"
            camm("inject", "-q", self.video, logs / log, "-o", self.out, "--force", "--offset", offset)
            back = tables(self.export(self.out, "csv"))
            # The scales of a .gcsv file make its accelerations differ in the last place.
            for table in ("gyro.csv",) if log.endswith("gcsv") else kept:
                self.assertEqual(back[table], kept[table], log)

    def test_a_map_becomes_the_places_that_it_shows(self):
        way = self.export(SAMPLE, "gpx,csv")
        camm("inject", "-q", SAMPLE, way / "sample.gpx", "-o", self.out, "--replace", "--rate", "20", code=3)
        camm("export", "-q", SAMPLE, "-f", "gpx", "--types", "gps", "-o", way, "--force")
        camm("inject", "-q", SAMPLE, way / "sample.gpx", "-o", self.out, "--replace", "--rate", "20")
        was, now = [[line.split(",") for line in (folder / "gps.csv").read_text().splitlines()[1:]]
                    for folder in (way, self.export(self.out, "csv"))]
        self.assertEqual([row[:6] for row in now[::2]], [row[:6] for row in was])
        self.assertEqual(len(now), 2 * len(was) - 1)

    def test_what_was_there_stays_and_motrace_reads_what_was_added(self):
        motion = self.export(SAMPLE, "csv")
        for options in ([], ["-movflags", "faststart"], ["-f", "mov"]):
            with self.subTest(options=options):
                self.make_video(*options)
                camm("inject", "-q", self.video, motion, "-o", self.out, "--force")
                self.assertEqual(packets(self.out), packets(self.video))
                extracted = []
                for number, path in enumerate((SAMPLE, self.out)):
                    folder = self.dir / str(number)
                    folder.mkdir(exist_ok=True)
                    run(MOTRACE, path, folder)
                    extracted.append({p.name: p.read_bytes() for p in folder.iterdir()})
                self.assertEqual(*extracted)
        self.assertIn("it holds a camm track already", camm("inject", self.out, motion, "-o", "x", code=3).stderr)
        self.make_video("-movflags", "frag_keyframe+empty_moov")
        self.assertIn("is in fragments", camm("inject", self.video, motion, "-o", "x", code=3).stderr)

    def test_a_cut_gets_its_part_of_the_track(self):
        self.make_video("-ss", "1")
        done = camm("copy", "--from", SAMPLE, "--to", self.video, "-o", self.out, "--trim", "1:3", "--json")
        self.assertIn("packets outside the range are left out", done.stderr)
        said = json.loads(done.stdout)
        self.assertEqual((said["exit_code"], said["packets"], said["left_out"]), (0, 888, 888))
        was, now = [json.loads(camm("info", "--json", path).stdout)["types"] for path in (SAMPLE, self.out)]
        self.assertEqual(now["gyro"]["first_ns"], 0)
        self.assertEqual(now["gyro"]["samples"], was["gyro"]["samples"] // 2)
        said = json.loads(camm("copy", "--from", FOLDER / "other.mp4", "-o", "x", "--json", code=4).stdout)
        self.assertEqual((said["exit_code"], said["packets"]), (4, 0))

    def test_failures_leave_no_file(self):
        self.make_video()
        motion = self.export(SAMPLE, "csv")
        self.assertIn("File too large", run("bash", "-c", 'ulimit -f 60; exec "$@"', "-", CAMM, "inject",
                                            self.video, motion, "-o", self.out, code=3).stderr)
        # Root may write everywhere but where the kernel makes the files.
        for folder in ("/proc", self.dir / "none"):
            said = camm("inject", self.video, motion, "-o", f"{folder}/out.mp4", code=3).stderr
            self.assertRegex(said, f"^camm: {folder}/out.mp4: .*\n$")
        log = self.dir / "log.jsonl"
        os.mkfifo(log)
        with subprocess.Popen([CAMM, "inject", self.video, log, "-o", self.out]) as process:
            with open(log, "wb", buffering=0) as pipe:  # opens when the video is copied
                pipe.write(b'{"type":"gyro","time_ns":0,"x_rad_s":0,"y_rad_s":0,"z_rad_s":0}\n')
                self.assertEqual(len(list(self.dir.glob(".out.mp4.*"))), 1)
                process.kill()
                process.wait()
        self.assertFalse(self.out.exists())

    def test_help_fits_a_screen_and_shows_an_example(self):
        for verb in ("info", "export", "inject", "copy", "check", "report"):
            lines = camm(verb, "--help").stdout.splitlines()
            self.assertLess(len(lines), 24, verb)
            self.assertLessEqual(max(map(len, lines)), 80, verb)
            self.assertTrue(any(line.startswith(f"Example: camm {verb} ") for line in lines), verb)

    def test_check_says_what_is_wrong(self):
        self.assertEqual(camm("check", SAMPLE).stdout, f"{SAMPLE}: nothing found\n")
        said = camm("check", FOLDER / "damaged.mp4", code=1).stdout
        self.assertIn("damaged.mp4: error: unknown-type at ", said)
        said = json.loads(camm("check", FOLDER / "damaged.mp4", "--json", "--profile", "streetview", code=1).stdout)
        self.assertEqual(set(said["findings"][0]), {"code", "severity", "time_ns", "detail"})
        camm("check", FOLDER / "other.mp4", code=4)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
