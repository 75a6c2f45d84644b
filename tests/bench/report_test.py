"""bench/report, fed with the results of a short run (results.json), and with scripts/bench replaced."""

import argparse
import copy
import html.parser
import json
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as xml
from pathlib import Path

OPTIONS = argparse.Namespace()
HOSTILE = """<script>alert("1")</script> & '|` ]]> \n--"""
FAKE_BENCH = """#!/bin/sh
echo "$@" > arguments
if [ -e results ]; then cp results build/bench-report.json; fi
exit "$(cat status)"
"""


def text_of(node):
    return " ".join(" ".join(node.itertext()).split())


class Balance(html.parser.HTMLParser):
    """Notes what a browser would find open or closed too often."""

    def __init__(self):
        super().__init__()
        self.open, self.wrong = [], []

    def handle_starttag(self, tag, attrs):
        self.open.append(tag)

    def handle_startendtag(self, tag, attrs):
        if tag != "meta":
            self.wrong.append(tag)

    def handle_endtag(self, tag):
        if not self.open or self.open.pop() != tag:
            self.wrong.append(tag)


class Report(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = Path(directory.name)
        self.source = Path(OPTIONS.source).resolve()
        self.results = json.loads((self.source / "tests/bench/results.json").read_text())

    def report(self, *arguments, program=None):
        return subprocess.run(
            [sys.executable, "-B", program or self.source / "bench/report", *map(str, arguments)],
            cwd=self.directory, check=False, capture_output=True, text=True, timeout=60)

    def render(self, results):
        """The page, the Markdown, and the status."""
        given, page, markdown = (self.directory / name for name in ("in.json", "a/b.html", "c.md"))
        given.write_text(json.dumps(results))
        done = self.report("--json", given, "--out", page, "--markdown", markdown)
        self.assertEqual("", done.stderr)
        return page.read_text(), markdown.read_text(), done.returncode

    def page(self, results):
        return xml.fromstring(self.render(results)[0])

    def each_case(self):
        for suite in self.results["suites"]:
            yield from suite["cases"]

    # --- what is shown ---

    def test_every_case_and_target_stands_on_the_page_and_in_the_markdown(self):
        text, markdown, _ = self.render(self.results)
        cells = {text_of(cell) for tag in ("td", "th") for cell in xml.fromstring(text).iter(tag)}
        for case in self.each_case():
            self.assertTrue(any(cell.startswith(case["name"]) for cell in cells), case["name"])
            self.assertIn(f"| {case['name']} |", markdown)
            self.assertLessEqual(set(case["contestants"]), cells)
        for suite in self.results["suites"]:
            for target in suite["targets"]:
                self.assertIn(target["text"], cells)
                self.assertIn(f"| {target['text']} | {target['value']:.4g} |", markdown)

    def test_medians_and_ratios_are_those_that_were_measured(self):
        case = next(case for case in self.each_case() if case["name"] == "one way 64 B")
        for name, rate, ratio in (("zarn", 12345678, 1), ("raw", 6172839, 2)):
            case["contestants"][name].update(median=rate, ours_divided_by_it=ratio)
            case["contestants"][name]["runs"] = [{"rate": rate / 2}, {"rate": rate * 1.5}]
        page, markdown, _ = self.render(self.results)
        rows = [[text_of(cell) for cell in row] for row in xml.fromstring(page).iter("tr")]
        ours = ["zarn", "12.35 M/s", "", "6.17 M/s – 18.52 M/s", ""]
        self.assertIn(["one way 64 B more is better", *ours], rows)
        self.assertIn(["raw", "6.17 M/s", "", "3.09 M/s – 9.26 M/s", "2.00"], rows)
        self.assertIn(f"| {' | '.join(['one way 64 B', *ours])} |", markdown)

    def test_missed_targets_stand_at_the_top_and_in_the_status(self):
        for suite in self.results["suites"]:
            for target in suite["targets"]:
                target["passed"] = True
        page, markdown, status = self.render(self.results)
        self.assertEqual((0, 0, 0), (status, page.count("MISSED"), markdown.count("MISSED")))
        target = self.results["suites"][-1]["targets"][0]
        target["passed"] = False
        page, markdown, status = self.render(self.results)
        self.assertEqual((1, 1, 1), (status, page.count("MISSED"), markdown.count("MISSED")))
        self.assertLess(page.index(target["text"]), page.index("<section>"))
        count = sum(len(suite["targets"]) for suite in self.results["suites"])
        self.assertIn(f"{count - 1} of {count} targets met", page)

    def test_machine_commit_and_packages_are_named(self):
        for text in self.render(self.results)[:2]:
            for value in (*self.results["machine"].values(), self.results["commit"]):
                self.assertIn(str(value), text)
            self.assertIn("libzmq3-dev", text)
            self.assertIn(self.results["packages"]["libzmq3-dev"], text)

    def test_results_without_them_are_shown_too(self):
        for key in ("commit", "packages", "measured_at"):
            del self.results[key]
        self.results["machine"] = {}
        for text in self.render(self.results)[:2]:
            self.assertIn("not known", text)

    # --- pictures ---

    def charts(self, results=None):
        """By title; of those that two suites have, that of the first."""
        return {text_of(figure.find("figcaption")): figure.find("svg")
                for figure in reversed(list(self.page(results or self.results).iter("figure")))}

    def test_throughput_is_drawn_over_the_size_of_messages(self):
        chart = self.charts()["one way … B: MB a second over message size in bytes"]
        sizes = [text_of(text) for text in chart.findall("text")]
        self.assertLess(sizes.index("64"), sizes.index("16,384"))
        case = next(case for case in self.each_case() if case["name"] == "one way 16384 B")
        rate = case["contestants"]["zmq"]["median"] * 16384 / 1e6
        self.assertIn(f"zmq, 16,384: {rate:.4g} MB/s", [text_of(dot) for dot in chart.iter("circle")])

    def test_percentiles_are_drawn_as_far_as_they_were_measured(self):
        title = "round trip 64 B, sleeping: microseconds over percentile"
        case = next(case for case in self.each_case() if case["name"] == "round trip 64 B, sleeping")
        self.assertEqual(len(case["contestants"]) * 2, len(list(self.charts()[title].iter("circle"))))
        for run in case["contestants"]["zarn"]["runs"]:
            run.update(p90_us=run["p50_us"] * 2, p99_9_us=run["p99_us"] * 2)
        drawn = {text_of(dot).split(":")[0] for dot in self.charts()[title].iter("circle")}
        self.assertLessEqual({"zarn, 50", "zarn, 90", "zarn, 99", "zarn, 99.9", "raw, 99"}, drawn)
        self.assertNotIn("raw, 99.9", drawn)

    def test_cost_is_drawn_over_the_number_of_connections(self):
        charts = self.charts()
        for what in ("processor time of a message", "memory of an idle connection"):
            chart = charts[f"… connections, 1 of them sends 64 B: {what} over connections"]
            dots = {text_of(dot).split(":")[0] for dot in chart.iter("circle")}
            self.assertEqual("processor" in what, "ipc, 1" in dots)  # one alone adds no memory
            self.assertLessEqual({"ipc, 10", "ipc, 1,000", "tls, 1,000"}, dots)

    def test_points_lie_within_the_picture_and_higher_when_they_are_more(self):
        for title, chart in self.charts().items():
            _, _, width, height = map(float, chart.get("viewBox").split())
            dots = [(float(text_of(dot).rsplit(":")[1].split()[0]), float(dot.get("cy")))
                    for dot in chart.iter("circle") if 0 < float(dot.get("cx")) < width]
            self.assertEqual(len(dots), len(list(chart.iter("circle"))), title)
            self.assertTrue(all(0 < y < height for _, y in dots), title)
            heights = [-y for _, y in sorted(dots)]
            self.assertEqual(sorted(heights), heights, title)

    def test_values_of_nothing_or_all_the_same_are_drawn(self):
        for value in (0, 1, 1e-9, 1e12):
            results = copy.deepcopy(self.results)
            for suite in results["suites"]:
                for case in suite["cases"]:
                    for one in case["contestants"].values():
                        one["median"] = value
                        one["runs"] = [{case["metric"]: value, "p50_us": value, "p99_us": value}]
            self.assertIn("one way … B: MB a second over message size in bytes", self.charts(results))

    # --- the page itself ---

    def test_page_stands_alone_and_every_element_is_closed(self):
        text, _, _ = self.render(self.results)
        self.assertEqual([], re.findall(r"(?:src|href)=\"(?!#)|url\(|@import|<script|https?:", text))
        balance = Balance()
        balance.feed(text)
        self.assertEqual(([], []), (balance.open, balance.wrong))
        anchors = re.findall(r'href="#([^"]+)"', text)
        self.assertEqual(len(self.results["suites"]), len(anchors))
        self.assertEqual(anchors, re.findall(r' id="([^"]+)"', text))
        self.assertIn("prefers-color-scheme: dark", text)
        self.assertIn('name="viewport"', text)

    def test_no_text_becomes_markup(self):
        tags = {node.tag for node in self.page(self.results).iter()}
        page, markdown, _ = self.render(self.hostile(self.results))
        tree = xml.fromstring(page)
        self.assertLessEqual({node.tag for node in tree.iter()}, tags)
        self.assertIn("<script>alert", "".join(tree.itertext()))
        self.assertNotIn("<script", page)
        self.assertNotIn("<script", markdown)
        unescaped = re.compile(r"(?<!\\)\|")
        self.assertEqual({7}, {len(unescaped.findall(line)) for line in markdown.splitlines()
                               if "alert" in line and "M/s" in line})

    def hostile(self, value):
        """The same with HOSTILE in every text that is shown and in the names of contestants."""
        if isinstance(value, list):
            return [self.hostile(one) for one in value]
        if not isinstance(value, dict):
            return value + HOSTILE if isinstance(value, str) else value
        kept = ("metric", "direction")
        found = {key: one if key in kept else self.hostile(one) for key, one in value.items()}
        for key in ("contestants", "packages"):
            if key in found:
                found[key] = {name + HOSTILE: one for name, one in found[key].items()}
        return found

    # --- measuring ---

    def test_it_measures_by_scripts_bench_and_hands_over_the_options(self):
        program = self.tree(status=1, results=self.results)
        done = self.report("ipc", "tls", "--runs", 2, "--seconds", 0.5, program=program)
        self.assertEqual((1, ""), (done.returncode, done.stderr))
        measured = self.directory / "tree/build/bench-report.json"
        self.assertEqual(f"ipc tls --json {measured} --runs 2 --seconds 0.5\n",
                         (self.directory / "arguments").read_text())
        self.assertEqual(self.results, json.loads(measured.read_text()))
        page = self.directory / "tree/build/bench-report.html"
        self.assertIn("one way 64 B", page.read_text())
        self.assertIn(str(page), done.stdout)

    def test_a_build_that_fails_leaves_no_page_of_older_results(self):
        program = self.tree(status=3, results=None)
        (self.directory / "tree/build").mkdir()
        (self.directory / "tree/build/bench-report.json").write_text(json.dumps(self.results))
        self.assertEqual(3, self.report("--quick", program=program).returncode)
        self.assertIn("--quick", (self.directory / "arguments").read_text())
        self.assertEqual([], list((self.directory / "tree/build").iterdir()))

    def tree(self, status, results):
        """A tree whose scripts/bench ends with `status` and leaves `results`."""
        tree = self.directory / "tree"
        shutil.copytree(self.source / "bench", tree / "bench",
                        ignore=shutil.ignore_patterns("*.cpp", "common", "__pycache__"))
        (tree / "scripts").mkdir()
        (tree / "scripts/bench").write_text(FAKE_BENCH.replace("build/", f"{tree}/build/"))
        (tree / "scripts/bench").chmod(0o755)
        (self.directory / "status").write_text(str(status))
        if results is not None:
            (self.directory / "results").write_text(json.dumps(results))
        return tree / "bench/report"

    def test_wrong_use_and_wrong_files_are_refused(self):
        wrong = self.directory / "wrong.json"
        for content in ("", "[1]", "{}", "{\"suites\""):
            wrong.write_text(content)
            done = self.report("--json", wrong, "--out", self.directory / "page.html")
            self.assertEqual(1, done.returncode)
            self.assertRegex(done.stderr, rf"^report: {re.escape(str(wrong))}: .+\n$")
        done = self.report("--json", self.directory / "absent.json")
        self.assertRegex(done.stderr, "^report: .*absent.json")
        self.assertEqual(2, self.report("--json", wrong, "--quick").returncode)
        self.assertEqual(2, self.report("--json", wrong, "ipc").returncode)
        self.assertFalse((self.directory / "page.html").exists())


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    OPTIONS, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest], verbosity=2)
