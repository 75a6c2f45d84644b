"""Results as Markdown: the same figures as the page, without its pictures."""
import figures


def render(results):
    suites = [figures.Suite(described) for described in results["suites"]]
    targets = [target for suite in suites for target in suite.targets]
    met = sum(target["passed"] for target in targets)
    lines = ["# Performance", "",
             f"{met} of {len(targets)} targets met. Figures are medians of runs that took turns on one "
             "machine. Look at the",
             "ratios: the figures themselves move with the machine, and differences below 15 % are "
             "noise.", "",
             *table(("what", "value"), figures.facts(results))]
    for suite in suites:
        lines += section(suite)
    if results.get("packages"):
        lines += ["## Packages", "", *table(("package", "version"), results["packages"].items())]
    return "\n".join(lines).rstrip() + "\n"


def section(suite):
    lines = [f"## {plain(suite.name)}", "", plain(suite.title), ""]
    if suite.targets:
        lines += table(("target", "measured", "bound", ""), map(figures.target_row, suite.targets),
                       numbers=(1,))
    rows = []
    for case in suite.cases:
        for number, row in enumerate(figures.case_rows(case)):
            rows.append((case["name"] if number == 0 else "", *row))
    lines += table(("case", "who", "median", "p99", "least – most", "ours ÷ it"), rows,
                   numbers=(2, 3, 4, 5))
    if suite.counts:
        lines += table(*figures.count_table(suite.counts))
    return lines


def table(heads, rows, numbers=()):
    marks = ["--:" if at in numbers else "---" for at in range(len(heads))]
    return [line(map(plain, heads)), line(marks), *(line(map(plain, row)) for row in rows), ""]


def line(cells):
    return f"| {' | '.join(cells)} |"


def plain(text):
    """What Markdown or HTML would take for markup is shown as it is; a cell is one line."""
    for char in "\\`*_[]|#~":
        text = text.replace(char, f"\\{char}")
    return " ".join(text.replace("&", "&amp;").replace("<", "&lt;").split())
