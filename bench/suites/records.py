"""Registries beside std::unordered_map, records beside jsoncpp by hand."""
from measure import NANOSECONDS, SECONDS, Case

ENTRIES = 1000000
# Two runs of one program differ by this much: the entries lie in other places each time.
NOISE = 1.05


def beside_map(table, operation):
    return {name: ["bench_registries", table, operation, name, "--entries", str(ENTRIES)]
            for name in ("zarn", "map")}


def beside_jsoncpp(operation):
    return {name: ["bench_records", operation, name] for name in ("zarn", "jsoncpp")}


def make_cases():
    cases = []
    for table, title in ("apps", "CZARNAppsManager"), ("listen", "CZARNListenNodeManager"):
        for operation in ("lookup", "add", "remove"):
            cases.append(Case(f"{title} {operation}", NANOSECONDS, beside_map(table, operation),
                              [("map", "at most", NOISE)]))
    cases.append(Case("CZARNListenNodeManager find", NANOSECONDS, beside_map("listen", "find"),
                      [("map", "at most", NOISE)]))
    cases.append(Case("GetAppsByJno that finds nothing", SECONDS, beside_map("apps", "scan"), []))
    for operation, title in (("address-write", "CZARNAddress, ToJson and writing"),
                             ("process-write", "CZARNProcess, ToJson and writing"),
                             ("process-read", "CZARNProcess, parsing and FromJson")):
        cases.append(Case(title, NANOSECONDS, beside_jsoncpp(operation),
                          [("jsoncpp", "at most", 1.1)]))
    return cases
