"""zarn db: what it prints and refuses, and imports and exports that are interrupted."""

import contextlib
import json
import os
import pty
import random
import re
import signal
import sqlite3
import struct
import subprocess
import tempfile
import time
import tty
import unittest

from zarn_tool import PATIENCE, SOMEBODY, TOOL, ToolTest, ignore_endings, limit_memory

ROWS = 6000
ROW = b'{"key":"k","value":"v"}\n'


class Db(ToolTest):
    def setUp(self):
        super().setUp()
        self.path = self.root / "store.db"
        self.db = ("db", str(self.path))

    def rows(self):
        """What SQLite itself finds."""
        with sqlite3.connect(self.path) as connection:
            found = dict(connection.execute(
                "SELECT CAST(URL AS BLOB), CAST(VALUE AS BLOB) FROM ZARNDATA"))
        connection.close()
        return found

    def run_ok(self, *arguments, **options):
        result = self.run_tool(*arguments, **options)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def fails(self, code, pattern, *arguments, **options):
        result = self.run_tool(*arguments, **options)
        self.assertEqual(result.returncode, code, result.stderr)
        self.assertRegex(result.stderr, pattern)
        return result

    def make_lines(self, count=ROWS):
        path = self.root / "rows.jsonl"
        with open(path, "w", encoding="utf-8") as file:
            for i in range(count):
                file.write(json.dumps({"key": f"zarn://key/{i:06}", "value": f"välue {i}\n" * 3}) + "\n")
        return path


class Values(Db):
    def test_set_get_and_rm(self):
        self.assertEqual(self.run_ok(*self.db, "set", "k", "v"), "")
        self.assertEqual(self.run_ok(*self.db, "get", "k"), "v\n")
        self.run_ok(*self.db, "set", "k", "w")
        self.assertEqual(self.rows(), {b"k": b"w"})
        self.run_ok(*self.db, "rm", "k")
        self.assertEqual(self.rows(), {})

    def test_values_as_text_hex_and_file(self):
        raw = bytes(byte for byte in range(1, 256) if byte != 0x27) * 1000
        (self.root / "raw").write_bytes(raw)
        self.run_ok(*self.db, "set", "raw", "--file", str(self.root / "raw"))
        self.run_ok(*self.db, "set", "hex", "--hex", "0aFf5c")
        self.run_ok(*self.db, "set", "6b65792001", "--hex-key", "text")
        self.assertEqual(self.rows(), {b"raw": raw, b"hex": b"\n\xff\\", b"key \x01": b"text"})
        self.assertEqual(self.run_ok(*self.db, "get", "hex"), "\\n\\xff\\\\\n")
        self.assertEqual(self.run_ok(*self.db, "get", "hex", "--hex"), "0aff5c\n")
        self.run_ok(*self.db, "get", "raw", "--file", str(self.root / "out"))
        self.assertEqual((self.root / "out").read_bytes(), raw)
        piped = subprocess.run([TOOL, *self.db, "get", "raw", "--file", "-"], env=self.env, check=True,
                               capture_output=True, timeout=PATIENCE)
        self.assertEqual(piped.stdout, raw)

    def test_ls_in_the_order_of_keys(self):
        for key in ("b", "a", "c"):
            self.run_ok(*self.db, "set", key, f"value of {key}")
        self.assertEqual(self.run_ok(*self.db, "ls"), "a\tvalue of a\nb\tvalue of b\nc\tvalue of c\n")
        self.assertEqual(self.run_events(*self.db, "ls")[0],
                         {"event": "entry", "key": "a", "value": "value of a", "size": 10})
        self.assertEqual(self.run_events(*self.db, "get", "b", "--hex")[0]["value"],
                         b"value of b".hex())

    def test_nul_and_nothing_are_refused_with_a_reason(self):
        self.run_ok(*self.db, "set", "k", "v")
        self.fails(2, "value holds a NUL", *self.db, "set", "k", "--hex", "6100")
        self.fails(2, "key holds a NUL", *self.db, "set", "00", "--hex-key", "v")
        self.fails(2, "empty value", *self.db, "set", "k", "")
        for verb in ("get", "rm"):
            self.fails(2, "key holds a NUL", *self.db, verb, "6b00", "--hex-key")
            self.fails(2, "empty key", *self.db, verb, "")
        self.assertEqual(self.rows(), {b"k": b"v"})

    def test_quotes_are_kept_and_change_no_statement(self):
        self.run_ok(*self.db, "set", "k", "v")
        for key in ("'", "it's", "''", "x' OR '1'='1", "n', 'v'); DELETE FROM ZARNDATA;--"):
            for value in ("v'); DELETE FROM ZARNDATA;--", "'quoted'", "it''s"):
                self.run_ok(*self.db, "set", key, value)
                self.assertEqual(self.rows(), {b"k": b"v", key.encode(): value.encode()})
                self.assertEqual(self.run_ok(*self.db, "get", key), value + "\n")
            self.run_ok(*self.db, "rm", key)
            self.assertEqual(self.rows(), {b"k": b"v"})

    def test_wrong_usage(self):
        for arguments in (("db",), self.db, (*self.db, "get"), (*self.db, "set", "k"),
                          (*self.db, "set", "k", "v", "--hex", "00"), (*self.db, "nonsense"),
                          (*self.db, "set", "k", "--hex", "0"), (*self.db, "get", "0g", "--hex-key")):
            self.assertEqual(self.run_tool(*arguments).returncode, 2, arguments)


    def make_utf16(self, encoding, key, value):
        self.path.unlink(missing_ok=True)
        connection = sqlite3.connect(self.path)
        connection.execute(f"PRAGMA encoding='{encoding}'")
        connection.execute("CREATE TABLE ZARNDATA(URL TEXT PRIMARY KEY NOT NULL, VALUE TEXT NOT NULL)")
        connection.execute("INSERT INTO ZARNDATA VALUES(?, ?)", [key, value])
        connection.commit()
        connection.close()

    def test_a_store_in_utf16_is_shown_and_exported_like_any_other(self):
        for encoding in ("UTF-16le", "UTF-16be"):
            self.make_utf16(encoding, "blob", b"a\xff")
            self.run_ok(*self.db, "set", "näme", "nörth €")
            self.assertEqual(self.run_events(*self.db, "ls"), [
                {"event": "entry", "key": "blob", "value": "a\\xff", "size": 2},
                {"event": "entry", "key": "näme", "value": "nörth €", "size": 10}])
            self.assertEqual(self.run_ok(*self.db, "get", "näme"), "nörth €\n")
            self.assertEqual(self.run_ok(*self.db, "export"),
                             '{"key":"blob","value_hex":"61ff"}\n{"key":"näme","value":"nörth €"}\n')

    def test_a_text_that_finds_no_memory_to_be_converted_is_told_and_not_shown_empty(self):
        self.needs_little_memory()
        self.make_utf16("UTF-16le", "k", "x" * (48 << 20))
        for verb in (("get", "k"), ("ls",), ("export",)):
            result = self.fails(1, f"^zarn: '{self.path}': out of memory\n$", *self.db, *verb,
                                preexec_fn=limit_memory)
            self.assertEqual(result.stdout, "")


