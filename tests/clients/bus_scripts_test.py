"""What scripts of the host say about the message bus: services, rules for channels, sessions."""

import json
import os
import socket
import sys
import tempfile
import threading
import time
import unittest

from bayeux import BayeuxSocket
from long_polling import Client
from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)

# Said before a stop and a start of the connector, which all of it outlives.
PROGRAM = """
import connector, os, time

@connector.serve("/service/sum")
def add(channel, data, session):
    return sum(data)

@connector.serve("/service/any/*")
def who(channel, data, session):
    return [channel, data, session]

@connector.serve("/service/interpreter/**")
def forged(channel, data, session):
    return "forged"

connector.channel("/kept/*", retain=True, publish=False)
connector.stop()
connector.subscribe("/bad name", print)
connector.start()
ready = True
"""


class BusScripts(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        cls.host = Vendra(VENDRA, "-c", PROGRAM, environment={"VENDRA_HTTP_PORT": str(port),
                                                              "VENDRA_BUS_MAX_QUEUED_BYTES": "2097152"})
        cls.host.__enter__()
        end = time.monotonic() + TIMEOUT
        while not cls.isReady():
            assert time.monotonic() < end, "the program does not end"

    @classmethod
    def isReady(cls):
        try:
            status, body = cls.host.post(json.dumps({"type": "Eval", "id": "1", "code": "'ready' in globals()"}))
        except OSError:
            return False
        return status == 200 and json.loads(body).get("value") is True

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def join(self):
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        return client

    def value(self, code):
        answer = self.host.ask("Eval", code=code)
        self.assertEqual(answer["type"], "EvalResponse", answer)
        return answer.get("value")

    def hold(self, then="0"):
        """Keeps the interpreter busy until what this answers is called; that waits for the evaluation's end."""
        held, gate = (os.path.join(self.folder.name, name) for name in ("held", "gate"))
        answers = []
        code = f"open({held!r}, 'w').close()\nwhile not os.path.exists({gate!r}): time.sleep(0.001)\n{then}"
        thread = threading.Thread(target=lambda: answers.append(self.host.ask("Eval", code=code)))
        thread.start()
        end = time.monotonic() + TIMEOUT
        while not os.path.exists(held):
            assert time.monotonic() < end, "the evaluation does not begin"

        def release():
            with open(gate, "w", encoding="utf-8"):
                pass
            thread.join()
            self.assertEqual(answers[0]["type"], "EvalResponse", answers)

        return release

    def test_an_answer_goes_to_the_sender_with_the_id_it_came_with(self):
        client, other = self.join(), self.join()
        other.ask("/meta/subscribe", subscription="/service/sum")
        self.assertTrue(client.ask("/service/sum", data=[1, 2.5], id="7")["successful"])
        self.assertEqual(client.event(), {"channel": "/service/sum", "id": "7", "data": 3.5})
        me, = self.value("[s.id for s in connector.sessions() if s.subscriptions == []]")
        client.send("/service/any/x", data={"big": 123456789012345678901234567890, "text": "ü"})
        self.assertEqual(client.event()["data"],
                         ["/service/any/x", {"big": 123456789012345678901234567890, "text": "ü"}, me],
                         "data arrive as they were sent")
        polling = Client(self.host)
        self.assertTrue(polling.send("/service/any/y", id=3)["successful"])
        answer, = polling.collect(1)
        self.assertEqual((answer["id"], answer["data"][:2]), (3, ["/service/any/y", None]))
        other.send("/service/sum", data=[4])
        self.assertEqual(other.event(), {"channel": "/service/sum", "data": 4}, "nothing of others came before")

    def test_failures_are_answers(self):
        client = self.join()
        self.value("@connector.serve('/service/odd')\ndef odd(channel, data, session): return eval(data)\n0")
        for code, kind, text in (("1 / 0", "ZeroDivisionError", "division by zero"),
                                 ("object", "TypeError", "Object of type type is not JSON serializable"),
                                 ("float('nan')", "ValueError", "Out of range float values are not JSON compliant"),
                                 ("'x' * (3 << 20)", "ValueError", None),
                                 ("(_ for _ in ()).throw(KeyboardInterrupt)", "KeyboardInterrupt",
                                  "The service was interrupted")):
            client.send("/service/odd", data=code, id=code)
            both = [client._next(lambda message: message.get("id") == code) for _ in range(2)]
            acknowledgement, answer = sorted(both, key=lambda message: "data" in message)
            self.assertEqual((acknowledgement["successful"], answer["successful"]), (True, False), code)
            self.assertTrue(answer["error"].startswith(f"500:{kind}:"), answer)
            self.assertEqual(answer["data"]["error"], kind, answer)
            if text:
                self.assertEqual(answer["data"]["message"], text)
        client.send("/service/odd", data="2")
        self.assertEqual(client.event()["data"], 2)
        self.value("connector.unserve(odd)")
        self.assertTrue(client.ask("/service/odd", data="2")["error"].startswith("404:"))

    def test_calls_wait_for_the_interpreter_within_bounds_and_leave_turns_to_others(self):
        client = self.join()
        self.value("calls = []\n@connector.serve('/service/slow')\n"
                   "def slow(channel, data, session):\n  time.sleep(0.001)\n  calls.append(data)\n  return data\n0")
        release = self.hold()
        for number in range(1100):
            client.send("/service/slow", data=number, id=number)
        replies = [client._next(lambda message: "successful" in message and "id" in message) for _ in range(1100)]
        refused = [reply for reply in replies if not reply["successful"]]
        self.assertEqual(len(refused), 100)
        self.assertEqual({reply["error"] for reply in refused}, {"503:/service/slow:The service is busy"})
        release()
        done = self.value("len(calls)")
        self.assertLess(done, 500, "an evaluation has its turn among the calls")
        self.assertEqual([client.event()["data"] for _ in range(1000)], list(range(1000)))
        self.value("connector.unserve(slow)")

    def test_what_waits_is_answered_when_the_service_ends(self):
        client = self.join()
        self.value("@connector.serve('/service/gone')\ndef gone(channel, data, session): return 1\n0")
        release = self.hold("connector.unserve(gone)")
        for number in (1, 2):
            self.assertTrue(client.ask("/service/gone", data=0, id=number)["successful"])
        release()
        for number in (1, 2):
            answer = client._next(lambda message: message.get("id") == number)
            self.assertEqual(answer["error"], "503::The service ended before it answered")

    def test_the_systems_services_come_first(self):
        client = self.join()
        self.assertNotEqual(client.call("list"), "forged")
        self.assertNotIn("forged", json.dumps(client.events))

    def test_rules_outlive_a_restart(self):
        self.value("connector.publish('/kept/a', 1)\nconnector.publish('/kept/a', 2)")
        client = self.join()
        client.ask("/meta/subscribe", subscription="/kept/*")
        self.assertEqual(client.event(), {"channel": "/kept/a", "data": 2})
        self.assertEqual(client.ask("/kept/a", data=3)["error"], "403:/kept/a:This client may not publish here")

    def test_channels_for_some(self):
        client, other = self.join(), self.join()
        client.ask("/meta/subscribe", subscription="/me")
        self.value("me, = [s for s in connector.sessions() if s.subscriptions == ['/me']]\n"
                   "connector.channel('/team/**', publish=[me], subscribe=[me.id], presence=True)\n"
                   "told = []\ndef tell(channel, data): told.append([channel, data['event'], data['session'] == me.id])\n"
                   "connector.subscribe('/presence/team/*', tell)\n0")
        other.ask("/meta/subscribe", subscription="/**")
        self.assertEqual(other.ask("/meta/subscribe", subscription="/team/a")["error"],
                         "403:/team/a:This client may not subscribe here")
        self.assertFalse(other.ask("/team/a", data=1)["successful"])
        self.assertTrue(client.ask("/meta/subscribe", subscription="/team/a")["successful"])
        self.assertTrue(client.ask("/team/a", data=2)["successful"])
        self.assertEqual(client.event(), {"channel": "/team/a", "data": 2})
        client.ask("/meta/unsubscribe", subscription="/team/a")
        self.value("connector.channel('/team/**')")
        other.ask("/team/a", data=3)
        self.assertEqual(other.event(lambda message: message["channel"].startswith("/team")),
                         {"channel": "/team/a", "data": 3}, "what was closed has not been told")
        end = time.monotonic() + TIMEOUT
        while self.value("len(told)") < 2 and time.monotonic() < end:
            pass
        self.assertEqual(self.value("told"), [["/presence/team/a", "join", True], ["/presence/team/a", "leave", True]])

    def test_sessions_end(self):
        client = self.join()
        client.ask("/meta/subscribe", subscription="/leaving")
        rows = self.value("[[s.id, s.address, s.transport, s.queued, s.subscriptions] for s in connector.sessions() "
                          "if '/leaving' in s.subscriptions]")
        self.assertEqual([row[1:] for row in rows], [["127.0.0.1", "websocket", 0, ["/leaving"]]])
        self.assertNotIn(client.id, self.value("repr([[getattr(s, n) for n in s.__slots__] for s in connector.sessions()])"))
        self.value(f"connector.end_session({rows[0][0]!r})")
        reply = client.ask("/meta/connect", connectionType="websocket")
        self.assertEqual((reply["successful"], reply["advice"]["reconnect"]), (False, "none"))
        self.assertEqual(self.value("len([s for s in connector.sessions() if '/leaving' in s.subscriptions])"), 0)

    def test_a_message_larger_than_a_queue_is_refused_and_ends_nobody(self):
        client = self.join()
        client.ask("/meta/subscribe", subscription="/huge")
        answer = self.host.ask("Eval", code="connector.publish('/huge', 'x' * (3 << 20))")
        self.assertEqual(answer.get("error"), "ValueError", answer)
        self.assertIn("bus.maxQueuedBytes", answer["message"])
        self.value("connector.publish('/huge', 1)")
        self.assertEqual(client.event()["data"], 1)

    def test_mistakes_name_the_value(self):
        for code, error, text in (
                ("connector.serve('/add', add)", "ValueError", "/add"),
                ("connector.serve('/service/a/*/b', add)", "ValueError", "/service/a/*/b"),
                ("connector.serve('/service/x', 3)", "TypeError", "3"),
                ("connector.unserve(print)", "ValueError", "print"),
                ("connector.channel('/meta/x', retain=True)", "ValueError", "/meta/x"),
                ("connector.channel('no channel')", "ValueError", "no channel"),
                ("connector.channel('/a', retain=1)", "TypeError", "retain is True or False, not 1"),
                ("connector.channel('/a', publish='x')", "TypeError", "'x'"),
                ("connector.channel('/a', subscribe=[3])", "TypeError", "3"),
                ("connector.end_session('nobody')", "ValueError", "nobody")):
            answer = self.host.ask("Eval", code=code)
            self.assertEqual((answer["type"], answer.get("error")), ("Fault", error), code)
            self.assertIn(text, answer["message"], code)
        self.assertEqual(self.value("len(connector._rules)"), 1)


if __name__ == "__main__":
    unittest.main()
