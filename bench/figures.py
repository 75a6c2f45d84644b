"""What a report shows, taken from the results that run.py has written: rows of tables, series of charts."""
import re
import statistics

from measure import METRICS

PERCENTILES = {"p50_us": "50", "p90_us": "90", "p99_us": "99", "p99_9_us": "99.9"}


class Chart:
    """Lines over positions that have a label each, of values on a logarithmic scale."""

    def __init__(self, title, unit, labels, lines):
        self.title = title
        self.unit = unit
        self.labels = labels
        self.lines = lines  # name -> a value for each label, None where there is none


class Suite:
    def __init__(self, described):
        self.name = described["suite"]
        self.title = described.get("title", "")
        self.cases = described["cases"]
        self.targets = described["targets"]
        self.counts = described["counts"]
        self.contestants = list(dict.fromkeys(name for case in self.cases
                                              for name in case["contestants"]))

    def met(self):
        return sum(target["passed"] for target in self.targets)

    def charts(self):
        return [*throughput_charts(self.cases), *percentile_charts(self.cases),
                *connection_charts(self.cases)]


# --- tables ---


def written(metric, value):
    return METRICS[metric].format(value) if metric in METRICS else f"{value:.4g} {metric}"


def case_rows(case):
    """For each contestant: name, median, p99 or nothing, least and most of its runs, ours divided by
    it or nothing."""
    metric, rows = case["metric"], []
    for number, (name, one) in enumerate(case["contestants"].items()):
        values = [run[metric] for run in one["runs"]]
        p99 = median_of(one, "p99_us") if metric == "p50_us" else None
        rows.append((name, written(metric, one["median"]),
                     "" if p99 is None else written(metric, p99),
                     f"{written(metric, min(values))} – {written(metric, max(values))}",
                     f"{one['ours_divided_by_it']:.2f}" if number else ""))
    return rows


def better(case):
    """Which of two values is better, in a word."""
    return METRICS[case["metric"]].better if case["metric"] in METRICS else ""


def target_row(target):
    """What is aimed at, what was measured, the bound, and whether that is met."""
    return (target["text"], f"{target['value']:.4g}",
            f"{target['direction']} {target['bound']:g}", "met" if target["passed"] else "MISSED")


def count_table(counts):
    """Heads and rows of what a suite has counted; single runs are left out."""
    keys = [key for key in counts[0] if not isinstance(counts[0][key], list)]
    rows = [[written_count(count.get(key, "")) for key in keys] for count in counts]
    return [key.replace("_", " ") for key in keys], rows


def written_count(value):
    return f"{value:.4g}" if isinstance(value, float) else str(value)


def facts(results):
    """Name and value of what a reader must know of the machine and the tree."""
    machine = results["machine"]
    named = {
        "Commit": results.get("commit"), "Measured": results.get("measured_at"),
        "CPU": machine.get("cpu"), "Processors": machine.get("processors"),
        "Kernel": machine.get("kernel"),
        "Runs of each case": results["runs"], "Seconds of each run": results["seconds"],
    }
    return [(name, "not known" if value is None else str(value)) for name, value in named.items()]


# --- charts ---


def median_of(contestant, *keys):
    """Median over the runs of what lies below `keys`; None when they do not have it."""
    values = []
    for run in contestant["runs"]:
        for key in keys:
            run = run.get(key) if isinstance(run, dict) else None
        if run is None:
            return None
        values.append(run)
    return statistics.median(values)


def families(cases, pattern, instead):
    """Cases whose names differ by a number only: the name with `instead` for it -> number -> case."""
    found = {}
    for case in cases:
        match = re.search(pattern, case["name"])
        if match:
            name = case["name"].replace(match[0], instead, 1)
            found.setdefault(name, {})[int(match[1])] = case
    return {name: dict(sorted(members.items())) for name, members in found.items()
            if len(members) > 1}


def chart_over(members, title, unit, value_of):
    """value_of(number, contestant) over the numbers, a line for each contestant. A list of at most
    one chart: none when nobody has two values."""
    names = dict.fromkeys(name for case in members.values() for name in case["contestants"])
    lines = {}
    for name in names:
        values = [value_of(number, case["contestants"][name])
                  if name in case["contestants"] else None for number, case in members.items()]
        if sum(value is not None for value in values) > 1:
            lines[name] = values
    return [Chart(title, unit, [f"{number:,}" for number in members], lines)] if lines else []


def throughput_charts(cases):
    charts = []
    for name, members in families(cases, r"\b(\d+) B\b", "… B").items():
        if all(case["metric"] == "rate" for case in members.values()):
            charts += chart_over(members, f"{name}: MB a second over message size in bytes", "MB/s",
                                 lambda size, one: one["median"] * size / 1e6)
    return charts


def percentile_charts(cases):
    charts = []
    for case in cases:
        if case["metric"] != "p50_us":
            continue
        lines = {name: [median_of(one, key) for key in PERCENTILES]
                 for name, one in case["contestants"].items()}
        used = [at for at in range(len(PERCENTILES))
                if any(values[at] is not None for values in lines.values())]
        if len(used) > 1:
            charts.append(Chart(f"{case['name']}: microseconds over percentile", "µs",
                                [list(PERCENTILES.values())[at] for at in used],
                                {name: [values[at] for at in used]
                                 for name, values in lines.items()}))
    return charts


def connection_charts(cases):
    charts = []
    pattern = r"\b(\d+) (?:connection|client)s?\b"
    for name, members in families(cases, pattern, "… connections").items():
        charts += chart_over(members, f"{name}: processor time of a message over connections", "ns",
                             lambda _, one: cpu_nanoseconds(one))
        charts += chart_over(members, f"{name}: memory of an idle connection over connections", "B",
                             lambda _, one: median_of(one, "bytes_per_connection"))
        charts += chart_over(members, f"{name}: seconds until all are connected", "s",
                             lambda _, one: median_of(one, "connect_seconds"))
    return charts


def cpu_nanoseconds(contestant):
    """Of sender and receiver together, for one message."""
    spent = 0
    for side in ("sender", "receiver"):
        seconds = median_of(contestant, side, "cpu_seconds")
        messages = median_of(contestant, side, "messages")
        if seconds is None or not messages:
            return None
        spent += seconds / messages * 1e9
    return spent
