#!/usr/bin/env python3
"""Changes one line of the product at a time and shows what the tests notice.

  scripts/mutate.py --paths 'qvxmedia/src/base' --count 30 --targets qvxmedia_base_test --tests '^Any'
  scripts/mutate.py --again earlier.jsonl --results now.jsonl     # the same changes, on today's tests

Works on a copy of the tree under build/mutants, so the checkout may be edited meanwhile. Each result is
a line of JSON: file, line, original, mutant, result (killed, survived, build-failed) and who killed it.
"""
import argparse
import json
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
SUFFIXES = {".cpp", ".h", ".hpp", ".inc", ".cl"}
PRODUCT = re.compile("^(src|qvxmedia/src|camm|simd|frame_interpolation|raw_bayer|samples)/")
DROP = r"^\s*(?!return|using|throw|static|const|friend)[\w*(][\w.:>\[\]*()-]*(\(.*\)| [-+*/|&^]?= .*);$"
# Pattern, what replaces a match. Operators stand between spaces, as clang-format puts them.
RULES = [
    (r" == ", " != "), (r" != ", " == "), (r" < ", " <= "), (r" <= ", " < "), (r" > ", " >= "),
    (r" >= ", " > "), (r" && ", " || "), (r" \|\| ", " && "), (r" \+ ", " - "), (r" - ", " + "),
    (r" \* ", " / "), (r" / ", " * "), (r" % ", " / "), (r" \+= ", " -= "), (r" -= ", " += "),
    (r"\+\+", "--"), (r"(?<!-)--", "++"), (r" & ", " | "), (r" \| ", " & "), (r" << (?=\d)", " >> "),
    (r" >> (?=\d)", " << "), (r"\btrue\b", "false"), (r"\bfalse\b", "true"), (r"\bmin\b", "max"),
    (r"\bmax\b", "min"), (r"(?<=[(!])!(?=[\w(])", ""), (r"\b(if|while) \((?!!)(?=[^()]*(\([^()]*\)[^()]*)*\) )", None),
    (r"(?<![\w.'])\d+(?![\w.'])", lambda m: str(int(m.group(), 8 if m.group()[0] == "0" else 10) + 1)),
    (r"(?<![\w.])\d+\.\d+(?=f?\b)", lambda m: str(float(m.group()) * 2 + 1)),
    (r"\bbreak;", ";"), (r"\bcontinue;", ";"),
    (DROP, ";"),
]


def mask(line):
    """The line with the text of its comments and strings blanked, at the same length."""
    line = re.sub(r"(?<!\d)'(\\.|[^'\\])'|\"(\\.|[^\"\\])*\"", lambda m: '"' + "_" * (len(m.group()) - 2) + '"', line)
    return re.sub(r"//.*|/\*.*?\*/|^\s*(/\*|\*).*", lambda m: "_" * len(m.group()), line)


def mutants_of(path, lines, number):
    """Every single-line change of a line that the rules know."""
    line, code = lines[number], mask(lines[number])
    if re.match(r"\s*(#|namespace|using|template|static_assert)|.*\) (const )?(noexcept )?= 0;", line):
        return
    seen, starts = {line}, number == 0 or re.search(r"[;{}:]\s*(//.*)?$|^\s*(//.*)?$", lines[number - 1])
    for pattern, change in RULES:
        for m in re.finditer(pattern, code):
            if pattern == DROP and not starts:
                continue  # the end of a longer statement
            if change is None:  # negate a condition that closes on its line
                depth, end = 0, m.end() - 1
                for end in range(m.end() - 1, len(code)):
                    depth += {"(": 1, ")": -1}.get(code[end], 0)
                    if depth == 0:
                        break
                mutant = f"{line[:m.end()]}!({line[m.end():end]}){line[end:]}"
            else:
                new = change(m) if callable(change) else change
                mutant = line[:m.start()] + (re.match(r"\s*", line).group() if new == ";" else "") + new + line[m.end():]
            if mutant not in seen:
                seen.add(mutant)
                yield {"file": path, "line": number + 1, "original": line, "mutant": mutant}


def refresh(copy):
    """Brings the copy to the checkout's state and returns its files' names; what is equal keeps its time, so that
    little is rebuilt."""
    names = subprocess.run(["git", "ls-files", "-coz", "--exclude-standard"], cwd=ROOT, check=True, capture_output=True)
    names = {n for n in names.stdout.decode().split("\0") if n and (ROOT / n).is_file()}
    for old in (p for p in copy.rglob("*") if p.is_file() and "build" not in p.relative_to(copy).parts[:1]):
        if str(old.relative_to(copy)) not in names:
            old.unlink()
    for name in names:
        target = copy / name
        if not target.exists() or target.read_bytes() != (ROOT / name).read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / name, target)
    return sorted(names)


