#!/usr/bin/env python3
"""table.py FILE [--lines PATH]: what gcovr has counted, FILE, as a table by directory; or the lines
below PATH that no test reaches.
"""

import argparse
import collections
import itertools
import json
from pathlib import PurePath


def counted(file):
    """Lines and branches of a file, each as those that were reached and all."""
    lines = [line for line in file["lines"] if not line.get("gcovr/noncode")]
    branches = [branch for line in lines for branch in line["branches"]]
    return collections.Counter(
        lines=len(lines), reached_lines=sum(line["count"] > 0 for line in lines),
        branches=len(branches), reached_branches=sum(branch["count"] > 0 for branch in branches))


def percent(reached, of):
    return f"{100 * reached / of:6.1f} %" if of else "       -"


def print_table(files):
    folders = collections.defaultdict(collections.Counter)
    for file in files:
        folders[str(PurePath(file["file"]).parent)] += counted(file)
    width = max(map(len, folders))
    print(f"{'directory':{width}}  {'lines':>8} of       {'branches':>8} of")
    total = sum(folders.values(), collections.Counter())
    for name, count in [*sorted(folders.items()), ("all", total)]:
        print(f"{name:{width}}  {percent(count['reached_lines'], count['lines'])} {count['lines']:<6}"
              f"  {percent(count['reached_branches'], count['branches'])} {count['branches']}")


def print_lines(files, path):
    """Lines that were not reached, those in a row as one range."""
    for file in files:
        if not file["file"].startswith(path):
            continue
        missed = [line["line_number"] for line in file["lines"]
                  if not line["count"] and not line.get("gcovr/noncode")]
        for _, run in itertools.groupby(enumerate(missed), lambda pair: pair[1] - pair[0]):
            numbers = [number for _, number in run]
            last = f"-{numbers[-1]}" if len(numbers) > 1 else ""
            print(f"{file['file']}:{numbers[0]}{last}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("file")
    parser.add_argument("--lines", metavar="PATH")
    options = parser.parse_args()
    with open(options.file, encoding="utf-8") as text:
        files = json.load(text)["files"]
    if options.lines is None:
        print_table(files)
    else:
        print_lines(files, options.lines)


if __name__ == "__main__":
    main()
