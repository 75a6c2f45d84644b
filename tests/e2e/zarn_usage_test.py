"""zarn as a whole: wrong usage, help, and an install root that is not there."""

import errno
import json
import os
import re
import shutil
import signal
import unittest

from zarn_tool import ToolTest, is_among, limit_memory

SUBCOMMANDS = ("serve", "send", "ping", "bench", "ls", "stat", "env", "log")
STORES = ("db", "kv", "shm")
WITH_URL = ("serve", "send", "ping", "bench")


def arguments_of(subcommand, url="ipc://1_2"):
    rest = {"send": ["--data", "x", "--timeout", "1"], "ping": ["--timeout", "1"],
            "bench": ["--timeout", "1"]}
    return [subcommand, *([url] if subcommand in WITH_URL else []), *rest.get(subcommand, [])]


class Usage(ToolTest):
    def assert_wrong_usage(self, *arguments):
        result = self.run_tool(*arguments)
        self.assertEqual(result.returncode, 2, (arguments, result))
        self.assertNotEqual(result.stderr, "")

    def test_help_of_everything_names_the_exit_codes_and_an_example(self):
        self.assertIn("3 peer not reachable", self.run_tool("--help").stdout)
        for subcommand in SUBCOMMANDS + STORES:
            result = self.run_tool(subcommand, "--help")
            self.assertEqual(result.returncode, 0)
            self.assertRegex(result.stdout, rf"Example:\n  zarn {subcommand}")
            self.assertIn("Exit codes: 0 done, 1 failed, 2 wrong usage", result.stdout)
            self.assertEqual("3 peer not reachable" in result.stdout, "--timeout" in result.stdout.split("Example:")[0])
            self.assertIn("--json", result.stdout)

    def test_help_names_all_of_which_one_is_wanted(self):
        for arguments, usage, heading in ((["send"], "zarn send [OPTIONS] URL [-]", ", or '-'"),
                                          (["db", "x", "set"], "[VALUE]", ", or VALUE"),
                                          (["kv", "x", "put"], "[VALUE]", ", or VALUE"), (["rest"], "URL", "")):
            shown = self.run_tool(*arguments, "--help").stdout
            self.assertIn(f"{usage}\n", shown)
            self.assertIn(f"\nExactly one of these{heading}:\n", shown)
        self.assertRegex(self.run_tool("send", "--help").stdout, r"\n  - +send each line of standard input")

    def test_help_is_free_of_the_parser_s_own_words(self):
        for subcommand in SUBCOMMANDS + STORES + ("rest",):
            self.assertNotRegex(self.run_tool(subcommand, "--help").stdout, "INT in|Needs:|Excludes:|DASH")
        self.assertRegex(self.run_tool("send", "--help").stdout, r"--type N=0 +type of the messages, 0 to 65535\n")
        self.assertRegex(self.run_tool("send", "--help").stdout, r"--key FILE +the own private key, PEM; needs --cert\n")
        self.assertRegex(self.run_tool("stat", "--help").stdout,
                         r"--prometheus +print the text format of Prometheus; not with --json or --watch\n")

    def test_usage_of_a_store_s_subcommand_can_be_typed_as_it_stands(self):
        for arguments, usage in ((["db", "s.db", "set"], "zarn db FILE set [OPTIONS] KEY [VALUE]"),
                                 (["kv", "s", "get"], "zarn kv DIR get [OPTIONS] KEY"),
                                 (["shm", "rm"], "zarn shm rm [OPTIONS] NAME")):
            self.assertIn(f"\nUsage: {usage}\n", self.run_tool(*arguments, "--help").stdout)

    def test_version_is_three_numbers(self):
        self.assertRegex(self.run_tool("--version").stdout, r"^zarn \d+\.\d+\.\d+\n$")

    def test_help_and_version_that_cannot_be_written_are_failures(self):
        for arguments in (["--help"], ["--version"], ["ping", "--help"], ["db", "s.db", "get", "--help"]):
            result = self.run_without(">/dev/full", *arguments)
            self.assertEqual((result.returncode, result.stderr),
                             (1, "zarn: standard output: No space left on device\n"), arguments)

    def test_nothing_and_nonsense_are_wrong_usage(self):
        self.assert_wrong_usage()
        self.assert_wrong_usage("nonsense")
        for subcommand in SUBCOMMANDS:
            self.assert_wrong_usage(*arguments_of(subcommand), "--nonsense")
        for subcommand in WITH_URL:
            self.assert_wrong_usage(subcommand)

    def test_interrupted_before_there_is_a_peer_it_is_a_failure_with_its_summary(self):
        for subcommand in (("send", "--data", "x"), ("ping",), ("bench",)):
            client = self.start(*subcommand, "ipc://1_2", "--json", "--timeout", "0")
            self.wait_until(lambda process=client.process.pid: is_among(signal.SIGINT, process, "SigBlk"))
            self.assertEqual(client.end(), 1, subcommand)
            client.event("summary")
            self.assertIn("interrupted", client.errors())

    def test_wrong_subcommand_is_named(self):
        for arguments in (["pnig"], ["ipc://1_2"], ["db", "x", "pnig"], ["kv", "x", "pnig"], ["shm", "pnig"]):
            result = self.run_tool(*arguments)
            self.assertEqual(result.returncode, 2)
            self.assertIn(f"zarn: '{arguments[-1]}' is not a subcommand\n", result.stderr)
        for arguments in (["--versoin"], ["db", "x", "--jsno"]):
            self.assertIn(f"zarn: unknown option '{arguments[-1]}'\n", self.run_tool(*arguments).stderr)
        self.assertIn("A subcommand is required", self.run_tool("db", "x").stderr)

    def test_wrong_usage_ends_with_the_help_of_the_subcommand(self):
        for help_of, *arguments in (("zarn", "pnig"), ("zarn",), ("zarn send", "send", "1_2", "--data", "x"),
                                    ("zarn send", "send", "ipc://1_2"), ("zarn ls", "ls", "--jsno"),
                                    ("zarn send", "send", "ipc://1_2", "--data="), ("zarn db", "db", "x", "pnig"),
                                    ("zarn db FILE set", "db", "x", "set"), ("zarn db FILE set", "db", "x", "set", "--hex=")):
            lines = self.run_tool(*arguments).stderr.splitlines()
            self.assertEqual(lines[1:], [f"zarn: see '{help_of} --help'"], arguments)
            self.assertTrue(lines[0].startswith("zarn: "), arguments)

    def test_urls_that_are_none_are_wrong_usage(self):
        urls = ("1_2", "ipc:1_2", "ipc://", "ipc://1", "ipc://1_", "ipc://_2", "ipc://1_65536",
                "ipc://-1_2", "ipc://01_2", "ipc://1_2/", "ipc://1_2_3", "smoke://1_2", "")
        for url in urls:
            for subcommand in WITH_URL:
                self.assert_wrong_usage(*arguments_of(subcommand, url))

    def test_numbers_out_of_range_are_wrong_usage(self):
        for option, value in (("-s", "65524"), ("-s", "-1"), ("-i", "-1"), ("-i", "nan"),
                              ("-c", "x"), ("--timeout", "-1"), ("--timeout", "inf"),
                              ("--as", "3"), ("--type", "65536"), ("--spin", "2000000")):
            self.assert_wrong_usage("ping", "ipc://1_2", option, value)
        self.assert_wrong_usage("bench", "ipc://1_2", "--sizes", "1,65524")
        self.assert_wrong_usage("bench", "ipc://1_2", "--window", "0")
        self.assert_wrong_usage("send", "ipc://1_2", "--data", "x", "--tag", "4294967296")

    def test_seconds_out_of_range_are_told_the_range(self):
        for option, value, least, most, *arguments in (
                ("--interval", "86401", "0", "86400", "ping", "ipc://1_2"),
                ("--timeout", "1000001", "0", "1000000", "ping", "ipc://1_2"),
                ("--seconds", "0", "0.001", "3600", "bench", "ipc://1_2"),
                ("--watch", "0", "0.01", "1000000", "stat")):
            result = self.run_tool(*arguments, option, value)
            self.assertEqual((result.returncode, result.stdout), (2, ""), option)
            self.assertEqual(result.stderr.splitlines()[0],
                             f"zarn: {option}: '{value}' is not a number of seconds from {least} to {most}")

    def test_what_is_wrong_is_shown_escaped(self):
        for raw, shown in (("a\nb", "a\\nb"), ("\x1b[2J", "\\x1b[2J"), (b"\xff\xc3(", "\\xff\\xc3("),
                           ("\u202eabc", "\\xe2\\x80\\xaeabc"), ("a\\", "a\\\\"), ("größe", "größe")):
            for *arguments, first_line in (
                    ("ls", "The following argument was not expected: {}"),
                    ("ping", "ipc://1_2", "--timeout", "--timeout: '{}' is not a number of seconds from 0 to 1000000"),
                    ("ping", "ipc://1_2", "-c", "--count: '{}' is not a number from 0 to 18446744073709551615"),
                    ("db", "s.db", "set", "k", "--hex", "--hex: '{}' is not pairs of hex digits")):
                result = self.run_tool(*arguments, raw)
                self.assertEqual((result.returncode, result.stdout), (2, ""), arguments)
                self.assertEqual(result.stderr.splitlines()[0], "zarn: " + first_line.format(shown))

    def test_help_shows_no_default_that_would_be_refused(self):
        shown = self.run_tool("stat", "--help").stdout
        self.assertIn("--watch SECONDS ", shown)
        self.assertIn("--timeout SECONDS=5 ", shown)

    def test_numbers_are_decimal_and_none_is_cut(self):
        huge = "99999999999999999999999"
        for arguments in (("ping", "-c", huge), ("ping", "-c", "18446744073709551616"), ("ping", "-c", ""),
                          ("ping", "-c", "0x10"), ("ping", "-c", "+1"), ("ping", "-c", "1 "),
                          ("ping", "--type", huge), ("ping", "-s", ""), ("ping", "--spin", "0x1"),
                          ("ping", "--timeout", "0x1"), ("ping", "--timeout", " 1"), ("ping", "-i", ""),
                          ("serve", "--max-queue", huge), ("serve", "--max-queue", "-1"),
                          ("send", "--data", "x", "--replies", huge), ("send", "--data", "x", "--tag", ""),
                          ("bench", "--sizes", "64,0x40"), ("bench", "--window", huge)):
            with self.subTest(arguments):
                result = self.run_tool(arguments[0], "ipc://1_2", *arguments[1:])
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertRegex(result.stderr, f"^zarn: -.*: '{re.escape(arguments[-1])}' is not a number"
                                 "|^zarn: --sizes: '0x40' is not a number")
        self.serve("--echo", "--max-queue", "18446744073709551615")
        self.assertEqual(self.run_events("ping", "ipc://1_2", "-c", "010", "-i", "0")[-1]["sent"], 10)
        sizes = [event["size"] for event in self.run_events(
            "bench", "ipc://1_2", "--sizes", "010,0064", "--seconds", "00.01") if event["event"] == "result"]
        self.assertEqual(sizes, [10, 64])

    def test_an_empty_value_is_wrong_usage_where_it_would_be_as_if_not_given(self):
        rest = ("rest", "http://127.0.0.1:1/zarn/tcpchannel")
        for name, *arguments in (("--file", "send", "ipc://1_2"), ("--level", "log"), ("--function", "log"),
                                 ("--file", *rest), ("--setting", *rest, "--data", "x"),
                                 ("--user", *rest, "--data", "x"), ("--ca", *rest, "--data", "x"),
                                 ("--password-file", *rest, "--data", "x", "--user", "a"),
                                 ("--file", "db", "s.db", "set", "k"), ("--file", "db", "s.db", "get", "k"),
                                 ("--file", "kv", "s", "put", "k"), ("--file", "kv", "s", "get", "k")):
            result = self.run_tool(*arguments, name, "", cwd=self.root)
            self.assertEqual((result.returncode, result.stdout), (2, ""), (arguments, name))
            self.assertTrue(result.stderr.startswith(f"zarn: {name}: must not be empty\n"), result.stderr)
        for name, *arguments in (("FILE", "log", ""), ("FILE", "db", "", "set", "k", "v"),
                                 ("DIR", "kv", "", "put", "k", "v"), ("TO", "db", "s.db", "export", ""),
                                 ("FROM", "db", "s.db", "import", "")):
            result = self.run_tool(*arguments, cwd=self.root)
            self.assertEqual((result.returncode, result.stdout), (2, ""), arguments)
            self.assertTrue(result.stderr.startswith(f"zarn: {name}: must not be empty\n"), result.stderr)
        self.assertEqual(os.listdir(self.root), ["system"], "nothing was made")

    def test_what_follows_an_option_without_its_value_is_not_taken_for_it(self):
        self.assertEqual(self.run_tool("kv", "s", "put", "k", "--file=v", cwd=self.root).returncode, 1)
        self.assertEqual(self.run_tool("kv", "s", "put", "k", "v", cwd=self.root).returncode, 0)
        for option, *arguments in (("--file", "kv", "s", "get", "k", "--file=", "--hex"),
                                   ("--data", "send", "ipc://1_2", "--data=", "--json"),
                                   ("--type", "send", "ipc://1_2", "--type=", "--data", "hello"),
                                   ("--data", "send", "ipc://1_2", "--data="),
                                   ("--type", "send", "", "--type=", "--data", "hello"),
                                   ("--grep", "log", "--grep="), ("--watch", "stat", "--watch=", "1_2"),
                                   ("--setting", "rest", "http://127.0.0.1:1/zarn/tcpchannel", "--data", "x",
                                    "--setting=", "--json")):
            result = self.run_tool(*arguments, cwd=self.root)
            self.assertEqual((result.returncode, result.stdout), (2, ""), arguments)
            self.assertTrue(result.stderr.startswith(f"zarn: {option}: has no value after '='\n"), result.stderr)
        self.assertEqual(sorted(os.listdir(self.root)), ["s", "system"])
        self.assertEqual(self.run_tool("kv", "s", "put", "--", "KEY=", "--file=", cwd=self.root).returncode, 0)
        self.assertEqual(self.run_tool("kv", "s", "get", "KEY=", cwd=self.root).stdout, "--file=\n")

    def test_an_option_that_would_be_without_effect_is_wrong_usage(self):
        for words, *arguments in (
                (("--password-file", "--user"), "rest", "http://127.0.0.1:1/zarn/tcpchannel", "--data", "x",
                 "--password-file", "file"),
                (("--ca", "https"), "rest", "HTTP://127.0.0.1:1/zarn/tcpchannel", "--data", "x", "--ca", "file"),
                (("--max-queue", "--echo"), "serve", "ipc://1_2", "--max-queue", "5"),
                (("--fixed", "--grep"), "log", "-F"), (("--clean",), "stat", "1_2", "--clean"),
                (("--clean",), "stat", "--clean", str(os.getpid()))):
            result = self.run_tool(*arguments)
            self.assertEqual((result.returncode, result.stdout), (2, ""), arguments)
            for word in words:
                self.assertIn(word, result.stderr.splitlines()[0])
        self.assertEqual(self.run_tool("stat", "all", "--clean").returncode, 0)

    def test_exactly_one_content_is_wanted(self):
        send, rest = ("send", "ipc://1_2"), ("rest", "http://127.0.0.1:1/zarn/tcpchannel")
        for wanted, command, contents in (
                ("[--data,--file,-]", send, ("--data", "x", "--file", "y")),
                ("[--data,--file,-]", send, ("--data", "x", "-")),
                ("[--data,--file]", rest, ("--data", "x", "--file", "y"))):
            for given, told in (((), ""), (contents, " and 2 were given")):
                result = self.run_tool(*command, *given)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertEqual(result.stderr.splitlines()[0],
                                 f"zarn: Exactly 1 option from {wanted} is required{told}")
        self.assertRegex(self.run_tool("send", "ipc://1_2", "nodash").stderr, "^zarn: what is sent stands in ")

    def test_an_empty_argument_too_many_is_wrong_usage_wherever_it_stands(self):
        rest, send = ("rest", "http://127.0.0.1:1/zarn/tcpchannel"), ("send", "ipc://1_2")
        put = ("kv", "none/s", "put", "k", "v")
        for arguments in ((*rest, "--data", "x", ""), (*rest, "", "--data", "x"),
                          (*rest, "--data", "x", "", "--timeout", "5"), (*rest, "", "--json"),
                          (*send, "--data", "x", ""), (*send, "-", "", "--json"), (*send, "", "--timeout", "1"),
                          (*put, ""), (*put, "", "--json"), (*put, "", "--hex", "00")):
            with self.subTest(arguments):
                self.assert_wrong_usage(*arguments)


