"""Two thousand clients of one server: what an idle one costs in memory, and that all are served."""

import unittest

from programs import ProgramTest, raise_descriptor_limit

CLIENTS = 2000
MOST_BYTES = 16 * 1024  # for each idle client


class ManyClients(ProgramTest):
    def setUp(self):
        super().setUp()
        raise_descriptor_limit(CLIENTS + 100)
        self.server = self.start_server("echo")

    def test_idle_clients_cost_little_also_after_a_busy_time(self):
        self.assert_echoes(self.connect(), b"w" * 60000)
        before = self.server.private_bytes()
        clients = [self.connect() for _ in range(CLIENTS)]
        self.server.wait("accepted", clients=CLIENTS + 1)
        fresh = (self.server.private_bytes() - before) / CLIENTS
        for number, client in enumerate(clients):
            client.send(1, number, b"busy" * 2500)
        for number, client in enumerate(clients):
            self.assertEqual(client.receive(), (1, number, b"busy" * 2500))
        used = (self.server.private_bytes() - before) / CLIENTS
        print(f"{CLIENTS} idle clients: {fresh:.0f} bytes each when new, {used:.0f} after use")
        self.assertLess(fresh, MOST_BYTES)
        self.assertLess(used, MOST_BYTES)
        self.assert_idle(self.server)
        for client in clients:
            client.close()
        self.server.wait("disconnected", clients=1)


if __name__ == "__main__":
    unittest.main()
