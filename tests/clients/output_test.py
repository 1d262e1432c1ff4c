#!/usr/bin/env python3
"""What is printed elsewhere than on the interpreter's thread by sys.stdout: by threads, by processes, by C code, on
descriptors 1 and 2. Usage: output_test.py VENDRA"""

import collections
import concurrent.futures
import os
import pty
import sys
import unittest

from bayeux import BayeuxSocket
from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)

LINES = 21_000  # of 119 characters, by each of four: 10 MB
MUCH = f"""
import ctypes, os, subprocess, sys, threading
libc = ctypes.CDLL(None)
def lines(name): return (f"{{name}} {{i:06}} {{'x' * 109}}" for i in range({LINES}))
def by_thread():
    for line in lines("thread"): print(line)
def by_c():
    for line in lines("code"): libc.write(1, line.encode() + b"\\n", len(line) + 1)
code = "import os\\nfor i in range({LINES}): os.write(1, b'child %06d %s\\\\n' % (i, b'x' * 109))"
child = subprocess.Popen([sys.executable, "-c", code])
threads = [threading.Thread(target=one) for one in (by_thread, by_c)]
for thread in threads: thread.start()
for line in lines("main"): print(line)
for thread in threads: thread.join()
child.wait()
"""


class Host(unittest.TestCase):
    def setUp(self):
        self.host = Vendra(VENDRA).__enter__()
        self.addCleanup(self.host.__exit__)

    def evaluate(self, code, **members):
        return self.host.ask("Eval", code=code, **members)

    def output(self, code):
        answer = self.evaluate(code)
        self.assertEqual(answer["type"], "EvalResponse", answer)
        return answer["output"]

    def left_on_the_host(self):
        """Ends it; what it wrote itself, but for the two lines at its start."""
        self.host.process.terminate()
        return self.host.process.communicate(timeout=TIMEOUT)

    def check_lines(self, text):
        numbers = collections.defaultdict(list)
        for line in text.splitlines():
            self.assertRegex(line, r"^\w+ \d{6} x{109}$")
            name, number, _ = line.split(" ")
            numbers[name].append(int(number))
        self.assertEqual(sorted(numbers), ["child", "code", "main", "thread"])
        for name, found in numbers.items():
            self.assertTrue(found == list(range(LINES)), name)


