"""Values of all sorts through every conversion and look. Usage: values_test.py VENDRA

values/rows.txt has a row for each: an expression, and after two blanks

    =  JSON             it is told so, and comes back as the same value of the same type
    ~  JSON  ->  JSON   it is told so, and comes back as something else, which is told so; the same without the arrow
    !  reason           it has no such form
    *  error            behind all this: its own text cannot be made, so an evaluation of it fails with that error
"""

import json
import pathlib
import sys
import unittest

from bayeux import BayeuxSocket
from vendra_process import Vendra

VENDRA = sys.argv.pop(1)
FOLDER = pathlib.Path(__file__).parent / "values"
TABLES = {"DataFrame", "Series"}  # a look tells their elements alone; so it does with indexes


class Row:
    def __init__(self, line):
        line, _, self.text_error = line.partition("  *  ")
        self.mark = next(mark for mark in "=~!" if f"  {mark}  " in line)
        self.code, told = line.split(f"  {self.mark}  ", 1)
        self.reason = told if self.mark == "!" else ""
        told, _, again = ("null" if self.reason else told).partition("  ->  ")
        self.value = json.loads(told)
        self.again = json.loads(again or told)


def read_rows():
    lines = (FOLDER / "rows.txt").read_text(encoding="utf-8").splitlines()
    return [Row(line) for line in lines if line and not line.startswith("#")]


def text(value):
    return json.dumps(value)  # tells 5 from 5.0, and -0.0 from 0.0


