#!/usr/bin/env python3
"""What users of the live interpreter meet when things go wrong. Usage: console_faults_test.py VENDRA"""

import concurrent.futures
import http.client
import json
import os
import pty
import re
import select
import subprocess
import sys
import tempfile
import unittest

from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)
ENDLESS = "while True: pass"


class Host(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.host = Vendra(VENDRA).__enter__()
        path = os.path.join(cls.host.home, "ready")
        os.mkfifo(path)
        cls.ready = os.open(path, os.O_RDWR | os.O_NONBLOCK)
        cls.host.ask("Eval", code=f"def ready():\n    with open({path!r}, 'w') as fifo: fifo.write('.')")

    @classmethod
    def tearDownClass(cls):
        os.close(cls.ready)
        cls.host.__exit__()

    def setUp(self):
        self.pool = concurrent.futures.ThreadPoolExecutor()
        self.addCleanup(self.pool.shutdown)

    def tearDown(self):
        self.assertEqual(self.evaluate("print('still', end=''); 6 * 7")["output"], "still")

    def evaluate(self, code, **members):
        return self.host.ask("Eval", code=code, **members)

    def wait_until_ready(self):
        """Returns once the running code has called `ready`."""
        self.assertTrue(select.select([self.ready], [], [], TIMEOUT)[0], "it did not begin")
        os.read(self.ready, 1)

    def interrupt(self):
        self.assertTrue(self.host.ask("Interrupt")["interrupted"])


class Faults(Host):
    def test_what_does_not_return_is_interrupted(self):
        self.evaluate("import queue, select, threading, time\n"
                      "class Endless:\n    def __repr__(self):\n        while True: pass\n"
                      "class Stubborn:\n    def __iter__(self): return self\n    def __next__(self): return 1")
        for code in ["time.sleep(1000)", "queue.Queue().get()", "lock = threading.Lock(); lock.acquire(); lock.acquire()",
                     "select.select([], [], [])", "Endless()", "[Endless()]", "sum(Stubborn())",
                     "while True:\n    try: time.sleep(1000)\n    except Exception: pass"]:
            with self.subTest(code=code):
                future = self.pool.submit(self.evaluate, "ready()\n" + code)
                self.wait_until_ready()
                self.interrupt()
                answer = future.result(TIMEOUT)
                self.assertEqual((answer["type"], answer.get("code")), ("Fault", "interrupted"), answer)

    def test_what_catches_the_interrupt_goes_on(self):
        future = self.pool.submit(self.evaluate, "import time\ntry:\n    ready()\n    time.sleep(1000)\n"
                                  "except KeyboardInterrupt: caught = 'yes'\ncaught")
        self.wait_until_ready()
        self.interrupt()
        self.assertEqual(future.result(TIMEOUT)["value"], "yes")

    def test_too_much(self):
        for code, error in [("bytearray(1 << 60)", "MemoryError"), ("'x' * (1 << 62)", "MemoryError"),
                            ("deep = []\nfor _ in range(100_000): deep = [deep]\ndeep", "RecursionError"),
                            ("eval('(' * 5000 + ')' * 5000)", "SyntaxError|MemoryError|RecursionError"),
                            ("10 ** 10_000", "ValueError")]:
            answer = self.evaluate(code)
            self.assertEqual(answer["type"], "Fault", code)
            self.assertRegex(answer["error"], f"^({error})$", code)

    def test_large_values_come_whole(self):
        answer = self.evaluate("'0123456789' * 1_000_000")
        self.assertEqual(answer["value"], "0123456789" * 1_000_000)
        self.assertLessEqual(len(answer["text"]), 64 * 1024)
        answer = self.evaluate("list(range(1_000_000))")
        self.assertEqual(answer["value"], list(range(1_000_000)))

    def test_values_that_cannot_be_shown(self):
        self.evaluate("class Bad:\n    def __repr__(self): raise ValueError('no')\n"
                      "class Wrong:\n    def __repr__(self): return 5\n"
                      "class Leaves(Exception):\n    def __repr__(self): raise SystemExit(3)\n    __str__ = __repr__\n"
                      "ring = []; ring.append(ring); knot = {}; knot['a'] = [knot]")
        for code, text in [("ring", "[[...]]"), ("knot", "{'a': [{...}]}")]:
            answer = self.evaluate(code)
            self.assertEqual((answer["value"], answer["text"]), (None, text))
            self.assertIn("holds itself", answer["conversionError"])
        for code, error in [("Bad()", "ValueError"), ("[Bad()]", "ValueError"), ("Wrong()", "TypeError"),
                            ("Leaves()", "SystemExit"), ("raise Leaves()", "Leaves"), ("quit()", "SystemExit"),
                            ("raise BaseException", "BaseException")]:
            answer = self.evaluate(code)
            self.assertEqual((answer["type"], answer["code"], answer["error"]), ("Fault", "scriptError", error), code)

    def test_output_before_an_error_is_told(self):
        answer = self.evaluate("print('one')\nraise SystemExit('two')")
        self.assertEqual((answer["error"], answer["message"], answer["output"]), ("SystemExit", "two", "one\n"))

    def test_a_script_that_breaks_its_streams_breaks_no_other(self):
        self.evaluate("import sys; mine, mine_too = sys.stdout, sys.stderr")
        for code in ["import sys; sys.stdout = None", "import sys; del sys.stdout",
                     "class S:\n    def write(self, text): raise OSError('full')\nimport sys; sys.stdout = sys.stderr = S()"]:
            self.evaluate(code + "\nprint('where')")
            self.assertEqual(self.evaluate("40 + 2")["value"], 42, code)
            self.assertEqual(self.evaluate("1 / 0")["error"], "ZeroDivisionError", code)
            self.evaluate("import sys; sys.stdout = mine; sys.stderr = mine_too")

    def test_who_dies_in_the_middle_harms_nobody(self):
        self.evaluate("import time\ndone = []")
        for name, code in [("a", "time.sleep(1000)"), ("b", ENDLESS)]:
            connection = self.host.connection()
            connection.request("POST", "/messageservice/container", json.dumps(
                {"type": "Eval", "code": f"done.append({name!r})\nready()\n{code}"}), self.host.headers())
            self.wait_until_ready()
            connection.close()
            other = self.pool.submit(self.evaluate, "done")
            self.interrupt()  # what the dead client began went on, until now
            self.assertEqual(other.result(TIMEOUT)["value"][-1], name)


class Terminal(unittest.TestCase):
    def test_each_gets_its_own_output(self):
        terminal, inside = pty.openpty()
        with Vendra(VENDRA, stdin=inside) as host, concurrent.futures.ThreadPoolExecutor() as pool:
            os.close(inside)
            code = "for i in range(3000): print('{0}', i)\n"
            host.ask("Eval", code="0")  # is answered at the prompt: the terminal is set up
            os.write(terminal, b"[print('terminal', i) for i in range(3000)] and None\n")
            futures = [(name, pool.submit(host.ask, "Eval", code=code.format(name))) for name in ("a", "b") * 5]
            for name, future in futures:
                self.assertEqual(future.result(TIMEOUT)["output"], "".join(f"{name} {i}\n" for i in range(3000)))
            found = ""
            while "terminal 2999" not in found:
                found += host.process.stdout.readline()
            self.assertEqual(re.findall(r"^(?:>>> )*terminal (\d+)$", found, re.M), [str(i) for i in range(3000)])
            self.assertNotRegex(found, r"(?m)^[ab] \d")
        os.close(terminal)


class SuddenEnd(unittest.TestCase):
    def test_a_forked_child_leaves_in_order(self):
        code = ("import connector, os, sys\nconnector.start()\nif os.fork() == 0:\n    sys.exit(7)\n"
                "print(os.waitstatus_to_exitcode(os.wait()[1]))")
        with tempfile.TemporaryDirectory() as home:
            environment = {**os.environ, "HOME": home, "XDG_RUNTIME_DIR": home, "XDG_CONFIG_HOME": home}
            done = subprocess.run([VENDRA, "-c", code], env=environment, capture_output=True, text=True, timeout=TIMEOUT,
                                  check=False)
        self.assertEqual((done.returncode, done.stdout), (0, "7\n"), done.stderr)

    def test_all_clients_see_the_end(self):
        for code, status in [("import os; os._exit(7)", 7), ("import os; os.kill(os.getpid(), 9)", -9),
                             ("import os; os.abort()", -6)]:
            with self.subTest(code=code), Vendra(VENDRA) as host, concurrent.futures.ThreadPoolExecutor() as pool:
                message = json.dumps({"type": "VariableChange", "since": host.ask("VariableChange")["token"], "wait": 30_000})
                others = [pool.submit(host.post, message) for _ in range(4)]
                with self.assertRaises((ConnectionError, http.client.HTTPException)):
                    host.ask("Eval", code=code)
                for other in others:
                    self.assertIsInstance(other.exception(TIMEOUT), (ConnectionError, http.client.HTTPException))
                self.assertEqual(host.process.wait(TIMEOUT), status)


if __name__ == "__main__":
    unittest.main(verbosity=2)
