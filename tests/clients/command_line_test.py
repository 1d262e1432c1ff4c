#!/usr/bin/env python3
"""What people type to start a host and to find it. Usage: command_line_test.py VENDRA"""

import json
import os
import re
import socket
import stat
import sys
import time
import unittest

from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)

# Keeps the page that it is to open.
BROWSER = """#!/bin/sh
cp "${1#file://}" "$HOME/opened.new" && mv "$HOME/opened.new" "$HOME/opened"
"""


def browser_of(host):
    path = os.path.join(host.environment["HOME"], "browser")
    with open(path, "w", encoding="ascii") as file:
        file.write(BROWSER)
    os.chmod(path, 0o700)
    host.environment["BROWSER"] = path


def opened_by(host):
    path = os.path.join(host.environment["HOME"], "opened")
    end = time.monotonic() + TIMEOUT
    while not os.path.exists(path):
        assert time.monotonic() < end, "no browser was started"
        time.sleep(0.01)
    with open(path, encoding="utf-8") as file:
        text = file.read()
    os.remove(path)
    return text


class CommandLine(unittest.TestCase):
    def test_a_port_is_chosen(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
            refused = Vendra(VENDRA).command("--port", str(port))
            self.assertEqual(refused.returncode, 1)
            self.assertIn(f"Cannot listen on 127.0.0.1:{port}: Address already in use", refused.stderr)
            self.assertIn("http.port", refused.stderr)
        with Vendra(VENDRA, "--port", str(port)) as host:
            self.assertEqual(host.url, f"http://127.0.0.1:{port}/")

    def test_a_port_that_cannot_be_is_no_other_port(self):
        for value in ("99999", "80a", ""):
            host = Vendra(VENDRA, environment={"VENDRA_HTTP_PORT": value})
            refused = host.command("--connector")
            self.assertEqual((refused.returncode, refused.stdout), (1, ""), value)
            self.assertIn("environment VENDRA_HTTP_PORT: The key http.port takes an integer", refused.stderr)

    def test_hosts_are_listed_for_programs(self):
        with Vendra(VENDRA) as host:
            listed = json.loads(host.command("--list", "--json").stdout)
            self.assertEqual([(one["pid"], one["url"]) for one in listed], [(host.process.pid, host.url)])
            self.assertLess(abs(time.time() - listed[0]["started"]), 600)
            self.assertEqual(set(listed[0]), {"pid", "url", "started"}, "and no token")
        self.assertEqual(host.command("--list", "--json").stdout, "[]\n")

    def test_a_browser_is_opened(self):
        host = Vendra(VENDRA, "--open")
        browser_of(host)
        with host:
            page = opened_by(host)
            self.assertIn(host.entry_url, page)
            left = os.path.join(os.path.dirname(host.token_file), "open.html")
            self.assertEqual(stat.S_IMODE(os.stat(left).st_mode), 0o600)
            answer = host.command("--url", "--open")
            self.assertEqual((answer.returncode, answer.stdout, answer.stderr), (0, "", ""))
            another = re.search(r"url=([^\"]*)", opened_by(host))[1]
            self.assertRegex(another, r"nonce=[0-9a-f]{64}")
            self.assertNotIn(another, page)
            host.environment["BROWSER"] = "/no/such/browser"
            missing = host.command("--url", "--open")
            self.assertEqual(missing.returncode, 1)
            self.assertIn('no "/no/such/browser"', missing.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
