"""Raw bytes to a real host, what comes back, and what it cost the host."""

import errno
import os
import re
import socket
import tempfile
import time
import unittest
import urllib.parse
from collections import Counter

from vendra_process import Vendra

DEADLINE = 5  # seconds for any one read
SECRET = b"lies-outside-of-every-root"
HIDDEN = b"hidden-request-was-answered"
POOL_THREAD = "connector-work"
MOST_POOL_THREADS = 4
EVAL = '{"type":"Eval","id":"1","code":"1+1"}'


def wait_until(condition, what):
    deadline = time.monotonic() + DEADLINE
    while not condition():
        assert time.monotonic() < deadline, what()
        time.sleep(0.01)


def answers(received, methods=()):
    """The final answers in what a server sent, as (status, head, body); `methods` of the requests, where one is HEAD."""
    found = []
    while received:
        head, end, rest = received.partition(b"\r\n\r\n")
        match = re.match(rb"HTTP/1\.1 (\d{3}) [^\r\n]*(?:\r\n[!-9;-~]+: [^\r\n]*)*$", head)
        assert match and end, received[:200]
        length = re.search(rb"\r\nContent-Length: (\d+)", head)
        bodiless = match[1] in (b"100", b"204", b"304") or methods[len(found):len(found) + 1] == ["HEAD"]
        size = int(length[1]) if length and not bodiless else 0
        assert len(rest) >= size, f"{len(rest)} bytes of a body of {size}: {head!r}"
        if match[1] != b"100":
            found.append((int(match[1]), head, rest[:size]))
        received = rest[size:]
    return found


class Gauge:
    """What a process holds and has used."""

    def __init__(self, pid):
        self._folder = f"/proc/{pid}"

    def _text(self, name):
        with open(f"{self._folder}/{name}", encoding="utf-8") as file:
            return file.read()

    def held(self):
        """What the descriptors are of, and the names of the threads."""
        found = []
        for kind, entry in [("fd", name) for name in os.listdir(f"{self._folder}/fd")] + [
                ("task", name) for name in os.listdir(f"{self._folder}/task")]:
            try:
                found.append(re.sub(r"\d+", "N", os.readlink(f"{self._folder}/fd/{entry}")) if kind == "fd"
                             else self._text(f"task/{entry}/comm").strip())
            except FileNotFoundError:
                pass  # gone meanwhile
        return Counter(found)

    def cpu_seconds(self):
        fields = self._text("stat").rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def resident_bytes(self):
        return 1024 * int(re.search(r"VmRSS:\s+(\d+)", self._text("status"))[1])

    def reset_peak(self):
        with open(f"{self._folder}/clear_refs", "w", encoding="ascii") as file:
            file.write("5")

    def peak_bytes(self):
        return 1024 * int(re.search(r"VmHWM:\s+(\d+)", self._text("status"))[1])

    def is_sanitized(self):
        return "san.so" in self._text("maps")


def make_content(folder):
    """Files to be served in FOLDER/files; the others hold the secret."""
    for name in ("files/sub", "files/.git", "files-beside", "outside"):
        os.makedirs(os.path.join(folder, name))
    contents = {"files/a.txt": b"hello", "files/hidden.txt": HIDDEN, "files/large.txt": b"0123456789" * 20_000,
                "files/sub/index.html": b"page"}
    for name in ("files/.hidden.txt", "files/.git/config.txt", "files-beside/secret.txt", "outside/secret.txt",
                 "outside/index.html", "secret.txt", "files/kind.unknown", "files/kind.txtx", "files/kind.txt.unknown"):
        contents[name] = SECRET
    for name, content in contents.items():
        with open(os.path.join(folder, name), "wb") as file:
            file.write(content)
    for link, target in {"in.txt": "a.txt", "out.txt": "../outside/secret.txt", "folder": "../outside",
                         "absolute.txt": os.path.join(folder, "secret.txt"), "root": "/", "loop.txt": "loop.txt",
                         "twice.txt": "folder/secret.txt", "fd.txt": "/proc/self/environ"}.items():
        os.symlink(target, os.path.join(folder, "files", link))
    os.mkfifo(os.path.join(folder, "files", "fifo.txt"))


