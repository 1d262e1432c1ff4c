"""Evaluation over the bus: requests, and evaluations that outlive them."""

import json
import os
import sys
import time
import unittest

from bayeux import BayeuxSocket
from vendra_process import Vendra

VENDRA = sys.argv.pop(1)


class Reader:
    """Follows one evaluation, across connections."""

    def __init__(self, host):
        self.host = host
        self.client = BayeuxSocket(host)
        self.last = 0
        self.output = {"output": "", "error": ""}
        self.doubled = 0

    def start(self, code, **members):
        self.id = self.client.call("start", code=code, **members)["id"]
        return self

    def next(self):
        data = self.client.event(lambda message: message["channel"] == "/interpreter/eval/" + self.id)["data"]
        if data["seq"] <= self.last:
            self.doubled += 1
            return self.next()
        assert data["seq"] == self.last + 1 or data["kind"] == "gap", f"{data['seq']} after {self.last}"
        self.last = data["seq"]
        if data["kind"] == "output":
            self.output[data["stream"]] += data["text"]
        return data

    def until(self, kind):
        while (data := self.next())["kind"] != kind:
            assert data.get("state") != "ended", f"it ended without {kind}"
        return data

    def finish(self):
        """The result or the error."""
        outcome = None
        while (data := self.next()).get("state") != "ended":
            outcome = data
        return outcome

    def reconnect(self):
        self.client.close()
        self.client = BayeuxSocket(self.host)
        return self.client.call("attach", id=self.id, after=self.last)


