"""The scripts tell how they are used, refuse what they do not know before they do anything, and put in
order what they have changed when they are interrupted."""

import argparse
import os
import shutil
import signal
import subprocess
import tempfile
import unittest
from pathlib import Path

OPTIONS = argparse.Namespace()
LIMIT = 20  # seconds that one script may take
# What would build, install, check or delete something.
WORKERS = ("apt-get", "clang-format-14", "cmake", "ctest", "dpkg-parsechangelog", "doxygen", "gcovr",
           "lintian", "pandoc", "rm", "run-clang-tidy-14")
INTERRUPTIONS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


def let_signals_end():
    """Whatever starts the tests may have them ignored, and a shell would leave that so."""
    for number in INTERRUPTIONS:
        signal.signal(number, signal.SIG_DFL)


class InTree(unittest.TestCase):
    """In a tree that is linked to the source and has its own build directory."""

    def setUp(self):
        self.tree = Path(tempfile.mkdtemp(prefix="zarn-scripts-"))
        self.addCleanup(shutil.rmtree, self.tree)
        for path in Path(OPTIONS.source).iterdir():
            if path.name not in (".git", "build"):
                (self.tree / path.name).symlink_to(path)
        (self.tree / "build").mkdir()
        self.programs = self.tree / "programs"
        self.programs.mkdir()
        self.write_program("sudo", 'exec "$@"')

    def write_program(self, name, text):
        program = self.programs / name
        program.write_text(f"#!/bin/sh\n{text}\n")
        program.chmod(0o755)

    def start(self, script, *arguments, **options):
        env = {**os.environ, "PATH": f"{self.programs}:{os.environ['PATH']}",
               "DPKG_ROOT": str(self.tree)}
        process = subprocess.Popen([script, *arguments], env=env, text=True, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, **{"cwd": self.tree, **options})
        self.addCleanup(process.kill)
        return process


class Arguments(InTree):
    def setUp(self):
        super().setUp()
        self.write_program("dpkg-query", "echo installed")
        self.worked = self.tree / "worked"
        for name in WORKERS:
            self.write_program(name, f"echo {name} >>{self.worked}; exit 1")
        self.names = sorted(path.name for path in (self.tree / "scripts").iterdir() if not path.suffix)

    def run_idle(self, script, *arguments, **options):
        """Status, output and errors of a script that must do nothing."""
        self.worked.write_text("")
        process = self.start(script, *arguments, **options)
        output, errors = process.communicate(timeout=LIMIT)
        self.assertEqual("", self.worked.read_text())
        return process.returncode, output, errors

    def test_every_script_prints_its_help_wherever_it_is_called_from(self):
        for name in self.names:
            scripts = self.tree / "scripts"
            first = (scripts / name).read_text().splitlines()[1].removeprefix("# ")
            for script, cwd in ((f"scripts/{name}", self.tree), (f"./{name}", scripts)):
                with self.subTest(script=script):
                    status, output, errors = self.run_idle(script, "--help", cwd=cwd)
                    self.assertEqual((status, errors), (0, ""))
                    self.assertTrue(output.startswith(first + "\n"), output)

    def test_what_a_script_does_not_know_is_refused_before_it_does_anything(self):
        unknown = [*([name, "--junk"] for name in self.names), ["abi", "--update", "junk"],
                   ["bench", "junk"], ["coverage", "--lines"], ["docs", "--zarn"],
                   ["docs", "--zarn", "/nonexistent"], ["format", "--check", "junk"],
                   ["fuzz", "5", "junk"], ["fuzz", "1x"], ["package", "--check", "junk"],
                   ["soak", "1x"], ["soak", "1", "junk"], ["soak", "1", "asan", "--junk"],
                   ["test", "--all", "junk"]]
        for name, *arguments in unknown:
            with self.subTest(script=name, arguments=arguments):
                status, output, errors = self.run_idle(f"scripts/{name}", *arguments)
                self.assertEqual((status, output), (2, ""))
                self.assertNotIn("Traceback", errors)
                self.assertRegex(errors, name)

    def test_lines_are_not_shown_before_they_are_counted(self):
        status, _, errors = self.run_idle("scripts/coverage", "--lines", "src")
        self.assertEqual((status, errors),
                         (1, "coverage: nothing is counted yet: run scripts/coverage\n"))


