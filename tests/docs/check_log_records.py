#!/usr/bin/env python3
"""Compares the tables of docs/logging.md with the log statements of the sources.

Every statement must have its row (place, level, first literal of its text), every row its statement;
and the records of a run that went well are those of the log that is kept in tests/golden.
"""
import re
import sys
import unittest
from pathlib import Path

root = Path(__file__).resolve().parents[2]
roots = [root / "qvxmedia/src", root / "src"]


def sources():
    for folder in roots:
        for path in sorted(folder.rglob("*")):
            if path.suffix in (".h", ".cpp") and path.name != "log_message.h":
                # Comments may show statements.
                yield path.relative_to(folder).as_posix(), re.sub(r"//.*", "", path.read_text())


def sites():
    table = {}
    for _, text in sources():
        for name, file, line in re.findall(r'LogSite (\w+)\{"([^"]+)",\s*(\d+)\}', text):
            assert name not in table, name
            table[name] = f"{file}:{line}"
    return table


def statements():
    """(level or condition, place, first literal of the text)"""
    places = sites()
    records, checks = [], []
    for file, text in sources():
        for level, site, body in re.findall(
                r"LUM_LOG(?:_AT)?\((\w+)(?:,\s*(?:lum::)?site::(\w+))?\)\s*<<([^;]*);", text):
            literal = re.search(r'"((?:[^"\\]|\\.)*)"', body)[1]
            records.append((level[1:].upper(), places[site] if site else file, literal))
        for condition, site, body in re.findall(
                r"LUM_CHECK(?:_AT)?\(((?:[^()]|\((?:[^()]|\([^()]*\))*\))*?)(?:,\s*site::(\w+))?\)"
                r"(?:\s*<<([^;]*))?;", text):
            literal = re.search(r'"([^"]*)"', body) if body else None
            checks.append((condition, places[site] if site else file,
                           literal[1] if literal else "none"))
    return records, checks


def rows():
    """The tables' rows: cells without their backticks."""
    text = (root / "docs/logging.md").read_text(encoding="utf-8")
    for row in re.findall(r"^\| (.*) \|$", text, re.M):
        yield [cell.strip("`").replace("\\|", "|") for cell in re.split(r"(?<!\\)\| ?| \| ", row) if cell]


class LogRecords(unittest.TestCase):
    def test_every_record_is_described(self):
        records, checks = statements()
        self.assertGreater(len(records), 30)
        self.assertGreater(len(checks), 10)
        table = [[cell.rstrip(" `").lstrip("`") for cell in row] for row in rows()]
        described_records = [row for row in table if row[0] in ("VERBOSE", "INFO", "WARNING", "ERROR")]
        for level, place, literal in records:
            found = [row for row in described_records
                     if row[0] == level and row[1] == place and literal.strip() in row[2]]
            self.assertEqual(len(found), 1, f"{level} {place} {literal!r}")
        self.assertEqual(len(described_records), len(records), "rows without a statement")

        described_checks = [row for row in table if re.match(r"\w+/\w+\.(h|cpp)(:\d+)?$", row[0])]
        for condition, place, literal in checks:
            found = [row for row in described_checks if row[:3] == [place, condition, literal]]
            self.assertEqual(len(found), 1, f"check {place} {condition!r} {literal!r}")
        self.assertEqual(len(described_checks), len(checks), "rows without a check")

    def test_a_run_that_went_well_writes_what_is_described(self):
        kept = (root / "tests/golden/camera/log.txt").read_text().splitlines()
        kept = {line for line in kept if line and not line.startswith("Start to parse")}
        text = (root / "docs/logging.md").read_text(encoding="utf-8")
        section = text.split("## Records of a run that went well")[1].split("\n## ")[0]
        for level, place, record, meaning in re.findall(r"^\| ([A-Z]+) \| `(.*)` \| `(.*)` \| (.*) \|$", section, re.M):
            pattern = re.escape(f"{level} {place} {record}").replace("NAME", "(PATH|pipe)")
            found = {line for line in kept if re.fullmatch(pattern, line)}
            self.assertEqual(bool(found), "not in motrace" not in meaning, pattern)
            kept -= found
        self.assertEqual(kept, set(), "records without a row")

    def test_every_site_is_used_and_stands_once(self):
        text = "".join(text for _, text in sources())
        table = sites()
        self.assertEqual(len(set(table.values())), len(table), "two sites have one place")
        for name in table:
            self.assertEqual(len(re.findall(rf"site::{name}\b", text)), 1, name)


sys.exit(unittest.main())
