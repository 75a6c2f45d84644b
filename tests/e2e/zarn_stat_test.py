"""zarn stat: servers that show their metrics, and processes that answer nonsense or not at all."""

import contextlib
import errno
import fcntl
import json
import os
import queue
import re
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

from zarn_tool import PATIENCE, TOOL, ToolTest, frame, ignore_endings, read_frame, send_twice


class Stat(ToolTest):
    def setUp(self):
        super().setUp()
        self.stat = self.root / "system/zarn/stat"

    def streams(self, *arguments, code=0):
        return [event for event in self.run_events("stat", *arguments, code=code)
                if event["event"] == "stream"]

    def echo(self, count=1):
        """A server, and a client that stays, after so many messages there and back."""
        server = self.serve("--echo")
        client = self.connect()
        for tag in range(count):
            client.sendall(frame(7, tag, b"hello"))
            self.assertEqual(read_frame(client), (7, tag, b"hello"))
        return server, client

    def pretend(self, answer):
        """A listener at our own number's place; each who connects gets what `answer(socket)` sends."""
        self.stat.mkdir(mode=0o700, parents=True)
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(str(self.stat / str(os.getpid())))
        listener.listen()

        def run():
            while True:
                try:
                    connection = listener.accept()[0]
                except OSError:
                    return
                with connection:
                    try:
                        answer(connection)
                    except OSError:
                        pass

        thread = threading.Thread(target=run)
        thread.start()

        def end():
            listener.shutdown(socket.SHUT_RDWR)
            thread.join()
            listener.close()

        self.addCleanup(end)

    # --- what is shown ---

    def test_nobody_shows_anything(self):
        self.assertEqual(self.run_events("stat"), [])
        result = self.run_tool("stat")
        self.assertEqual((result.returncode, result.stdout),
                         (0, f"no process shows its metrics in '{self.stat}': those that call ZARNEnableMetrics do\n"))
        self.assertFalse(self.stat.exists(), "looking makes nothing")

    def test_a_server_is_shown_with_what_its_clients_did(self):
        server, _ = self.echo(3)
        pid = server.process.pid
        process, stream = self.run_events("stat")
        self.assertEqual(process, {"event": "process", "pid": pid, "program": "zarn", "complete": True,
                                   "omitted": 0, "streams": 1})
        expected = {"pid": pid, "transport": "ipc", "role": "accepted", "local": "1_2", "peer": "",
                    "connected": True, "messages_sent": 3, "messages_received": 3, "bytes_sent": 51,
                    "bytes_received": 51, "connects": 1, "malformed_frames": 0, "send_queue_bytes": 0,
                    "connection_bytes_sent": 51, "connection_bytes_received": 51,
                    "connection_partial_sends": 0, "last_reason": 0}
        self.assertEqual({name: stream[name] for name in expected}, expected)

    def test_a_process_is_named_by_its_number_or_by_its_endpoint(self):
        server, _ = self.echo()
        other = self.serve(url="ipc://5_6")
        both = {event["pid"] for event in self.run_events("stat", "all") if event["event"] == "process"}
        self.assertEqual(both, {server.process.pid, other.process.pid})
        for target in (str(server.process.pid), "1_2"):
            self.assertEqual({event["pid"] for event in self.run_events("stat", target)},
                             {server.process.pid})

    def test_all_who_serve_an_endpoint_are_shown(self):
        servers = [self.serve(url="ipc://1_2"), self.serve(url="shm://1_2")]
        self.assertEqual({event["pid"] for event in self.run_events("stat", "1_2")},
                         {server.process.pid for server in servers})

    def test_a_malformed_frame_is_shown(self):
        _, client = self.echo()
        client.sendall(b"\0" * 12)
        self.wait_until(lambda: self.streams()[0]["malformed_frames"] == 1)

    def test_a_peer_that_does_not_read_is_seen_in_the_queue(self):
        _, client = self.echo()
        client.setblocking(False)
        data = frame(1, 1, bytes(60000)) * 40
        sent = 0
        end = time.monotonic() + PATIENCE
        while sent < len(data) and time.monotonic() < end:
            try:
                sent += client.send(data[sent:])
            except BlockingIOError:
                time.sleep(0.001)
        self.wait_until(lambda: self.streams()[0]["messages_received"] == 41)
        stream = self.streams()[0]
        self.assertGreater(stream["send_queue_bytes"], 1000000)
        self.assertGreaterEqual(stream["send_queue_high_bytes"], stream["send_queue_bytes"])
        self.assertGreater(stream["connection_partial_sends"], 0)

    def test_the_other_transports_are_shown_too(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        tcp = self.serve(url=f"tcp://127.0.0.1:{port}")
        shm = self.serve("--echo", url="shm://3_4")
        with socket.create_connection(("127.0.0.1", port)) as client:
            client.sendall(frame(1, 2, b"x"))
            tcp.event("message")
            own = client.getsockname()
            stream = self.streams(str(tcp.process.pid))[0]
        self.assertEqual((stream["transport"], stream["local"], stream["peer"]),
                         ("tcp", f"127.0.0.1:{port}", f"127.0.0.1:{own[1]}"))
        client = self.start("ping", "shm://3_4", "--as", "7_8", "--json", "-i", "0.01")
        client.event("reply")
        stream = self.streams("3_4")[0]
        self.assertEqual((stream["transport"], stream["local"], stream["peer"]), ("shm", "3_4", "7_8"))
        self.assertEqual(client.end(), 0)
        self.assertEqual(shm.end(), 0)

    def test_messages_over_pseudo_tcp_are_counted_one_by_one(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            url = f"ptcp://127.0.0.1:{probe.getsockname()[1]}"
        server = self.serve(url=url)
        client = self.start("send", url, "-", stdin=subprocess.PIPE)
        client.process.stdin.write(b"line\n" * 1000)
        client.process.stdin.flush()
        for _ in range(1000):
            server.event("message")
        self.assertEqual(self.streams(str(server.process.pid))[0]["messages_received"], 1000)

    def test_table(self):
        server, _ = self.echo(2)
        lines = self.run_tool("stat").stdout.splitlines()
        self.assertEqual(lines[0].split()[:4], ["PID", "STREAM", "SENT", "BYTES"])
        self.assertEqual(lines[1].split(), [str(server.process.pid), "zarn:", "1", "streams"])
        self.assertEqual(lines[2].split(), [str(server.process.pid), "ipc", "1_2", "<-", "-", "2", "34",
                                            "2", "34", "0", "0", "1", "0", "0", "connected"])

    def test_streams_that_are_not_connected_say_why(self):
        server, _ = self.echo()
        stream = self.streams()[0] | {"role": "client", "connected": False, "peer": "5_6\x1b"}
        self.assertEqual(server.end(), 0)
        self.stat.rmdir()
        states = {"connecting": {"connects": 0, "connect_failures": 0, "last_reason": 0},
                  "closed": {"connects": 1, "connect_failures": 0, "last_reason": 0},
                  "Connection refused": {"connects": 0, "connect_failures": 3,
                                         "last_reason": errno.ECONNREFUSED}}
        answers = [{"format": 1, "complete": False, "omitted": 7, "streams": len(states)},
                   *(stream | state for state in states.values())]
        wire = "".join(json.dumps(each) + "\n" for each in answers).encode()
        self.pretend(lambda connection: connection.sendall(wire))
        result = self.run_tool("stat")
        lines = result.stdout.splitlines()
        self.assertEqual((result.returncode, len(lines)), (0, 5), result.stderr)
        self.assertIn("10 streams, 7 not shown, one of its threads does not answer", lines[1])
        for line, state in zip(lines[2:], states):
            self.assertRegex(line, rf"ipc 1_2 -> 5_6\\x1b .* {state}$")

    def test_prometheus(self):
        server, _ = self.echo(2)
        text = self.run_tool("stat", "--prometheus").stdout
        types = dict(re.findall(r"^# TYPE (\w+) (\w+)$", text, re.M))
        helps = dict(re.findall(r"^# HELP (\w+) (.+)$", text, re.M))
        self.assertEqual(types.keys(), helps.keys())
        seen = set()
        for line in text.splitlines():
            if line.startswith("#"):
                continue
            name, labels, value = re.fullmatch(r'(\w+)\{(.*)\} (-?\d+)', line).groups()
            self.assertEqual(types[name], "counter" if name.endswith("_total") else "gauge")
            self.assertRegex(labels, rf'^pid="{server.process.pid}",program="zarn"')
            self.assertNotIn((name, labels), seen)
            seen.add((name, labels))
            if name == "zarn_stream_messages_sent_total":
                self.assertEqual(value, "2")
        self.assertEqual({name for name, _ in seen}, types.keys())

    def test_watch_shows_it_again_until_it_is_interrupted_or_the_one_asked_for_is_gone(self):
        server, client = self.echo()
        watch = self.start("stat", "1_2", "--json", "--watch", "0.2")
        self.assertEqual(watch.event("stream")["messages_received"], 1)
        client.sendall(frame(1, 1, b"more"))
        read_frame(client)
        while watch.event("stream")["messages_received"] != 2:
            pass
        self.assertEqual(watch.end(), 0)
        watch = self.start("stat", "1_2", "--json", "--watch", "0.2")
        watch.event("stream")
        server.end()
        self.assertEqual(watch.process.wait(PATIENCE), 3)

    def test_watch_ignores_hangups_and_nothing_else_when_it_was_started_so(self):
        _, client = self.echo()
        for received, ending in enumerate((signal.SIGINT, signal.SIGTERM), 2):
            watch = self.start("stat", "--json", "--watch", "0.05", preexec_fn=ignore_endings)
            watch.event("stream")
            watch.process.send_signal(signal.SIGHUP)
            client.sendall(frame(1, 1, b"more"))
            while watch.event("stream")["messages_received"] != received:
                pass
            self.assertEqual(watch.end(ending), 0)

    def test_a_signal_that_is_sent_twice_at_once_ends_the_watch_as_one_does(self):
        self.echo()
        watch = self.start("stat", "--json", "--watch", "1000")
        watch.event("stream")
        send_twice(watch.process, watch.process.pid, signal.SIGTERM)
        self.assertEqual(watch.process.wait(PATIENCE), 0)

    def test_watch_ends_when_its_output_cannot_be_written(self):
        self.echo()
        for options in ([], ["--json"]):
            result = self.run_without(">/dev/full", "stat", "--watch", "0.05", *options)
            self.assertEqual((result.returncode, result.stderr),
                             (1, "zarn: standard output: No space left on device\n"))

    def test_watch_ends_when_nobody_reads_it_even_with_nothing_to_tell(self):
        for options in ([], ["--json"]):
            reading, writing = os.pipe()
            watch = subprocess.Popen([TOOL, "stat", "--watch", "1000", *options], env=self.env,
                                     stdout=writing)
            self.addCleanup(watch.wait)
            self.addCleanup(watch.kill)
            os.close(writing)
            os.close(reading)
            self.assertEqual(watch.wait(PATIENCE), 1)

    def test_the_file_is_private_and_goes_with_the_process(self):
        server, _ = self.echo()
        path = self.stat / str(server.process.pid)
        self.assertEqual(path.stat().st_mode & 0o777, 0o600)
        self.assertEqual(server.end(), 0)
        self.assertEqual(os.listdir(self.stat), [])

    def test_what_a_killed_process_left_is_passed_over_and_cleaned(self):
        server, _ = self.echo()
        server.end(signal.SIGKILL)
        self.assertEqual(self.run_events("stat"), [])
        self.assertEqual(os.listdir(self.stat), [str(server.process.pid)])
        (self.stat / "other").write_text("")
        self.assertEqual(self.run_events("stat", "--clean"), [])
        self.assertEqual(os.listdir(self.stat), ["other"])

    def test_a_server_whose_place_is_taken_serves_all_the_same(self):
        self.stat.parent.mkdir(mode=0o700, parents=True)
        self.stat.write_text("")
        server, _ = self.echo()
        self.assertIn("zarn stat will not see this server", server.line("stderr"))

    # --- those who ask must not harm the process ---

    def test_readers_that_do_not_read_hold_nothing_up(self):
        server, client = self.echo()
        path = str(self.stat / str(server.process.pid))
        idle = []
        for _ in range(200):
            reader = socket.socket(socket.AF_UNIX)
            self.addCleanup(reader.close)
            reader.connect(path)
            idle.append(reader)
        client.sendall(frame(7, 9, b"still there?"))
        self.assertEqual(read_frame(client), (7, 9, b"still there?"))
        # Turned away at first, the tool asks again.
        self.assertEqual(len(self.streams("--timeout", "20")), 1)
        for reader in idle:
            reader.settimeout(PATIENCE)
            while reader.recv(65536):
                pass

    def test_many_who_come_and_go_leave_nothing_behind(self):
        server, _ = self.echo()
        path = str(self.stat / str(server.process.pid))
        fds = f"/proc/{server.process.pid}/fd"
        before = len(os.listdir(fds))
        for _ in range(300):
            with socket.socket(socket.AF_UNIX) as reader:
                reader.connect(path)
                with contextlib.suppress(BrokenPipeError):  # turned away already
                    reader.send(b"nonsense")
        self.wait_until(lambda: len(os.listdir(fds)) == before)

    # --- those who answer must not harm the tool ---

    def test_nonsense_is_a_failure(self):
        answers = [b"x", b"{}\n", b'{"format":1}\n', b"\0" * 1000, b"[" * 100000 + b"\n"]
        self.pretend(lambda connection: connection.sendall(answers[0]))
        while answers:
            result = self.run_tool("stat")
            self.assertEqual(result.returncode, 1)
            self.assertIn(f"process {os.getpid()}: its answer is not good", result.stderr)
            self.assertEqual(self.run_tool("stat", str(os.getpid())).returncode, 1)
            answers.pop(0)

    def test_an_endless_answer_is_cut(self):
        def answer(connection):
            while True:
                connection.sendall(b" " * 65536)

        self.pretend(answer)
        result = self.run_tool("stat", "--timeout", "30")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, "its answer is too long|does not answer")

    def test_one_who_never_ends_his_answer_costs_the_timeout(self):
        done = threading.Event()

        def answer(connection):
            while not done.wait(0.05):
                connection.sendall(b" ")

        self.pretend(answer)
        self.addCleanup(done.set)
        result = self.run_tool("stat", str(os.getpid()), "--timeout", "0.5")
        self.assertEqual(result.returncode, 3)
        self.assertIn("does not answer", result.stderr)

    def test_one_who_turns_us_away_is_asked_until_the_timeout(self):
        asked = []
        self.pretend(asked.append)
        result = self.run_tool("stat", str(os.getpid()), "--timeout", "0.5")
        self.assertEqual(result.returncode, 3)
        self.assertRegex(result.stderr, "turns us away|does not answer")
        self.assertGreater(len(asked), 1)

    def assert_interrupted(self, answer):
        with open(TOOL, "rb") as program:
            if b"__tsan_init" in program.read():
                self.skipTest("the thread sanitizer may lose a signal that comes while its own code runs")
        askers = queue.Queue()

        def tell(connection):
            credentials = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
            askers.put(int.from_bytes(credentials[:4], sys.byteorder))
            answer(connection)

        self.pretend(tell)
        for target in ("all", str(os.getpid())):
            stat = self.start("stat", target, "--timeout", "0")
            while askers.get(timeout=PATIENCE) != stat.process.pid:
                pass  # one of before, who asked again while it ended
            self.assertEqual(stat.end(), 1)
            self.assertEqual(stat.errors(), "zarn: interrupted")

    def test_asking_one_who_turns_us_away_can_be_interrupted(self):
        self.assert_interrupted(lambda connection: None)

    def test_asking_one_who_does_not_answer_can_be_interrupted(self):
        self.assert_interrupted(lambda connection: connection.recv(1))

    def test_one_bad_process_does_not_hide_the_others(self):
        server, _ = self.echo()
        self.stat.rename(self.root / "kept")
        self.pretend(lambda connection: connection.sendall(b"x"))
        (self.root / "kept" / str(server.process.pid)).rename(self.stat / str(server.process.pid))
        result = self.run_tool("stat", "--json")
        self.assertEqual(result.returncode, 1)
        self.assertIn(f'"pid":{server.process.pid}', result.stdout)

    # --- exit codes ---

    def test_a_directory_that_is_none_or_is_in_use_is_a_failure(self):
        self.stat.parent.mkdir(mode=0o700, parents=True)
        self.stat.write_text("")
        result = self.run_tool("stat")
        self.assertEqual((result.returncode, result.stderr), (1, f"zarn: '{self.stat}': Not a directory\n"))
        self.stat.unlink()
        self.stat.mkdir(mode=0o700)
        with socket.socket(socket.AF_UNIX) as left:
            left.bind(str(self.stat / "4711"))
        locked = os.open(self.stat, os.O_RDONLY)
        self.addCleanup(os.close, locked)
        fcntl.flock(locked, fcntl.LOCK_EX)
        result = self.run_tool("stat", "--clean")
        self.assertEqual((result.returncode, result.stderr),
                         (1, f"zarn: '{self.stat}': Device or resource busy\n"))
        self.assertEqual(os.listdir(self.stat), ["4711"])

    def test_a_process_that_is_not_there_is_told_from_one_that_shows_nothing(self):
        gone = subprocess.Popen(["true"])
        gone.wait()
        for process, why in ((gone.pid, "there is no such process"),
                             (os.getpid(), "it does not show its metrics (it must call ZARNEnableMetrics)")):
            result = self.run_tool("stat", str(process))
            self.assertEqual((result.returncode, result.stdout, result.stderr),
                             (3, "", f"zarn: process {process}: {why}\n"))

    def test_one_who_cannot_be_reached_is_3_and_nonsense_is_2(self):
        for target in ("1", "1_2"):
            self.assertEqual(self.run_tool("stat", target).returncode, 3)
        for arguments in (["0"], ["-1"], ["01"], ["x"], ["1_"], ["99999999999"], ["--watch", "0"],
                          ["--json", "--prometheus"], ["--watch", "1", "--prometheus"], ["1", "2"]):
            self.assertEqual(self.run_tool("stat", *arguments).returncode, 2, arguments)

    def test_without_a_root_it_fails(self):
        env = dict(self.env)
        del env["ZARN_ROOT"]
        self.assertEqual(self.run_tool("stat", env=env).returncode, 1)


if __name__ == "__main__":
    unittest.main()