class Builds(InTree):
    """What the compiler says goes to a log, and is shown when the build fails."""

    SCRIPTS = (["abi"], ["bench"], ["coverage"], ["demo"], ["docs"], ["fuzz"], ["soak", "1"],
               ["soak", "--proofs"], ["test"])

    def setUp(self):
        super().setUp()
        self.write_program("dpkg-query", "echo installed")

    def build(self, *command):
        """Status and output of a script whose build fails."""
        process = self.start(f"scripts/{command[0]}", *command[1:])
        output, errors = process.communicate(timeout=LIMIT)
        self.assertNotIn("noise", errors)
        return process.returncode, output

    def test_one_that_fails_shows_its_errors_and_ends_the_script(self):
        self.write_program("cmake", """case "$*" in *--build*) echo 'x.cpp:1: error: no such thing'
            for i in $(seq 100); do echo noise; done; exit 1 ;; esac""")
        for command in self.SCRIPTS:
            with self.subTest(command=command):
                status, output = self.build(*command)
                self.assertEqual(status, 1)
                self.assertIn("x.cpp:1: error: no such thing\n", output)
                self.assertLess(output.count("noise"), 50)

    def test_one_that_fails_without_a_word_shows_its_last_lines(self):
        self.write_program("cmake", "seq 100; exit 1")
        status, output = self.build("abi")
        self.assertEqual(status, 1)
        self.assertTrue(output.endswith("\n99\n100\n"), output)
        self.assertNotIn("\n50\n", output)


class Setup(InTree):
    """While scripts/setup installs, no service starts. However it ends, that ends too."""

    def setUp(self):
        super().setUp()
        self.policy = self.tree / "usr/sbin/policy-rc.d"
        self.policy.parent.mkdir(parents=True)
        os.mkfifo(self.tree / "installing")
        self.write_program("dpkg-query", "exit 1")

    def install(self, end):
        """Starts it; whoever installs shows what packages are told, and goes on with `end`."""
        self.write_program("apt-get", f"""case "$*" in
            *install*) cat {self.policy} >{self.tree}/installing; {end} ;; esac""")
        return self.start("scripts/setup", start_new_session=True, preexec_fn=let_signals_end)

    def told(self):
        return (self.tree / "installing").read_text()

    def test_services_are_let_start_again_after_a_success_and_after_a_failure(self):
        for end in ("exit 0", "exit 7"):
            with self.subTest(end=end), self.install(end) as setup:
                self.assertEqual(self.told(), "#!/bin/sh\nexit 101\n")
                setup.communicate(timeout=LIMIT)
                self.assertEqual(f"exit {setup.returncode}", end)
                self.assertFalse(self.policy.exists())

    def test_services_are_let_start_again_after_an_interruption(self):
        for number in INTERRUPTIONS:
            with self.subTest(signal=number), self.install("exec sleep 60") as setup:
                self.assertEqual(self.told(), "#!/bin/sh\nexit 101\n")
                os.killpg(setup.pid, number)
                setup.communicate(timeout=LIMIT)
                self.assertNotEqual(setup.returncode, 0)
                self.assertFalse(self.policy.exists())

    def test_what_somebody_else_tells_packages_stays(self):
        self.policy.write_text("somebody's\n")
        with self.install("exit 0") as setup:
            self.assertEqual(self.told(), "somebody's\n")
            setup.communicate(timeout=LIMIT)
            self.assertEqual(setup.returncode, 0)
            self.assertEqual(self.policy.read_text(), "somebody's\n")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    OPTIONS, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest], verbosity=2)