class WireTest(unittest.TestCase):
    """A host of the class's own. After each test it still works, and holds no more than before."""

    executable = None

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="vendra-wire-")
        make_content(cls.folder.name)
        cls.host = Vendra(cls.executable, environment={
            "VENDRA_HTTP_CONTENT_ROOTS": f"/files={cls.folder.name}/files"}).__enter__()
        cls.port = urllib.parse.urlsplit(cls.host.url).port
        cls.gauge = Gauge(cls.host.process.pid)
        # Threads and roots that are only there once they were needed.
        for _ in range(8):
            cls.host.ask("Eval", code="1+1")
            statuses = [cls.send(cls.get(path))[0][0] for path in ("/files/a.txt", "/", "/nowhere/a.txt")]
            statuses += [cls.send(cls.post(EVAL).replace("{auth}\r\n", ""))[0][0]]
            assert statuses == [200, 200, 404, 401], statuses
        cls.before = cls.gauge.held()

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()
        cls.folder.cleanup()

    def tearDown(self):
        self.assertIsNone(self.host.process.poll(), "the host died")
        self.assertEqual(self.host.ask("Eval", code="1+1")["value"], 2)
        wait_until(lambda: not self.more(), lambda: f"held: {self.more()}")

    def more(self):
        """What is held besides; pools start their few threads when they first need them."""
        more = self.gauge.held() - self.before
        if more[POOL_THREAD] <= MOST_POOL_THREADS:
            del more[POOL_THREAD]
        return more

    @classmethod
    def fill(cls, text):
        """Text with bytes up to 255 for the wire, with {host}, {port} and {auth} filled in."""
        filled = text if isinstance(text, bytes) else text.encode("latin-1")
        for name, value in (("host", f"Host: 127.0.0.1:{cls.port}"), ("port", str(cls.port)),
                            ("auth", "Authorization: Bearer " + cls.host.discovery["token"])):
            filled = filled.replace(b"{%s}" % name.encode(), value.encode())
        return filled

    @staticmethod
    def get(target, *fields, line="GET {} HTTP/1.1", host="{host}", last="Connection: close"):
        lines = [line.replace("{}", target), host, "{auth}", *fields, last]
        return "\r\n".join(part for part in lines if part) + "\r\n\r\n"

    @staticmethod
    def post(body, *fields, kind="Content-Type: application/json", length=None, last="Connection: close"):
        size = f"Content-Length: {len(body)}" if length is None else length
        lines = ["POST /messageservice/container HTTP/1.1", "{host}", "{auth}", kind, size, *fields, last]
        return "\r\n".join(part for part in lines if part) + "\r\n\r\n" + body

    @classmethod
    def connect(cls):
        client = socket.create_connection(("127.0.0.1", cls.port), DEADLINE)
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return client

    @classmethod
    def exchange(cls, data, finish=False, pieces=None):
        """All that comes until the server closes; `finish`: the client says that it sends no more."""
        data = cls.fill(data)
        received = b""
        with cls.connect() as client:
            try:
                for begin in range(0, len(data), pieces or max(len(data), 1)):
                    client.sendall(data[begin:begin + (pieces or len(data))])
                if finish:
                    client.shutdown(socket.SHUT_WR)
            except OSError as error:  # refused before all of it was sent
                assert error.errno in (errno.EPIPE, errno.ECONNRESET, errno.ENOTCONN), error
            try:
                while piece := client.recv(1 << 16):
                    received += piece
            except ConnectionResetError:
                pass
            except TimeoutError:
                raise AssertionError(f"no end after {data[:200]!r}: {received[:200]!r}") from None
        return received

    @classmethod
    def send(cls, data, methods=(), **options):
        """The answers; none for a connection that was just closed."""
        return answers(cls.exchange(data, **options), methods)

    def check(self, table, **options):
        """Rows of a request and the status of its one answer, or the statuses that are right for it."""
        for data, expected in table:
            with self.subTest(data=data[:160]):
                method = data.split(" ", 1)[0]
                found = self.send(data, [method], **options)
                self.assertEqual(len(found), 1, found)
                status, head, body = found[0]
                self.assertIn(status, expected if isinstance(expected, tuple) else (expected,), body[:200])
                for leaked in (SECRET, HIDDEN, self.host.discovery["token"].encode()):
                    self.assertNotIn(leaked, head + body)
                self.assertNotIn(b"access-control-", head.lower())
                if status == 400 and data.startswith("GET"):
                    self.assertIn(b"\r\nConnection: close", head)
