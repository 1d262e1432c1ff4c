#!/usr/bin/env python3
"""A client of the live interpreter, as a user has one. Usage: eval_test.py VENDRA"""

import json
import sys
import threading
import time
import unittest

from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)


def evaluate(host, code, **members):
    return host.ask("Eval", code=code, **members)


def wait_until(condition, what):
    deadline = time.monotonic() + TIMEOUT
    while not condition():
        assert time.monotonic() < deadline, f"{what} did not happen"
        time.sleep(0.01)


class SharedHost(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.host = Vendra(VENDRA).__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()

    def test_definitions_stay(self):
        self.assertEqual(evaluate(self.host, "1+1")["value"], 2)
        evaluate(self.host, "def twice(x):\n    y = x * 2\n\n    return y\n")
        self.assertEqual(evaluate(self.host, "twice('ab')")["value"], "abab")

    def test_value_and_output(self):
        answer = evaluate(self.host, "import sys\nprint('out')\nprint('err', file=sys.stderr)\n[1, 2.5, None]")
        self.assertEqual((answer["value"], answer["output"]), ([1, 2.5, None], "out\nerr\n"))

    def test_misspelt_members_are_told(self):
        def told(**message):
            status, bare = self.host.post(json.dumps(message))
            _, body = self.host.post(json.dumps({"messages": [message]}))
            fault = json.loads(body)["messages"][0]
            self.assertEqual((status, bare.strip(), fault["code"]), (400, fault["message"], "badMessage"))
            return fault["message"]

        self.assertEqual(told(type="Eval", code="missing = 1", deadlin=5), "deadlin: there is no such member here")
        self.assertEqual(evaluate(self.host, "'missing' in dir()")["value"], False)
        self.assertEqual(told(type="FEval", function="len", uses=[{"argument": 0, "call": 0, "resul": 1}]),
                         "uses[0].resul: there is no such member here")
        self.assertEqual(told(type="GetUserHomeDir", path=None)[:5], "path:")

    def test_errors(self):
        answer = evaluate(self.host, "def f():\n    return 1 // 0\n\nf()")
        self.assertEqual((answer["type"], answer["code"], answer["error"]), ("Fault", "scriptError", "ZeroDivisionError"))
        self.assertIn('File "<remote>", line 2, in f\n    return 1 // 0', answer["traceback"])
        self.assertIn("    x = {}['none']\n        ~~^^^^^^^^", evaluate(self.host, "\nx = {}['none']")["traceback"])
        self.assertIn("    a = {}['none']\n        ~~^^^^^^^^",
                      evaluate(self.host, "s = 'x\u2028y\x0c'\na = {}['none']")["traceback"])
        for _ in range(2):
            trace = evaluate(self.host, "[1][2]")["traceback"]
            self.assertIn('File "<remote>", line 1, in <module>\n    [1][2]', trace)
        answer = evaluate(self.host, "x = = 1")
        self.assertEqual((answer["code"], answer["error"]), ("scriptError", "SyntaxError"))
        self.assertIn("x = = 1", answer["traceback"])
        for code, error in [("import sys; sys.exit(3)", "SystemExit"), ("def r(): r()\nr()", "RecursionError"),
                            ("input()", "EOFError"), ("raise MemoryError", "MemoryError")]:
            self.assertEqual(evaluate(self.host, code).get("error"), error, code)
        self.assertEqual(evaluate(self.host, "'alive'")["value"], "alive")

    def test_large_output_is_whole(self):
        code = "import sys\nfor i in range(100_000):\n    sys.stdout.write('%0100d\\n' % i)\n"
        answer = evaluate(self.host, code)
        self.assertEqual(answer["output"], "".join("%0100d\n" % i for i in range(100_000)))

    def test_text_beyond_ascii(self):
        text = "grüße – 漢字 – 𝒳 – \u0000 – \x7f"
        answer = evaluate(self.host, f"t = {text!r}\nprint(t)\nt")
        self.assertEqual((answer["value"], answer["output"]), (text, text + "\n"))
        self.assertEqual(self.host.ask("FEval", function="str", arguments=[text])["results"], [text])
        lone = evaluate(self.host, "'a\\ud800b'")["value"]
        self.assertEqual(lone, {"vx": "char", "size": [1, 3], "data": [97, 0xD800, 98]})
        self.assertEqual(self.host.ask("FEval", function="len", arguments=[lone])["results"], [3])

    def test_interrupt(self):
        answers = []
        thread = threading.Thread(target=lambda: answers.append(evaluate(self.host, "started = True\nwhile True: pass")))
        thread.start()
        wait_until(lambda: self.host.ask("Interrupt")["interrupted"], "the loop's start")
        thread.join(TIMEOUT)
        self.assertEqual((answers[0]["code"], answers[0]["error"]), ("interrupted", "KeyboardInterrupt"))
        begin = time.monotonic()
        thread = threading.Thread(target=lambda: evaluate(self.host, "while True: pass"))
        thread.start()
        wait_until(lambda: self.host.ask("Interrupt")["interrupted"], "the second loop's start")
        thread.join(TIMEOUT)
        self.assertLess(time.monotonic() - begin, 1)
        self.assertEqual(evaluate(self.host, "40 + 2")["value"], 42)

    def test_order_and_parallel_clients(self):
        evaluate(self.host, "seen = []")
        threads = [threading.Thread(target=evaluate, args=(self.host, f"seen.append({i})")) for i in range(40)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(TIMEOUT)
        self.assertEqual(evaluate(self.host, "sorted(seen) == list(range(40))")["value"], True)
        messages = [{"type": "Eval", "id": str(i), "code": f"n = {i}\nn"} for i in range(500)]
        status, body = self.host.post(json.dumps({"id": "many", "messages": messages}))
        answers = json.loads(body)["messages"]
        self.assertEqual([(a["id"], a["value"]) for a in answers], [(str(i), i) for i in range(500)])

    def test_refusals(self):
        good = json.dumps({"type": "Eval", "id": "1", "code": "1"})
        token = self.host.headers()["Authorization"]
        as_json = {"Content-Type": "application/json"}
        for headers, status in [
            (as_json, 401),
            ({**as_json, "Authorization": token + "0"}, 401),
            ({**as_json, "Authorization": "Bearer"}, 401),
            ({**as_json, "Authorization": "Basic " + self.host.discovery["token"]}, 401),
            ({"Authorization": token, "Content-Type": "text/plain"}, 415),
            ({"Authorization": token}, 415),
            ({**self.host.headers(), "Host": "evil.example"}, 421),
            ({**self.host.headers(), "Origin": "http://evil.example"}, 403),
        ]:
            self.assertEqual(self.host.post(good, headers)[0], status, headers)
        for body in ["", "[]", "{", '{"type": "Eval"}', '{"type": "Nothing"}', '{"messages": 3}', '{"messages": [], "a": 1} x',
                     "[" * 100_000, '{"type": "Eval", "code": "1", "code": "2"}', "\ufeff{}", '{"messages": [[]]}x']:
            self.assertEqual(self.host.post(body)[0], 400, body[:40])
        status, text = self.host.post('{"type": "FEval", "function": "abs", "arguments": '
                                      '[1, {"vx": "double", "size": [1, 2], "data": [1]}]}')
        self.assertEqual(status, 400)
        self.assertIn("arguments[1].data", text)
        self.assertEqual(self.host.post(good)[0], 200)


class OwnHost(unittest.TestCase):
    def test_start_leaves_out_what_takes_long_to_load(self):
        with Vendra(VENDRA) as host:
            code = "import sys\n[name for name in ('linecache', 'traceback', 'tokenize') if name in sys.modules]"
            self.assertEqual(evaluate(host, code)["value"], [])
            evaluate(host, "def f():\n    return 'f'\n")
            # Whoever asks for the lines of a cell has them from the first moment on.
            code = "def g():\n    return 'g'\n\nimport inspect\ninspect.getsource(f) + inspect.getsource(g)"
            self.assertEqual(evaluate(host, code)["value"], "def f():\n    return 'f'\ndef g():\n    return 'g'\n")
            # Nothing stays of what the host does to find that out.
            code = ("import sys, getpass, concurrent.futures.thread\n"
                    "[str(one) for one in sys.meta_path if 'vendra' in str(one)]")
            self.assertEqual(evaluate(host, code)["value"], [])

    def test_stop_from_a_client(self):
        with Vendra(VENDRA) as host:
            connection = host.connection()
            try:
                connection.request("POST", "/messageservice/container",
                                   json.dumps({"type": "Eval", "code": "import connector\nconnector.stop()"}),
                                   host.headers())
                # The answer itself cannot come any more: the client is told, or finds the connection closed.
                self.assertEqual(connection.getresponse().status, 503)
            except ConnectionError:
                pass
            finally:
                connection.close()
            with self.assertRaises(ConnectionError):
                host.post("{}")
            code, _ = host.stop()
            self.assertEqual(code, 143)

    def test_interpreter_is_the_terminals(self):
        with Vendra(VENDRA, "-c", "shared = {'a': [1, 2]}; print('ready')") as host:
            self.assertEqual(evaluate(host, "shared")["value"], {"a": [1, 2]})

    def test_sigterm_with_a_request_running(self):
        with Vendra(VENDRA) as host:
            outcome = []

            def run():
                try:
                    outcome.append(evaluate(host, "while True: pass"))
                except (ConnectionError, AssertionError, OSError) as error:
                    outcome.append(error)

            thread = threading.Thread(target=run)
            thread.start()
            wait_until(lambda: evaluate_busy(host), "the loop's start")
            code, _ = host.stop()
            thread.join(TIMEOUT)
            self.assertEqual((code, len(outcome)), (143, 1))


def evaluate_busy(host):
    """Whether the interpreter runs something: an evaluation that waits does not answer, so a short one is tried."""
    connection = host.connection()
    connection.timeout = 0.3
    try:
        connection.request("POST", "/messageservice/container", json.dumps({"type": "Eval", "code": "0"}), host.headers())
        connection.getresponse().read()
        return False
    except TimeoutError:
        return True
    finally:
        connection.close()


if __name__ == "__main__":
    unittest.main(verbosity=2)