class Output(Host):
    def test_ten_megabytes_are_in_the_answer(self):
        self.check_lines(self.output(MUCH))
        self.assertEqual(self.left_on_the_host(), ("", ""))

    def test_ten_megabytes_are_in_the_stream(self):
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        channel = client.call("start", code=MUCH)["channel"]
        text, state = "", None
        while state != "ended":
            data = client.event(lambda message: message["channel"] == channel)["data"]
            self.assertNotEqual(data["kind"], "error", data)
            text += data.get("text", "") if data["kind"] == "output" else ""
            state = data.get("state")
        self.check_lines(text)

    def test_streams_and_order(self):
        code = ("import ctypes, os, subprocess, sys, threading, _thread, concurrent.futures\nlibc = ctypes.CDLL(None)\n"
                "pool = concurrent.futures.ThreadPoolExecutor(2)\ndef wait(function):\n"
                "    done = threading.Event()\n    _thread.start_new_thread(lambda word: (function(word), done.set()), ('b',))\n"
                "    done.wait()")
        self.assertEqual(self.output(code), "")
        for code in ["os.system('echo b')", "subprocess.run(['echo', 'b'])", "subprocess.run(['echo', 'b'], stdout=sys.stdout)",
                     "libc.write(1, b'b\\n', 2); import time; time.sleep(0.001)", "wait(print)",
                     "pool.submit(print, 'b').result()", "wait(lambda word: wait(print))",
                     "threading.Thread(target=lambda: os.system('echo b')).run()",
                     "sys.__stdout__.write('b\\n'); sys.__stdout__.flush(); time.sleep(0.001)",
                     "pid = os.fork()\nif not pid:\n    print('b')\n    os._exit(0)\nos.waitpid(pid, 0)",
                     "import multiprocessing\none = multiprocessing.get_context('fork').Process(target=print, args='b')\none.start(); one.join()"]:
            with self.subTest(code):
                self.assertEqual(self.output(f"print('a')\n{code}\nprint('c')\n"), "a\nb\nc\n")
        for code in ["libc.printf(b'%s', b'half')", "libc.write(2, b'half', 4)", "print('half', end='')",
                     "wait(lambda word: print('half', end=''))", "sys.__stdout__.write('half')", "sys.__stderr__.write('half')"]:
            with self.subTest(code):
                self.assertEqual(self.output(code), "half")
        self.assertEqual(self.output(r"os.write(1, '\u20ac'.encode()[:1]); time.sleep(0.01); os.write(1, '\u20ac'.encode()[1:])"),
                         "\u20ac")
        self.assertEqual(self.output(r"os.write(1, b'\xff\xe2')"), "\ufffd\ufffd")
        self.assertEqual(self.left_on_the_host(), ("", ""))

    def test_what_failed_or_was_broken_has_its_output(self):
        self.evaluate("import os, sys")
        answer = self.evaluate("os.system('echo before')\n1 / 0")
        self.assertEqual((answer["error"], answer["output"]), ("ZeroDivisionError", "before\n"))
        answer = self.evaluate("os.system('echo before')\nwhile True: pass", deadline=300)
        self.assertEqual((answer["code"], answer["output"]), ("deadline", "before\n"))
        self.assertEqual(self.output("print('after')"), "after\n")

    def test_limits_hold(self):
        self.evaluate("import os")
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        answer = client.call("eval", code="os.system('yes 2>/dev/null | head -c 7000000')")
        self.assertEqual(len(answer["output"]) + answer["omittedBytes"], 7_000_000)
        self.assertLessEqual(len(answer["output"]), 1 << 20)

    def test_what_goes_on_later_is_the_hosts(self):
        self.evaluate("import os, subprocess, threading")
        code = ("go = os.pipe()\ndone = threading.Event()\n"
                "def thread():\n    os.read(go[0], 1)\n    print('thread')\n    done.set()\n"
                "threading.Thread(target=thread).start()\n"
                "child = subprocess.Popen(['sh', '-c', 'read x; echo child'], stdin=go[0])\nprint('now')")
        self.assertEqual(self.output(code), "now\n")  # and at once
        self.assertEqual(self.output("print('next')\nos.write(go[1], b'\\n' * 40)\nchild.wait()\ndone.wait()\nNone"), "next\n")
        self.assertEqual(self.output("os.system('(sleep 0.2; echo grandchild) & echo now')"), "now\n")
        self.assertEqual(self.output("import time; time.sleep(0.5)"), "")
        output, errors = self.left_on_the_host()
        self.assertEqual((sorted(output.split()), errors), (["child", "grandchild", "thread"], ""))

    def test_a_flood_from_behind_holds_nobody_up(self):
        self.assertEqual(self.output("import os, subprocess\nflood = subprocess.Popen(['yes'], stdout=2)\nNone")[:2] or "y\n", "y\n")
        # Nobody reads what the host writes.
        for i in range(50):
            self.assertEqual(self.output(f"print({i})"), f"{i}\n")
        self.evaluate("flood.kill()")

    def test_many_survivors(self):
        self.evaluate("import subprocess; survivors = []")
        for i in range(80):
            self.assertEqual(self.output(f"survivors.append(subprocess.Popen(['sleep', '100']))\nprint({i})"), f"{i}\n")
        self.evaluate("for one in survivors: one.kill(); one.wait()")
        self.assertEqual(self.output("import os; os.system('echo done')"), "done\n")

    def test_last_words_are_said(self):
        with self.assertRaises(Exception):
            self.evaluate("import os, time; os.write(2, b'last words\\n'); time.sleep(0.1); os.abort()")
        _, errors = self.host.process.communicate(timeout=TIMEOUT)
        self.assertIn("last words", errors)


