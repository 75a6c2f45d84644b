"""zarn env: the root and what is wrong with it."""

import os
import unittest

from zarn_tool import ToolTest


class Env(ToolTest):
    def directories(self, code):
        return {event["name"]: event for event in self.run_events("env", code=code)
                if event["event"] == "directory"}

    def test_a_good_root(self):
        found = self.directories(0)
        self.assertEqual(list(found), ["root", "system", "zarn", "ipc", "shmipc", "stat", "bin", "libs",
                                       "logs", "config"])
        self.assertEqual([found[name]["state"] for name in ("root", "system", "ipc", "logs")],
                         ["ok", "ok", "missing", "missing"])
        self.assertEqual(found["ipc"]["path"], str(self.root) + "/system/zarn/ipc")
        self.make_ipc()
        self.assertEqual(self.directories(0)["ipc"]["state"], "ok")

    def test_versions(self):
        versions = {event["name"]: event for event in self.run_events("env")
                    if event["event"] == "version"}
        self.assertRegex(versions["library"]["version"], r"^\d+\.\d+\.\d+$")
        self.assertRegex(versions["library"]["build"], r"^(GCC|Clang) \d+.*glibc \d.*xxHash \d")
        self.assertRegex(versions["zarn"]["build"], r"CLI11 \d.*fmt \d.*jsoncpp \d")

    def test_missing_system_is_wrong(self):
        (self.root / "system").rmdir()
        found = self.directories(1)["system"]
        self.assertEqual((found["state"], found["detail"]),
                         ("wrong", f"missing: make it with '(umask 077; mkdir -p {self.root}/system)'"))

    def test_no_command_is_advised_that_a_shell_would_take_apart(self):
        for name in ("a b", "a;b", "a$b", "a'b"):
            result = self.run_tool("env", env=dict(self.env, ZARN_ROOT=str(self.root / name)))
            self.assertIn("(missing: make it, so that nobody else may write to it)", result.stdout)

    def test_too_open_is_wrong(self):
        self.make_ipc()
        for mode in (0o720, 0o702):
            self.ipc.chmod(mode)
            self.assertRegex(self.directories(1)["ipc"]["detail"], "others may write to it")
        self.ipc.chmod(0o755)
        self.assertEqual(self.directories(0)["ipc"]["state"], "ok")

    def test_a_file_in_place_of_a_directory_is_wrong(self):
        self.make_ipc()
        self.ipc.rmdir()
        self.ipc.write_text("")
        self.assertEqual(self.directories(1)["ipc"]["detail"], "not a directory")

    @unittest.skipUnless(os.geteuid() == 0, "only root can give directories away")
    def test_a_directory_of_somebody_else_is_wrong(self):
        self.make_ipc()
        os.chown(self.ipc, 65534, 65534)
        self.assertEqual(self.directories(1)["ipc"]["detail"], "belongs to user 65534")

    @unittest.skipUnless(os.geteuid() == 0, "only root can become somebody else")
    def test_not_writable_is_wrong(self):
        self.root.chmod(0o755)
        (self.root / "system").chmod(0o755)
        result = self.run_tool("env", user=65534, group=65534, extra_groups=[])
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stdout, r"system +wrong .*not writable")

    def test_without_root_the_versions_are_shown_all_the_same(self):
        env = dict(self.env)
        del env["ZARN_ROOT"]
        result = self.run_tool("env", env=env)
        self.assertEqual(result.returncode, 1)
        self.assertIn("library", result.stdout)
        self.assertIn("ZARN_ROOT is not set", result.stderr)


if __name__ == "__main__":
    unittest.main()