class Values(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.rows = read_rows()
        cls.host = Vendra(VENDRA)
        cls.host.__enter__()
        answer = cls.host.ask("Eval", code=(FOLDER / "setup.py").read_text(encoding="utf-8"), wantValue=False)
        assert answer["type"] == "EvalResponse", answer

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()

    def ask(self, *messages):
        """Several messages in one container."""
        messages = [{"id": str(number), **message} for number, message in enumerate(messages)]
        status, body = self.host.post(json.dumps({"id": "c", "messages": messages}))
        self.assertEqual(status, 200, body)
        return json.loads(body)["messages"]

    def check(self, row, answer, value, reason=None):
        """An answer to an `Eval`."""
        reason = row.reason if reason is None else reason
        if row.text_error:
            self.assertEqual((answer.get("type"), answer.get("error")), ("Fault", row.text_error))
            return
        self.assertEqual((text(answer["value"]), answer.get("conversionError", "")), (text(value), reason))
        self.assertTrue(answer["hasValue"] or row.code == "None")

    def test_evaluations_tell_values_exactly_or_why_not(self):
        for row in self.rows:
            with self.subTest(row.code):
                plain, nested = self.ask({"type": "Eval", "code": row.code},
                                         {"type": "Eval", "code": f"[{row.code}, {{'k': ({row.code},)}}]"})
                self.check(row, plain, row.value)
                if "loop_" not in row.code and not row.reason.startswith(("containers nest", "a value holds")):
                    self.check(row, nested, None if row.reason else [row.value, {"k": [row.value]}])

    def test_results_and_arguments_of_calls(self):
        for row in self.rows:
            with self.subTest(row.code):
                made, = self.ask({"type": "FEval", "function": "make", "arguments": [row.code]})
                if row.reason:
                    self.assertEqual((made["type"], made.get("message")), ("Fault", row.reason))
                    continue
                self.assertEqual(text(made["results"]), text([row.value]))
                again, nested, difference = self.ask(
                    {"type": "FEval", "function": "same", "arguments": [row.value]},
                    {"type": "FEval", "function": "same", "arguments": [[row.value, {"k": row.value}]]},
                    {"type": "FEval", "function": "differs" if row.mark == "=" else "len",
                     "arguments": [row.value, row.code] if row.mark == "=" else [""]})
                self.assertEqual(text(again.get("results", again)), text([row.again]))
                self.assertEqual(text(nested.get("results", nested)), text([[row.again, {"k": row.again}]]))
                self.assertEqual(difference.get("results", difference), [""] if row.mark == "=" else [0])

    def test_looks(self):
        for row in self.rows:
            with self.subTest(row.code):
                self.ask({"type": "Eval", "code": f"direct = {row.code}; probe = [direct]", "wantValue": False})
                direct, nested, page, change = self.ask({"type": "Variable", "name": "direct", "limit": 5},
                                                        {"type": "Variable", "name": "probe", "limit": 5},
                                                        {"type": "Workspace", "pattern": "direct"},
                                                        {"type": "VariableChange"})
                self.assertEqual([answer["type"] for answer in (direct, nested, page, change)],
                                 ["VariableResponse", "VariableResponse", "WorkspaceResponse", "VariableChangeResponse"])
                listed = [] if direct["class"] == "module" else [direct["preview"]]
                self.assertEqual([variable["preview"] for variable in page["variables"]], listed)
                self.assertLessEqual(len(direct["preview"].encode()), 200)
                self.check_look(row, nested, [row.value])
                if direct["class"] not in TABLES and not direct["class"].endswith("Index"):
                    self.check_look(row, direct, row.value)

    def check_look(self, row, answer, value):
        if answer.get("valueMissing", "").startswith("the value takes more than"):
            self.assertTrue(row.reason or len(text(row.value)) > 20_000)
        elif row.reason:
            self.assertEqual(answer["value"], None)
            self.assertTrue(answer["valueMissing"])
        elif "__index__" not in answer.get("valueMissing", "") and "Index()" not in row.code:  # no code is run for a look
            self.assertEqual((text(answer["value"]), answer.get("valueMissing")), (text(value), None))

    def test_evaluations_over_the_bus(self):
        client = BayeuxSocket(self.host)
        for row in self.rows:
            with self.subTest(row.code):
                channel = "/interpreter/eval/" + client.call("start", code=row.code)["id"]
                answer = {}
                while answer.get("state") != "ended":
                    answer = client.event(lambda message: message["channel"] == channel)["data"]
                    if answer["kind"] in ("result", "error"):
                        self.check(row, {**answer, "type": "Fault" if answer["kind"] == "error" else ""}, row.value)
        client.close()

    def test_values_are_set_and_watched(self):
        messages = [{"type": "SetVariable", "name": f"set{number}", "value": row.value}
                    for number, row in enumerate(self.rows) if not row.reason]
        for begin in range(0, len(messages), 100):
            for message, answer in zip(messages[begin:], self.ask(*messages[begin : begin + 100])):
                self.assertEqual(answer["type"], "SetVariableResponse", message)
        page = self.host.ask("Workspace", pattern="set*", limit=10_000)
        self.assertEqual((page["type"], page.get("total", 0) >= len(messages)), ("WorkspaceResponse", True), page)
        changed = self.host.ask("VariableChange", since="", wait=0)
        self.assertEqual(self.host.ask("VariableChange", since=changed["token"])["changed"], [])

    def test_what_runs_away_is_interrupted(self):
        code = "class Endless:\n    def __repr__(self):\n        while True: pass\n    __index__ = __repr__\nendless = Endless()\n"
        self.ask({"type": "Eval", "code": code, "wantValue": False})
        endless, listed = self.ask({"type": "Eval", "code": "endless", "deadline": 100},
                                   {"type": "FEval", "function": "make", "arguments": ["[endless]"], "deadline": 100})
        self.assertEqual((endless["code"], listed["code"]), ("deadline", "deadline"))
        look, = self.ask({"type": "Variable", "name": "endless"})
        self.assertEqual(look["valueMissing"], "a value of type 'Endless' has no array form")

    def test_an_error_without_a_text_is_a_reason_too(self):
        self.assertEqual(self.host.ask("Eval", code="OddIndex()")["conversionError"], "OddError")

    def test_what_stands_in_the_folder_is_no_kind(self):
        folder = self.host.home
        for name in ("decimal", "datetime", "fractions", "uuid", "zoneinfo", "numpy"):
            (pathlib.Path(folder) / f"{name}.py").write_text("raise SystemExit('not from here')")
        with Vendra(VENDRA) as host:
            host.ask("Eval", code=f"import sys; sys.path.insert(0, {folder!r})")
            for value in [{"vx": "decimal", "value": "1.5"}, {"vx": "date", "value": "2024-01-01"},
                          {"vx": "datetime", "value": {"time": "2024-07-01T00:00:00+02:00", "zone": "Europe/Berlin"}},
                          {"vx": "fraction", "value": "1/3"}, {"vx": "uuid", "value": "0" * 32}]:
                self.assertEqual(host.ask("FEval", function="type", arguments=[value], results=0)["type"], "FEvalResponse")
            answer = host.ask("FEval", function="abs", arguments=[{"vx": "datetime64", "value": ["2024", "Y"]}])
            self.assertIn("needs numpy", answer["message"])

    def test_what_is_no_value_of_a_kind(self):
        for value in [{"vx": "no_kind", "value": 1}, {"vx": "date", "value": "2024-13-01"}, {"vx": "date", "value": 5},
                      {"vx": "decimal", "value": "one"}, {"vx": "decimal", "value": None}, {"vx": "complex", "value": [1]},
                      {"vx": "complex", "value": "ab"}, {"vx": "set", "value": [{"a": 1}]}, {"vx": "set", "value": 5},
                      {"vx": "dict", "value": [[1]]}, {"vx": "integer", "value": "x" * 5000},
                      {"vx": "integer", "value": "9" * 5000}, {"vx": "range", "value": []},
                      {"vx": "fraction", "value": "1/0"}, {"vx": "timedelta", "value": {"days": 1e300}},
                      {"vx": "timedelta", "value": {"hour": 1}}, {"vx": "deque", "value": [5]},
                      {"vx": "enum", "value": {"class": "no.Such", "name": "A", "value": 1}},
                      {"vx": "enum", "value": {"class": "builtins.int", "name": "A", "value": 1}},
                      {"vx": "dataclass", "value": {"class": "builtins.int", "fields": {}}},
                      {"vx": "series", "value": {}}, {"vx": "dataframe", "value": None}, {"vx": "records", "value": [1]},
                      {"vx": "datetime64", "value": ["2024", "no unit"]}, {"vx": "missing", "value": "this"},
                      {"vx": "char", "size": [1_000_000_000, 0], "data": []},
                      {"vx": "cell", "size": [1_000_000, 1_000_000, 0], "data": []}]:
            answer, = self.ask({"type": "FEval", "function": "same", "arguments": [value]})
            self.assertEqual((answer.get("code"), answer.get("error")), ("scriptError", "ValueError"), value)


if __name__ == "__main__":
    unittest.main()