class Files(Db):
    def test_absent_keys_and_stores_are_failures_and_nothing_is_made(self):
        self.fails(1, "there is no store", *self.db, "get", "k")
        self.fails(1, "there is no store", *self.db, "ls")
        self.assertFalse(self.path.exists())
        self.run_ok(*self.db, "set", "k", "v")
        self.fails(1, "no key 'l'", *self.db, "get", "l")
        self.fails(1, "no key 'l'", *self.db, "rm", "l")

    def test_a_name_that_means_something_else_to_sqlite_is_that_of_a_file(self):
        for name in (":memory:", ":", "file:a.db", "file:b?mode=memory", "file::memory:"):
            self.fails(1, f"^zarn: '{re.escape(name)}': there is no store$", "db", name, "ls", cwd=self.root)
            self.run_ok("db", name, "set", "k", name, cwd=self.root)
            self.assertTrue((self.root / name).is_file(), name)
            self.assertEqual(self.run_ok("db", name, "ls", cwd=self.root), f"k\t{name}\n")
            self.run_ok("db", name, "rm", "k", cwd=self.root)
            self.run_ok("db", name, "import", cwd=self.root, input=ROW.decode())
            self.assertEqual(self.run_ok("db", name, "export", cwd=self.root), ROW.decode())

    def test_a_store_that_was_there_before_is_no_failure_and_what_is_none_is(self):
        self.run_ok(*self.db, "set", "k", "v")
        self.run_ok(*self.db, "set", "l", "v")
        other = self.root / "other"
        other.write_text("no store at all, but long enough to be looked at" * 100)
        for verb in (("set", "k", "v"), ("get", "k"), ("ls",), ("import", os.devnull)):
            self.fails(1, "cannot be opened: file is not a database", "db", str(other), *verb)
        self.fails(1, "cannot be opened", "db", str(self.root), "ls")
        self.fails(1, "cannot be written", "db", str(self.root / "none/x"), "set", "k", "v")

    def test_a_database_without_the_table_gets_it_by_writing(self):
        with sqlite3.connect(self.path) as connection:
            connection.execute("CREATE TABLE other(x)")
        connection.close()
        self.fails(1, "no table ZARNDATA", *self.db, "ls")
        self.run_ok(*self.db, "set", "k", "v")
        self.assertEqual(self.rows(), {b"k": b"v"})

    def test_a_store_that_somebody_writes_is_told(self):
        self.run_ok(*self.db, "set", "k", "v")
        with sqlite3.connect(self.path) as writer:
            writer.execute("BEGIN IMMEDIATE")
            for verb in (("set", "k", "w"), ("rm", "k")):
                self.fails(1, "cannot be written: database is locked", *self.db, *verb)
            self.fails(1, "cannot be written: database is locked\nzarn: 0 rows are stored; run it again",
                       *self.db, "import", "-", input='{"key":"k","value":"w"}\n')
            self.assertEqual(self.run_ok(*self.db, "get", "k"), "v\n")
        writer.close()

    def test_a_store_that_somebody_reads_all_the_while_is_told(self):
        self.run_ok(*self.db, "set", "k", "v")
        self.run_ok(*self.db, "set", "l", "v")
        reader = sqlite3.connect(self.path)
        self.addCleanup(reader.close)
        rows = reader.execute("SELECT * FROM ZARNDATA")
        rows.fetchone()
        told = "cannot be written: no room, or somebody else was reading or writing\n"
        for verb in (("set", "k", "w"), ("rm", "k")):
            self.fails(1, told + "$", *self.db, *verb)
        for lines in ('{"key":"k","value":"w"}\n', '{"key":"k","value":"w"}\nno row\n'):
            result = self.fails(1, told + "zarn: 0 rows are stored; run it again to finish\n$",
                                *self.db, "import", "-", input=lines)
            self.assertNotIn("line 2", result.stderr, "it comes to that when it is run again")
        rows.close()
        self.assertEqual(self.run_ok(*self.db, "ls"), "k\tv\nl\tv\n")

    def not_written(self, reason, *verbs, **options):
        for verb in verbs or (("set", "k", "w"), ("import", "-")):
            self.fails(1, f"^zarn: '{self.path}': cannot be written: {reason}\n", *self.db, *verb,
                       input='{"key":"k","value":"w"}\n', **options)

    def test_a_store_that_may_not_be_written_is_told(self):
        self.run_ok(*self.db, "set", "k", "v")
        verbs = ("set", "k", "w"), ("rm", "k"), ("import", "-")
        self.root.chmod(0o755)
        self.path.chmod(0o444)
        self.not_written("it is read-only", *verbs, **SOMEBODY)
        self.path.chmod(0o666)
        self.root.chmod(0o555)
        self.addCleanup(self.root.chmod, 0o755)
        self.not_written("attempt to write a readonly database", *verbs, **SOMEBODY)  # no place for a journal
        self.assertEqual(self.rows(), {b"k": b"v"})

    def test_a_store_that_takes_no_rows_is_told_with_what_sqlite_says(self):
        for schema, reason in (
                ("CREATE VIEW ZARNDATA AS SELECT 1 AS URL, 2 AS VALUE", "view ZARNDATA already exists"),
                ("CREATE TABLE zarndata(URL, VALUE)", "table ZARNDATA already exists"),
                ("CREATE TABLE ZARNDATA(URL, VALUE AS (URL))", 'cannot INSERT into generated column "VALUE"')):
            self.path.unlink(missing_ok=True)
            connection = sqlite3.connect(self.path)
            connection.execute(schema)
            connection.close()
            self.not_written(reason)

    def test_a_store_whose_index_is_damaged_where_the_key_belongs_is_told(self):
        self.run_ok(*self.db, "import", str(self.make_lines()))
        last = f"zarn://key/{ROWS - 1:06}"
        pages = self.path.read_bytes()
        index_leaf = 10
        (at,) = [at for at in range(0, len(pages), 4096)
                 if pages[at] == index_leaf and last.encode() in pages[at:at + 4096]]
        self.path.write_bytes(pages[:at] + bytes(4096) + pages[at + 4096:])
        self.not_written("database disk image is malformed", ("set", last, "w"))
        self.run_ok(*self.db, "set", "zarn://key/000000", "w")

    def test_a_damaged_store_is_told(self):
        self.run_ok(*self.db, "import", str(self.make_lines()))
        with open(self.path, "r+b") as file:
            half = self.path.stat().st_size // 8192 * 4096
            file.seek(half)
            file.write(b"\xff" * (self.path.stat().st_size - half))
        told = f"^zarn: '{self.path}': database disk image is malformed$"
        last = f"zarn://key/{ROWS - 1:06}"
        out = self.root / "out.jsonl"
        for verb in (("get", last), ("rm", last), ("ls",), ("export",), ("export", str(out))):
            self.fails(1, told, *self.db, *verb)
        self.assertEqual(list(self.root.glob("out*")), [])
        result = self.run_without(">/dev/full", *self.db, "ls")
        self.assertEqual((result.returncode, result.stderr),
                         (1, "zarn: standard output: No space left on device\n"), "it ends before the damage")

    def test_a_journal_that_names_another_file_is_told_and_that_file_stays(self):
        self.run_ok(*self.db, "set", "k", "v")
        victim = self.root / "victim"
        victim.write_text("precious")
        name = os.fsencode(victim)
        (self.root / "store.db-journal").write_bytes(
            bytes(512) + name + struct.pack(">II", len(name), sum(name)) + bytes.fromhex("d9d505f920a163d7"))
        for verb in (("ls",), ("get", "k"), ("export",), ("set", "k", "w"), ("rm", "k"), ("import", os.devnull)):
            self.fails(1, f"^zarn: '{self.path}': cannot be opened: its journal names another file, which SQLite "
                          "would delete$", *self.db, *verb)
            self.assertEqual(victim.read_text(), "precious", verb)

    def test_names_in_a_damaged_store_are_shown_escaped(self):
        connection = sqlite3.connect(self.path)
        connection.execute("CREATE TABLE ZARNDATA(URL, VALUE)")
        connection.execute("PRAGMA writable_schema=ON")
        connection.execute("UPDATE sqlite_master SET sql='CREATE nothing', name=?", ["a\nzarn: b\x1b[31m"])
        connection.commit()
        connection.close()
        for verb in (("ls",), ("set", "k", "v")):
            self.fails(1, r"^zarn: [^\n]*\(a\\nzarn: b\\x1b\[31m\)[^\n]*\n$", *self.db, *verb)

    def test_files_for_values_that_cannot_be_used_are_told(self):
        self.run_ok(*self.db, "set", "k", "v")
        none = str(self.root / "none/x")
        for verb in ("set", "get"):
            self.fails(1, f"^zarn: '{none}': No such file or directory$", *self.db, verb, "k", "--file", none)
            self.fails(1, f"^zarn: '{self.root}': Is a directory$",
                       *self.db, verb, "k", "--file", str(self.root))
        self.assertEqual(self.rows(), {b"k": b"v"})

    def test_a_value_is_not_written_over_the_store_nor_what_belongs_to_it(self):
        self.run_ok(*self.db, "set", "k", "v")
        before = self.path.read_bytes()
        os.link(self.path, self.root / "hard")
        (self.root / "to").symlink_to("store.db")
        (self.root / "wal").symlink_to("store.db-wal")
        for name in ("store.db", "to", "hard", "wal", "store.db-journal", str(self.path)):
            self.fails(1, f"^zarn: '{name}': is the store itself, or belongs to it\n$",
                       *self.db, "get", "k", "--file", name, cwd=self.root)
        self.assertEqual(self.path.read_bytes(), before)
        self.assertFalse((self.root / "store.db-wal").exists())

    def test_a_full_output_is_a_failure(self):
        self.run_ok(*self.db, "set", "k", "v")
        for arguments in (("export",), ("ls",), ("get", "k"), ("get", "k", "--file", "-")):
            with open("/dev/full", "w", encoding="ascii") as full:
                result = subprocess.run([TOOL, *self.db, *arguments], env=self.env, stdout=full,
                                        stderr=subprocess.PIPE, text=True, check=False)
            self.assertEqual(result.returncode, 1, arguments)
            self.assertIn("No space left", result.stderr)


