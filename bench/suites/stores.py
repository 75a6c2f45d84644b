"""The SQLite and the LevelDB store beside the libraries below them, called directly."""
from measure import NANOSECONDS, Case

SQLITE = (("get", "get"), ("insert", "set of a new key"), ("replace", "set of a key that is there"),
          ("batch", "set in a batch of 1000"))
LEVELDB = ("lookup", "insert", "update", "remove", "dump")


def make_cases():
    cases = [Case(f"SQLite, {text}", NANOSECONDS,
                  {"zarn": ["bench_sqlite", "zarn", operation],
                   "by hand": ["bench_sqlite", "hand", operation]},
                  [("by hand", "at most", 1.1)]) for operation, text in SQLITE]
    cases += [Case(f"LevelDB, {operation}", NANOSECONDS,
                   {"zarn": ["bench_leveldb", "zarn", operation],
                    "directly": ["bench_leveldb", "direct", operation]},
                   [("directly", "at most", 1.05)]) for operation in LEVELDB]
    return cases
