"""The message bus beside a Faye server, in one run with one driver; see bayeux_driver.cpp for what is measured.

Usage: bayeux_bench.py BUILD_FOLDER. Needs node and `npm ci` in bench/faye.
"""

import json
import os
import resource
import subprocess
import sys
import tempfile

DELIVERIES = 100_000
ROUNDS = 2


def runs():
    for size in (64, 1024):
        for subscribers in (1, 10, 100, 1000):
            yield "websocket", subscribers, size, min(10_000, DELIVERIES // subscribers), 0
    yield "long-polling", 1000, 64, 50, 0
    yield "websocket", 1000, 64, 100, 10


class Servers:
    """Both servers, fresh for each kind of run: what one run leaves behind is not the next one's."""

    def __init__(self, build, base):
        environment = {**os.environ, "HOME": base, "XDG_RUNTIME_DIR": base, "XDG_CONFIG_HOME": base,
                       "VENDRA_ROOT": os.path.join(build, "root"), "VENDRA_HTTP_MAX_CONNECTIONS": "20000"}
        self.driver = os.path.join(build, "bench/bayeux_driver")
        self.host = subprocess.Popen([os.path.join(build, "root/bin/vendra"), "--connector"], env=environment, text=True,
                                     stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.faye = subprocess.Popen(["node", "server.mjs"], cwd=os.path.join(os.path.dirname(__file__), "faye"), text=True,
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.host.stdout.readline()
        with open(self.host.stdout.readline().split(": ", 1)[1].strip(), encoding="utf-8") as file:
            found = json.load(file)
        self.places = {
            "ours": (found["url"].rsplit(":", 1)[1].strip("/"), "/messageservice/async", self.host.pid, found["token"]),
            "Faye": (self.faye.stdout.readline().strip(), "/bayeux", self.faye.pid, "")}

    def drive(self, name, kind, subscribers, size, messages, rate):
        port, path, pid, token = self.places[name]
        done = subprocess.run([self.driver, port, path, str(pid), kind, str(subscribers), str(size), str(messages),
                               str(rate)] + ([token] if token else []), capture_output=True, text=True, check=False)
        print(f"  {name}: {done.stdout.strip() or done.stderr.strip()}", flush=True)

    def stop(self):
        self.faye.stdin.close()
        self.host.terminate()
        self.faye.wait()
        self.host.wait()


def main():
    build = os.path.abspath(sys.argv[1])
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    idle = ("websocket", min(10_000, most - 1_000), 64, 3, 1)
    with tempfile.TemporaryDirectory(prefix="bayeux-bench-") as base:
        for run in [*runs(), idle]:
            kind, subscribers, size, messages, rate = run
            print(f"{kind}, {subscribers} subscribers, {size} bytes, {messages} messages"
                  f"{f', {rate} a second' if rate else ''}")
            servers = Servers(build, base)
            try:
                for _ in range(1 if run == idle else ROUNDS):
                    for name in ("ours",) if run == idle else servers.places:
                        servers.drive(name, *run)
            finally:
                servers.stop()


if __name__ == "__main__":
    main()
