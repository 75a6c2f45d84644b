"""Results as one HTML page that needs nothing else."""
import figures
from chart import figure
from markup import Markup, element, join

STYLE = """
:root { color-scheme: light dark; --back: #fff; --text: #1c1f23; --soft: #59636e; --line: #d5dae0;
  --s0: #d1242f; --s1: #0969da; --s2: #1a7f37; --s3: #8250df; --s4: #9a6700; --s5: #0b7285;
  --met: #1a7f37; --missed: #b3202b; }
@media (prefers-color-scheme: dark) {
  :root { --back: #14171b; --text: #e4e8ec; --soft: #9aa5b1; --line: #343b44;
    --s0: #ff7b72; --s1: #6cb6ff; --s2: #57cb6b; --s3: #c297ff; --s4: #e0b341; --s5: #4fd1c5;
    --met: #57cb6b; --missed: #ff7b72; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 72rem; padding: 1rem; background: var(--back); color: var(--text);
  font: 1rem/1.5 system-ui, sans-serif; overflow-wrap: anywhere; }
h1, h2, h3 { line-height: 1.25; }
h2 { margin-top: 2.5rem; border-top: 1px solid var(--line); padding-top: 1.5rem; }
a { color: var(--s1); }
.soft, figcaption { color: var(--soft); }
.table { overflow-x: auto; }
table { border-collapse: collapse; font-size: .9rem; font-variant-numeric: tabular-nums; }
th, td { padding: .2rem .7rem; border-bottom: 1px solid var(--line); text-align: left;
  vertical-align: top; overflow-wrap: normal; }
td.number, th.number { text-align: right; white-space: nowrap; }
th .soft { font-weight: normal; }
.ours { font-weight: 600; }
.met { color: var(--met); } .missed { color: var(--missed); font-weight: 600; }
.charts { display: grid; gap: 1.5rem; margin: 1.5rem 0;
  grid-template-columns: repeat(auto-fill, minmax(min(100%, 20rem), 1fr)); }
figure { margin: 0; } figcaption { font-size: .9rem; }
svg { display: block; width: 100%; height: auto; }
svg text { fill: var(--soft); font-size: 10px; }
.grid { stroke: var(--line); }
polyline { fill: none; stroke: var(--c); stroke-width: 2; } circle { fill: var(--c); }
.dashed polyline { stroke-dasharray: 5 3; }
.legend { list-style: none; display: flex; flex-wrap: wrap; gap: 0 1rem; margin: .2rem 0; padding: 0;
  font-size: .85rem; }
.swatch { display: inline-block; width: .8em; height: .8em; margin-right: .4em; background: var(--c); }
.s0 { --c: var(--s0); } .s1 { --c: var(--s1); } .s2 { --c: var(--s2); }
.s3 { --c: var(--s3); } .s4 { --c: var(--s4); } .s5 { --c: var(--s5); }
@media (max-width: 30rem) { body { padding: .6rem; } table { font-size: .8rem; }
  th, td { padding: .2rem .3rem; } }
"""
CASE_HEADS = ("case", "who", "median", "p99", "least – most", "ours ÷ it")
TARGET_HEADS = ("target", "measured", "bound", "")


def render(results):
    suites = [figures.Suite(described) for described in results["suites"]]
    head = element("head", element("meta", charset="utf-8"),
                   element("meta", name="viewport", content="width=device-width, initial-scale=1"),
                   element("title", "Benchmarks"), element("style", Markup(STYLE)))
    body = element("body", element("h1", "Benchmarks"), summary(results, suites),
                   *(section(number, suite) for number, suite in enumerate(suites)),
                   packages(results))
    return "<!DOCTYPE html>\n" + element("html", head, body, lang="en") + "\n"


def table(heads, rows, numbers=()):
    """Rows are of cells or of elements td and th; columns in `numbers` are set to the right."""
    def cell(name, at, content):
        if isinstance(content, Markup):
            return content
        return element(name, content, class_="number" if at in numbers else None)

    lines = [element("tr", *(cell("td", at, content) for at, content in enumerate(row)))
             for row in rows]
    top = element("tr", *(cell("th", at, head) for at, head in enumerate(heads)))
    return element("div", element("table", element("thead", top), element("tbody", *lines)),
                   class_="table")


def summary(results, suites):
    targets = [target for suite in suites for target in suite.targets]
    met = sum(target["passed"] for target in targets)
    rows = [(element("td", element("a", suite.name, href=f"#suite-{number}")),
             suite.title, f"{suite.met()} of {len(suite.targets)}" if suite.targets else "–")
            for number, suite in enumerate(suites)]
    missed = [(suite.name, *figures.target_row(target)[:-1]) for suite in suites for target in suite.targets
              if not target["passed"]]
    parts = [
        element("p", f"{met} of {len(targets)} targets met.", class_="ours"),
        element("p", "Medians of runs that took turns on one machine. Look at the ratios: the "
                "figures themselves move with the machine, and differences below 15 % are noise.",
                class_="soft"),
        table(("", ""), figures.facts(results)),
        element("h3", "Suites"), table(("suite", "what", "met"), rows, numbers=(2,)),
    ]
    if missed:
        parts += [element("h3", "Missed"), table(("suite", *TARGET_HEADS[:-1]), missed, numbers=(2,))]
    return join(parts)


def target_cells(target):
    *cells, verdict = figures.target_row(target)
    return (*cells, element("td", verdict, class_="met" if target["passed"] else "missed"))


def section(number, suite):
    parts = [element("h2", suite.name, id=f"suite-{number}"), element("p", suite.title)]
    if suite.targets:
        parts.append(table(TARGET_HEADS, map(target_cells, suite.targets), numbers=(1,)))
    charts = suite.charts()
    if charts:
        parts.append(element("div", *(figure(chart, suite.contestants) for chart in charts),
                             class_="charts"))
    rows = [row for case in suite.cases for row in case_cells(case)]
    parts += [element("h3", "Cases"), table(CASE_HEADS, rows, numbers=(2, 3, 4, 5))]
    if suite.counts:
        parts += [element("h3", "Counted"), table(*figures.count_table(suite.counts))]
    return element("section", *parts)


def case_cells(case):
    better = figures.better(case)
    note = element("div", f"{better} is better", class_="soft") if better else ""
    for number, (name, *cells) in enumerate(figures.case_rows(case)):
        first = [element("th", case["name"], note, rowspan=len(case["contestants"]))]
        yield [*(first if number == 0 else []),
               element("td", name, class_="ours" if number == 0 else None),
               *(element("td", cell, class_="number") for cell in cells)]


def packages(results):
    known = results.get("packages") or {}
    return element("section", element("h2", "Packages"),
                   element("p", "The compiler, the libraries that were compared with, and those "
                           "that ours stands on."),
                   table(("package", "version"), known.items()) if known
                   else element("p", "Not known."))
