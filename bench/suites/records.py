"""Registries beside std::unordered_map, records beside jsoncpp by hand."""
from measure import NANOSECONDS, SECONDS, Case, SharedCase

ENTRIES = 1000000
# What two equal tables in one process differ by: their entries lie in different places.
NOISE = 1.05


def beside_map(title, table, operation, metric=NANOSECONDS):
    arguments = ["bench_registries", table, operation, "--entries", str(ENTRIES)]
    return SharedCase(title, metric, ("zarn", "map"), arguments, [("map", "at most", NOISE)])


def beside_jsoncpp(title, operation):
    contestants = {name: ["bench_records", operation, name] for name in ("zarn", "jsoncpp")}
    return Case(title, NANOSECONDS, contestants, [("jsoncpp", "at most", 1.1)])


def make_cases():
    return [
        *(beside_map(f"CZARNAppsManager, {operation}", "apps", operation)
          for operation in ("lookup", "add", "remove")),
        beside_map("GetAppsByJno that finds nothing", "apps", "scan", SECONDS),
        *(beside_map(f"CZARNListenNodeManager, {operation}", "listen", operation)
          for operation in ("lookup", "find", "add", "remove")),
        beside_jsoncpp("CZARNAddress, ToJson and writing", "address-write"),
        beside_jsoncpp("CZARNProcess, ToJson and writing", "process-write"),
        beside_jsoncpp("CZARNProcess, parsing and FromJson", "process-read"),
    ]
