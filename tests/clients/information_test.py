#!/usr/bin/env python3
"""What clients learn about themselves, what rides along for them, and what their type brings. Usage: information_test.py VENDRA"""

import http.client
import json
import os
import sys
import unittest
import urllib.parse

from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)


class Page:
    """A page that entered by a one-time address, keeps its cookies and has the key of its origin."""

    def __init__(self, host):
        self.where = urllib.parse.urlsplit(host.url)
        self.cookies = {}
        url = urllib.parse.urlsplit(host.command("--url").stdout.strip())
        self.headers = {"Host": url.netloc, "Content-Type": "application/json", "Sec-Fetch-Site": "same-origin"}
        self._open("GET", f"{url.path}?{url.query}")
        code = self.location.partition("#entry=")[2]
        _, answer = self._open("POST", "/messageservice/entry", "", {"Vendra-Entry": code})
        self.headers["Vendra-Page"] = json.loads(answer)["key"]

    def _open(self, method, target, body=None, more=()):
        connection = http.client.HTTPConnection(self.where.hostname, self.where.port, timeout=TIMEOUT)
        try:
            headers = {**self.headers, **dict(more),
                       "Cookie": "; ".join(f"{name}={value}" for name, value in self.cookies.items())}
            connection.request(method, target, body, headers)
            response = connection.getresponse()
            text = response.read().decode()
            self.location = response.getheader("Location", "")
            for cookie in response.headers.get_all("Set-Cookie") or []:
                name, _, value = cookie.partition(";")[0].partition("=")
                self.cookies[name] = value
            return response.status, text
        finally:
            connection.close()

    def post(self, body):
        status, text = self._open("POST", "/messageservice/container", json.dumps(body))
        assert status == 200, f"{status}: {text}"
        return json.loads(text)

    def send(self, *messages, client_type=""):
        return self.post({"id": "c", "clientType": client_type, "messages": list(messages)})["messages"]


