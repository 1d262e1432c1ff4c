#!/usr/bin/env python3
"""How browsers get in, and how hosts are found. Usage: entry_test.py VENDRA"""

import hashlib
import http.client
import json
import os
import re
import socket
import ssl
import stat
import subprocess
import sys
import tempfile
import threading
import unittest
import urllib.parse

from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)


class Browser:
    """Keeps cookies, sends them as browsers do."""

    def __init__(self):
        self.cookies = {}

    def open(self, url, method="GET", headers=None, body=None):
        where = urllib.parse.urlsplit(url)
        # As browsers do without asking anybody: names below "localhost" are this machine.
        local = "127.0.0.1" if where.hostname.endswith(".localhost") else where.hostname
        connection = http.client.HTTPConnection(local, where.port, timeout=TIMEOUT)
        try:
            sent = {"Host": where.netloc, **(headers or {})}
            if self.cookies:
                sent["Cookie"] = "; ".join(f"{name}={value}" for name, value in self.cookies.items())
            target = urllib.parse.urlunsplit(("", "", where.path, where.query, ""))
            connection.request(method, target, body, sent)
            response = connection.getresponse()
            response.text = response.read().decode()
            for cookie in response.headers.get_all("Set-Cookie") or []:
                name, _, value = cookie.partition(";")[0].partition("=")
                self.cookies[name] = value
            return response
        finally:
            connection.close()


