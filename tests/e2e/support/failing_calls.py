"""System calls that fail: what a process needs in its environment for it (programs/failing_calls.cpp)."""

import os
import subprocess


def preload(program):
    """The value of LD_PRELOAD. The runtimes of sanitizers must be loaded before anything else."""
    lines = subprocess.run(["ldd", program], check=True, stdout=subprocess.PIPE, timeout=20,
                           encoding="utf-8").stdout.splitlines()
    runtimes = [line.split()[2] for line in lines if "libasan" in line]
    return ":".join(runtimes + [os.path.join(os.path.dirname(program), "failing_calls.so")])


def failing(program, name, number, error, how="once"):
    """Variables that let that call fail, or with "ever" that and all later ones."""
    return {"LD_PRELOAD": preload(program), "ZARN_FAULT": f"{name} {number} {error} {how}"}