class Root(ToolTest):
    def assert_root_refused(self, pattern, env):
        for subcommand in SUBCOMMANDS:
            result = self.run_tool(*arguments_of(subcommand), env=env)
            self.assertEqual(result.returncode, 1, result)
            self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
            self.assertRegex(result.stderr, pattern)

    def test_unset_or_empty_root_is_one_line_that_says_what_to_do(self):
        env = dict(self.env)
        del env["ZARN_ROOT"]
        pattern = r"ZARN_ROOT is not set: .*export ZARN_ROOT=.*umask 077; mkdir -p DIR/system"
        self.assert_root_refused(pattern, env)
        self.assert_root_refused(pattern, dict(env, ZARN_ROOT=""))

    def test_root_without_system_directory_names_it(self):
        (self.root / "system").rmdir()
        path = re.escape(str(self.root / "system"))
        self.assert_root_refused(rf"'{path}' does not exist: make it with '\(umask 077; mkdir -p {path}\)'", self.env)

    def test_system_that_is_a_file_is_refused(self):
        (self.root / "system").rmdir()
        (self.root / "system").write_text("")
        self.assert_root_refused("is not a directory", self.env)

    def test_root_that_is_a_file_is_refused(self):
        path = self.root / "file"
        path.write_text("")
        self.assert_root_refused("cannot be used: Not a directory; correct ZARN_ROOT",
                                 dict(self.env, ZARN_ROOT=str(path)))

    def test_root_that_has_too_long_a_name_is_refused_although_it_is_found(self):
        before = os.getcwd()
        self.addCleanup(os.chdir, before)
        os.chdir(self.root)
        for _ in range(20):
            os.mkdir("d" * 250)
            os.chdir("d" * 250)
        os.mkdir("system", 0o700)
        self.assert_root_refused("'./system' cannot be used: File name too long; correct ZARN_ROOT",
                                 dict(self.env, ZARN_ROOT="."))

    def test_root_of_any_bytes_is_shown_escaped(self):
        root = self.root / "a\nzarn: b\x1b[31m"
        shown = f"{self.root}/a\\nzarn: b\\x1b[31m"
        system = f"'{shown}/system'"
        self.env["ZARN_ROOT"] = str(root)
        self.assert_root_refused(re.escape(f"ZARN_ROOT is '{shown}', but {system} does not exist"), self.env)
        root.mkdir()
        (root / "system").write_text("")
        self.assert_root_refused(re.escape(f"but {system} is not a directory"), self.env)
        (root / "system").unlink()
        root.rmdir()
        root.write_text("")
        self.assert_root_refused(re.escape(f"but {system} cannot be used: "), self.env)
        root.unlink()
        self.use_root(root)
        ipc = f"'{shown}/system/zarn/ipc'"
        told = [(("ls",), 0, f"no endpoints in {ipc} and '{shown}/system/zarn/shmipc'\n"),
                (("stat",), 0, f"no process shows its metrics in '{shown}/system/zarn/stat': "
                 "those that call ZARNEnableMetrics do\n"),
                (("shm", "ls"), 0, f"no segments in '{shown}/system/zarn/shm/zarnshmm'\n"),
                (("log",), 1, f"'{shown}/logs': No such file or directory\n"),
                (("send", "ipc://1_2", "--data", "x", "--timeout", "0.2"), 3,
                 f"nobody listens there, {ipc[:-1]}/1_2' does not exist\n")]
        self.assert_told(told)
        self.ipc = root / "system/zarn/ipc"
        self.leave_stale("1_2")
        self.leave_stale("3_4")
        (self.ipc / "3_4").unlink()
        (self.ipc / "3_4").write_text("")
        self.assert_told([
            (("send", "ipc://1_2", "--data", "x", "--timeout", "0.2"), 3, f"{ipc[:-1]}/1_2' is stale\n"),
            (("send", "ipc://3_4", "--data", "x", "--timeout", "0.2"), 3, "it is not an endpoint file\n"),
            (("serve", "ipc://3_4"), 1, "it is not an endpoint file\n")])
        server = self.serve(url="ipc://5_6")
        self.assert_told([(("serve", "ipc://5_6"), 1,
                           f"{ipc[:-1]}/5_6' is in use by process {server.process.pid} (zarn)\n")])
        (self.ipc / "5_6").unlink()
        self.assertIn(f"{ipc[:-1]}/5_6' has been removed", server.line_with("ipc://5_6", "stderr"))
        self.assertEqual(server.end(), 0)
        self.ipc.chmod(0o777)
        self.assert_told([(("serve", "ipc://7_8"), 1, f"make it private with 'chmod 700 {ipc[1:]}\n")])
        shutil.rmtree(self.ipc)
        self.ipc.write_text("")
        self.assert_told([(("ls",), 1, f"{ipc}: Not a directory\n"),
                          (("serve", "ipc://1_2"), 1, f"{ipc[:-1]}/1_2': Not a directory\n")])

    def assert_told(self, wanted):
        for arguments, code, end in wanted:
            result = self.run_tool(*arguments)
            told = result.stdout + result.stderr
            self.assertEqual((result.returncode, len(told.splitlines())), (code, 1), told)
            self.assertTrue(told.endswith(end), told)

    def test_root_that_vanishes_meanwhile_is_told(self):
        for arguments in (("serve", "shm://1_2"), ("ping", "shm://1_2")):
            result = self.run_tool(*arguments, env=self.failing("realpath", 2, errno.ENOENT))
            self.assertEqual(result.returncode, 1)
            self.assertRegex(result.stderr, "the system directory of the install root cannot be found\n$")

    def test_root_of_200_characters_works(self):
        deep = self.root / ("d" * 90) / ("e" * 90)
        self.use_root(deep)
        self.ipc = deep / "system/zarn/ipc"
        self.assertGreater(len(str(deep)), 190)
        server = self.serve("--echo")
        self.assertEqual(self.run_events("send", "ipc://1_2", "--data", "x", "--replies", "1")[0]["text"],
                         "x")
        listed = self.run_events("ls")
        self.assertEqual([(e["name"], e["state"], e["pid"]) for e in listed],
                         [("1_2", "listening", server.process.pid)])
        self.assertEqual(server.end(), 0)
        self.assertEqual(os.listdir(self.ipc), [])


