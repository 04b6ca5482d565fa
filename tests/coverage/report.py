#!/usr/bin/env python3
"""Adds up what gcov has counted, and names each line and branch of the sources that no test has run.

Both builds count together. No branch is what only exceptions decide: whether a call returns, and whether a handler is the
right one. No line is one of nothing but braces, which stands for the compiler's own cleaning up. What excluded.txt lists
may be left out, and has to be.
"""
import argparse
import collections
import json
import pathlib
import re
import subprocess
import sys

FOLDERS = ("src", "include", "logger", "metrics", "testing")
MOST_EXCLUDED = 10

parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("build", metavar="FOLDER", type=pathlib.Path, help="the build that counts")
build = parser.parse_args().build.resolve()
root = pathlib.Path(__file__).resolve().parents[2]


def documents():
    """What gcov says of each object file of the libraries and test programs."""
    notes = sorted(str(path) for path in build.rglob("*.gcno"))
    answer = subprocess.run(["gcov", "--json-format", "--stdout", "--branch-probabilities", *notes],
                            check=False, capture_output=True, text=True)
    if answer.returncode != 0:
        sys.exit(f"report.py: gcov fails: {answer.stderr}")
    return [json.loads(line) for line in answer.stdout.splitlines() if line]


def in_tree(document, file):
    """The path of a source file of ours, or None."""
    path = pathlib.Path(document["current_working_directory"], file["file"]).resolve()
    if path.is_relative_to(root) and path.relative_to(root).parts[0] in FOLDERS:
        return path.relative_to(root)
    return None


def decisions(branches):
    """How often each branch was taken, without the two of each call that may throw: to go on, and not to."""
    counts = []
    for branch in branches:
        if not branch["throw"]:
            counts.append(branch["count"])
        elif counts:
            counts.pop()
    return counts


class Line:
    """One line of the sources, in all functions and both builds that it is compiled into."""

    def __init__(self):
        self.count = 0
        self.alternatives = collections.defaultdict(collections.Counter)

    def add(self, count, function, branches):
        """A function is known by where it begins, so that all instances of a template are one. Where the builds have
        branches of their own in one line, each has to be taken."""
        self.count += count
        for index, taken in enumerate(branches):
            self.alternatives[function, len(branches)][index] += taken

    def branches(self):
        return [taken for alternative in self.alternatives.values() for _, taken in sorted(alternative.items())]


lines = collections.defaultdict(Line)
for document in documents():
    for file in document["files"]:
        path = in_tree(document, file)
        if path is None:
            continue
        begins = {function["name"]: (function["start_line"], function["start_column"]) for function in file["functions"]}
        for line in file["lines"]:
            lines[path, line["line_number"]].add(
                line["count"], begins.get(line.get("function_name")), decisions(line["branches"]))

excluded = {}
for entry in (pathlib.Path(__file__).parent / "excluded.txt").read_text().split("\n\n"):
    place, *reason = [line for line in entry.splitlines() if not line.startswith("#")] or [""]
    if place:
        if not any(line.strip() for line in reason):
            sys.exit(f"report.py: no reason is given for {place}")
        excluded[tuple(place.split(": ", 1))] = False
if len(excluded) > MOST_EXCLUDED:
    sys.exit(f"report.py: {len(excluded)} lines are excluded, and {MOST_EXCLUDED} may be")

texts = {path: (root / path).read_text().splitlines() for path, _ in lines}
totals = {folder: [0, 0, 0, 0] for folder in FOLDERS}
missed = []
for (path, number), line in sorted(lines.items()):
    text = texts[path][number - 1].strip()
    if re.fullmatch(r"[{}();, ]*", text):
        continue
    branches = [] if re.match(r"catch \(.*\)", text) else line.branches()
    if line.count > 0 and all(branches):
        pass
    elif (str(path), text) in excluded:
        excluded[str(path), text] = True
        continue
    else:
        taken = "".join("+" if taken else "-" for taken in branches)
        missed.append(f"{path}:{number}: {'branches ' + taken if line.count else 'not run'}: {text}")
    for index, value in enumerate([line.count > 0, 1, sum(map(bool, branches)), len(branches)]):
        totals[path.parts[0]][index] += value

totals["all"] = [sum(column) for column in zip(*totals.values())]
print(f"{'':10}{'lines':>16}{'branches':>26}")
for folder, (run, of, taken, out_of) in totals.items():
    print(f"{folder:10}{run:7} of{of:6}{100 * run / max(of, 1):7.2f} %{taken:9} of{out_of:6}{100 * taken / max(out_of, 1):7.2f} %")
print(f"{len(excluded)} lines are excluded, each with its reason, in tests/coverage/excluded.txt")
missed += [f"excluded without need: {path}: {text}" for (path, text), used in excluded.items() if not used]
for text in missed:
    print(text)
if totals["all"][1] == 0:
    sys.exit("report.py: nothing was counted")
sys.exit(1 if missed else 0)
