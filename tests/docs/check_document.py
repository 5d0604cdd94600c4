#!/usr/bin/env python3
"""Runs what a document shows and compares: check_document.py DOCUMENT BUILD_DIR SAMPLE

Fenced blocks, by their language:
  console  lines that begin with "$ " are run in a directory that holds out/, the sample's
           extraction; what stands below each must be its output. "..." on a line of its own stands
           for any lines.
  python   is run there; a text block directly after it must be its output.
  hex      pairs of hexadecimal digits at the start of each line: bytes of the sample video.
  cpp      preceded by <!-- FILE: MARK -->: what FILE has between two lines "// [MARK]".
"""
import os
import re
import subprocess
import sys
import tempfile
import textwrap
import unittest
from pathlib import Path

document, build_dir, sample = (Path(argument).resolve() for argument in sys.argv[1:4])
root = Path(__file__).resolve().parents[2]


def blocks():
    """(line, language, text, comment before it, text block after a python block or None)"""
    text = document.read_text(encoding="utf-8")
    found = list(re.finditer(r"(?:<!-- (.*?) -->\n+)?^```(\w*)\n(.*?)^```$", text, re.M | re.S))
    for block, after in zip(found, found[1:] + [None]):
        adjacent = after and after[2] == "text" and not text[block.end():after.start()].strip()
        yield text.count("\n", 0, block.start()) + 1, block[2], block[3], block[1], adjacent and after[3]


def run(command, where):
    # Building is not part of a test: the script's other half lists what came out.
    command = re.sub(r"^scripts/extract\.sh$", "scripts/show.sh out", command)
    command = re.sub(r"^build/\w+/bin/", "", command)
    path = f"{build_dir}/bin:{os.environ['PATH']}"
    done = subprocess.run(["bash", "-c", command], cwd=where, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=60, check=False,
                          env={**os.environ, "PATH": path, "LC_ALL": "C.UTF-8", "MANWIDTH": "80"})
    return done.stdout


def matches(output, shown):
    parts = ("\n" + shown).split("\n...\n")
    pattern = r"\n(?:.*\n)*".join(re.escape(part) for part in parts)
    return re.fullmatch(pattern, "\n" + output, re.S) is not None


class Document(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.where = Path(cls.folder.name)
        (cls.where / "out").mkdir()
        (cls.where / "scripts").symlink_to(root / "scripts")
        (cls.where / "out/sample.mp4").symlink_to(sample)
        run("motrace out/sample.mp4 out", cls.where)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def test_commands_print_what_is_shown(self):
        for line, language, text, _, _ in blocks():
            if language != "console":
                continue
            self.assertTrue(text.startswith("$ "), f"line {line}: no command")
            for command, shown in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", text, re.M):
                output = run(command, self.where)
                if not output.endswith("\n"):
                    output += "\n"
                if not matches(output, shown):
                    self.assertEqual(output, shown, f"line {line}: {command}")

    def test_python_prints_what_is_shown(self):
        for line, language, text, _, shown in blocks():
            if language == "python":
                done = subprocess.run([sys.executable, "-c", text], cwd=self.where, text=True,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                                      env={**os.environ, "PYTHONPATH": f"{build_dir}/python"})
                missing = re.search(r"No module named '(numpy|pandas|camm)'", done.stdout)
                if missing:  # sanitized builds make no module
                    self.skipTest(f"{missing[1]} is not there")
                self.assertEqual(done.returncode, 0, f"line {line}: {done.stdout}")
                self.assertEqual(done.stdout, shown or "", f"line {line}")

    def test_hex_dumps_are_bytes_of_the_sample(self):
        content = sample.read_bytes()
        for line, language, text, _, _ in blocks():
            if language == "hex":
                digits = "".join(re.match(r"\s*((?:[0-9a-f]{2}\s{1,2})*)", row)[1]
                                 for row in text.splitlines())
                self.assertGreater(len(digits), 0)
                self.assertIn(bytes.fromhex(digits), content, f"line {line}")

    def test_code_is_that_of_the_compiled_files(self):
        for line, language, text, comment, _ in blocks():
            if language == "cpp":
                self.assertIsNotNone(comment, f"line {line}: no file named")
                name, mark = comment.split(": ")
                source = (root / name).read_text(encoding="utf-8")
                code = re.search(rf"^ *// \[{mark}\]\n(.*?)^ *// \[{mark}\]$", source, re.M | re.S)
                self.assertIsNotNone(code, f"line {line}: {name} has no {mark}")
                self.assertEqual(textwrap.dedent(code[1]), text, f"line {line}")

    def test_links_lead_somewhere(self):
        text = re.sub(r"^```.*?^```$", "", document.read_text(encoding="utf-8"), flags=re.M | re.S)
        for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", text):
            self.assertTrue((document.parent / target).exists(), f"no such file: {target}")


unittest.main(argv=sys.argv[:1])