class Entry(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.key = "k" * 40
        cls.host = Vendra(VENDRA)
        key_file = os.path.join(cls.host.environment["HOME"], "key")
        with open(os.open(key_file, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="ascii") as file:
            file.write(cls.key + "\n")
        cls.host.environment["VENDRA_SECURITY_ACCESS_KEY_FILE"] = key_file
        cls.host.__enter__()
        cls.port = urllib.parse.urlsplit(cls.host.url).port

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()

    def fresh(self, *arguments):
        result = self.host.command("--url", *arguments)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        return result.stdout.strip()

    def test_printed_address_lets_one_browser_in(self):
        self.assertRegex(self.host.entry_url,
                         rf"^http://vendra-[0-9a-f]{{32}}\.localhost:{self.port}/\?nonce=[0-9a-f]{{64}}$")
        browser = Browser()
        entered = browser.open(self.host.entry_url)
        self.assertEqual(entered.status, 303)
        self.assertRegex(entered.getheader("Location"), "^/#entry=[0-9a-f]{64}$")
        self.assertEqual(entered.getheader("Cache-Control"), "no-store")
        self.assertEqual(list(browser.cookies), [f"VENDRAACCESS_{self.port}"])

        clean = urllib.parse.urljoin(self.host.entry_url, "/")
        for _ in range(2):  # and reloaded
            self.assertNotIn(browser.open(clean).status, (401, 403))
        self.assertEqual(browser.open(self.host.entry_url).status, 303, "the same browser goes back")
        other = Browser()
        refused = other.open(clean)
        used = other.open(self.host.entry_url)
        self.assertEqual((refused.status, used.status), (401, 401))
        self.assertEqual(refused.text, used.text)
        self.assertEqual(other.cookies, {})
        self.assertIn("vendra --url", refused.text)

    def test_key_lets_the_page_talk(self):
        browser = Browser()
        entry = self.fresh()
        code = browser.open(entry).getheader("Location").partition("#entry=")[2]
        page = urllib.parse.urljoin(entry, "/")
        claimed = browser.open(page + "messageservice/entry", "POST", {"Vendra-Entry": code})
        key = {"Vendra-Page": json.loads(claimed.text)["key"]}
        self.assertEqual(browser.open(page + "messageservice/entry", "POST", {"Vendra-Entry": code}).status, 401)
        container = page + "messageservice/container"
        message = '{"type": "Eval", "id": "1", "code": "6 * 7"}'
        as_json = {"Content-Type": "application/json"}
        origin = page.rstrip("/")
        for headers, status in [({}, 401), ({"Origin": origin}, 401), (key, 200), ({**key, "Origin": origin}, 200),
                                ({**key, "Origin": "http://evil.example"}, 403), ({**key, "Origin": "null"}, 403),
                                ({**key, "Origin": "http://127.0.0.1:1"}, 403),
                                ({**key, "Sec-Fetch-Site": "same-site"}, 403)]:
            answer = browser.open(container, "POST", {**as_json, **headers}, message)
            self.assertEqual(answer.status, status, headers)
            self.assertEqual('"value":42' in answer.text, status == 200, answer.text)
        for secret in browser.cookies.values():
            for field in ("Authorization: Bearer ", "Vendra-Page: ", "Vendra-Entry: "):
                name, _, start = field.partition(": ")
                answer = Browser().open(container, "POST", {**as_json, name: start + secret}, message)
                self.assertEqual(answer.status, 401)

    def test_access_key(self):
        headers = {"Content-Type": "application/json", "Authorization": "Bearer " + self.key}
        self.assertEqual(self.host.post('{"type": "Eval", "id": "1", "code": "1"}', headers)[0], 200)
        headers["Authorization"] += "k"
        self.assertEqual(self.host.post('{"type": "Eval", "id": "1", "code": "1"}', headers)[0], 401)

    def test_host_needs_its_port(self):
        for name, status in [(f"127.0.0.1:{self.port}", 200), (f"localhost:{self.port}", 200), ("127.0.0.1", 421),
                             (f"0.0.0.0:{self.port}", 421), ("localhost:1", 421)]:
            answer = self.host.post('{"type": "Eval", "id": "1", "code": "1"}', {**self.host.headers(), "Host": name})
            self.assertEqual(answer[0], status, name)

    def test_hosts_are_listed(self):
        with Vendra(VENDRA, environment={key: self.host.environment[key]
                                         for key in ("HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME")}) as second:
            rows = [line.split() for line in self.host.command("--list").stdout.splitlines()]
            self.assertEqual(rows[0], ["PID", "URL", "STARTED"])
            self.assertEqual([row[:2] for row in rows[1:]],
                             [[str(host.process.pid), host.url] for host in (self.host, second)])
            self.assertRegex(" ".join(rows[1][2:]), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")
            first_page, second_page = (host.entry_url.partition("?")[0] for host in (self.host, second))
            self.assertTrue(self.fresh().startswith(second_page), "the newest")
            self.assertTrue(self.fresh(str(self.host.process.pid)).startswith(first_page))
            self.assertNotEqual(first_page.partition(".")[0], second_page.partition(".")[0])

            second.process.kill()  # without a chance to clean up
            second.process.wait(TIMEOUT)
            self.assertTrue(os.path.exists(second.token_file))
            self.assertEqual(len(self.host.command("--list").stdout.splitlines()), 2)
            self.assertTrue(self.fresh().startswith(first_page))
            gone = self.host.command("--url", str(second.process.pid))
            self.assertEqual((gone.returncode, gone.stdout), (1, ""))

            third = Vendra(VENDRA, environment={"XDG_RUNTIME_DIR": self.host.environment["XDG_RUNTIME_DIR"]})
            with third:
                self.assertFalse(os.path.exists(second.token_file), "the next host cleans up")
                self.assertTrue(os.path.exists(self.host.token_file))

    def test_discovery_file(self):
        self.assertEqual(stat.S_IMODE(os.stat(self.host.token_file).st_mode), 0o600)
        with open(f"/proc/{self.host.process.pid}/stat", encoding="utf-8") as file:
            ticks = int(re.sub(r"^.*\)", "", file.read()).split()[19])
        self.assertEqual(self.host.discovery["startTicks"], ticks)
        self.assertEqual(self.host.discovery["pid"], self.host.process.pid)

    def test_without_a_token_the_plain_address_is_printed(self):
        with Vendra(VENDRA, environment={"VENDRA_SECURITY_TOKEN_FILE": "false"}) as host:
            self.assertEqual(host.entry_url, host.url)
            _, errors = host.stop()
            self.assertIn("no one-time address: the host keeps its token to itself.", errors)


class TlsHost:
    """Announces itself and answers one request over TLS with `answer`; keeps what it was sent."""

    def __init__(self, folder, answer, fingerprint=None):
        self._folder = folder
        self._answer = answer
        self._fingerprint = fingerprint
        self.received = b""

    def __enter__(self):
        names = [os.path.join(self._folder, name) for name in ("key.pem", "certificate.pem")]
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-subj", "/CN=test", "-keyout", names[0], "-out", names[1]], check=True, capture_output=True)
        with open(names[1], encoding="ascii") as file:
            certificate = ssl.PEM_cert_to_DER_cert(file.read())
        self._context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._context.load_cert_chain(names[1], names[0])
        self._socket = socket.create_server(("127.0.0.1", 0))
        self._socket.settimeout(TIMEOUT)
        self.port = str(self._socket.getsockname()[1])
        self.url = f"https://127.0.0.1:{self.port}/"
        os.makedirs(os.path.join(self._folder, "vendra"), exist_ok=True)
        with open(os.path.join(self._folder, "vendra", f"{os.getpid()}.json"), "w", encoding="utf-8") as file:
            json.dump({"url": self.url, "token": "a" * 64,
                       "fingerprint": self._fingerprint or hashlib.sha256(certificate).hexdigest()}, file)
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()
        return self

    def __exit__(self, *error):
        self._socket.shutdown(socket.SHUT_RDWR)  # when nobody came
        self._thread.join(TIMEOUT)
        self._socket.close()

    def _serve(self):
        try:
            plain, _ = self._socket.accept()
            with self._context.wrap_socket(plain, server_side=True) as connection:
                self.received = connection.recv(65536)
                if self.received:
                    body = self._answer.replace("URL", self.url).replace("PORT", self.port).encode()
                    head = f"HTTP/1.1 200 OK\r\nContent-Length: {len(body)}\r\nConnection: close\r\n\r\n"
                    connection.sendall(head.encode() + body)
        except OSError:
            pass  # a client that does not trust this host goes away, or does not come


class OverTls(unittest.TestCase):
    def ask(self, answer, fingerprint=None):
        with tempfile.TemporaryDirectory() as folder:
            with TlsHost(folder, answer, fingerprint) as host:
                result = subprocess.run([VENDRA, "--url"], env={**os.environ, "XDG_RUNTIME_DIR": folder}, text=True,
                                        capture_output=True, timeout=TIMEOUT, check=False)
            return host, result

    def test_announced_certificate(self):
        host, result = self.ask('{"url": "URL?nonce=0123abcd"}')
        self.assertEqual((result.stdout, result.stderr), (host.url + "?nonce=0123abcd\n", ""))
        named = "https://vendra-" + "0a" * 16 + ".localhost:PORT/?nonce=0123abcd"
        host2, result = self.ask('{"url": "%s"}' % named)
        self.assertEqual((result.stdout, result.stderr), (named.replace("PORT", host2.port) + "\n", ""))
        self.assertTrue(host.received.startswith(b"POST /messageservice/nonce HTTP/1.1\r\n"), host.received)
        self.assertIn(b"Authorization: Bearer " + b"a" * 64 + b"\r\n", host.received)
        self.assertIn(b"Host: " + host.url[8:-1].encode() + b"\r\n", host.received)

    def test_another_certificate_is_told_nothing(self):
        for fingerprint in ["0" * 64, "0" * 63, "x"]:
            host, result = self.ask('{"url": "URL?nonce=0123abcd"}', fingerprint)
            self.assertEqual((result.returncode, result.stdout, host.received), (1, "", b""), fingerprint)
            self.assertRegex(result.stderr, "is not the host that announced itself|announces no certificate")

    def test_answers_that_are_no_address(self):
        name = "vendra-" + "0" * 32
        for answer in [f'{{"url": "https://{name}.localhost:1/?nonce=01"}}', f'{{"url": "http://{name}.localhost:PORT/?nonce=01"}}',
                       f'{{"url": "https://{name}x.localhost:PORT/?nonce=01"}}',
                       f'{{"url": "https://{name}.localhost:PORT/?nonce="}}',
                       f'{{"url": "https://{name}.localhost:PORT/x?nonce=01"}}',
                       f'{{"url": "https://{name}.evil.example:PORT/?nonce=01"}}',
                       '{"url": "https://evil.example/?nonce=01"}', '{"url": "URL?nonce=01\\u001b[2J"}', '{"url": 3}',
                       "[]", "", "{" * 70_000]:
            _, result = self.ask(answer)
            self.assertEqual((result.returncode, result.stdout), (1, ""), answer[:50])
            self.assertRegex(result.stderr, "^vendra: .*(cannot be asked|something else than an address).*\n$")


if __name__ == "__main__":
    unittest.main(verbosity=2)
