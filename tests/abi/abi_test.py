"""The comparison of ABIs, with a small library in several versions: what breaks programs is noticed,
what does not is let pass.
"""

import subprocess
import tempfile
import unittest
from pathlib import Path

import abi
import record

HEADER = """
#pragma once
namespace probe {
enum Code : int { kFirst = 1, kSecond = 2 };
class __attribute__((visibility("default"))) Thing {
 public:
  Thing();
  virtual ~Thing();
  virtual int One(Code code);
  virtual long Two(int value);
  int Plain(int value) const;
 private:
  int first_ = 0;
  long second_ = 0;
};
}
"""
SOURCE = """
#include "probe/Thing.h"
namespace probe {
Thing::Thing() = default;
Thing::~Thing() = default;
int Thing::One(Code code) { return code; }
long Thing::Two(int value) { return value; }
int Thing::Plain(int value) const { return value + first_ + static_cast<int>(second_); }
}
"""


class Comparison(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="zarn-abi-test-")
        self.addCleanup(directory.cleanup)
        self.work = Path(directory.name)
        self.count = 0

    def record(self, header=HEADER, source=SOURCE):
        self.count += 1
        tree = self.work / str(self.count)
        folder = tree / "platform/probe/include"
        (folder / "probe").mkdir(parents=True)
        (folder / "probe/Thing.h").write_text(header)
        (tree / "Thing.cpp").write_text(source)
        library = tree / "libprobe.so"
        subprocess.run(["g++", "-std=c++20", "-O2", "-g2", "-femit-class-debug-always", "-shared", "-fPIC",
                        "-fvisibility=hidden", "-I", folder, "-Wl,-soname,libprobe.so.1",
                        tree / "Thing.cpp", "-o", library], check=True)
        record.make(tree, library, tree / "probe.abi")
        return tree / "probe.abi"

    def changes(self, header=HEADER, source=SOURCE):
        return abi.changes(self.record(), self.record(header, source))

    def test_functions_that_share_their_code_no_longer_are_no_change(self):
        header = HEADER.replace("  int Plain", "  int Same(int value) const;\n  int Plain")
        plain = next(line for line in SOURCE.splitlines() if "Plain" in line)
        source = SOURCE + "namespace probe {" + plain.replace("Plain", "Same") + "}"
        self.assertEqual("", abi.changes(
            self.record(header, source),
            self.record(header, source.replace("Same(int value) const { return value + ",
                                               "Same(int value) const { return value - "))))

    def test_what_is_the_same_differs_in_nothing(self):
        self.assertEqual("", self.changes())

    def test_other_code_is_no_change(self):
        self.assertEqual("", self.changes(source=SOURCE.replace("value + ", "value - ")))

    def test_new_function_is_no_change(self):
        self.assertEqual("", self.changes(
            HEADER.replace("  int Plain", "  int New() const;\n  int Plain"),
            SOURCE + "int probe::Thing::New() const { return 3; }"))

    def test_function_that_is_gone_is_a_change(self):
        lines = [line for line in SOURCE.splitlines() if "Plain" not in line]
        self.assertIn("Plain", self.changes(
            HEADER.replace("  int Plain(int value) const;\n", ""), "\n".join(lines)))

    def test_other_parameter_is_a_change(self):
        self.assertIn("Plain", self.changes(HEADER.replace("Plain(int", "Plain(long"),
                                            SOURCE.replace("Plain(int value) const { return value",
                                                           "Plain(long value) const { return "
                                                           "static_cast<int>(value)")))

    def test_new_member_is_a_change(self):
        self.assertIn("third_", self.changes(
            HEADER.replace("  long second_", "  long third_ = 0;\n  long second_")))

    def test_other_type_of_a_member_is_a_change(self):
        self.assertIn("second_", self.changes(HEADER.replace("long second_", "double second_")))

    def test_new_virtual_function_is_a_change(self):
        self.assertIn("Three", self.changes(
            HEADER.replace("  int Plain", "  virtual void Three();\n  int Plain"),
            SOURCE + "void probe::Thing::Three() {}"))

    def test_other_order_of_virtual_functions_is_a_change(self):
        one, two = "  virtual int One(Code code);\n", "  virtual long Two(int value);\n"
        self.assertNotEqual("", self.changes(HEADER.replace(one + two, two + one)))

    def test_other_value_of_an_enumerator_is_a_change(self):
        self.assertIn("kSecond", self.changes(HEADER.replace("kSecond = 2", "kSecond = 3")))


if __name__ == "__main__":
    unittest.main(verbosity=2)
