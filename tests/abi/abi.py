"""Compares the shared libraries of a build with the record of their ABI that lies beside this file, or
writes the record anew.
"""

import argparse
import concurrent.futures
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import record

# Bits of abidiff's exit code: it could not be used, it failed.
FAILED = 1 | 2
MOST_LINES = 60  # one change of a base class shows in every function of what derives from it


def libraries(build):
    found = sorted((build / "lib").glob("lib*.so"))
    if not found:
        raise SystemExit(f"abi: no library in {build}/lib")
    return found


def record_of(folder, library):
    return folder / f"{library.stem.removeprefix('lib')}.abi"


def make_records(options, folder):
    """The records of the libraries as they are built, in `folder`."""
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        jobs = [pool.submit(record.make, options.source, library, record_of(folder, library))
                for library in libraries(options.build)]
        for job in jobs:
            job.result()


def changes(old, new):
    """What programs that use the old one may stumble over in the new one, in words; additions do
    not count."""
    result = subprocess.run(["abidiff", "--no-added-syms", "--harmless", str(old), str(new)],
                            text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    if result.returncode < 0 or result.returncode & FAILED:
        raise SystemExit(f"abi: abidiff {old} {new} failed:\n{result.stdout}")
    if not result.returncode:
        return ""
    lines = result.stdout.splitlines()
    rest = [f"... and {len(lines) - MOST_LINES} lines more"] if len(lines) > MOST_LINES else []
    return "\n".join([*lines[:MOST_LINES], *rest, ""])


def compare(options, folder):
    """The names of libraries that differ from their record, each with what is wrong."""
    wrong = {}
    for library in libraries(options.build):
        old, new = record_of(options.records, library), record_of(folder, library)
        if not old.exists():
            wrong[library.name] = "has no record\n"
        elif record.soname(old) != record.soname(new):
            wrong[library.name] = f"the record is of {record.soname(old)}\n"
        elif difference := changes(old, new):
            wrong[library.name] = difference
    for old in options.records.glob("*.abi"):
        if not record_of(folder, Path(f"lib{old.stem}.so")).exists():
            wrong[old.name] = "there is no such library any more\n"
    return wrong


def is_released(options):
    """Whether the changelog knows the version of the tree as one that others use."""
    version = re.search(r"^ *VERSION ([0-9.]+)$", (options.source / "CMakeLists.txt").read_text(),
                        re.MULTILINE)[1]
    heading = re.search(rf"^## {re.escape(version)}\b(.*)$",
                        (options.source / "CHANGELOG.md").read_text(), re.MULTILINE)
    if not heading:
        raise SystemExit(f"abi: CHANGELOG.md has no section about {version}")
    return "not released" not in heading[1]


def update(options, folder):
    for library in libraries(options.build):
        old, new = record_of(options.records, library), record_of(folder, library)
        kept = old.exists() and record.soname(old) == record.soname(new)
        if kept and is_released(options) and (difference := changes(old, new)):
            raise SystemExit(f"{difference}\nabi: {library.name} breaks programs that use "
                             f"{record.soname(old)}: raise the major version first")
    for old in options.records.glob("*.abi"):
        old.unlink()
    for new in folder.glob("*.abi"):
        (options.records / new.name).write_text(new.read_text())
        print(f"abi: {options.records.name}/{new.name}: {new.stat().st_size // 1024} KiB")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--source", type=Path, required=True)
    parser.add_argument("--records", type=Path, default=Path(__file__).parent)
    parser.add_argument("--update", action="store_true")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="zarn-abi-") as folder:
        make_records(options, Path(folder))
        if options.update:
            return update(options, Path(folder))
        wrong = compare(options, Path(folder))
    for name, text in wrong.items():
        print(f"=== {name}: {text}")
    if wrong:
        sys.exit("abi: programs that were compiled before would not all run any more; docs/versioning.md "
                 "says what to do, scripts/abi --update writes the record anew")
    return None


if __name__ == "__main__":
    main()
