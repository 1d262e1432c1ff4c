"""HTTPS as other programs speak it: the installation's own key, what is accepted, and bodies of both kinds."""

import hashlib
import json
import os
import socket
import ssl
import stat
import sys
import tempfile
import unittest
import urllib.parse

from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)


class Tls(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.host = Vendra(VENDRA, environment={"VENDRA_HTTP_TLS": "true", "VENDRA_HTTP_ALLOWED_HOSTS": "lab.example"})
        cls.host.__enter__()
        cls.folder = os.path.join(cls.host.home, ".vendra", "tls")
        cls.port = urllib.parse.urlsplit(cls.host.url).port

    @classmethod
    def tearDownClass(cls):
        cls.host.__exit__()

    def context(self):
        return ssl.create_default_context(cafile=os.path.join(self.folder, "certificate.pem"))

    def connect(self, context=None, name="localhost"):
        plain = socket.create_connection(("127.0.0.1", self.port), TIMEOUT)
        try:
            return (context or self.context()).wrap_socket(plain, server_hostname=name)
        except BaseException:
            plain.close()
            raise

    def test_key_and_certificate(self):
        self.assertTrue(self.host.url.startswith("https://127.0.0.1:"))
        key = os.stat(os.path.join(self.folder, "key.pem"))
        self.assertEqual(stat.S_IMODE(key.st_mode), 0o600)
        self.assertEqual(stat.S_IMODE(os.stat(self.folder).st_mode), 0o700)
        for name in ("localhost", "127.0.0.1", "::1", "lab.example"):
            with self.connect(name=name) as client:
                der = client.getpeercert(binary_form=True)
        self.assertEqual(hashlib.sha256(der).hexdigest(), self.host.discovery["fingerprint"])
        with self.assertRaises(ssl.SSLCertVerificationError):
            self.connect(name="other.example")
        with self.assertRaises(ssl.SSLCertVerificationError):
            self.connect(ssl.create_default_context())

    def test_old_versions_and_weak_ciphers_are_refused(self):
        for version in (ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1):
            context = self.context()
            context.set_ciphers("ALL:@SECLEVEL=0")
            context.minimum_version = context.maximum_version = version
            with self.assertRaises(OSError, msg=version):
                self.connect(context)
        for ciphers in ("AES128-SHA", "AES256-GCM-SHA384", "ECDHE-ECDSA-AES256-SHA384"):
            context = self.context()
            context.maximum_version = ssl.TLSVersion.TLSv1_2
            context.set_ciphers(ciphers + ":@SECLEVEL=0")
            with self.assertRaises(OSError, msg=ciphers):
                self.connect(context)
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            context = self.context()
            context.minimum_version = context.maximum_version = version
            with self.connect(context) as client:
                self.assertEqual(client.version(), version.name.replace("_", "."))

    def test_names_its_protocol(self):
        context = self.context()
        context.set_alpn_protocols(["h2", "http/1.1"])
        with self.connect(context) as client:
            self.assertEqual(client.selected_alpn_protocol(), "http/1.1")
        context = self.context()
        context.set_alpn_protocols(["h2"])
        with self.assertRaises(ssl.SSLError):
            self.connect(context)

    def test_plain_http_gets_nothing(self):
        with socket.create_connection(("127.0.0.1", self.port), TIMEOUT) as plain:
            plain.sendall(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n")
            try:
                self.assertNotIn(b"HTTP", plain.recv(1000))
            except ConnectionResetError:
                pass

    def test_bodies(self):
        connection = self.host.connection(self.context())
        for code, expected in (("1+1", "2"), ("len('" + "x" * 3_000_000 + "')", "3000000")):
            connection.request("POST", "/messageservice/container",
                               json.dumps({"type": "Eval", "id": "1", "code": code}), self.host.headers())
            response = connection.getresponse()
            self.assertEqual(response.status, 200)
            self.assertIn(expected, response.read().decode())
        connection.close()

    def test_a_refused_body_ends_in_order(self):
        with self.connect() as client:
            client.sendall(b"POST / HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nContent-Length: 3000000\r\n\r\n" % self.port)
            client.sendall(b"x" * 100_000)
            answer = b""
            while piece := client.recv(65536):
                answer += piece
        self.assertRegex(answer, rb"^HTTP/1.1 4\d\d ")


class Exposure(unittest.TestCase):
    """Other machines are let in only over TLS and with a secret."""

    def failure(self, **environment):
        with tempfile.TemporaryDirectory() as home:
            host = Vendra(VENDRA, environment={"VENDRA_HTTP_ADDRESS": "0.0.0.0", "HOME": home, **environment})
            with self.assertRaises(AssertionError) as caught:
                host.__enter__()
            host.__exit__()
        return str(caught.exception)

    def test_needs_tls_and_a_secret(self):
        self.assertIn("needs http.tls and security.accessKeyFile", self.failure())
        self.assertIn("needs security.accessKeyFile", self.failure(VENDRA_HTTP_TLS="true"))


if __name__ == "__main__":
    unittest.main()