class AsyncEval(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.host = Vendra(VENDRA)
        cls.host.__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__(None, None, None)

    def tearDown(self):
        self.host.ask("Interrupt", everybody=True)  # what a failed test left running

    def run_code(self, code, **members):
        reader = Reader(self.host).start(code, **members)
        outcome = reader.finish()
        self.addCleanup(reader.client.close)
        return reader, outcome

    def test_requests_are_answered_in_one_message(self):
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        self.assertEqual(client.call("eval", code="print('a')\n6 * 7"),
                         {"hasValue": True, "value": 42, "text": "42", "output": "a\n"})
        self.assertEqual(client.call("feval", function="divmod", arguments=[17, 5], results=2),
                         {"results": [3, 2], "output": ""})
        fault = client.call("eval", code="print('b')\n1 / 0")["fault"]
        self.assertEqual((fault["code"], fault["error"], fault["output"]), ("scriptError", "ZeroDivisionError", "b\n"))
        fault = client.call("eval", code="while True: pass", deadline=50)["fault"]
        self.assertEqual(fault["code"], "deadline")
        self.assertIn("50 ms", fault["message"])
        # A script that goes on after an interrupt gets the next one.
        fault = client.call("eval", deadline=20, code="for _ in range(2):\n    try:\n        while True: pass\n"
                                                      "    except KeyboardInterrupt: pass\nwhile True: pass")["fault"]
        self.assertEqual(fault["code"], "deadline")
        self.assertEqual(client.call("interrupt"), {"interrupted": False})

    def test_large_answers_are_fetched(self):
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        large = "x" * 3_000_000

        def fetched(part):
            whole = self.host.ask("FetchAnswer", answer=part["answer"])
            self.assertEqual(whole.pop("type"), "FetchAnswerResponse")
            return whole
        part = client.call("eval", code="print('y')\n'x' * 3_000_000")
        self.assertEqual((part["hasValue"], part["value"], part["output"]), (True, None, "y\n"))
        self.assertIn("fetched", part["conversionError"])
        for _ in range(2):  # as often as somebody asks
            self.assertEqual(fetched(part), {"id": "1", "hasValue": True, "value": large, "text": part["text"],
                                             "output": "y\n"})
        part = client.call("feval", function="str.upper", arguments=[large[:900_000]])
        self.assertEqual(part, {"results": ["X" * 900_000], "output": ""})
        client.call("eval", code="def three(): return 'x' * 3_000_000")
        part = client.call("feval", function="three")
        self.assertEqual((part["results"], fetched(part)["results"]), (None, [large]))
        # A small value with much output; quotes are two bytes of JSON each.
        part = client.call("eval", code="print('\"' * 1_500_000)\n42")
        self.assertEqual((part["value"], len(part["output"]) + part["omittedBytes"]), (42, 1_500_001))
        self.assertEqual(fetched(part)["output"], '"' * 1_500_000 + "\n")
        reader, outcome = self.run_code("'y' * 2_000_000")
        self.assertEqual(fetched(outcome)["value"], "y" * 2_000_000)
        self.assertEqual(self.host.ask("FetchAnswer", answer="none")["code"], "notFound")

    def test_interrupts_are_for_ones_own(self):
        host = Vendra(VENDRA, environment={"VENDRA_INTERPRETER_MAX_QUEUED": "2"})
        self.enterContext(host)
        mine, other = BayeuxSocket(host), BayeuxSocket(host)
        self.addCleanup(mine.close)
        self.addCleanup(other.close)
        begun = os.path.join(host.home, "begun")
        loop = f"open({begun!r}, 'x').close()\nwhile True: pass"

        def answer_of(client, verb):
            return client.event(lambda message: message["channel"] == "/service/interpreter/" + verb)["data"]

        def begin():
            mine.send("/service/interpreter/eval", data={"code": loop})
            while not os.path.exists(begun):
                pass
            os.remove(begun)
        begin()
        self.assertEqual(other.call("interrupt"), {"interrupted": False})
        self.assertFalse(host.ask("Interrupt")["interrupted"], "a program over HTTP is another client")
        # What waits behind another's code is taken out; the queue has its limit for the bus, too.
        for code in ("1", "2", "3"):
            other.send("/service/interpreter/eval", data={"code": code})
        self.assertEqual(answer_of(other, "eval")["fault"]["code"], "busy")
        self.assertEqual(other.call("start", code="4")["fault"]["code"], "busy")
        self.assertEqual(other.call("interrupt"), {"interrupted": True})
        self.assertEqual([answer_of(other, "eval")["fault"]["code"] for _ in range(2)], ["cancelled"] * 2)
        self.assertEqual(mine.call("interrupt"), {"interrupted": True})
        self.assertEqual(answer_of(mine, "eval")["fault"]["code"], "interrupted")
        begin()
        self.assertEqual(other.call("interrupt", everybody=True), {"interrupted": True})
        self.assertEqual(answer_of(mine, "eval")["fault"]["code"], "interrupted")
        begin()
        self.assertTrue(host.ask("Interrupt", everybody=True)["interrupted"])
        self.assertEqual(answer_of(mine, "eval")["fault"]["code"], "interrupted")

    def test_evaluations_of_clients_that_died_end(self):
        host = Vendra(VENDRA, environment={"VENDRA_INTERPRETER_GRACE_SECONDS": "1"})
        self.enterContext(host)
        stays = BayeuxSocket(host)
        self.addCleanup(stays.close)
        begun = os.path.join(host.home, "begun")
        loop = f"import time\nopen({begun!r}, 'x').close()\nended = False\n" \
               "try:\n    while True: time.sleep(0.01)\nfinally: ended = True"

        def wait_until_begun():
            while not os.path.exists(begun):
                pass
            os.remove(begun)

        def over_http():
            connection = host.connection()
            connection.request("POST", "/messageservice/container",
                               json.dumps({"type": "Eval", "id": "1", "code": loop}), host.headers())
            wait_until_begun()
            connection.close()

        def over_bus():
            client = BayeuxSocket(host)
            client.send("/service/interpreter/eval", data={"code": loop})
            wait_until_begun()
            client.ask("/meta/disconnect")
            client.close()
        for leave in (over_http, over_bus):
            leave()
            begin = time.monotonic()
            self.assertEqual(stays.call("eval", code="ended")["value"], True)
            self.assertGreater(time.monotonic() - begin, 0.5, "it has its time of grace")
        # What is started is meant to go on.
        client = BayeuxSocket(host)
        started = client.call("start", code=loop)["id"]
        wait_until_begun()
        client.ask("/meta/disconnect")
        client.close()
        time.sleep(1.5)
        self.assertEqual(stays.call("list")["evaluations"][-1]["state"], "running")
        self.assertEqual(stays.call("cancel", id=started), {"cancelled": True})

    def test_what_makes_no_sense_is_refused(self):
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        for verb, data, code in (("dance", {}, "unknownType"), ("eval", {}, "badMessage"),
                                 ("eval", {"code": 1}, "badMessage"), ("eval", {"code": "", "deadline": -1}, "badMessage"),
                                 ("eval", {"code": "", "outputChannel": "/meta/x"}, "badRequest"),
                                 ("start", {"code": None}, "badMessage"), ("eval", {"code": "", "deadlin": 5}, "badMessage"),
                                 ("start", {"code": "", "wantvalue": False}, "badMessage"), ("list", {"all": True}, "badMessage"), ("attach", {"id": "none"}, "notFound"),
                                 ("cancel", {"id": ""}, "notFound"), ("input", {"id": "x"}, "badMessage")):
            self.assertEqual(client.call(verb, **data)["fault"]["code"], code, (verb, data))
        for channel in ("variables", "folder", "state"):
            self.assertIn("403", client.ask("/interpreter/" + channel, data={"made": "up"})["error"])
        client.send("/service/interpreter/eval", data=5)
        self.assertEqual(client.event()["data"]["fault"]["code"], "badMessage")

    def test_outcome_and_both_streams(self):
        reader, outcome = self.run_code("import sys\nprint('out')\nprint('err', file=sys.stderr)\n'ü' * 3")
        self.assertEqual(reader.output, {"output": "out\n", "error": "err\n"})
        self.assertEqual((outcome["kind"], outcome["value"]), ("result", "üüü"))
        reader, outcome = self.run_code("print('before')\nraise ValueError('x')")
        self.assertEqual((outcome["kind"], outcome["code"], outcome["error"], outcome["message"]),
                         ("error", "scriptError", "ValueError", "x"))
        self.assertIn("line 2", outcome["traceback"])
        self.assertNotIn("output", outcome)
        reader, outcome = self.run_code("while True: pass", deadline=30)
        self.assertEqual(outcome["code"], "deadline")
        reader, outcome = self.run_code("'y' * 2_000_000")
        self.assertEqual(outcome["value"], None)
        self.assertIn("bytes", outcome["conversionError"])
        self.assertEqual(len(outcome["text"]), 65536)

    def test_much_output_is_complete_and_in_order(self):
        for what, code, expected, most in (
                ("short lines", "for i in range(100_000): print(i)", "".join(f"{i}\n" for i in range(100_000)), 1_500),
                ("wide lines", "for i in range(100_000): print(f'{i:080}')",
                 "".join(f"{i:080}\n" for i in range(100_000)), 3_000),
                ("flushed lines", "for i in range(10_000): print(i, flush=True)",
                 "".join(f"{i}\n" for i in range(10_000)), 1_500),
                ("one long line", "print('é' * 5_000_000)", "é" * 5_000_000 + "\n", 1_000),
                ("no text", r"print('\x00\ud800\U0001F600')", "\x00\ufffd\U0001F600\n", 10)):
            with self.subTest(what):
                reader, outcome = self.run_code(code)
                self.assertEqual(outcome["kind"], "result")
                self.assertTrue(reader.output["output"] == expected, "the output is another")
                self.assertLess(reader.last, most)

    def test_output_that_lies_in_the_file_takes_no_memory(self):
        def memory():
            with open(f"/proc/{self.host.process.pid}/status", encoding="utf-8") as status:
                return next(int(line.split()[1]) for line in status if line.startswith("RssAnon:")) >> 10
        self.run_code("print('x' * 100_000)")
        before = memory()
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        channel = client.call("start", code="for i in range(1_000_000): print('x' * 99)")["channel"]
        while client.event(lambda message: message["channel"] == channel)["data"].get("state") != "ended":
            pass
        self.assertLess(memory() - before, 30)  # MiB; 64 MiB of output are kept

    def test_lost_connection_loses_nothing(self):
        reader = Reader(self.host).start("import time\nfor i in range(100_000):\n    print(i)\n"
                                         "    if i % 2_000 == 0: time.sleep(0.006)")
        cuts = 0
        while (data := reader.next()).get("state") != "ended":
            if data["kind"] == "output" and data["seq"] % 3 == 0 and cuts < 10:
                cuts += 1
                self.assertEqual(reader.reconnect()["id"], reader.id)
        self.assertEqual(cuts, 10)
        self.assertTrue(reader.output["output"] == "".join(f"{i}\n" for i in range(100_000)), "lost or doubled")
        reader.client.close()

    def test_evaluation_outlives_its_client_and_is_read_by_many(self):
        first = Reader(self.host).start("import time\ngo = False\nprint('begun')\nwhile not go: time.sleep(0.01)\n"
                                        "print('done')")
        first.until("output")
        first.client.close()
        others = [Reader(self.host) for _ in range(3)]
        for other in others:
            other.id = first.id
            self.assertEqual(other.client.call("attach", id=first.id)["state"], "running")
        # The one that waits is not the only one: this comes after it, so it is cancelled first.
        waiting = others[0].client.call("start", code="1")["id"]
        self.assertEqual(others[0].client.call("cancel", id=waiting), {"cancelled": True})
        self.assertEqual(others[0].client.call("cancel", id=first.id), {"cancelled": True})
        for other in others:
            self.assertEqual(other.finish()["code"], "interrupted")
            self.assertEqual(other.output["output"], "begun\n")
        known = {one["id"]: one for one in others[1].client.call("list")["evaluations"]}
        self.assertEqual(known[first.id]["state"], "ended")
        self.assertTrue(known[first.id]["code"].startswith("import time"))
        self.assertEqual(others[1].client.call("forget", id=first.id), {})
        self.assertEqual(others[1].client.call("attach", id=first.id)["fault"]["code"], "notFound")
        for other in others:
            other.client.close()

    def test_input_is_answered_by_a_client(self):
        reader = Reader(self.host).start("import sys\nname = input('Name? ')\nrest = sys.stdin.read()\n(name, rest)")
        reader.until("input")
        self.assertEqual(reader.output["output"], "Name? ")
        # Another client may answer.
        other = BayeuxSocket(self.host)
        self.assertTrue(other.call("list")["evaluations"][-1]["wantsInput"])
        self.assertEqual(other.call("input", id=reader.id, text="Ada"), {})
        for answer in ({"text": "a\n"}, {"text": ""}, {"end": True}):
            reader.until("input")
            self.assertEqual(other.call("input", id=reader.id, **answer), {})
        self.assertEqual(reader.finish()["text"], "('Ada', 'a\\n\\n')")
        reader.start("input()")
        reader.last = 0
        reader.until("input")
        self.assertEqual(other.call("cancel", id=reader.id), {"cancelled": True})
        self.assertEqual(reader.finish()["code"], "interrupted")
        self.assertEqual(other.call("input", id=reader.id, text="late")["fault"]["code"], "notAsked")
        fault = other.call("eval", code="input()")["fault"]
        self.assertEqual(fault["error"], "EOFError")
        other.close()
        reader.client.close()

    def test_output_of_a_plain_request_goes_to_a_channel(self):
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        client.ask("/meta/subscribe", subscription="/out/1")
        answer = self.host.ask("Eval", code="for i in range(50_000): print(i)", outputChannel="/out/1")
        self.assertEqual(answer["output"], "")
        text = ""
        for number in range(1, answer["outputMessages"] + 1):
            data = client.event(lambda message: message["channel"] == "/out/1")["data"]
            self.assertEqual(data["seq"], number)
            text += data["text"]
        self.assertTrue(text == "".join(f"{i}\n" for i in range(50_000)))

    def test_client_that_left_is_not_served(self):
        client, stays = BayeuxSocket(self.host), BayeuxSocket(self.host)
        self.addCleanup(stays.close)
        started = Reader(self.host).start("import time\nserved = []\nprint('begun')\nwhile True: time.sleep(0.001)")
        started.until("output")
        client.send("/service/interpreter/eval", data={"code": "served.append(1)"})
        client.ask("/meta/disconnect")
        client.close()
        stays.send("/service/interpreter/eval", data={"code": "served.append(2)\nserved", "tag": "t"})
        self.assertEqual(started.client.call("cancel", id=started.id), {"cancelled": True})
        self.assertEqual(stays.event()["data"]["value"], [2])
        started.client.close()


if __name__ == "__main__":
    unittest.main()
