"""RESTful clients of one process: dropped, restarted and destroyed at all times."""

import threading
import unittest

from http_servers import ScriptServer, answer, send
from programs import ProgramTest

ETIME = 62


class RestfulClients(ProgramTest):
    def serve(self, handle):
        server = ScriptServer(handle)
        self.addCleanup(server.stop)
        return server

    def test_second_request_drops_the_first(self):
        release = threading.Event()
        asked = threading.Event()

        def handle(connection, request):
            if request.target.endswith("first"):
                asked.set()
                release.wait(20)
            connection.sendall(answer(request.target.encode()))

        server = self.serve(handle)
        self.addCleanup(release.set)
        client = self.start("rest_peer")
        for second in range(2, 6):
            client.tell(f"get 1 {server.url('/first')}")
            self.assertTrue(asked.wait(20))
            client.tell(f"get {second} {server.url('/second')}")
            self.assertEqual(client.wait("answer")["id"], second)
            release.set()
            client.tell(f"fresh 9 {server.url('/second')}")
            self.assertEqual(client.wait("answer")["id"], 9)  # and none of the first
            release.clear()
            asked.clear()

    def test_request_may_be_dropped_at_any_time(self):
        server = self.serve(lambda connection, _: server.wait_stopped(60))
        client = self.start("rest_peer")
        client.tell(f"get 1 {server.url()}")
        client.tell("drop")
        client.wait("dropped")
        other = self.serve(send(answer(b"hello")))
        client.tell(f"get 2 {other.url()}")
        self.assertEqual(client.wait("answer")["id"], 2)

    def test_clients_are_destroyed_inside_their_callbacks(self):
        server = self.serve(send(answer(b"hello")))
        client = self.start("rest_peer")
        for number in range(50):
            client.tell(f"fresh {number} {server.url()}")
        seen = {client.wait("answer", result=200, bytes=5)["id"] for _ in range(50)}
        self.assertEqual(seen, set(range(50)))

    def test_many_names_and_refusals_at_once_are_all_told(self):
        client = self.start("rest_peer")
        for number in range(200):
            host = "localhost" if number % 2 else "127.0.0.1"
            client.tell(f"fresh {number} http://{host}:1/zarn/tcpchannel")
        for _ in range(200):
            self.assertIn(client.wait("answer")["result"], (-111, -11))

    def test_time_limits_are_those_of_the_manager(self):
        server = self.serve(lambda connection, _: server.wait_stopped(60))
        client = self.start("rest_peer")
        client.tell("limit 200")
        client.tell(f"fresh 1 {server.url()}")
        client.wait("answer", id=1, result=-ETIME, bytes=0)

    def test_process_ends_with_a_request_under_way(self):
        server = self.serve(lambda connection, _: server.wait_stopped(60))
        client = self.start("rest_peer")
        client.tell(f"get 1 {server.url()}")
        client.tell(f"fresh 2 {server.url()}")
        self.assertEqual(client.end(), 0)


if __name__ == "__main__":
    unittest.main()
