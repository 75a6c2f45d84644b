"""What the documents name is there: files and folders of the tree, tests, fuzz targets. What is said in
two places is the same in both."""

import argparse
import re
import unittest
from pathlib import Path

OPTIONS = argparse.Namespace()
FOLDERS = "bench|cmake|debian|docs|examples|fuzz|include|platform|scripts|src|tests|tools"
# What a document shows of a tree that is the reader's own.
EXAMPLES = {"tutorial.md"}


class Documents(unittest.TestCase):
    def setUp(self):
        self.source = Path(OPTIONS.source)
        self.documents = [path for path in (*self.source.glob("*.md"), *self.source.glob("docs/*.md"))
                          if path.name not in EXAMPLES]
        self.assertGreater(len(self.documents), 5)

    def named(self, pattern):
        """Each thing that a document names as code and that matches, with the document."""
        for document in self.documents:
            for code in re.findall(r"`([^`\n]+)`", document.read_text()):
                for name in re.findall(pattern, code.split(" ")[0]):
                    yield document.name, name

    def check(self, names, pattern_of):
        checked = list(names)
        missing = [f"{document}: {name}" for document, name in checked
                   if not list(self.source.glob(pattern_of(name)))]
        self.assertEqual([], missing)
        self.assertTrue(checked)

    def test_files_exist(self):
        def pattern_of(name):
            return re.sub(r"<\w+>", "*", name).rstrip("/")
        self.check(self.named(rf"^(?:{FOLDERS})/[\w./*<>-]+$"), pattern_of)

    def test_tests_exist(self):
        self.check(self.named(r"^\w+/\w+_(?:test|proof)\.(?:cpp|py)$"),
                   lambda name: f"tests/{name}")

    def test_fuzz_targets_exist(self):
        self.check(self.named(r"^(\w+_fuzz)$"), lambda name: f"fuzz/{name}.cpp")

    def test_every_fuzz_target_stands_on_the_security_page(self):
        page = (self.source / "docs/security.md").read_text()
        targets = [path.stem for path in self.source.glob("fuzz/*_fuzz.cpp")]
        self.assertEqual([], [name for name in targets if f"`{name}`" not in page])

    def test_debian_packages_are_built_with_all_that_the_tree_is_built_with(self):
        setup = (self.source / "scripts/setup").read_text()
        needed = re.search(r"^readonly build_packages=\((.*?)\)", setup, re.MULTILINE | re.DOTALL)[1]
        control = (self.source / "debian/control").read_text()
        named = re.search(r"^Build-Depends:\n((?: .*\n)+)", control, re.MULTILINE)[1]
        # Every Debian package is built with a compiler.
        self.assertEqual(set(), set(needed.split()) - {"g++"} - set(re.findall(r"^ ([\w.+-]+)", named,
                                                                               re.MULTILINE)))

    def test_every_script_is_told_of(self):
        text = "".join(document.read_text() for document in self.documents)
        scripts = [f"scripts/{path.name}" for path in self.source.glob("scripts/*")]
        self.assertEqual([], [name for name in scripts if name not in text])

    def test_every_header_stands_in_the_table_of_headers(self):
        table = re.search(r"^## Headers\n(.*?)^## ", (self.source / "README.md").read_text(),
                          re.MULTILINE | re.DOTALL)[1]
        named = set()
        for row in re.findall(r"^\| (`.*?) \|", table, re.MULTILINE):
            folder = ""
            for name in re.findall(r"`([^`]+\.h)`", row):
                # A name without a folder lies beside the one before it.
                folder = name.rpartition("/")[0] or folder
                named.add(f"{folder}/{Path(name).name}")
        roots = [self.source / "include", *self.source.glob("platform/*/include")]
        headers = {str(path.relative_to(root)) for root in roots for path in root.rglob("*.h")
                   if path.parent.name != "detail"}
        exports = {name for name in headers if re.search(r"/(CAWDefines|zarndefines)\.h$", name)}
        self.assertEqual(headers - exports, named)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    OPTIONS, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest], verbosity=2)
