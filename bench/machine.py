"""Where and of what results are: the machine, the tree, and the packages that it was built with."""
import datetime
import os
import platform
import re
import subprocess

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
TOOLS = {"cmake", "ninja-build", "pkg-config", "python3"}  # have no part in what is measured


def describe_tree_and_machine():
    return {
        "machine": {"cpu": cpu_model(), "processors": os.cpu_count(),
                    "kernel": f"{platform.system()} {platform.release()}"},
        "commit": commit(),
        "packages": package_versions(),
        "measured_at": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
    }


def cpu_model():
    try:
        with open("/proc/cpuinfo", encoding="utf-8") as file:
            found = re.search(r"^model name\s*: *(.+)$", file.read(), re.MULTILINE)
    except OSError:
        found = None
    return found[1] if found else platform.machine()


def commit():
    """None outside of a clone. Changes that are not committed show as "-dirty"."""
    return output_of("git", "-C", ROOT, "describe", "--always", "--dirty", "--abbrev=12",
                     "--exclude=*")


def package_versions():
    """Of the compiler, the peers, and what the library itself stands on: the lists of scripts/setup."""
    with open(os.path.join(ROOT, "scripts/setup"), encoding="utf-8") as file:
        lists = re.findall(r"^readonly (?:build|bench)_packages=\((.*?)\)", file.read(),
                           re.MULTILINE | re.DOTALL)
    wanted = sorted({name for names in lists for name in names.split()} - TOOLS)
    printed = output_of("dpkg-query", "-W", "-f", "${binary:Package} ${Version}\n", *wanted) or ""
    return {name.split(":")[0]: version
            for name, _, version in (line.partition(" ") for line in printed.splitlines()) if version}


def output_of(*command):
    """What is printed, also when it ends with 1, as dpkg-query does when a package is missing."""
    try:
        done = subprocess.run(command, check=False, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True, timeout=30)
    except OSError:
        return None
    return done.stdout.strip() or None