class Shortage(ToolTest):
    with_loop = (*map(arguments_of, WITH_URL), ["log", "-f"],
                 ["rest", "http://127.0.0.1:1/zarn/tcpchannel", "--data", "x"])

    def test_no_descriptors_for_the_loop_is_one_line(self):
        for arguments in self.with_loop:
            result = self.run_tool(*arguments, env=self.failing("epoll_create1", 1, errno.EMFILE))
            self.assertEqual((result.returncode, result.stdout, result.stderr),
                             (1, "", "zarn: no event loop: out of memory or descriptors\n"), arguments)

    def test_no_thread_is_one_line(self):
        for arguments in self.with_loop:
            result = self.run_tool(*arguments, env=self.failing("pthread_create", 1, errno.EAGAIN, "ever"))
            self.assertEqual((result.returncode, result.stdout), (1, ""), arguments)
            self.assertRegex(result.stderr, "^zarn: out of threads or other resources: .*\n$")

    def test_a_file_too_large_for_the_memory_is_one_line(self):
        self.needs_little_memory()
        huge = self.make_huge()
        for arguments in (("db", "s.db", "set", "k"), ("kv", "s", "put", "k"),
                          ("rest", "http://127.0.0.1:1/zarn/tcpchannel")):
            result = self.run_tool(*arguments, "--file", huge, cwd=self.root, preexec_fn=limit_memory)
            self.assertEqual((result.returncode, result.stdout, result.stderr),
                             (1, "", "zarn: out of memory\n"), arguments)


class ClosedStreams(ToolTest):
    """What is opened first gets the number of a stream that is closed: nothing must be read from it or
    written to it for that."""

    def test_a_closed_output_is_a_failure(self):
        server = self.serve("--echo")
        for arguments in (["ls"], ["env"], ["stat"], ["shm", "ls"], ["ping", self.url, "-c", "1"],
                          ["send", self.url, "--data", "x", "--replies", "1"]):
            result = self.run_without(">&-", *arguments)
            self.assertEqual((result.returncode, result.stderr),
                             (1, "zarn: standard output: Bad file descriptor\n"), arguments)
        self.assertEqual(server.end(), 0)
        while (event := json.loads(server.line()))["event"] != "summary":
            self.assertFalse(event.get("malformed"), event)

    def test_complaints_go_nowhere_when_their_stream_is_closed(self):
        store = self.root / "store"
        self.assertEqual(self.run_without("2>&-", "kv", str(store), "put", "k", "v").returncode, 0)
        result = self.run_without("2>&-", "kv", str(store), "get", "needle")
        self.assertEqual((result.returncode, result.stdout), (1, ""))
        self.assertNotIn("needle", (store / "LOG").read_text(encoding="utf-8"))


if __name__ == "__main__":
    unittest.main()
