#!/usr/bin/env python3
"""The host itself runs nothing that lies in the current folder. Usage: library_test.py VENDRA"""

import concurrent.futures
import json
import os
import pty
import select
import sys
import tempfile
import time
import unittest

from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)

# Named by a class, an argument's name, a text, a module: each way of completing.
COMPLETED = ["gre", "greeting.up", "spot.", "Spot(", "open('/us", "gr\u00f6", "x[1", "'a' # ", "sys.ver"]
# Without an import of their own.
FAILING = ["1 / 0", "(", "missing", "def f(:", "raise ExceptionGroup('two', [ValueError(1), KeyError(2)])", "'\\ud800'.encode()",
           "Spot.nothing", "spot.oen", "x = 'a' is 'b'"]


class HostileFolder(unittest.TestCase):
    """Started in a folder that has a module of each name of the standard library, each of which tells when it runs."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="vendra-hostile-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.told = os.path.join(self.folder, "told")
        for name in sys.stdlib_module_names:
            with open(os.path.join(self.folder, name + ".py"), "w", encoding="utf-8") as file:
                file.write(f"with open({self.told!r}, 'a') as told: told.write(__name__ + ' ')\n")
        former = os.getcwd()
        os.chdir(self.folder)
        self.addCleanup(os.chdir, former)

    def ran(self):
        try:
            with open(self.told, encoding="utf-8") as file:
                return file.read().split()
        except FileNotFoundError:
            return []

    def test_clients(self):
        with Vendra(VENDRA) as host:
            self.assertEqual(host.ask("Eval", code="import sys; sys.path[0]")["value"], "")
            host.ask("Eval", code="greeting = 'a'; gr\u00f6\u00dfe = 1\nclass Spot:\n    def __init__(self, x): self.x = x\nspot = Spot(1)")
            for code in FAILING:
                answer = host.ask("Eval", code=code)
                self.assertNotIn("could not be described", answer.get("message", ""), code)
            for text in COMPLETED:
                host.ask("TabCompletion", text=text)
            self.assertEqual(host.ask("Workspace", pattern="gre*")["total"], 1)
            for name in ("greeting", "spot", "Spot"):
                host.ask("Variable", name=name, picture="png")
            host.ask("VariableChange")
            host.ask("SetVariable", name="spot", path=["x"], value=2)
            for path in ("~", self.folder):
                host.ask("CurrentFolder", path=path)
            host.ask("FEval", function="divmod", arguments=[1, 0])
            host.ask("Eval", code="import connector\n@connector.subscribe('/news')\ndef news(channel, data): 1 / data")
            host.ask("Eval", code="connector.publish('/news', 0)")
            host.ask("Eval", code="0")
            self.assertEqual(self.ran(), [])
            # They are there, and scripts get them.
            host.ask("Eval", code="import colorsys")
            self.assertEqual(self.ran(), ["colorsys"])
            # A script's own module by the name of one that the host uses next changes nothing for either.
            host.ask("Eval", code="import codeop, pickle, unicodedata, tokenize as own")
            answer = host.ask("Eval", code="def deep(): 1 / 0\ndeep()")
            self.assertIn("def deep(): 1 / 0", answer["traceback"])

    def test_a_script_has_its_own_first(self):
        with Vendra(VENDRA) as host:
            code = "import sys, traceback, linecache, re, textwrap\nown = [sys.modules[name].__file__ for name in ('re', 'linecache')]"
            host.ask("Eval", code=code)
            self.assertEqual(self.ran(), ["traceback", "linecache", "re", "textwrap"])
            for _ in range(2):
                answer = host.ask("Eval", code="def deep():\n    1 / 0\ndeep()")
                self.assertIn("    1 / 0\n", answer["traceback"])
            self.assertEqual(host.ask("TabCompletion", text="ow")["candidates"], ["own"])
            self.assertEqual(host.ask("Eval", code="[sys.modules[name].__file__ for name in ('re', 'linecache')] == own")["value"], True)
            self.assertEqual(self.ran(), ["traceback", "linecache", "re", "textwrap"])

    def test_terminal(self):
        terminal, inside = pty.openpty()
        with Vendra(VENDRA, stdin=inside) as host:
            os.close(inside)
            for line in (b"1 / 0\n", b"(\n)\n", b"def f(:\n", b"if 1:\n  print('seen')\n\n"):
                os.write(terminal, line)
            self.assertTrue(any("seen" in line for line in host.process.stdout))
            self.assertEqual(self.ran(), [])
        os.close(terminal)


class FirstError(unittest.TestCase):
    def test_is_prepared_while_nothing_else_is_to_do(self):
        with Vendra(VENDRA) as host:
            code = "import sys\n[name for name in ('re', 'linecache', 'traceback', 'fnmatch') if name not in sys.modules]"
            end = time.monotonic() + TIMEOUT
            while (missing := host.ask("Eval", code=code)["value"]) and time.monotonic() < end:
                select.select([], [], [], 0.3)  # quiet is what it waits for
            self.assertEqual(missing, [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