class Terminal(unittest.TestCase):
    def test_has_its_descriptors(self):
        """Whatever clients run meanwhile."""
        terminal, inside = pty.openpty()
        with Vendra(VENDRA, stdin=inside) as host, concurrent.futures.ThreadPoolExecutor() as pool:
            os.close(inside)
            host.ask("Eval", code="import os, threading")
            for i in range(20):
                future = pool.submit(host.ask, "Eval", code=f"os.system('echo client {i}')\nprint('client', {i})")
                os.write(terminal, b"print('typed', %d); _ = os.system('echo child %d')\n" % (i, i))
                self.assertEqual(future.result(TIMEOUT)["output"], f"client {i}\nclient {i}\n")
            os.write(terminal, b"talk = threading.Thread(target=lambda: [print('thread', i) for i in range(1000)]); talk.start()\n")
            host.ask("Eval", code="import time; time.sleep(0.2)")
            os.write(terminal, b"talk.join(); print('the' + ' end')\n")
            found = ""
            while "the end" not in found:
                self.assertTrue(line := host.process.stdout.readline())
                found += line
            for i in range(20):
                self.assertIn(f"typed {i}\n", found)
                self.assertIn(f"child {i}\n", found)
            found = found.replace(">>> ", "")  # the prompt comes in between
            self.assertEqual(found.count("thread "), 1000)
            self.assertNotIn("client", found)
        os.close(terminal)


class Asking(Host):
    def test_a_secret_is_asked_for_through_the_evaluation(self):
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        started = client.call("start", code="import getpass\ngetpass.getpass('Secret? ')")

        def until(kind):
            while (data := client.event(lambda message: message["channel"] == started["channel"])["data"])["kind"] != kind:
                self.assertNotIn(data["kind"], ("error", "result"))
            return data

        self.assertEqual((until("output"))["text"], "Secret? ")
        until("input")
        client.call("input", id=started["id"], text="sesame")
        self.assertEqual(until("result")["value"], "sesame")
        self.assertEqual(self.evaluate("import getpass; getpass.getpass()")["error"], "EOFError")

    def test_threads_may_print_while_a_line_is_awaited(self):
        client = BayeuxSocket(self.host)
        self.addCleanup(client.close)
        code = ("import threading\ngo = threading.Event()\ndef talk():\n    for i in range(1000): print(i)\n"
                "thread = threading.Thread(target=talk)\nthread.start()\nname = input()\nthread.join()\nname")
        started = client.call("start", code=code)
        asked, text, result = 0, "", None
        while result is None:
            data = client.event(lambda message: message["channel"] == started["channel"])["data"]
            self.assertNotEqual(data["kind"], "error", data)
            text += data.get("text", "") if data["kind"] == "output" else ""
            asked += data["kind"] == "input"
            if data["kind"] == "input":
                client.call("input", id=started["id"], text="Ada")
            result = data.get("value")
        self.assertEqual((result, asked, text), ("Ada", 1, "".join(f"{i}\n" for i in range(1000))))

    def test_a_debugger_leaves_the_interrupt_as_it_was(self):
        debug = "import io, signal, sys\nbefore = sys.stdin\nsys.stdin = io.StringIO('c\\n')\nbreakpoint()\nsys.stdin = before"
        for code in (debug, "signal.signal(signal.SIGINT, lambda *_: print('mine'))", "signal.signal(signal.SIGINT, signal.SIG_IGN)"):
            self.assertEqual(self.evaluate(code)["type"], "EvalResponse")
            self.assertEqual(self.evaluate("signal.getsignal(signal.SIGINT) is signal.default_int_handler")["value"], True)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            running = pool.submit(self.evaluate, "while True: pass")
            while not self.host.ask("Interrupt")["interrupted"]:
                pass
            self.assertEqual(running.result(TIMEOUT)["code"], "interrupted")

    def test_a_debugger_of_the_terminal_does_so_too(self):
        with Vendra(VENDRA, "-c", "import io, signal, sys\nsys.stdin = io.StringIO('c\\n')\nbreakpoint()\nend = 0") as host:
            self.assertEqual(host.ask("Eval", code="signal.getsignal(signal.SIGINT) is signal.default_int_handler")["value"], True)


if __name__ == "__main__":
    unittest.main(verbosity=2)
