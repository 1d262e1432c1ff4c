"""Clients that lose their connection while they read an evaluation, and come back in every way there is."""

import json
import socket
import struct
import sys
import time
import unittest

from bayeux import BayeuxSocket
from vendra_process import Vendra

VENDRA = sys.argv.pop(1)

LINES = 1_000_000
CUTS = 20
CODE = f"""
import time
for i in range({LINES}):
    print(i)
    if i % 10_000 == 0: time.sleep(0.01)
"""


class Polling:
    """A client by long polling: what it sends and its connects go over connections of their own."""

    def __init__(self, host):
        self.host = host
        self.poll = self.id = None
        self.events = []
        self.id = self.send("/meta/handshake", version="1.0", supportedConnectionTypes=["long-polling"])["clientId"]

    def post(self, connection, channel, **members):
        message = {"channel": channel, **members, **({"clientId": self.id} if self.id else {})}
        connection.request("POST", "/messageservice/async", json.dumps([message]), self.host.headers())

    def send(self, channel, **members):
        connection = self.host.connection()
        try:
            self.post(connection, channel, **members)
            return self.take(json.loads(connection.getresponse().read()), channel)
        finally:
            connection.close()

    def take(self, messages, channel):
        self.events += [message for message in messages if "successful" not in message]
        reply, = [message for message in messages if "successful" in message]
        assert reply["channel"] == channel and reply["successful"], reply
        return reply

    def connect(self):
        self.poll = self.poll or self.host.connection()
        self.post(self.poll, "/meta/connect", connectionType="long-polling")

    def event(self, wanted):
        while True:
            for position, message in enumerate(self.events):
                if wanted(message):
                    return self.events.pop(position)
            self.connect()
            self.take(json.loads(self.poll.getresponse().read()), "/meta/connect")

    def call(self, verb, **data):
        self.send("/service/interpreter/" + verb, data=data)
        return self.event(lambda message: message["channel"] == "/service/interpreter/" + verb)["data"]

    def close(self):
        """In the middle of a poll, whose answer is lost, or while there is none."""
        self.connect()
        self.poll.sock.settimeout(0.05)
        try:
            self.poll.sock.recv(1)
        except TimeoutError:
            pass
        self.poll.close()
        self.poll = None
        self.events = []


class Reader:
    """Knows but one rule: numbers that it has it drops."""

    def __init__(self, client):
        self.client = client
        self.last = 0
        self.text = []
        self.state = None
        self.gaps = 0

    def start(self, code):
        self.id = self.client.call("start", code=code)["id"]

    def next(self):
        data = self.client.event(lambda message: message["channel"] == "/interpreter/eval/" + self.id)["data"]
        if data["seq"] <= self.last:
            return
        self.last = data["seq"]
        if data["kind"] == "output":
            self.text.append(data["text"])
        self.gaps += data["kind"] == "gap"
        self.state = data.get("state", self.state)

    def attach(self):
        return self.client.call("attach", id=self.id, after=self.last)


class Reconnect(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.host = Vendra(VENDRA)
        cls.host.__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__(None, None, None)

    def read_over_cuts(self, client, come_back):
        watcher = BayeuxSocket(self.host)
        self.addCleanup(watcher.close)

        def much_was_printed():
            known, = [one for one in watcher.call("list")["evaluations"] if one["id"] == reader.id]
            return known["state"] == "ended" or known["last"] > reader.last + 5
        reader = Reader(client)
        reader.start(CODE)
        cuts = 0
        taken = 0
        while reader.state != "ended":
            reader.next()
            taken += 1
            if taken % 7 == 0 and cuts < CUTS:
                cuts += 1
                reader.client.close()
                while not much_was_printed():
                    pass
                reader.client = come_back(reader)
        reader.client.close()
        self.assertEqual((cuts, reader.gaps), (CUTS, 0))
        self.assertTrue("".join(reader.text) == "".join(f"{i}\n" for i in range(LINES)), "lost or doubled")

    def test_same_session_on_another_socket_connects_first(self):
        def come_back(reader):
            reader.client = BayeuxSocket(self.host, reader.client.id)
            reader.client.ask("/meta/connect", connectionType="websocket", advice={"timeout": 0})
            reader.attach()
            return reader.client
        self.read_over_cuts(BayeuxSocket(self.host), come_back)

    def test_same_session_on_another_socket_attaches_first(self):
        def come_back(reader):
            # Also before the server knows that the other one is gone: its peer is not closed but left.
            reader.client = BayeuxSocket(self.host, reader.client.id)
            reader.client.send("/meta/connect", connectionType="websocket")
            reader.attach()
            return reader.client
        client = BayeuxSocket(self.host)
        left = []
        client.close = lambda: left.append(client)
        self.read_over_cuts(client, come_back)
        left[0].socket.close()

    def test_other_session(self):
        def come_back(reader):
            reader.client = BayeuxSocket(self.host)
            reader.attach()
            return reader.client
        self.read_over_cuts(BayeuxSocket(self.host), come_back)

    def test_other_client_beside_one_that_stays(self):
        left = []

        def come_back(reader):
            reader.client = BayeuxSocket(self.host)
            reader.client.close = lambda client=reader.client: left.append(client)
            reader.attach()
            return reader.client
        first = BayeuxSocket(self.host)
        first.close = lambda: left.append(first)
        self.read_over_cuts(first, come_back)
        for client in left:
            client.socket.close()

    def test_nobody_waits_for_a_reader_that_is_gone(self):
        reader = Reader(BayeuxSocket(self.host))
        reader.start("for i in range(2_000_000): print('x' * 99)")  # more than is kept
        reader.next()
        other = BayeuxSocket(self.host)
        self.addCleanup(other.close)
        reader.client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        reader.client.close()
        begin = time.monotonic()
        self.assertEqual(other.call("eval", code="1 + 1")["value"], 2)
        self.assertLess(time.monotonic() - begin, 8)
        # Many cuts shut nobody out.
        for _ in range(110):
            reader.client = BayeuxSocket(self.host)
            self.assertEqual(reader.attach()["state"], "ended")
            reader.client.close()

    def test_long_polling(self):
        def come_back(reader):
            self.assertEqual(reader.attach()["id"], reader.id)
            return reader.client
        self.read_over_cuts(Polling(self.host), come_back)


if __name__ == "__main__":
    unittest.main()
