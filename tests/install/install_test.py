"""Installs a build into a temporary prefix, moves it elsewhere, and uses it as a stranger would:
through find_package and through pkg-config. Also looks at what is installed and what is exported.
"""

import argparse
import os
import re
import shlex
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

LIBRARIES = ("keelbase", "fipc", "fshmipc", "wface", "sslutils", "shttp", "ptcp", "sslptcp", "zarnutils")
PUBLIC_HEADERS = ("include", *(f"platform/{name}/include" for name in LIBRARIES[:-1]))
OPTIONS = argparse.Namespace()

# A mangled name up to its first namespace: what kind of special name it is (a vtable, a type's
# description, a guard, a thunk), whether it is local to a function, qualifiers.
MANGLED_HEAD = r"_Z(?:T[VTIS]|G[VR]|Th?n?\d+_|Tvn?\d+_n?\d+_|Tch?[n\d_]*)?Z*(?:N[rVKRO]*)?"
OURS = re.compile(MANGLED_HEAD + r"(?:4zarn|8keelbase|4fipc|7fshmipc|5wface|8sslutils|5shttp|4ptcp|7sslptcp)")
# Templates of the standard library over any type are emitted weak wherever they are used.
STANDARD = re.compile(MANGLED_HEAD + r"(?:S[tabsiod]|9__gnu_cxx)")
OURS_INSIDE = re.compile(r"(?:4zarn|8keelbase|4fipc|7fshmipc|5wface|8sslutils|5shttp|4ptcp|7sslptcp)")

# What makes the lines that the README shows a program.
README_PROGRAM = """
#include <keelbase/CAWThreadManager.h>
#include <zarn/utils/CZARNLibClientChannel.h>

#include <cstdio>

keelbase::CAWThread* network;
%s
int main() {
  const auto type = keelbase::CAWThreadManager::TT_NETWORK;
  keelbase::CAWThreadManager::Instance()->AdoptCurrentThread(type);
  ::network = keelbase::CAWThreadManager::Instance()->GetThread(type);
  Client client;
  %s
  network->Run();
}
"""
PRINT_AND_STOP = r"""
    std::printf("%u %u %.*s\n", unsigned{type}, tag, static_cast<int>(size), data);
    network->Stop();
"""


def run(*command, cwd=None, env=None, timeout=None):
    """The standard output of a command that must succeed, within so many seconds."""
    result = subprocess.run([str(part) for part in command], cwd=cwd, env=env, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                            timeout=timeout)
    if result.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))}\n{result.stdout}")
    return result.stdout


def is_allowed(kind, symbol):
    if OURS.match(symbol):
        return True
    return bool(STANDARD.match(symbol)) and (kind in "WVuvw" or bool(OURS_INSIDE.search(symbol)))


