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
            yield "websocket", subscribers, size, max(50, DELIVERIES // subscribers // (5 if subscribers == 1 else 1)), 0
    yield "long-polling", 1000, 64, 50, 0
    yield "websocket", 1000, 64, 100, 10


def main():
    build = os.path.abspath(sys.argv[1])
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    with tempfile.TemporaryDirectory(prefix="bayeux-bench-") as base:
        environment = {**os.environ, "HOME": base, "XDG_RUNTIME_DIR": base, "XDG_CONFIG_HOME": base,
                       "VENDRA_ROOT": os.path.join(build, "root"), "VENDRA_HTTP_MAX_CONNECTIONS": "20000"}
        host = subprocess.Popen([os.path.join(build, "root/bin/vendra"), "--connector"], env=environment, text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        faye = subprocess.Popen(["node", "server.mjs"], cwd=os.path.join(os.path.dirname(__file__), "faye"), text=True,
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        host.stdout.readline()
        with open(host.stdout.readline().split(": ", 1)[1].strip(), encoding="utf-8") as file:
            found = json.load(file)
        servers = {"ours": (found["url"].rsplit(":", 1)[1].strip("/"), "/messageservice/async", host.pid, found["token"]),
                   "Faye": (faye.stdout.readline().strip(), "/bayeux", faye.pid, "")}

        def drive(name, kind, subscribers, size, messages, rate):
            port, path, pid, token = servers[name]
            done = subprocess.run([os.path.join(build, "bench/bayeux_driver"), port, path, str(pid), kind,
                                   str(subscribers), str(size), str(messages), str(rate)] + ([token] if token else []),
                                  capture_output=True, text=True, check=False)
            print(f"  {name}: {done.stdout.strip() or done.stderr.strip()}", flush=True)

        try:
            for run in runs():
                kind, subscribers, size, messages, rate = run
                print(f"{kind}, {subscribers} subscribers, {size} bytes, {messages} messages"
                      f"{f', {rate} a second' if rate else ''}")
                for _ in range(ROUNDS):
                    for name in servers:
                        drive(name, *run)
            print("10,000 idle WebSocket subscribers, then one message to all")
            drive("ours", "websocket", min(10_000, most // 2 - 1_000), 64, 3, 1)
        finally:
            faye.stdin.close()
            host.terminate()
            faye.wait()
            host.wait()


if __name__ == "__main__":
    main()