class Information(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.host = Vendra(VENDRA).__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()

    def container(self, *messages, client_type=""):
        status, body = self.host.post(json.dumps({"clientType": client_type, "messages": list(messages)}))
        self.assertEqual(status, 200, body)
        return json.loads(body)["messages"]

    def test_client_and_home(self):
        page, other = Page(self.host), Page(self.host)
        home = os.path.realpath(self.host.home)
        self.assertEqual(self.host.ask("GetUserHomeDir")["path"], self.host.home)
        self.assertEqual(page.send({"type": "SetUserHomeDir", "path": self.host.home + "/."})[0]["path"], home)
        client = page.send({"type": "GetCurrentClientProperties"}, client_type="browser")[0]
        self.assertEqual((client["clientType"], client["transport"], client["properties"]),
                         ("browser", "http", {"userHomeDir": home}))
        self.assertTrue(client["sessionId"])
        self.assertNotIn(client["sessionId"], page.cookies.values())
        again, another = (p.send({"type": "GetCurrentClientProperties"})[0] for p in (page, other))
        self.assertEqual((again["sessionId"], again["clientType"]), (client["sessionId"], ""))
        self.assertNotEqual(another["sessionId"], client["sessionId"])
        self.assertEqual(another["properties"], {})

    def test_home_is_what_the_tilde_means(self):
        page, other = Page(self.host), Page(self.host)
        home = os.path.realpath(self.host.home)
        os.makedirs(os.path.join(home, "mine", "sub"))
        page.send({"type": "SetUserHomeDir", "path": os.path.join(home, "mine")})
        enter = {"type": "CurrentFolder", "path": "~/sub"}
        self.assertEqual(page.send(enter)[0]["folder"], os.path.join(home, "mine", "sub"))
        self.assertEqual(other.send(enter)[0]["code"], "scriptError", "another session has another home")
        self.assertEqual(other.send({"type": "CurrentFolder", "path": "~"})[0]["folder"], home)

    def test_services_are_listed(self):
        services = {s["name"]: s["running"] for s in self.host.ask("ServiceRegistryRequest")["services"]}
        self.assertTrue(services["connector/v1/information"])
        self.assertTrue(services["connector/http/session"])
        self.assertEqual(set(services.values()), {True})

    def test_message_rides_on_the_next_answer(self):
        page, other = Page(self.host), Page(self.host)
        session = page.send({"type": "GetCurrentClientProperties"})[0]["sessionId"]
        other.send()
        message = {"type": "Interrupt", "text": "für dich", "list": [1, 2.5, None]}
        self.assertEqual(self.host.ask("QueueHitchhiker", session=session, message=message)["sessions"], 1)
        evaluate = {"type": "Eval", "id": "e", "code": "1"}
        self.assertEqual([a["type"] for a in other.send(evaluate)], ["EvalResponse"])
        self.assertEqual(page.post(evaluate)["type"], "EvalResponse", "bare")
        self.assertEqual(page.send(evaluate)[1:], [{"type": "Hitchhiker", "id": "", "message": message}])
        self.assertEqual(len(page.send(evaluate)), 1)
        # Sessions of other tests may be among all.
        reached = self.container({"type": "QueueHitchhiker", "allSessions": True, "message": message})
        self.assertGreaterEqual(reached[0]["sessions"], 2)
        self.assertEqual(len(reached), 1, "a program without a session gets none")
        for receiver in (page, other):
            self.assertEqual([a["type"] for a in receiver.send(evaluate)], ["EvalResponse", "Hitchhiker"])

    def test_client_type_brings_its_folders(self):
        for name in ("narrow", "wide"):
            os.makedirs(os.path.join(self.host.home, name))
            with open(os.path.join(self.host.home, name, f"layout_{name}.py"), "w", encoding="utf-8") as file:
                file.write(f"text = {name!r}\n")
        path = os.path.join(self.host.home, "phone.json")
        with open(path, "w", encoding="utf-8") as file:
            json.dump({"clientType": "phone", "folders": ["narrow", "wide"], "behaviors": {"page": "small"}}, file)
        folders = [os.path.join(self.host.home, name) for name in ("narrow", "wide")]
        loaded = self.host.ask("LoadClientTypeFile", path=path)
        self.assertEqual(loaded, {"type": "LoadClientTypeFileResponse", "id": "1", "clientType": "phone",
                                  "folders": folders, "behaviors": ["page"]})

        look = {"type": "Eval", "code": "import sys\nsys.path[:]"}
        before = self.container(look, client_type="tablet")[0]["value"]
        self.assertEqual(self.container(look, client_type="phone")[0]["value"], folders + before)
        fail = {"type": "Eval", "code": "import layout_narrow\n1 / 0"}
        self.assertEqual(self.container(fail, look, client_type="phone")[0]["error"], "ZeroDivisionError")
        self.assertEqual(self.container(look)[0]["value"], before)
        missing = self.container({"type": "Eval", "code": "import layout_wide"})[0]
        self.assertEqual(missing["error"], "ModuleNotFoundError")
        found = self.container({"type": "Eval", "code": "import layout_wide\nlayout_wide.text"}, client_type="phone")
        self.assertEqual(found[0]["value"], "wide")
        behavior = {"type": "GetBehavior", "name": "page"}
        self.assertEqual([self.container(behavior, client_type=kind)[0]["text"] for kind in ("phone", "tablet")],
                         ["small", None])
        self.assertEqual(self.container({**behavior, "clientType": "phone"})[0]["text"], "small")

    def test_plotting_library_is_told_and_restored(self):
        library = ("import sys, types\nlibrary = types.ModuleType('matplotlib')\n"
                   "library.rcParams = {'axes.facecolor': 'white', 'figure.facecolor': 'grey'}\n"
                   "sys.modules['matplotlib'] = library")
        look = {"type": "Eval", "code": "[library.rcParams['axes.facecolor'], library.rcParams['figure.facecolor']]"}
        forget = {"type": "Eval", "code": "del sys.modules['matplotlib']"}
        answers = self.container({"type": "Eval", "code": library}, {"type": "SetBgColor", "color": "#101010"},
                                 {"type": "SetBgColor", "color": "#202020"}, look,
                                 {"type": "ChangeDefaultFigureColor", "color": "#303030"}, look,
                                 {"type": "ResetBgColor"}, look, forget)
        self.assertEqual([a.get("applied") for a in answers], [None, True, True, None, True, None, True, None, None])
        self.assertEqual([answers[i]["value"] for i in (3, 5, 7)],
                         [["#202020", "grey"], ["#202020", "#303030"], ["white", "grey"]])

    def test_plotting_library_that_comes_later_is_told(self):
        folder = os.path.join(self.host.home, "later")
        os.makedirs(folder)
        with open(os.path.join(folder, "matplotlib.py"), "w", encoding="utf-8") as file:
            file.write("rcParams = {'axes.facecolor': 'white', 'figure.facecolor': 'grey'}\n")
        use = {"type": "Eval", "code": f"import sys\nsys.path.insert(0, {folder!r})\nimport matplotlib\n"
                                       "list(matplotlib.rcParams.values())"}
        forget = {"type": "Eval", "code": "del sys.modules['matplotlib'], sys.path[0]\nlen(sys.meta_path)"}
        answers = self.container({"type": "SetBgColor", "color": "#202020"}, use, {"type": "ResetBgColor"},
                                 {"type": "Eval", "code": "list(matplotlib.rcParams.values())"}, forget)
        self.assertEqual([answers[0]["applied"], answers[1]["value"], answers[2]["applied"], answers[3]["value"]],
                         [False, ["#202020", "grey"], True, ["white", "grey"]])
        answers = self.container({"type": "SetBgColor", "color": "#202020"}, {"type": "ResetBgColor"}, use, forget)
        self.assertEqual(answers[2]["value"], ["white", "grey"], "reset before it came")


class Management(unittest.TestCase):
    def test_a_setting_lets_clients_manage(self):
        with Vendra(VENDRA, environment={"VENDRA_SECURITY_CLIENTS_MANAGE": "true"}) as host:
            opened = host.ask("OpenPort")
            self.assertIn(opened["port"], [port["port"] for port in host.ask("ListPorts")["ports"]])
            self.assertEqual(host.ask("ClosePort", port=opened["port"])["port"], opened["port"])
            self.assertEqual(host.ask("ClosePort", port=opened["port"])["code"], "badRequest")
            self.assertTrue(host.ask("AddContentRoot", prefix="/mine", folder=host.home)["userFiles"])
            self.assertEqual(host.ask("RemoveContentRoot", prefix="/mine")["prefix"], "/mine")
            self.assertGreater(host.ask("GetCounters")["requests"], 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
