"""The message bus between scripts of the host and its clients."""

import json
import socket
import sys
import time
import unittest

from bayeux import BayeuxSocket
from long_polling import Client
from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)

# Subscribed before a stop and a start of the connector, which the subscriptions outlive.
PROGRAM = """
import connector
got = []
@connector.subscribe("/news/*")
def news(channel, data):
    got.append([channel, data])
    if data == "fail":
        raise ValueError("on purpose")
connector.stop()
connector.start()
ready = True
"""


# Publishes until a publish has to wait; a second thread interrupts the wait if told so.
PUBLISHING = """
import connector, _thread, threading, time
def publish_until_it_waits(channel, interrupt=False):
    begun = [None]
    def watch():
        while begun[0] is None or time.monotonic() - begun[0] < 0.1:
            pass
        begun.append(time.monotonic())
        _thread.interrupt_main()
    if interrupt:
        threading.Thread(target=watch).start()
    took = 0
    try:
        while took < 0.1:
            begun[0] = time.monotonic()
            connector.publish(channel, "x" * 16384)
            took = time.monotonic() - begun[0]
    except KeyboardInterrupt:
        return -(time.monotonic() - begun[1])
    return took
"""


class Bus(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        cls.host = Vendra(VENDRA, "-c", PROGRAM, environment={"VENDRA_HTTP_PORT": str(port)})
        cls.host.__enter__()
        end = time.monotonic() + TIMEOUT
        while not cls.isReady():
            assert time.monotonic() < end, "the program does not end"

    @classmethod
    def isReady(cls):
        """Whether the program has come to its end; there is no server while it restarts it."""
        try:
            status, body = cls.host.post(json.dumps({"type": "Eval", "id": "1", "code": "'ready' in globals()"}))
        except OSError:
            return False
        return status == 200 and json.loads(body).get("value") is True

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()

    def value(self, code):
        answer = self.host.ask("Eval", code=code)
        self.assertEqual(answer["type"], "EvalResponse", answer)
        return answer["value"]

    def test_scripts_receive_when_idle(self):
        client = Client(self.host)
        self.value("got.clear()")
        for data in ({"a": [1, None, "ü"]}, "fail", 3):
            self.assertTrue(client.send("/news/today", data=data)["successful"])
        client.send("/other/today", data=0)
        end = time.monotonic() + TIMEOUT
        while self.value("len(got)") < 3 and time.monotonic() < end:
            pass
        self.assertEqual(self.value("got"), [["/news/today", {"a": [1, None, "ü"]}], ["/news/today", "fail"],
                                             ["/news/today", 3]])

    def test_scripts_publish(self):
        client = Client(self.host)
        self.assertTrue(client.send("/meta/subscribe", subscription="/out/**")["successful"])
        self.value("connector.publish('/out/a/b', {'x': [1, 2.5, 'é', None]})\nconnector.publish('/out/c')")
        self.assertEqual(client.collect(2), [{"channel": "/out/a/b", "data": {"x": [1, 2.5, "é", None]}},
                                             {"channel": "/out/c", "data": None}])

    def test_a_fast_script_waits_for_a_slow_client(self):
        client = Client(self.host)
        self.assertTrue(client.send("/meta/subscribe", subscription="/fast")["successful"])
        self.value("import threading\n"
                   "fast = threading.Thread(target=lambda: [connector.publish('/fast', n) for n in range(30000)])\n"
                   "fast.start()")
        self.assertEqual([event["data"] for event in client.collect(30_000)], list(range(30_000)))

    def test_a_script_waits_once_for_all_that_are_behind(self):
        self.value(PUBLISHING + "0")
        for interrupt in (False, True):
            channel = f"/crowd/{int(interrupt)}"
            crowd = [BayeuxSocket(self.host) for _ in range(40)]
            for client in crowd:
                client.send("/meta/subscribe", subscription=channel)
            for client in crowd[:30]:
                client.close()
            took = self.value(f"publish_until_it_waits({channel!r}, {interrupt})")
            if interrupt:
                self.assertTrue(-0.1 < took < 0, took)
            else:
                self.assertTrue(0.9 < took < 1.5, took)
                self.assertLess(self.value(f"t = time.monotonic(); connector.publish({channel!r}, 'x' * 16384); "
                                           "time.monotonic() - t"), 0.5)
            for client in crowd[30:]:
                client.close()

    def test_nobody_but_the_system_speaks_on_its_channels(self):
        client = Client(self.host)
        for channel in ("/interpreter/state", "/interpreter/eval/1", "/presence/room"):
            self.assertIn("403:" + channel, client.send(channel, data={"state": "ready"})["error"])
            fault = self.host.ask("Eval", code=f"import connector\nconnector.publish({channel!r}, 1)")
            self.assertEqual((fault["type"], fault["error"]), ("Fault", "ValueError"))
            self.assertIn(channel, fault["message"])
            fault = self.host.ask("Eval", code="print(1)", outputChannel=channel)
            self.assertEqual((fault["type"], fault["code"]), ("Fault", "badRequest"), fault)
            self.assertIn(channel, fault["message"])

    def test_mistakes(self):
        for code, error in (("connector.publish('/a/*', 1)", "ValueError"), ("connector.publish('a', 1)", "ValueError"),
                            ("connector.publish('/meta/x', 1)", "ValueError"),
                            ("connector.publish('/a', float('nan'))", "ValueError"),
                            ("connector.publish('/a', object())", "TypeError"),
                            ("connector.subscribe('/a/*/b', print)", "ValueError"),
                            ("connector.subscribe('/a', 3)", "TypeError"),
                            ("connector.unsubscribe(print)", "ValueError")):
            answer = self.host.ask("Eval", code="import connector\n" + code)
            self.assertEqual((answer["type"], answer.get("error")), ("Fault", error), code)

    def test_a_subscription_ends(self):
        client = Client(self.host)
        self.value("gone = []\ndef f(c, d): gone.append(d)\nconnector.subscribe('/gone', f)\n0")
        client.send("/gone", data=1)
        end = time.monotonic() + TIMEOUT
        while self.value("len(gone)") < 1 and time.monotonic() < end:
            pass
        self.value("connector.unsubscribe(f)")
        client.send("/gone", data=2)
        client.send("/news/today", data="after")
        while self.value("got[-1:]") != [["/news/today", "after"]] and time.monotonic() < end:
            pass
        self.assertEqual(self.value("gone"), [1])


if __name__ == "__main__":
    unittest.main()
