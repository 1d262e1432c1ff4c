#!/usr/bin/env python3
"""Looking at an interpreter that is busy, and hearing of what it does. Usage: busy_test.py VENDRA"""

import concurrent.futures
import contextlib
import json
import os
import pty
import time
import unittest

from bus_test import VENDRA, Client
from vendra_process import TIMEOUT, Vendra

# It keeps the language's lock for longer than anybody waits, and can be interrupted.
NATIVE = "re.match('(a+)+b', 'a' * 60)"


def wait_until(condition, what):
    deadline = time.monotonic() + TIMEOUT
    while not condition():
        assert time.monotonic() < deadline, f"{what} did not happen"


class Busy(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.host = Vendra(VENDRA).__enter__()
        cls.host.ask("Eval", code="import re, time\nbegun = 0\nd = {n: n for n in range(300)}")

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()

    @contextlib.contextmanager
    def running(self, code):
        """While it runs; then it is interrupted. Gives the future of its answer."""
        before = self.host.ask("Variable", name="begun")["value"]
        with concurrent.futures.ThreadPoolExecutor() as pool:
            answer = pool.submit(self.host.ask, "Eval", code=f"begun += 1\n{code}")
            try:
                wait_until(lambda: self.host.ask("Variable", name="begun").get("value") != before, "the start")
                yield answer
            finally:
                wait_until(lambda: self.host.ask("Interrupt")["interrupted"] or answer.done(), "the interrupt")
                answer.result(TIMEOUT)

    def test_looks_are_answered(self):
        for code in ["while True: pass", "time.sleep(60)", "while True:\n    d.clear()\n    d.update((n, n) for n in range(300))",
                     "while True:\n    for n in range(300): d[-n] = n\n    for n in range(1, 300): del d[-n]"]:
            with self.subTest(code=code), self.running(code) as answer:
                for _ in range(20):
                    found = self.host.ask("Workspace", pattern="[bd]*")
                    self.assertEqual([v["name"] for v in found.get("variables", found)], ["begun", "d"])
                    found = self.host.ask("Variable", name="d")
                    self.assertEqual((found["type"], found.get("class")), ("VariableResponse", "dict"), found)
                    self.assertEqual(self.host.ask("TabCompletion", text="d.setd")["candidates"], ["setdefault"])
                self.assertFalse(answer.done())
            self.assertEqual(answer.result()["code"], "interrupted")
            self.host.ask("Eval", code="d = {n: n for n in range(300)}")

    def test_tables_and_arrays_beside_work_on_them(self):
        self.host.ask("Eval", code="import numpy, pandas\narray = numpy.random.rand(400, 400)\n"
                                   "table = pandas.DataFrame(array)")
        for code in ["while True: array @ array", "while True: array.sort()", "while True: table = table.sort_values(0)"]:
            with self.subTest(code=code), self.running(code) as answer:
                for name in ["array", "table"] * 5:
                    found = self.host.ask("Variable", name=name, rows=[0, 5], columns=[0, 5])
                    self.assertEqual((found["type"], found.get("size")), ("VariableResponse", [400, 400]))
                self.assertFalse(answer.done())

    def test_interrupts_hit_what_runs_and_no_look(self):
        loop = "for n in range(10):\n    try:\n        while True: pass\n    except KeyboardInterrupt: pass\n"
        with self.running(loop) as answer:
            while not answer.done():
                self.host.ask("Interrupt")
                self.assertEqual(self.host.ask("Workspace")["type"], "WorkspaceResponse")
        self.assertIn(answer.result().get("code"), (None, "interrupted"))

    def test_who_waits_takes_no_processor_time(self):
        with contextlib.closing(self.host.connection()) as connection:
            def time_of_process(code=""):
                body = json.dumps({"type": "Eval", "id": "1", "code": code + "time.process_time()"})
                connection.request("POST", "/messageservice/container", body, self.host.headers())
                return json.loads(connection.getresponse().read())["value"]

            for _ in range(50):  # threads stay awake for such a client
                begin = time_of_process()
            with self.subTest("for the interpreter"):
                end = time_of_process("time.sleep(0.5)\n")
                self.assertLess(end - begin, 0.25)
            with self.subTest("for clients"):
                time.sleep(0.5)
                self.assertLess(time_of_process() - end, 0.25)

    def test_order_within_a_container(self):
        messages = [{"type": "Variable", "name": "n"}, {"type": "Eval", "code": "n = 1\ntime.sleep(1.2)\nn = 2"},
                    {"type": "Variable", "name": "n"}]
        self.host.ask("Eval", code="n = 0")
        answers = json.loads(self.host.post(json.dumps({"messages": messages}))[1])["messages"]
        self.assertEqual([answers[i].get("value", answers[i]) for i in (0, 2)], [0, 2])

    def test_native_code_that_keeps_the_lock(self):
        with self.running("time.sleep(0.1)\n" + NATIVE) as answer:
            wait_until(lambda: self.host.ask("Workspace").get("code") == "busy", "a refusal")
            begin = time.monotonic()
            with concurrent.futures.ThreadPoolExecutor(120) as pool:
                refusals = list(pool.map(lambda _: self.host.ask("TabCompletion", text="be"), range(120)))
            self.assertEqual({refusal.get("code") for refusal in refusals}, {"busy"}, refusals[0])
            self.assertTrue(any("native code" in refusal["message"] for refusal in refusals))
            self.assertLess(time.monotonic() - begin, 10)
            self.assertFalse(answer.done())
        self.assertEqual(self.host.ask("TabCompletion", text="begu")["candidates"], ["begun"])

    def test_the_end_of_the_process_waits_for_no_look(self):
        with Vendra(VENDRA) as host, concurrent.futures.ThreadPoolExecutor() as pool:
            running = pool.submit(host.post, json.dumps({"type": "Eval", "code": "import re\n" + NATIVE}))
            wait_until(lambda: host.ask("Workspace").get("code") == "busy", "a refusal")
            waiting = pool.submit(host.post, json.dumps({"type": "Workspace"}))
            begin = time.monotonic()
            self.assertEqual(host.stop(), (143, ""))
            self.assertLess(time.monotonic() - begin, 10)
            concurrent.futures.wait([running, waiting], TIMEOUT)


class Events(unittest.TestCase):
    def setUp(self):
        self.terminal, inside = pty.openpty()
        self.host = self.enterContext(Vendra(VENDRA, stdin=inside))
        os.close(inside)
        self.addCleanup(os.close, self.terminal)
        self.client = Client(self.host)
        self.events = []

    def subscribe(self, *channels):
        for channel in channels:
            self.assertTrue(self.client.send("/meta/subscribe", subscription=channel)["successful"])

    def type(self, line):
        os.write(self.terminal, line.encode() + b"\n")

    def until(self, channel, condition):
        """The data of the first event of a channel that is as wanted; those before it are gone."""
        deadline = time.monotonic() + TIMEOUT
        while time.monotonic() < deadline:
            while self.events:
                event = self.events.pop(0)
                if event["channel"] == channel and condition(event["data"]):
                    return event["data"]
            self.events += self.client.connect()
        raise AssertionError(f"no such event of {channel}")

    def test_variables(self):
        self.host.ask("Eval", code="old = 1")
        self.subscribe("/interpreter/*")
        first = self.host.ask("Workspace") and self.until("/interpreter/variables", lambda data: True)
        self.assertEqual((first["changed"], first["removed"], first["restarted"]), (["old"], [], True))
        self.host.ask("Eval", code="other = 1")
        data = self.until("/interpreter/variables", lambda data: True)
        self.assertEqual((data["changed"], data["removed"], "restarted" in data), (["other"], [], False))
        self.type("typed = 5; del old")
        data = self.until("/interpreter/variables", lambda data: True)
        self.assertEqual((data["changed"], data["removed"]), (["typed"], ["old"]))
        self.assertEqual(self.host.ask("VariableChange", since=data["token"])["changed"], [])
        for number in range(500):
            self.host.ask("Eval", code=f"last = {number}")
        token = self.host.ask("VariableChange")["token"]
        count = 1
        while self.until("/interpreter/variables", lambda data: True)["token"] != token:
            count += 1
        self.assertLess(count, 250, "quick changes are told together")

    def test_folder_and_state(self):
        self.subscribe("/interpreter/folder", "/interpreter/state")
        self.host.ask("CurrentFolder", path="/usr")
        self.assertEqual(self.until("/interpreter/folder", lambda data: True), {"folder": "/usr"})
        self.type("import os, time; os.chdir('/')")
        self.assertEqual(self.until("/interpreter/folder", lambda data: True), {"folder": "/"})
        self.type("while True: time.sleep(0.01)\n")
        self.assertEqual(self.until("/interpreter/state", lambda data: data["state"] == "busy"),
                         {"state": "busy", "queued": 0})
        self.assertEqual(self.host.ask("TabCompletion", text="time.slee")["candidates"], ["sleep"])
        with concurrent.futures.ThreadPoolExecutor() as pool:
            waiting = pool.submit(self.host.ask, "Eval", code="1")
            self.until("/interpreter/state", lambda data: data == {"state": "busy", "queued": 1})
            self.assertTrue(self.host.ask("Interrupt", everybody=True)["interrupted"])
            self.until("/interpreter/state", lambda data: data == {"state": "idle", "queued": 0})
            self.assertEqual(waiting.result(TIMEOUT)["value"], 1)


if __name__ == "__main__":
    unittest.main(verbosity=2)
