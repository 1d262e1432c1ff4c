"""A host process with the connector up, for tests that act as clients."""

import http.client
import json
import os
import signal
import subprocess
import tempfile
import threading
import time
import urllib.parse

TIMEOUT = 30


class Vendra:
    """`with Vendra(path) as host:` starts `vendra --connector` with folders of its own and ends it with SIGTERM."""

    def __init__(self, executable, *arguments, environment=None, stdin=subprocess.DEVNULL):
        self._executable = executable
        self._stdin = stdin
        self._command = [executable, "--connector", *arguments]
        self._folder = tempfile.TemporaryDirectory(prefix="vendra-test-")
        self.home = self._folder.name
        self.environment = {**os.environ, "HOME": self.home, "XDG_RUNTIME_DIR": self.home,
                            "XDG_CONFIG_HOME": self.home,
                            **(environment or {})}
        self.process = None

    def __enter__(self):
        self.process = subprocess.Popen(
            self._command, stdin=self._stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env=self.environment)
        try:
            self.entry_url = self._announced("Connector: ")
            self.token_file = self._announced("Token file: ")
            self.discovery = self._discovered()
            self.url = self.discovery["url"]  # for programs; the printed one is for browsers
        except BaseException:
            self.process.kill()  # nobody else will end it
            raise
        return self

    def __exit__(self, *error):
        self.stop()
        self._folder.cleanup()

    def _discovered(self):
        """What the discovery file says; a program that restarts the connector takes it away for a moment."""
        end = time.monotonic() + TIMEOUT
        while True:
            try:
                with open(self.token_file, encoding="utf-8") as file:
                    return json.load(file)
            except FileNotFoundError:
                if time.monotonic() > end:
                    raise

    def _announced(self, label):
        watchdog = threading.Timer(TIMEOUT, self.process.kill)
        watchdog.start()
        try:
            for line in self.process.stdout:
                if line.startswith(label):
                    return line[len(label):].strip()
        finally:
            watchdog.cancel()
        self.process.kill()
        raise AssertionError(f"no '{label}' line: {self.process.stderr.read()}")

    def command(self, *arguments):
        """What the executable does with these arguments, as another process of the same user."""
        return subprocess.run([self._executable, *arguments], env=self.environment, timeout=TIMEOUT, text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, check=False)

    def connection(self, context=None):
        """`context`: for a host that speaks TLS."""
        where = urllib.parse.urlsplit(self.url)
        if context:
            return http.client.HTTPSConnection(where.hostname, where.port, timeout=TIMEOUT, context=context)
        return http.client.HTTPConnection(where.hostname, where.port, timeout=TIMEOUT)

    def headers(self):
        return {"Authorization": "Bearer " + self.discovery["token"], "Content-Type": "application/json"}

    def post(self, body, headers=None):
        """One container or message as text; the answer's status and text."""
        connection = self.connection()
        try:
            connection.request("POST", "/messageservice/container", body.encode(), headers or self.headers())
            response = connection.getresponse()
            return response.status, response.read().decode()
        finally:
            connection.close()

    def ask(self, type_, **members):
        """One message; its answer as a dict."""
        status, body = self.post(json.dumps({"type": type_, "id": "1", **members}))
        assert status == 200, f"{status}: {body}"
        return json.loads(body)

    def stop(self):
        """Ends the process in order; its exit code and what it wrote to standard error."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            _, errors = self.process.communicate(timeout=TIMEOUT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.communicate()
            raise
        except ValueError:  # asked for a second time
            errors = ""
        return self.process.returncode, errors