class InstalledTree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory(prefix="zarn-install-")
        cls.addClassCleanup(directory.cleanup)
        cls.work = Path(directory.name)
        first = cls.work / "first"
        run("cmake", "--install", OPTIONS.build, "--prefix", first)
        cls.prefix = cls.work / "moved here"
        first.rename(cls.prefix)
        cls.documents = cls.prefix / "share/doc/zarnutils"
        cls.lib = next(cls.prefix.glob("lib*/**/libzarnutils.so")).parent

    def test_headers_are_the_public_ones_and_no_others(self):
        source = Path(OPTIONS.source)
        wanted = {header.relative_to(source / folder)
                  for folder in PUBLIC_HEADERS for header in (source / folder).rglob("*.h")}
        include = self.prefix / "include"
        found = {path.relative_to(include) for path in include.rglob("*") if path.is_file()}
        self.assertEqual(wanted, found)
        self.assertFalse([path for path in found if "internal" in path.parts])

    def test_headers_compile_where_exceptions_are_off(self):
        include = self.prefix / "include"
        names = sorted(path.relative_to(include) for path in include.rglob("*.h"))
        source = self.work / "headers.cpp"
        source.write_text("".join(f'#include "{name}"\n' for name in names))
        env = dict(os.environ, PKG_CONFIG_PATH=str(self.lib / "pkgconfig"))
        flags = shlex.split(run("pkg-config", "--cflags", "zarnutils", env=env))
        for compiler in filter(None, (OPTIONS.compiler, shutil.which("clang++-14"))):
            run(compiler, "-std=c++17", "-fno-exceptions", "-fsyntax-only", *flags, source)

    def test_libraries_have_a_soname_of_the_major_version(self):
        for name in LIBRARIES:
            dynamic = run("readelf", "-d", self.lib / f"lib{name}.so")
            self.assertIn(f"Library soname: [lib{name}.so.1]", dynamic)
            self.assertTrue((self.lib / f"lib{name}.so.1").is_symlink())

    def test_nothing_outside_our_namespaces_is_exported(self):
        for name in LIBRARIES:
            lines = run("nm", "-D", "--defined-only", self.lib / f"lib{name}.so").splitlines()
            symbols = [line.split()[-2:] for line in lines]
            self.assertTrue(any(OURS.match(symbol) for _, symbol in symbols), name)
            foreign = [symbol for kind, symbol in symbols if not is_allowed(kind, symbol)]
            self.assertEqual([], foreign, f"lib{name}.so")

    def test_nothing_installed_names_the_build_or_the_source_tree(self):
        for path in self.prefix.rglob("*"):
            if path.suffix in (".cmake", ".pc"):
                text = path.read_text()
                self.assertNotIn(str(OPTIONS.build), text, path)
                self.assertNotIn(str(OPTIONS.source), text, path)

    def test_program_builds_and_runs_through_find_package(self):
        build = self.work / "consumer"
        run("cmake", "-G", "Ninja", "-S", Path(OPTIONS.source) / "tests/install/consumer", "-B",
            build, f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_COMPILER={OPTIONS.compiler}")
        run("cmake", "--build", build)
        self.check_consumer(build / "consumer")

    def test_components_are_the_libraries(self):
        project = self.work / "components"
        project.mkdir()
        for components, found in (("keelbase utils", True), ("nosuch", False)):
            (project / "CMakeLists.txt").write_text(
                "cmake_minimum_required(VERSION 3.25)\nproject(components LANGUAGES CXX)\n"
                f"find_package(zarnutils QUIET COMPONENTS {components})\n"
                'message(STATUS "found: ${zarnutils_FOUND}, ${zarnutils_NOT_FOUND_MESSAGE}")\n')
            output = run("cmake", "-G", "Ninja", "-S", project, "-B", project / "build",
                         f"-DCMAKE_PREFIX_PATH={self.prefix}",
                         f"-DCMAKE_CXX_COMPILER={OPTIONS.compiler}")
            expected = "found: 1, \n" if found else "found: 0, zarnutils has no component nosuch\n"
            self.assertIn(expected, output)

    def test_program_builds_and_runs_through_pkg_config(self):
        env = dict(os.environ, PKG_CONFIG_PATH=str(self.lib / "pkgconfig"))
        source = Path(OPTIONS.source) / "tests/install/consumer/main.cpp"
        program = self.work / "consumer-pc"
        flags = shlex.split(run("pkg-config", "--cflags", "--libs", "zarnutils", env=env))
        run(OPTIONS.compiler, "-std=c++17", "-Wall", "-Wextra", "-Werror", source, *flags,
            f"-Wl,-rpath,{self.lib}", "-o", program)
        self.check_consumer(program)

    def test_each_pkg_config_file_stands_on_its_own(self):
        env = dict(os.environ, PKG_CONFIG_PATH=str(self.lib / "pkgconfig"))
        for name in (*LIBRARIES, "fshmipc"):
            self.assertEqual("1.0.0", run("pkg-config", "--modversion", name, env=env).strip())
            run("pkg-config", "--cflags", "--libs", name, env=env)

    def test_installed_examples_build_against_the_installed_library(self):
        build = self.work / "examples"
        run("cmake", "-G", "Ninja", "-S", self.documents / "examples", "-B", build,
            f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_COMPILER={OPTIONS.compiler}")
        run("cmake", "--build", build)

    def test_installed_documents_link_to_what_is_installed(self):
        pages = list(self.documents.rglob("*.md"))
        self.assertGreater(len(pages), 10)
        broken = []
        for page in pages:
            text = re.sub(r"^```.*?^```", "", page.read_text(), flags=re.MULTILINE | re.DOTALL)
            links = re.findall(r"\]\(([^)#: ]+)(?:#[^)]*)?\)", text)
            broken += [f"{page.name}: {link}" for link in links if not (page.parent / link).exists()]
        self.assertEqual([], broken)

    def test_tool_runs_from_where_it_was_moved(self):
        if not OPTIONS.with_tool:
            return
        help_text = run(self.prefix / "bin/zarn", "--help", env={"PATH": os.environ["PATH"]})
        self.assertIn("zarn", help_text)
        run("bash", "-n", self.prefix / "share/bash-completion/completions/zarn")

    def write_tutorial(self, name):
        """A directory with the tutorial's files, and its text."""
        tutorial = self.work / name
        tutorial.mkdir()
        text = (self.documents / "docs/tutorial.md").read_text()
        files = re.findall(r"^`(\S+)`:\n\n```\w+\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
        self.assertEqual(["server.cpp", "client.cpp", "CMakeLists.txt"], [name for name, _ in files])
        for file, content in files:
            (tutorial / file).write_text(content)
        return tutorial, text

    def build_tutorial(self, tutorial, compiler):
        run("cmake", "-G", "Ninja", "-S", tutorial, "-B", tutorial / "build",
            f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_COMPILER={compiler}")
        run("cmake", "--build", tutorial / "build")

    def test_tutorial_builds_where_the_compiler_takes_an_older_language_by_itself(self):
        clang = shutil.which("clang++-14")
        if not clang:
            self.skipTest("there is no Clang 14, which takes C++14 unless told otherwise")
        tutorial, text = self.write_tutorial("tutorial-clang")
        self.build_tutorial(tutorial, clang)
        command = re.search(r"^Without CMake: `c\+\+ (.*)`\.$", text, re.MULTILINE)[1]
        prefix = tutorial / "prefix"  # a shell would split the name of the other
        prefix.symlink_to(self.prefix)
        lib = prefix / self.lib.relative_to(self.prefix)
        env = dict(os.environ, PKG_CONFIG_PATH=str(lib / "pkgconfig"))
        run("sh", "-c", f"{clang} {command}", cwd=tutorial, env=env)

    def test_tutorial_is_true(self):
        tutorial, text = self.write_tutorial("tutorial")
        self.build_tutorial(tutorial, OPTIONS.compiler)

        (tutorial / "root/system").mkdir(parents=True)
        env = {"PATH": os.environ["PATH"], "ZARN_ROOT": str(tutorial / "root")}
        with subprocess.Popen([tutorial / "build/server"], env=env, text=True,
                              stdout=subprocess.PIPE) as server:
            try:
                self.assertEqual("listening\n", server.stdout.readline())
                answers = run(tutorial / "build/client", "1", "20", "300", env=env)
            finally:
                server.kill()
        promised = re.search(r"^prints\n\n```\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
        self.assertEqual(promised.group(1), answers)

    def test_program_of_the_readme_sends_its_message(self):
        if not OPTIONS.with_tool:
            return
        text = (self.documents / "README.md").read_text()
        shown = re.search(r"^```cpp\n(class .*?^};\n)(.*?)^```$", text, re.MULTILINE | re.DOTALL)
        client = shown[1].replace("/* a message has arrived, whole */", PRINT_AND_STOP)
        source = self.work / "readme.cpp"
        source.write_text(README_PROGRAM % (client, shown[2]))
        env = dict(os.environ, PKG_CONFIG_PATH=str(self.lib / "pkgconfig"))
        flags = shlex.split(run("pkg-config", "--cflags", "--libs", "zarnutils", env=env))
        run(OPTIONS.compiler, "-std=c++17", source, *flags, f"-Wl,-rpath,{self.lib}", "-o",
            self.work / "readme")
        (self.work / "root/system").mkdir(parents=True)
        env = {"PATH": os.environ["PATH"], "ZARN_ROOT": str(self.work / "root")}
        with subprocess.Popen([self.prefix / "bin/zarn", "serve", "ipc://1_2", "--echo", "--quiet"],
                              env=env) as server:
            try:
                self.assertEqual("7 42 hello\n", run(self.work / "readme", env=env, timeout=20))
            finally:
                server.kill()

    def check_consumer(self, program):
        self.assertEqual("1_2\n", run(program, env={"PATH": os.environ["PATH"]}))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--source", required=True)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--with-tool", action="store_true")
    OPTIONS, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest], verbosity=2)
