#!/usr/bin/env python3
"""A console's view of the live interpreter. Usage: desktop_test.py VENDRA"""

import base64
import concurrent.futures
import json
import os
import pty
import struct
import sys
import time
import unittest
import xml.etree.ElementTree

from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)


def evaluate(host, code):
    answer = host.ask("Eval", code=code)
    assert answer["type"] == "EvalResponse", answer
    return answer["value"]


class Desktop(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.host = Vendra(VENDRA).__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()

    def need(self, package):
        if not evaluate(self.host, f"import importlib.util; importlib.util.find_spec({package!r}) is not None"):
            self.skipTest(f"{package} is not installed")

    def look(self, name, *path, **members):
        return self.host.ask("Variable", name=name, path=list(path), **members)

    def test_values_come_back_as_they_were_sent(self):
        for value in [None, True, 5, 5.0, "text", "", [], [1, [2.5, "a"]], {"a": {"b": [None]}},
                      {"vx": "double", "size": [2, 2], "data": [1.0, 2.0, 3.0, "NaN"]}]:
            self.assertEqual(self.host.ask("SetVariable", name="v", value=value)["type"], "SetVariableResponse")
            answer = self.look("v", limit=0)
            if isinstance(value, dict) and "vx" in value and answer["class"] == "list":
                continue  # no numpy is loaded: nested lists
            self.assertEqual(answer["value"], value)

    def test_a_long_value_is_left_out_by_the_length_of_its_text(self):
        evaluate(self.host, "quotes = '\\x01' * 12_000; fits = 'x' * 65_534; long = 'x' * 65_535")
        self.assertEqual(self.look("quotes")["value"], None)
        self.assertEqual(len(self.look("fits")["value"]), 65_534)
        self.assertIn("65536", self.look("long")["valueMissing"])
        self.assertEqual(self.look("long", rows=[65_534, 9])["value"], "x")

    def test_refusals(self):
        evaluate(self.host, "x = {'a': [1]}")
        for type_, members, code in [
            ("Variable", {"name": "nothing"}, "notFound"),
            ("Variable", {"name": "x", "path": ["b"]}, "notFound"),
            ("Variable", {"name": "x", "rows": [0, 1]}, "badRequest"),
            ("SetVariable", {"name": "not a name", "value": 1}, "badRequest"),
            ("SetVariable", {"name": "x", "path": ["a", 3], "value": 1}, "notFound"),
            ("ClearVariable", {"name": "class"}, "badRequest"),
            ("CurrentFolder", {"path": "/no/such/folder"}, "scriptError"),
            ("CurrentFolder", {"path": "a\0b"}, "scriptError"),
            ("TabCompletion", {"text": "ab", "cursor": 3}, "badRequest"),
            ("TabCompletion", {"text": "x" * 70_000}, "badRequest"),
        ]:
            answer = self.host.ask(type_, **members)
            self.assertEqual((answer["type"], answer.get("code")), ("Fault", code), (type_, members))
        for type_, members, where in [
            ("Workspace", {"limit": 10_001}, "limit"), ("Workspace", {"offset": -1}, "offset"),
            ("Variable", {"name": "x", "rows": [1]}, "rows"), ("Variable", {"name": "x", "rows": [0, -1]}, "rows[1]"),
            ("Variable", {"name": "x", "path": [1.5]}, "path[0]"), ("Variable", {"name": "x", "path": [True]}, "path[0]"),
            ("Variable", {"name": "x", "path": [0] * 65}, "path"), ("SetVariable", {"name": "x"}, "value"),
            ("VariableChange", {"wait": 30_001}, "wait"), ("TabCompletion", {"text": "x", "cursor": -1}, "cursor"),
        ]:
            status, text = self.host.post(json.dumps({"type": type_, **members}))
            self.assertEqual((status, where + ":" in text), (400, True), text)

    def test_order_within_a_container(self):
        messages = [{"type": "SetVariable", "id": "a", "name": "n", "value": 1},
                    {"type": "Variable", "id": "b", "name": "n"},
                    {"type": "Eval", "id": "c", "code": "n += 1"},
                    {"type": "Variable", "id": "d", "name": "n"},
                    {"type": "ClearVariable", "id": "e", "name": "n"},
                    {"type": "Variable", "id": "f", "name": "n"}]
        answers = json.loads(self.host.post(json.dumps({"messages": messages}))[1])["messages"]
        self.assertEqual([answers[i].get("value", answers[i].get("code")) for i in (1, 3, 5)], [1, 2, "notFound"])

    def test_waiting_for_a_change(self):
        token = self.host.ask("VariableChange")["token"]
        with concurrent.futures.ThreadPoolExecutor() as pool:
            waiting = [pool.submit(self.host.ask, "VariableChange", since=token, wait=30_000) for _ in range(8)]
            evaluate(self.host, "pass")
            self.assertFalse(any(future.done() for future in waiting))
            evaluate(self.host, "fresh = 1")
            for future in waiting:
                answer = future.result(TIMEOUT)
                self.assertEqual((answer["changed"], answer["removed"]), (["fresh"], []))
            evaluate(self.host, "del fresh")
            self.assertEqual(self.host.ask("VariableChange", since=answer["token"], wait=1000)["removed"], ["fresh"])
        begin = time.monotonic()
        token = self.host.ask("VariableChange")["token"]
        answer = self.host.ask("VariableChange", since=token, wait=200)
        self.assertEqual((answer["token"], answer["changed"]), (token, []))
        self.assertGreaterEqual(time.monotonic() - begin, 0.2)

    def test_too_many_wait_and_those_who_leave_make_room(self):
        token = self.host.ask("VariableChange")["token"]
        waiting = {"messages": [{"type": "VariableChange", "id": str(i), "since": token, "wait": 30_000} for i in range(101)]}
        connection = self.host.connection()
        connection.request("POST", "/messageservice/container", json.dumps(waiting), self.host.headers())
        evaluate(self.host, "0")  # the requests are in
        self.assertEqual(self.host.ask("VariableChange", since=token, wait=30_000)["code"], "busy")
        connection.close()
        deadline = time.monotonic() + TIMEOUT
        while self.host.ask("VariableChange", since=token, wait=1).get("code") == "busy":
            self.assertLess(time.monotonic(), deadline)

    def test_completion(self):
        evaluate(self.host, "class Box: pass\n𝒳 = Box()\n𝒳.wide = 1\n𝒳.wild = 2")
        answer = self.host.ask("TabCompletion", text="'𝒳𝒳' + 𝒳.wi tail", cursor=11, limit=1)
        self.assertEqual((answer["replaceFrom"], answer["candidates"], answer["total"]), (9, ["wide"], 2))

    def test_folder(self):
        before = self.host.ask("CurrentFolder")["folder"]
        self.assertEqual(before, os.getcwd())
        self.assertEqual(self.host.ask("CurrentFolder", path="~")["folder"], os.path.realpath(self.host.home))
        self.assertEqual(evaluate(self.host, "import os; os.getcwd()"), os.path.realpath(self.host.home))
        self.assertEqual(self.host.ask("CurrentFolder", path=before)["folder"], before)

    def test_arrays(self):
        self.need("numpy")
        evaluate(self.host, "import numpy as np\ngrid = np.arange(1e6).reshape(1000, 1000)\n"
                 "cube = np.zeros((2, 3, 4), 'int16')\nmixed = np.array([1, None, 'x', object], dtype=object)\n"
                 "dates = np.array(['2020-01-02'], 'M8[D]')\nnone = np.zeros((0, 3))\nnp_scalar = np.float32(1.5)\n"
                 "records = np.array([(1, 2.5)], dtype=[('a', 'i4'), ('b', 'f8')])")
        answer = self.look("grid", rows=[999, 5], columns=[997, 2], limit=1)
        self.assertEqual((answer["class"], answer["size"], answer["elementClass"], answer["bytes"]),
                         ("ndarray", [1000, 1000], "float64", 8_000_000))
        self.assertEqual(answer["value"], {"vx": "double", "size": [1, 2], "data": [999_997.0, 999_998.0]})
        self.assertEqual((answer["rows"], answer["columns"], answer["childCount"]), ([999, 1], [997, 2], 1000))
        self.assertEqual(answer["children"][0]["preview"][:15], "[0.0, 1.0, 2.0,")
        self.assertIn("valueMissing", self.look("grid", limit=0))
        self.assertEqual(self.look("grid", 2, 3)["value"], 2003.0)
        self.assertEqual(self.look("cube")["value"]["size"], [2, 3, 4])
        self.assertEqual(self.look("mixed")["preview"], "[1, None, 'x', <class 'object'>]")
        self.assertEqual(self.look("dates")["value"], {"vx": "datetime64", "value": [["2020-01-02"], "D"]})
        self.assertEqual(self.look("none")["size"], [0, 3])
        self.assertEqual(self.look("np_scalar")["value"], {"vx": "single", "size": [1, 1], "data": [1.5]})
        self.assertEqual(self.look("records")["value"]["vx"], "records")
        self.host.ask("SetVariable", name="cube", path=[1, 2, 3], value=7)
        self.assertEqual(evaluate(self.host, "int(cube.sum())"), 7)

    def test_tables(self):
        self.need("pandas")
        evaluate(self.host, "import pandas as pd\nclass Odd:\n    def __str__(self): raise SystemExit\n    __repr__ = __str__\n"
                 "table = pd.DataFrame({'n': [1, 2, 3], 't': ['a', None, Odd()],\n"
                 "                      'd': pd.to_datetime(['2020-01-02', None, '2020-01-03'])}, index=['r', 's', 't'])\n"
                 "big = pd.DataFrame({f'c{i}': range(100_000) for i in range(20)})\ntwice = pd.DataFrame([[1, 2]], columns=['a', 'a'])")
        answer = self.look("table", rows=[1, 9], columns=[0, 3])
        self.assertEqual(answer["value"][0], {"vx": "int64", "size": [1, 2], "data": [2, 3]})
        self.assertEqual(answer["value"][1:], [[None, "<__main__.Odd object>"], ["NaT", "2020-01-03"]])
        self.assertEqual((answer["rowNames"], answer["columnNames"]), (["s", "t"], ["n", "t", "d"]))
        self.assertEqual((answer["columnClasses"], answer["size"]), (["int64", "object", "datetime64[ns]"], [3, 3]))
        answer = self.look("big", rows=[99_999, 1], columns=[19, 5], limit=2)
        self.assertEqual((answer["value"], answer["columns"], answer["childCount"]), ([99_999], [19, 1], 20))
        self.assertEqual(self.look("table", "n", 2)["value"], 3)
        self.assertEqual(self.look("table", "t", rows=[0, 1])["rowNames"], ["r"])
        self.assertEqual(self.look("twice", 1, 0)["value"], 2)
        self.host.ask("SetVariable", name="table", path=["n", 1], value=20)
        self.assertEqual(evaluate(self.host, "int(table.n.sum())"), 24)

    def test_pictures(self):
        self.need("matplotlib")
        evaluate(self.host, "import matplotlib; from matplotlib.figure import Figure\n"
                 "figure = Figure(figsize=(2, 1), dpi=40); axes = figure.add_subplot(); axes.plot([1, 3, 2])\n"
                 "part = figure.subfigures().add_subplot(); held = {'a': [figure]}; backend = matplotlib.get_backend()")
        for asked, size in [(["figure"], (80, 40)), (["axes"], (80, 40)), (["part"], (80, 40)), (["held", "a", 0], (80, 40))]:
            for dpi in (None, 100):
                picture = self.look(*asked, picture="png", dpi=dpi, limit=0)["picture"]
                data = base64.b64decode(picture["data"], validate=True)
                self.assertEqual((picture["mediaType"], data[:8]), ("image/png", b"\x89PNG\r\n\x1a\n"))
                self.assertEqual(struct.unpack(">II", data[16:24]), (200, 100) if dpi else size, (asked, dpi))
        picture = self.look("figure", picture="svg")["picture"]
        self.assertEqual(picture["mediaType"], "image/svg+xml")
        self.assertTrue(xml.etree.ElementTree.fromstring(picture["text"]).tag.endswith("}svg"))
        self.assertNotIn("picture", self.look("figure"))
        self.assertEqual(evaluate(self.host, "figure.dpi == 40 and matplotlib.get_backend() == backend"), True)

    def test_a_watcher_may_draw_after_each_change(self):
        self.need("matplotlib")
        evaluate(self.host, "from matplotlib.figure import Figure\nwatched = Figure(); watched.add_subplot().plot([1, 2])")
        self.assertIn("picture", self.look("watched", picture="png"))
        token = self.host.ask("VariableChange")["token"]
        for form in ("png", "svg"):
            self.assertIn("picture", self.look("watched", picture=form))
            self.assertEqual(self.host.ask("VariableChange", since=token)["changed"], [])

    def test_pictures_that_there_are_not(self):
        self.need("matplotlib")
        evaluate(self.host, "import random; from matplotlib.figure import Figure\nfrom matplotlib.artist import Artist\n"
                 "class Bad(Artist):\n    def draw(self, renderer): raise ValueError('no' * 1000)\n"
                 "class Endless(Artist):\n    def draw(self, renderer):\n        print('at it')\n        while True: pass\n"
                 "bad, endless, noise = Figure(), Figure(), Figure(figsize=(4, 4))\n"
                 "bad.add_artist(Bad()); endless.add_artist(Endless())\n"
                 "noise.add_axes((0, 0, 1, 1)).imshow([[random.random() for x in range(1600)] for y in range(1600)], cmap='prism')\n"
                 "gone = Figure().add_subplot(); gone.remove(); huge = Figure(figsize=(1000, 1000))")
        for name, dpi, reason in [("Bad", None, "type"), ("bad", None, "drawing failed with ValueError: nono"),
                                  ("gone", None, "no figure"), ("huge", None, "pixels"), ("noise", 600, "4194304 bytes")]:
            answer = self.look(name, picture="png", dpi=dpi)
            self.assertIn(reason, answer.get("pictureMissing", answer), name)
            self.assertNotIn("picture", answer)
            self.assertLess(len(answer["pictureMissing"]), 600)
        for members, where in [({"picture": "gif"}, "picture"), ({"picture": "png", "dpi": 601}, "dpi")]:
            status, text = self.host.post(json.dumps({"type": "Variable", "name": "bad", **members}))
            self.assertEqual((status, where + ":" in text), (400, True), text)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            endless = pool.submit(self.look, "endless", picture="svg")
            while not endless.done():
                self.host.ask("Interrupt")
            self.assertEqual(endless.result()["code"], "interrupted")

    def test_nothing_is_imported_for_a_look(self):
        with Vendra(VENDRA) as host:
            evaluate(host, "x = [1]; import sys; before = set(sys.modules)")
            self.assertIn("pictureMissing", host.ask("Variable", name="x", picture="png"))
            host.ask("Workspace", pattern="x*")
            host.ask("TabCompletion", text="x.")
            loaded = evaluate(host, "sorted(set(sys.modules) - before)")
            self.assertFalse({name.partition(".")[0] for name in loaded} & {"numpy", "pandas", "matplotlib"})


class Prompt(unittest.TestCase):
    def test_changes_at_the_prompt_count(self):
        terminal, inside = pty.openpty()
        with Vendra(VENDRA, stdin=inside) as host:
            os.close(inside)
            token = host.ask("VariableChange")["token"]
            with concurrent.futures.ThreadPoolExecutor() as pool:
                waiting = pool.submit(host.ask, "VariableChange", since=token, wait=30_000)
                host.ask("Eval", code="0")
                os.write(terminal, b"typed = 5\n")
                self.assertEqual(waiting.result(TIMEOUT)["changed"], ["typed"])
        os.close(terminal)


if __name__ == "__main__":
    unittest.main(verbosity=2)