class Transfer(Db):
    def test_export_and_import_keep_every_byte(self):
        odd = b"it''s '; DELETE FROM ZARNDATA;--"
        for number, value in enumerate((b"text", "ümläut €".encode(), b"\xff\xfe", b'"\\\n\x01\x7f', odd)):
            self.run_ok(*self.db, "set", f"k{number}", "--hex", value.hex())
        for key in (b"\xff", b"'\xff'", odd):
            self.run_ok(*self.db, "set", key.hex(), "--hex-key", "v")
        out = self.root / "out.jsonl"
        self.assertEqual(self.run_ok(*self.db, "export", str(out)), "rows written 8\n")
        self.assertEqual(self.run_ok(*self.db, "export"), out.read_text(encoding="utf-8"))
        lines = [json.loads(line) for line in out.read_text(encoding="utf-8").splitlines()]
        self.assertIn({"key": "k0", "value": "text"}, lines)
        self.assertIn({"key": "k2", "value_hex": "fffe"}, lines)
        other = self.root / "other.db"
        self.assertEqual(self.run_ok("db", str(other), "import", str(out)), "rows stored 8\n")
        self.assertEqual(self.run_ok("db", str(other), "export"), out.read_text(encoding="utf-8"))
        expected = self.rows()
        self.path = other
        self.assertEqual(self.rows(), expected)
        self.assertFalse((self.root / "out.jsonl.part").exists())

    def test_lines_that_are_none_stop_the_import_and_what_came_before_is_kept(self):
        for bad in ("nonsense", "[]", '{"key":"k"}', '{"key":"k","value":1}', '{"key":"","value":"v"}',
                    '{"key":"a\\u0000","value":"v"}', '{"key":"k","value":"\\u0000"}',
                    '{"key":"k","value":"v","more":1}', '{"key":"k","value_hex":"0"}', "[" * 5000,
                    '{"key":"k","value":"v"} x', '{"value":"v","more":1}', '{"key":"k","key_hex":"6b"}',
                    '{"key_hex":"6b","more":1}'):
            lines = '{"key":"first","value":"1"}\n\n' + bad + '\n{"key":"last","value":"2"}\n'
            self.path.unlink(missing_ok=True)
            self.fails(2, "line 3: ", *self.db, "import", "-", input=lines)
            self.assertEqual(self.rows(), {b"first": b"1"}, bad)

    def test_the_last_line_needs_no_end(self):
        self.run_ok(*self.db, "import", input='{"key":"k","value":"v"}\n{"key":"l","value":"w"}')
        self.assertEqual(self.rows(), {b"k": b"v", b"l": b"w"})

    def test_large_rows_are_stored_in_several_batches(self):
        large = "x" * (3 << 20)
        lines = "".join(json.dumps({"key": f"k{i}", "value": large}) + "\n" for i in range(5))
        self.fails(2, "line 6: .* 5 rows before it are stored", *self.db, "import", input=lines + "no row\n")
        self.assertEqual(self.rows(), {f"k{i}".encode(): large.encode() for i in range(5)})

    def test_import_ignores_hangups_when_it_was_started_so(self):
        importing = self.start(*self.db, "import", stdin=subprocess.PIPE, preexec_fn=ignore_endings)
        end = time.monotonic() + PATIENCE
        while not self.path.exists():  # it has begun
            self.assertLess(time.monotonic(), end)
            time.sleep(0.005)
        importing.process.send_signal(signal.SIGHUP)
        importing.process.stdin.write(b'{"key":"k","value":"v"}\n')
        importing.process.stdin.close()
        self.assertEqual(importing.process.wait(PATIENCE), 0)
        self.assertEqual(self.rows(), {b"k": b"v"})

    def test_a_reader_that_goes_away_ends_an_export_without_a_word(self):
        self.run_ok(*self.db, "import", str(self.make_lines()))
        with subprocess.Popen([TOOL, *self.db, "export"], env=self.env, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as process:
            process.stdout.readline()
            process.stdout.close()
            self.assertEqual(process.stderr.read(), b"")
            self.assertEqual(process.wait(PATIENCE), 1)

    def test_import_of_nothing_makes_an_empty_store(self):
        self.assertEqual(self.run_events(*self.db, "import", "-", input=""),
                         [{"event": "summary", "rows": 0, "complete": True}])
        self.assertEqual(self.rows(), {})
        self.fails(1, "No such file", *self.db, "import", str(self.root / "none"))

    def test_an_input_that_ends_in_an_error_is_told_and_what_came_before_is_kept(self):
        self.fails(1, f"^zarn: '{self.root}': Is a directory\n$", *self.db, "import", str(self.root))
        result = self.run_without("<&-", *self.db, "import")
        self.assertEqual((result.returncode, result.stderr), (1, "zarn: '-': Bad file descriptor\n"))
        for cut in (b"", b'{"key":"l","val', b'{"key":"l","value":"w"}'):
            leader, follower = pty.openpty()
            tty.setraw(follower)
            importing = self.start(*self.db, "import", "--json", stdin=leader)
            os.close(leader)
            os.write(follower, ROW + cut)
            os.close(follower)  # which the other end reads as an error
            self.assertEqual(importing.event("summary"), {"event": "summary", "rows": 1, "complete": False})
            self.assertEqual(importing.process.wait(PATIENCE), 1)
            self.assertEqual(importing.errors(), "zarn: '-': Input/output error")
            self.assertEqual(self.rows(), {b"k": b"v"})

    def test_a_line_too_long_for_the_memory_is_told_and_is_not_taken_for_the_end(self):
        self.needs_little_memory()
        huge = self.make_huge(ROW + b'{"key":"huge","value":"')
        result = self.fails(1, f"^zarn: '{huge}': Cannot allocate memory\n$", *self.db, "import", huge, "--json",
                            preexec_fn=limit_memory)
        self.assertEqual(json.loads(result.stdout), {"event": "summary", "rows": 1, "complete": False})
        self.assertEqual(self.rows(), {b"k": b"v"})

    def test_what_only_looks_like_utf8_is_exported_as_hex(self):
        texts = ("f48fbfbf", "ee8080", "ed9fbf", "f0908080", "e0a080", "c280")
        others = ("f4908080", "eda080", "edbfbf", "f08fbfbf", "e09fbf", "c1bf", "c2", "80", "f5808080")
        rows = "".join(json.dumps({"key": value, "value_hex": value}) + "\n" for value in texts + others)
        self.run_ok(*self.db, "import", input=rows)
        for exported in self.run_ok(*self.db, "export").splitlines():
            row = json.loads(exported)
            if row["key"] in texts:
                self.assertEqual(row["value"].encode().hex(), row["key"])
            else:
                self.assertEqual(row["value_hex"], row["key"])

    def test_export_to_where_no_file_can_be_is_a_failure_and_leaves_nothing(self):
        self.run_ok(*self.db, "set", "k", "v")
        self.fails(1, "none/out.part': No such file", *self.db, "export", str(self.root / "none/out"))
        place = self.root / "place"
        place.mkdir()
        self.fails(1, f"^zarn: '{place}': Is a directory$", *self.db, "export", str(place))
        self.assertEqual(self.run_events(*self.db, "export", str(place), code=1),
                         [{"event": "summary", "rows": 0, "complete": False}])
        self.assertEqual(list(self.root.glob("*.part")), [])

    def test_an_export_to_what_is_no_plain_file_is_written_to_it(self):
        self.run_ok(*self.db, "set", "k", "v")
        fifo = self.root / "fifo"
        os.mkfifo(fifo)
        reader = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        self.assertEqual(self.run_ok(*self.db, "export", str(fifo)), "rows written 1\n")
        self.assertEqual(os.read(reader, 4096), ROW)
        self.assertTrue(fifo.is_fifo())
        leader, follower = pty.openpty()
        self.addCleanup(os.close, leader)
        self.addCleanup(os.close, follower)
        tty.setraw(follower)
        device = self.root / "device"
        device.symlink_to(os.ttyname(follower))
        self.run_ok(*self.db, "export", str(device))
        self.assertEqual(os.read(leader, 4096), ROW)
        full = self.root / "full"
        full.symlink_to("/dev/full")
        self.fails(1, f"^zarn: '{full}': No space left on device$", *self.db, "export", str(full))
        self.assertTrue(full.is_char_device())

    def test_an_export_to_the_file_of_standard_output_goes_there(self):
        self.run_ok(*self.db, "set", "k", "v")
        for name in ("/dev/fd/1", "/dev/stdout"):
            self.assertEqual(self.run_ok(*self.db, "export", name).encode(), ROW)
            out = self.root / "out"
            out.write_text("before\n")
            with open(out, "ab") as stdout:
                subprocess.run([TOOL, *self.db, "export", name], env=self.env, stdout=stdout, check=True,
                               timeout=PATIENCE)
            self.assertEqual(out.read_bytes(), b"before\n" + ROW)

    def test_an_export_to_an_open_file_without_a_name_is_written_to_it(self):
        self.run_ok(*self.db, "set", "k", "v")
        with tempfile.TemporaryFile(dir=self.root) as file:
            self.run_ok(*self.db, "export", f"/dev/fd/{file.fileno()}", pass_fds=[file.fileno()])
            self.assertEqual(file.read(), ROW)

    def test_an_export_to_a_link_replaces_what_the_link_leads_to(self):
        self.run_ok(*self.db, "set", "k", "v")
        (self.root / "far").mkdir()
        (self.root / "near").symlink_to("far/link")
        (self.root / "far/link").symlink_to("target")
        for _ in range(2):  # the first time there is no target yet
            self.run_ok(*self.db, "export", str(self.root / "near"))
            self.assertEqual((self.root / "far/target").read_bytes(), ROW)
            self.assertTrue((self.root / "near").is_symlink())
            self.assertTrue((self.root / "far/link").is_symlink())
            (self.root / "far/target").write_text("before")
        round_ = self.root / "round"
        round_.symlink_to("round")
        self.fails(1, f"^zarn: '{round_}': Too many levels", *self.db, "export", str(round_))

    def test_an_export_keeps_the_mode_of_the_file_that_it_replaces(self):
        self.run_ok(*self.db, "set", "k", "v")
        out = self.root / "out"
        previous = os.umask(0o027)
        self.addCleanup(os.umask, previous)
        self.run_ok(*self.db, "export", str(out))
        self.assertEqual(out.stat().st_mode & 0o7777, 0o640)
        for mode in (0o600, 0o666):
            out.chmod(mode)
            self.run_ok(*self.db, "export", str(out))
            self.assertEqual(out.stat().st_mode & 0o7777, mode)

    @unittest.skipUnless(os.geteuid() == 0, "only root can give files away")
    def test_an_export_of_root_keeps_the_owner_of_the_file_that_it_replaces(self):
        self.run_ok(*self.db, "set", "k", "v")
        out = self.root / "out"
        out.touch()
        os.chown(out, 65534, 65533)
        self.run_ok(*self.db, "export", str(out))
        self.assertEqual((out.stat().st_uid, out.stat().st_gid), (65534, 65533))

    @unittest.skipUnless(os.geteuid() == 0, "only root can become somebody else")
    def test_an_export_opens_a_file_to_no_group_that_could_not_read_it_before(self):
        self.run_ok(*self.db, "set", "k", "v")
        self.root.chmod(0o777)
        self.path.chmod(0o666)
        out = self.root / "out"
        for own, group, mode in ((65533, 65533, 0o664), (65532, 65532, 0o604)):
            out.unlink(missing_ok=True)
            out.touch()
            os.chown(out, 1, 65533)
            out.chmod(0o664)
            self.run_ok(*self.db, "export", str(out), user=65534, group=65532, extra_groups=[own])
            status = out.stat()
            self.assertEqual((status.st_uid, status.st_gid, status.st_mode & 0o7777), (65534, group, mode))

    def test_an_export_does_not_replace_the_store_nor_what_belongs_to_it(self):
        (self.root / "far").mkdir()
        (self.root / "near.db").symlink_to("far/store.db")
        (self.root / "away").symlink_to("far")
        (self.root / "to").symlink_to("away/store.db")
        store = self.root / "far/store.db"
        self.run_ok("db", str(store), "set", "k", "v")
        os.link(store, self.root / "hard")
        before = sorted(os.listdir(self.root)), os.listdir(self.root / "far")
        for name in (str(store), "store.db", str(self.root / "to"), "../away/store.db", "../hard",
                     "store.db-journal", str(self.root / "away/store.db-wal"), "store.db-shm"):
            for path in ("store.db", str(self.root / "near.db")):
                self.fails(1, "is the store itself, or belongs to it\n$", "db", path, "export", name,
                           cwd=self.root / "far")
        self.assertEqual((sorted(os.listdir(self.root)), os.listdir(self.root / "far")), before)
        self.assertEqual(self.run_ok("db", str(store), "ls"), "k\tv\n")
        self.assertEqual(self.run_ok("db", str(store), "export", "../store.db", cwd=store.parent), "rows written 1\n")

    def test_an_export_beside_a_store_with_the_name_of_its_part_file_is_refused(self):
        store = self.root / "out.part"
        self.run_ok("db", str(store), "set", "k", "v")
        self.fails(1, f"^zarn: '{store}': is the store itself", "db", str(store), "export", str(self.root / "out"))
        self.assertEqual(self.run_ok("db", str(store), "ls"), "k\tv\n")

    def test_a_link_at_the_part_file_is_replaced_and_not_followed(self):
        self.run_ok(*self.db, "set", "k", "v")
        victim = self.root / "victim"
        victim.write_text("mine")
        out = self.root / "out"
        (self.root / "out.part").symlink_to(victim)
        self.run_ok(*self.db, "export", str(out))
        self.assertEqual((victim.read_text(), out.read_bytes()), ("mine", ROW))
        self.assertFalse(out.is_symlink())
        (self.root / "out.part").mkdir()
        self.fails(1, "out.part': File exists$", *self.db, "export", str(out))

    def start_export(self, out):
        """An export that is stopped while it writes its part file."""
        part = out.with_suffix(".part")
        while True:
            exporting = self.start(*self.db, "export", str(out))
            while exporting.process.poll() is None:
                with contextlib.suppress(FileNotFoundError):  # not yet, or it was done before it was stopped
                    if part.stat().st_size == 0:
                        continue
                    exporting.process.send_signal(signal.SIGSTOP)
                    os.waitid(os.P_PID, exporting.process.pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT)
                    part.stat()
                    return exporting

    def test_of_two_exports_to_the_same_file_the_later_is_refused(self):
        self.run_ok(*self.db, "import", input="".join(
            json.dumps({"key": f"k{i}", "value": "x" * (1 << 20)}) + "\n" for i in range(20)))
        whole = self.run_ok(*self.db, "export")
        out = self.root / "out"
        first = self.start_export(out)
        refused = self.fails(1, f"^zarn: '{out}.part': another export is writing it\n$", *self.db, "export",
                             str(out), "--json")
        self.assertEqual(json.loads(refused.stdout), {"event": "summary", "rows": 0, "complete": False})
        self.assertFalse(out.exists())
        first.process.send_signal(signal.SIGCONT)
        self.assertEqual((first.process.wait(PATIENCE), first.errors()), (0, ""))
        self.assertEqual(out.read_text(encoding="utf-8"), whole)
        out.write_text("before", encoding="utf-8")
        self.start_export(out).end(signal.SIGKILL)
        self.run_ok(*self.db, "export", str(out))  # what was killed holds nobody up
        self.assertEqual(out.read_text(encoding="utf-8"), whole)
        self.assertEqual(list(self.root.glob("*.part")), [])

    def test_import_interrupted_at_any_moment_and_run_again_ends_with_the_same_content(self):
        lines = self.make_lines()
        self.run_ok("db", str(self.root / "whole.db"), "import", str(lines))
        for how in (signal.SIGINT, signal.SIGKILL, signal.SIGTERM):
            for attempt in range(2):
                self.path.unlink(missing_ok=True)
                process = subprocess.Popen([TOOL, *self.db, "import", str(lines)], env=self.env,
                                           stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
                time.sleep(0.01 + random.random() * 0.03 * (attempt + 1))
                process.send_signal(how)
                errors = process.communicate(timeout=PATIENCE)[1]
                if how != signal.SIGKILL and process.returncode == 1:
                    self.assertIn(b"run it again", errors)
                self.assertEqual(self.run_ok(*self.db, "import", str(lines)), f"rows stored {ROWS}\n")
                exported = self.run_ok(*self.db, "export")
                self.assertEqual(exported, self.run_ok("db", str(self.root / "whole.db"), "export"))

    def test_import_interrupted_while_it_waits_for_input_keeps_what_it_has(self):
        self.run_ok(*self.db, "import", os.devnull)
        process = self.start(*self.db, "import", "-", stdin=subprocess.PIPE)
        process.process.stdin.write(b'{"key":"k","value":"v"}\n')
        process.process.stdin.flush()
        deadline = time.monotonic() + PATIENCE
        while not (self.root / "store.db-journal").exists():  # it has begun to write
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.005)
        self.assertEqual(process.end(), 1)
        self.assertIn("interrupted after 1 rows", process.errors())
        self.assertEqual(self.rows(), {b"k": b"v"})

    def test_import_interrupted_while_it_waits_for_the_writer_of_a_pipe_has_failed(self):
        fifo = self.root / "fifo"
        os.mkfifo(fifo)
        for how in (signal.SIGINT, signal.SIGTERM):
            importing = self.start(*self.db, "import", str(fifo))
            importing.wait_asleep()
            self.assertEqual((importing.end(how), importing.errors()), (1, f"zarn: '{fifo}': Interrupted system call"))

    def test_export_interrupted_leaves_the_file_that_was_there(self):
        self.run_ok(*self.db, "import", str(self.make_lines()))
        out = self.root / "out.jsonl"
        self.run_ok(*self.db, "export", str(out))
        expected = out.read_text(encoding="utf-8")
        for how in (signal.SIGINT, signal.SIGKILL):
            for _ in range(3):
                out.write_text("before", encoding="utf-8")
                process = subprocess.Popen([TOOL, *self.db, "export", str(out)], env=self.env,
                                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                time.sleep(random.random() * 0.15)
                process.send_signal(how)
                process.wait(PATIENCE)
                self.assertIn(out.read_text(encoding="utf-8"), ("before", expected))
                self.run_ok(*self.db, "export", str(out))
                self.assertEqual(out.read_text(encoding="utf-8"), expected)

    def test_progress_is_drawn_on_a_terminal_and_nowhere_else(self):
        lines = self.make_lines()
        self.assertEqual(self.run_tool(*self.db, "import", str(lines)).stderr, "")
        leader, follower = pty.openpty()
        with os.fdopen(leader, "rb", buffering=0) as terminal:
            process = subprocess.Popen([TOOL, *self.db, "import", str(lines)], env=self.env,
                                       stdout=subprocess.DEVNULL, stderr=follower)
            os.close(follower)
            shown = b""
            try:
                while part := terminal.read(65536):
                    shown += part
            except OSError:  # the terminal's way to say that it has ended
                pass
            self.assertEqual(process.wait(PATIENCE), 0)
        self.assertRegex(shown, rb"\[#+-+\] .* rows")


if __name__ == "__main__":
    unittest.main()
