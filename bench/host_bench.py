"""A host with its connector beside a bare floor and a notebook server, in one run with one client program.

The floor (host_floor) has the same interpreter and the same hand-over between threads, and nothing else. What is measured
over a connection is told in host_driver.cpp. Here besides: the cold start, from the start of the process to the first
value; the memory (VmRSS of all the server's processes) after the first value, and of one further idle client.

Usage: host_bench.py BUILD_FOLDER [MEASUREMENT...]. Needs jupyter-server and ipykernel.
"""

import http.client
import json
import os
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.parse

ROUNDS = 3
MANY_ROUNDS = 12  # of what has two speeds, by where the scheduler puts the threads; not of the notebook, which is slow
TWO_SPEEDS = ("sequential", "prompt", "http", "four")
MEASUREMENTS = ("sequential", "prompt", "http", "four", "short", "long", "completion", "interrupt", "further")
IDLE = 100
TOKEN = "0123456789abcdef"
KIB = 1024


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server:
    """A server process with a folder of its own; `arguments` tell the driver where it is."""

    def __init__(self, dialect, command, base, environment):
        home = os.path.join(base, dialect)
        os.makedirs(home, exist_ok=True)
        self.dialect = dialect
        self.begin = time.perf_counter()
        self.process = subprocess.Popen(
            command, env={**os.environ, "HOME": home, "XDG_RUNTIME_DIR": home, "XDG_CONFIG_HOME": home, **environment},
            cwd=home, text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        try:
            self.arguments = [dialect, *self.find()]
        except BaseException:
            self.stop()
            raise

    def find(self):
        """Port, token and kernel; waits until they are known."""
        raise NotImplementedError

    def line(self):
        line = self.process.stdout.readline()
        if not line:
            raise RuntimeError(f"{self.process.args[0]} did not start")
        return line.strip()

    def processes(self):
        """The server's and those that it started."""
        found = [self.process.pid]
        for pid in found:
            for task in os.listdir(f"/proc/{pid}/task"):
                with open(f"/proc/{pid}/task/{task}/children", encoding="ascii") as file:
                    found += map(int, file.read().split())
        return found

    def resident(self):
        total = 0
        for pid in self.processes():
            with open(f"/proc/{pid}/status", encoding="ascii") as status:
                total += int(re.search(r"VmRSS:\s+(\d+)", status.read())[1])
        return total * KIB

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()


class Host(Server):
    def __init__(self, build, base):
        super().__init__("ours", [os.path.join(build, "root/bin/vendra"), "--connector"], base,
                         {"VENDRA_ROOT": os.path.join(build, "root")})

    def find(self):
        self.line()
        with open(self.line().split(": ", 1)[1], encoding="utf-8") as file:
            found = json.load(file)
        return str(urllib.parse.urlsplit(found["url"]).port), found["token"], "-"


class Floor(Server):
    def __init__(self, build, base):
        super().__init__("floor", [os.path.join(build, "bench/host_floor")], base, {})

    def find(self):
        return self.line(), "-", "-"


class Notebook(Server):
    """With the limits that it comes with, and one kernel for all clients."""

    def __init__(self, _, base):
        self.port = free_port()
        super().__init__("notebook", ["jupyter-server", "--no-browser", "--allow-root", "--ServerApp.ip=127.0.0.1",
                                      f"--ServerApp.port={self.port}", "--ServerApp.port_retries=0",
                                      f"--ServerApp.token={TOKEN}", "--ServerApp.open_browser=False"],
                         base, {"PATH": "/usr/bin:/bin"})

    def find(self):
        while True:
            try:
                connection = http.client.HTTPConnection("127.0.0.1", self.port)
                connection.request("POST", "/api/kernels", "{}", {"Authorization": f"token {TOKEN}"})
                break
            except ConnectionRefusedError:
                if self.process.poll() is not None:
                    raise RuntimeError("the notebook server did not start") from None
                time.sleep(0.002)
        answer = connection.getresponse()
        kernel = json.loads(answer.read())
        connection.close()
        if answer.status != 201:
            raise RuntimeError(f"no kernel: {kernel}")
        return str(self.port), TOKEN, kernel["id"]


class Figures:
    """Figures of several rounds, by what was measured and the server."""

    def __init__(self):
        self.found = {}

    def add(self, measurement, server, text):
        for line in text.splitlines():
            figure, value, unit = line.split(" ", 2)
            self.found.setdefault((measurement, server.dialect, figure, unit), []).append(float(value))

    def print(self, measurement):
        print(measurement)
        for (other, dialect, figure, unit), values in self.found.items():
            if other == measurement:
                print(f"  {dialect:9} {figure:8} {statistics.median(values):12,.1f} {unit:8} "
                      f"(mean {statistics.mean(values):,.1f}, {min(values):,.1f} to {max(values):,.1f})", flush=True)


def drive(driver, server, *measurement):
    done = subprocess.run([driver, *server.arguments, *measurement], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, timeout=300, check=False)
    if done.returncode != 0:
        print(f"  {server.dialect} {' '.join(measurement)}: {done.stderr.strip()}", flush=True)
    return done.stdout


def idle(driver, server):
    """Memory that one idle client takes."""
    before = server.resident()
    with subprocess.Popen([driver, *server.arguments, "idle", str(IDLE)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          text=True) as clients:
        ready = clients.stdout.readline()
        grown = server.resident() - before
        clients.stdin.close()
    return f"client {grown / IDLE / KIB:.1f} KiB" if ready == "ready\n" else ""


def start_and_stop(build, base, driver, figures, kinds):
    """Fresh servers, one at a time: nothing else runs beside a cold start."""
    for kind in kinds:
        server = kind(build, base)
        try:
            drive(driver, server, "further", "1")
            figures.add("cold start", server, f"first {1e3 * (time.perf_counter() - server.begin):.1f} ms")
            figures.add("memory", server, f"idle {server.resident() / KIB / KIB:.1f} MiB")
            figures.add("memory", server, idle(driver, server))
        finally:
            server.stop()


def main():
    build = os.path.abspath(sys.argv[1])
    wanted = sys.argv[2:] or ("cold", *MEASUREMENTS)
    driver = os.path.join(build, "bench/host_driver")
    kinds = (Host, Floor, Notebook)
    figures = Figures()
    with tempfile.TemporaryDirectory(prefix="host-bench-", ignore_cleanup_errors=True) as base:
        if "cold" in wanted:
            for _ in range(ROUNDS):
                start_and_stop(build, base, driver, figures, kinds)
            figures.print("cold start")
            figures.print("memory")
        servers = []
        try:
            servers += (kind(build, base) for kind in kinds)
            for measurement in filter(MEASUREMENTS.__contains__, wanted):
                for i in range(MANY_ROUNDS if measurement in TWO_SPEEDS else ROUNDS):
                    # Turn about, so that whatever else the machine does hits all.
                    for server in servers if i < ROUNDS else servers[:2]:
                        figures.add(measurement, server, drive(driver, server, measurement))
                figures.print(measurement)
        finally:
            for server in servers:
                server.stop()


if __name__ == "__main__":
    main()