def run(command, cwd, timeout):
    """Exit code (-1: too slow) and output; whatever the command started ends with it."""
    limits = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (8 << 30, 8 << 30))
    process = subprocess.Popen(command, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                               errors="replace", start_new_session=True, preexec_fn=limits)
    try:
        return process.communicate(timeout=timeout)[0], process.returncode
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        return process.communicate()[0], -1


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for name, default, text in [
            ("--paths", ".", "regular expression over the product's files"),
            ("--only", "", "FILE:LINE,…: every change of these lines"),
            ("--again", "", "results of an earlier run: make the same changes and compare"),
            ("--seed", 1, "which changes are drawn"), ("--count", 20, "how many"),
            ("--targets", "all", "what to build, between spaces"), ("--preset", "release", "how"),
            ("--tests", ".", "regular expression over the tests' names"),
            ("--label", ".*", "regular expression over the tests' labels"),
            ("--results", "build/mutants/results.jsonl", "the file that is written")]:
        parser.add_argument(name, default=default, type=type(default), help=f"{text} ({default})")
    args = parser.parse_args()

    os.nice(19)
    copy = ROOT / "build/mutants/tree"
    names = refresh(copy)
    build = ["cmake", "--build", "--preset", args.preset, "-j2", "--target", *args.targets.split()]
    test = ["ctest", "--preset", args.preset, "-j2", "-R", args.tests, "--stop-on-failure"]
    test += ["-L", args.label] if args.label != ".*" else []
    subprocess.run(["cmake", "--preset", args.preset, "-DMOTRACE_BUILD_BENCH=OFF"], cwd=copy, check=True,
                   stdout=subprocess.DEVNULL)
    for command in build, test:
        start = time.monotonic()
        output, code = run(command, copy, 3600)
        if code != 0:
            sys.exit(f"{output[-3000:]}\nthe unchanged tree fails: {' '.join(command)}")
    limit = 60 + 5 * (time.monotonic() - start)

    sources = {n: (copy / n).read_text().split("\n") for n in names
               if PRODUCT.match(n) and pathlib.Path(n).suffix in SUFFIXES and re.search(args.paths, n)}
    if args.again:
        mutants = [json.loads(line) for line in pathlib.Path(args.again).read_text().splitlines()]
        for m in mutants:  # the line may have moved
            m["before"] = m["result"]
            places = [i for i, line in enumerate(sources.get(m["file"], [])) if line.strip() == m["original"].strip()]
            m["line"] = 1 + min(places, key=lambda i: abs(i + 1 - m["line"]), default=-1)
    elif args.only:
        places = [(f, int(n) - 1) for f, n in (p.rsplit(":", 1) for p in args.only.split(","))]
        mutants = [m for f, n in places for m in mutants_of(f, sources[f], n)]
    else:
        mutants = [m for f, lines in sorted(sources.items()) for n in range(len(lines)) for m in mutants_of(f, lines, n)]
        mutants = random.Random(args.seed).sample(mutants, min(args.count, len(mutants)))

    counts, worse = {}, 0
    with open(args.results, "w", encoding="utf-8") as results:
        for m in mutants:
            m["result"], m["by"] = "gone", ""
            if m["line"]:
                lines = list(sources[m["file"]])
                lines[m["line"] - 1] = m["mutant"]
                (copy / m["file"]).write_text("\n".join(lines))
                output, code = run(build, copy, 3600)
                m["result"] = "build-failed" if code else "survived"
                if not code:
                    output, code = run(test, copy, limit)
                    failed = re.findall(r"^\t *\d+ - (.*) \(", output, re.M)
                    m["result"], m["by"] = ("killed", failed[0] if failed else "time") if code else ("survived", "")
                (copy / m["file"]).write_text("\n".join(sources[m["file"]]))
            counts[m["result"]] = counts.get(m["result"], 0) + 1
            before = m.get("before", m["result"])
            note = "" if before == m["result"] else f"   BEFORE: {before}"
            worse += m["result"] == "survived" and before == "killed"
            print(f"{m['result']:12} {m['file']}:{m['line']} {m['mutant'].strip()[:90]}   {m['by']}{note}", flush=True)
            print(json.dumps(m), file=results, flush=True)
    print(counts, f"survive now and died before: {worse}" if args.again else "")
    sys.exit(1 if worse else 0)


if __name__ == "__main__":
    main()
