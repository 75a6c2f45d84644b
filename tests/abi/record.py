"""record.py - what a shared library offers to programs, as abidw describes it, cut down to what is
ours: types of other libraries are kept as a name and a size, what nothing refers to is dropped.
"""

import re
import subprocess
import xml.etree.ElementTree

# The namespace of a library that does not bear its name.
NAMESPACES = {"zarnutils": "zarn"}
# By these one element refers to the identity of another.
REFERENCES = ("type-id", "naming-typedef-id", "def-of-decl-id", "method-class-id")
# What counts without being referred to.
EXPORTED = ("function-decl", "var-decl")


def run(*command):
    subprocess.run([str(part) for part in command], check=True, stdout=subprocess.DEVNULL)


def header_folder(source, name):
    return source / ("include" if name == "zarnutils" else f"platform/{name}/include")


def make(source, library, out):
    """Writes the record of `library`, a file lib<name>.so, to `out`."""
    name = library.name.removeprefix("lib").removesuffix(".so")
    run("abidw", "--headers-dir", header_folder(source, name), "--drop-private-types",
        "--no-show-locs", "--no-comp-dir-path", "--no-corpus-path", "--no-parameter-names",
        "--no-elf-needed", "--no-architecture", "--type-id-style", "hash", "--out-file", out, library)
    tree = xml.etree.ElementTree.parse(out)
    Reduction(tree.getroot(), NAMESPACES.get(name, name)).apply()
    tree.write(out, encoding="unicode")
    with open(out, "a", encoding="utf-8") as file:
        file.write("\n")


def soname(record):
    return xml.etree.ElementTree.parse(record).getroot().get("soname")


class Reduction:
    def __init__(self, root, namespace):
        self.root, self.namespace = root, namespace
        self.exported = re.compile(
            rf"_Z(?:T[VTIS]|Th?n?\d+_)?(?:N[KVRO]*)?{len(namespace)}{namespace}")
        self.ours, self.foreign = [], set()

    def apply(self):
        for unit in self.root.iter("abi-instr"):
            unit.set("path", unit.get("path").rsplit("/", 1)[-1])
            unit.attrib.pop("comp-dir-path", None)
            for child in unit:
                self.sort_out(child, ours=False)
        self.keep_referenced()
        xml.etree.ElementTree.indent(self.root, "")

    def sort_out(self, element, ours):
        """Notes the classes of our namespace, and takes the contents from all others, but for the
        types within them."""
        if element.tag == "namespace-decl":
            ours = ours or element.get("name") == self.namespace
        for child in list(element):
            self.sort_out(child, ours)
        if element.tag not in ("class-decl", "union-decl"):
            return
        if ours:
            self.ours.append(element)
            self.drop_inline_functions(element)
            return
        self.foreign.add(element)
        for child in list(element):
            if child.tag != "member-type":
                element.remove(child)

    @staticmethod
    def drop_inline_functions(element):
        """What every program has compiled into itself: neither exported nor virtual."""
        for child in list(element):
            if (child.tag == "member-function" and not child.get("vtable-offset")
                    and not child.find("function-decl").get("elf-symbol-id")):
                element.remove(child)

    def keep_referenced(self):
        """Drops types that no exported function or variable of ours leads to."""
        by_id = {}
        parents = {child: parent for parent in self.root.iter() for child in parent}
        for element in self.root.iter():
            if element.get("id") and element.tag != "parameter":
                by_id.setdefault(element.get("id"), []).append(element)
        kept, whole, waiting = {self.root}, set(), []

        def keep_alone(element):
            kept.add(element)
            waiting.extend(by_id.get(element.get(name), ()) for name in REFERENCES)

        def keep(element):
            """All of it, but for types within classes of others, and the names that it stands in."""
            if element in whole:
                return
            whole.add(element)
            keep_alone(element)
            if element not in self.foreign:
                for part in element:
                    keep(part)
            while element in parents and parents[element] not in kept:
                element = parents[element]
                kept.add(element)

        for element in list(self.root.iter()):
            symbol = element.get("elf-symbol-id") or (
                element.get("name") if element.tag == "elf-symbol" else None)
            # Templates of the standard library come and go with the code that uses them.
            if symbol and self.exported.match(symbol):
                keep(element)
        for element in self.ours:
            keep(element)
        while waiting:
            for element in waiting.pop():
                keep(element)
        for element in list(self.root.iter()):
            if element not in kept and element in parents:
                parents[element].remove(element)
