"""HTTP requests to nginx beside libcurl, a fresh connection each."""
import atexit
import os
import shutil
import sys
import tempfile

from measure import REQUEST, THROUGHPUT, Case, target

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../../tests/e2e/support"))
from http_servers import Nginx  # noqa: E402, how to start it is known there

PROGRAM = "bench_rest"
LARGE = 64  # MiB
BUFFER = 3  # MiB: one buffer, and what a program that does its first request has not touched before


def start_server():
    """The url of an nginx that ends with this program."""
    directory = tempfile.mkdtemp(prefix="zarnbench")
    atexit.register(shutil.rmtree, directory, ignore_errors=True)
    path = os.path.join(directory, "files/zarn/tcpchannel")
    os.makedirs(path)
    with open(os.path.join(path, "large"), "wb") as file:
        file.write(b"x" * (LARGE << 20))
    nginx = Nginx(directory, "location /zarn/tcpchannel/small { return 200 '{\"done\": true}'; }")
    atexit.register(nginx.stop)
    return f"http://127.0.0.1:{nginx.port}/zarn/tcpchannel"


def side_by_side(what, url):
    return {"zarn": [PROGRAM, "zarn", what, url],
            "zarn spinning": [PROGRAM, "zarn", what, url, "--spin", "50"],
            "shttp": [PROGRAM, "shttp", what, url],
            "curl": [PROGRAM, "curl", what, url]}


def make_cases():
    url = start_server()
    return [Case("request", REQUEST, side_by_side("small", url),
                 [("curl", "at most", 1.1)]),
            Case("64 MiB answer", THROUGHPUT, side_by_side("large", url),
                 [("curl", "at least", 0.9)])]


def judge_more(cases, _counts):
    targets = []
    for case in cases:
        if case.metric is REQUEST:
            targets += [target(f"{case.name}: {name} / curl", case.ratio("curl", name), "at most", 1.1)
                        for name in ("zarn spinning", "shttp")]
        else:
            targets += [target(f"{case.name}: MiB of memory, {name}", case.median(name, "peak_mb"),
                               "at most", LARGE + BUFFER) for name in ("zarn", "shttp")]
    return targets
