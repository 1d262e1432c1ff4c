#!/usr/bin/env python3
"""What a child process gets of the host's descriptors: none but 0, 1 and 2. Usage: children_test.py VENDRA"""

import os
import pty
import socket
import sys
import tempfile
import unittest
import urllib.parse

from bayeux import BayeuxSocket
from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop()

# The descriptors of a child as it finds them, "number target" a line. It is started in the ways that leave nothing to
# be closed by Python itself: without `close_fds`, by the C library, and by fork and exec alone.
LIST = "for f in /proc/self/fd/*; do echo \"${f##*/} $(readlink $f)\"; done"
WAYS = {
    "os.system": "import os; os.system(COMMAND + ' > ' + FILE)",
    "os.popen": "import os; os.popen(COMMAND + ' > ' + FILE).read()",
    "subprocess": "import subprocess; subprocess.run(['sh', '-c', COMMAND + ' > ' + FILE], close_fds=False)",
    "system(3)": "import ctypes; ctypes.CDLL(None).system((COMMAND + ' > ' + FILE).encode())",
    "fork": "import os\n"
            "pid = os.fork()\n"
            "if pid == 0:\n"
            "    os.execv('/bin/sh', ['sh', '-c', COMMAND + ' > ' + FILE])\n"
            "os.waitpid(pid, 0)",
}


class Children(unittest.TestCase):
    def connect(self, host, first=b""):
        where = urllib.parse.urlsplit(host.url)
        client = socket.create_connection((where.hostname, where.port), TIMEOUT)
        self.addCleanup(client.close)
        client.sendall(first)
        return client

    def inherited(self, host, statement):
        """What the child had besides 0, 1 and 2, and the descriptor by which the shell reads the folder."""
        with tempfile.TemporaryDirectory() as folder:
            file = os.path.join(folder, "list")
            host.ask("Eval", code=f"COMMAND = {LIST!r}\nFILE = {file!r}\n{statement}")
            with open(file, encoding="utf-8") as listed:
                lines = listed.read().splitlines()
        self.assertGreaterEqual(len(lines), 3, lines)
        return [line for line in lines if int(line.split()[0]) > 2 and line.strip() != line.split()[0]
                and "/proc/" not in line]

    def clients(self, host, path):
        """One of each kind, in the middle of something."""
        head = f"Host: {urllib.parse.urlsplit(host.url).netloc}\r\nAuthorization: Bearer {host.discovery['token']}\r\n"
        idle = self.connect(host, f"GET / HTTP/1.1\r\n{head}\r\n".encode())
        idle.recv(1)
        self.connect(host)
        self.connect(host, b"GET / HT")
        uploading = self.connect(host, (f"POST /messageservice/container HTTP/1.1\r\n{head}Expect: 100-continue\r\n"
                                        "Content-Type: application/json\r\nContent-Length: 5000000\r\n\r\n").encode())
        self.assertIn(b"100", uploading.recv(100))
        uploading.sendall(b"x" * 2_000_000)
        bus = BayeuxSocket(host)
        self.addCleanup(bus.close)
        bus.send("/meta/connect", connectionType="websocket")
        unix = socket.socket(socket.AF_UNIX)
        self.addCleanup(unix.close)
        unix.connect(path)
        unix.sendall(b"GET / HT")

    def test_get_nothing(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "socket")
            with Vendra(VENDRA, environment={"VENDRA_HTTP_UNIX_SOCKET": path}) as host:
                self.clients(host, path)
                for way, statement in WAYS.items():
                    with self.subTest(way):
                        self.assertEqual(self.inherited(host, statement), [])

    def test_get_nothing_at_the_terminal(self):
        main, end = pty.openpty()
        self.addCleanup(os.close, main)
        with Vendra(VENDRA, stdin=end) as host:
            os.close(end)
            for way, statement in WAYS.items():
                with self.subTest(way):
                    self.assertEqual(self.inherited(host, statement), [])

    def test_do_not_keep_the_port(self):
        with Vendra(VENDRA) as host:
            where = urllib.parse.urlsplit(host.url)
            host.ask("Eval", code="import subprocess\n"
                                  "child = subprocess.Popen(['sleep', '20'], close_fds=False)")
            host.stop()
            with self.assertRaises(ConnectionRefusedError):
                socket.create_connection((where.hostname, where.port), TIMEOUT).close()
            with socket.socket() as other:
                other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)  # as servers do; who listens is in the way
                other.bind((where.hostname, where.port))
                other.listen()


if __name__ == "__main__":
    unittest.main(verbosity=2)
