#!/usr/bin/env python3
"""Compares the tables of docs/logging.md with the log statements of the sources, and with a kept log.

Every statement must have its row (place, level, first literal of its text), every row its statement.
"""
import re
import unittest
from pathlib import Path

root = Path(__file__).resolve().parents[2]
page = (root / "docs/logging.md").read_text(encoding="utf-8")
# The cells of each row, without their backticks.
rows = [[cell.strip("` ").replace("\\|", "|") for cell in re.split(r"(?<!\\)\| ?| \| ", row) if cell]
        for row in re.findall(r"^\| (.*) \|$", page, re.M)]
sources = {path.relative_to(folder).as_posix(): re.sub(r"//.*", "", path.read_text())  # comments show some
           for folder in (root / "qvxmedia/src", root / "src") for path in folder.rglob("*.*")
           if path.suffix in (".h", ".cpp") and path.name != "log_message.h"}
everything = "".join(sources.values())
sites = re.findall(r'LogSite (\w+)\{"([^"]+)",\s*(\d+)\}', everything)
places = {name: f"{file}:{line}" for name, file, line in sites}
LOG = r"LUM_LOG(?:_AT)?\((\w+)(?:,\s*(?:lum::)?site::(\w+))?\)\s*<<([^;]*);"
CHECK = (r"LUM_CHECK(?:_AT)?\(((?:[^()]|\((?:[^()]|\([^()]*\))*\))*?)(?:,\s*(?:lum::)?site::(\w+))?\)"
         r"(?:\s*<<([^;]*))?;")


def statements(pattern):
    """(level or condition, place, first literal of the text)"""
    for file, text in sources.items():
        for first, site, body in re.findall(pattern, text):
            literal = re.search(r'"((?:[^"\\]|\\.)*)"', body)
            yield first, places.get(site, file), literal[1].strip() if literal else "none"


class LogRecords(unittest.TestCase):
    def compare(self, statements, described):
        self.assertGreater(len(statements), 10)
        for statement in statements:
            self.assertEqual(len([row for row in described if all(map(str.__contains__, row, statement))]), 1,
                             statement)
        self.assertEqual(len(described), len(statements), "rows without a statement")

    def test_every_record_is_described(self):
        self.compare([(level[1:].upper(), place, text) for level, place, text in statements(LOG)],
                     [row for row in rows if row[0] in ("VERBOSE", "INFO", "WARNING", "ERROR")])

    def test_every_check_is_described(self):
        self.compare([(place, condition, text) for condition, place, text in statements(CHECK)],
                     [row for row in rows if re.match(r"\w+/\w+\.(h|cpp)(:\d+)?$", row[0])])

    def test_a_run_that_went_well_writes_what_is_described(self):
        kept = (root / "tests/golden/camera/log.txt").read_text().splitlines()
        kept = {line for line in kept if line and not line.startswith("Start to parse")}
        section = page.split("## Records of a run that went well")[1].split("\n## ")[0]
        for level, place, record, meaning in re.findall(r"^\| ([A-Z]+) \| `(.*)` \| `(.*)` \| (.*) \|$", section, re.M):
            pattern = re.escape(f"{level} {place} {record}").replace("NAME", "(PATH|pipe)")
            found = {line for line in kept if re.fullmatch(pattern, line)}
            self.assertEqual(bool(found), "not in motrace" not in meaning, pattern)
            kept -= found
        self.assertEqual(kept, set(), "records without a row")

    def test_every_site_is_used_and_stands_once(self):
        self.assertEqual(len(set(places.values())), len(sites), "two sites have one place")
        for name in places:
            self.assertEqual(len(re.findall(rf"site::{name}\b", everything)), 1, name)


unittest.main()
