"""The keys of the message bus, at a real host."""

import json
import os
import sys
import tempfile
import time
import unittest

from bayeux import BayeuxSocket
from vendra_process import Vendra

VENDRA = sys.argv.pop(1)
MIB = 1 << 20
SETTINGS = """
bus.holdSeconds = 1
bus.intervalSeconds = 0.25
bus.maxSubscriptions = 2500
bus.maxMessageBytes = 2097152
bus.maxQueuedBytes = 1048576
bus.maxBatch = 20
bus.maxSessions = many
bus.maxChannels = 0
"""


class BusSettings(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        os.mkdir(os.path.join(cls.folder.name, "vendra"))
        with open(os.path.join(cls.folder.name, "vendra", "connector.conf"), "w", encoding="utf-8") as file:
            file.write(SETTINGS)
        cls.host = Vendra(VENDRA, environment={"XDG_CONFIG_HOME": cls.folder.name, "VENDRA_BUS_LAZY_SECONDS": "0"})
        cls.host.__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()
        cls.folder.cleanup()

    def post(self, body):
        headers = {"Authorization": "Bearer " + self.host.discovery["token"], "Content-Type": "application/json"}
        connection = self.host.connection()
        try:
            connection.request("POST", "/messageservice/async", body, headers)
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            connection.close()

    def ask(self, *messages):
        status, body = self.post(json.dumps(messages))
        self.assertEqual(status, 200, body)
        return json.loads(body)

    def test_clients_are_told_of_times_and_connects_are_held_that_long(self):
        shaken, = self.ask({"channel": "/meta/handshake", "version": "1.0", "supportedConnectionTypes": ["long-polling"]})
        self.assertEqual(shaken["advice"], {"reconnect": "retry", "interval": 250, "timeout": 1000})
        connect = {"channel": "/meta/connect", "clientId": shaken["clientId"], "connectionType": "long-polling"}
        self.ask(connect)
        began = time.monotonic()
        self.ask(connect)
        self.assertTrue(0.8 < time.monotonic() - began < 5)

    def test_subscriptions_of_a_client(self):
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        many = [f"/many/{number}" for number in range(2500)]
        self.assertTrue(client.ask("/meta/subscribe", subscription=many)["successful"])
        refused = client.ask("/meta/subscribe", subscription="/many/more")
        self.assertEqual(refused["error"], "403:/many/more:Too many subscriptions")

    def test_sizes(self):
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        client.ask("/meta/subscribe", subscription="/large")
        large = "x" * (MIB * 3 // 2)
        self.assertTrue(client.ask("/large", data=large)["successful"])
        self.assertEqual(client.event()["data"], large, "a queue holds a message of the greatest size")
        posted = json.dumps([{"channel": "/large", "clientId": client.id, "data": large}])
        self.assertEqual(self.post(posted)[0], 200)
        status, refused = self.post(posted.replace("xx", "xxxx"))
        self.assertEqual((status, json.loads(refused)[0]["error"][:4]), (200, "413:"))
        batch = [{"channel": "/large", "clientId": client.id, "data": n} for n in range(21)]
        self.assertTrue(all(reply["successful"] for reply in self.ask(*batch[:20])))
        self.assertTrue(self.ask(*batch)[0]["error"].startswith("413:21:"))

    def test_what_makes_no_sense_is_told_and_left_out(self):
        with Vendra(VENDRA, environment={"XDG_CONFIG_HOME": self.folder.name, "VENDRA_BUS_LAZY_SECONDS": "0"}) as host:
            _, errors = host.stop()
        warnings = [line for line in errors.splitlines() if "WARNING" in line]
        for part in ('The key bus.maxSessions takes an integer, not "many".',
                     "The key bus.maxChannels takes an integer from 1 to 10000000, not 0.",
                     "The key bus.lazySeconds takes a number from 0.01 to 3600, not 0.",
                     "bus.maxQueuedBytes: 1048576 is less than bus.maxMessageBytes, 2097152"):
            self.assertTrue(any(part in line for line in warnings), (part, warnings))


if __name__ == "__main__":
    unittest.main()
