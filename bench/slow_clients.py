"""What normal requests take while slowhttptest holds a thousand slow connections: heads, bodies, reading, ranges.

Usage: slow_clients.py BUILD_FOLDER. Needs slowhttptest.
"""

import http.client
import json
import os
import subprocess
import sys
import tempfile
import time
import urllib.parse

SECONDS = 10
KINDS = {"heads": ["-H", "-i", "2"], "bodies": ["-B", "-i", "2", "-s", "100000"],
         "reading": ["-X", "-w", "10", "-y", "20", "-n", "2", "-z", "5", "-k", "3"],
         "ranges": ["-R", "-a", "1", "-b", "3000"]}


def normal_requests(url, token):
    """Seconds of each request, on a connection of its own, in SECONDS."""
    where = urllib.parse.urlsplit(url)
    times = []
    end = time.monotonic() + SECONDS
    while time.monotonic() < end:
        begin = time.perf_counter()
        connection = http.client.HTTPConnection(where.hostname, where.port, timeout=10)
        connection.request("POST", "/messageservice/container", '{"type": "Eval", "id": "1", "code": "1+1"}',
                           {"Authorization": f"Bearer {token}", "Content-Type": "application/json"})
        response = connection.getresponse()
        if response.status != 200:
            raise RuntimeError(f"{response.status} {response.read()}")
        response.read()
        connection.close()
        times.append(time.perf_counter() - begin)
        time.sleep(0.02)
    return sorted(times)


def main():
    build = os.path.abspath(sys.argv[1])
    with tempfile.TemporaryDirectory(prefix="slow-clients-") as base:
        host = subprocess.Popen([os.path.join(build, "root/bin/vendra"), "--connector"], text=True,
                                env={**os.environ, "HOME": base, "XDG_RUNTIME_DIR": base, "XDG_CONFIG_HOME": base,
                                     "VENDRA_ROOT": os.path.join(build, "root")},
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        host.stdout.readline()
        with open(host.stdout.readline().split(": ", 1)[1].strip(), encoding="utf-8") as file:
            found = json.load(file)
        for name, options in {"none": None, **KINDS}.items():
            attack = options and subprocess.Popen(
                ["slowhttptest", "-c", "1000", "-r", "500", "-l", str(SECONDS), "-p", "3", *options, "-u", found["url"]],
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd=base)
            times = normal_requests(found["url"], found["token"])
            print(f"slow {name}: {len(times)} requests, p50 {times[len(times) // 2] * 1e3:.2f} ms, "
                  f"p99 {times[len(times) * 99 // 100] * 1e3:.2f} ms, longest {times[-1] * 1e3:.2f} ms")
            if attack:
                attack.wait()
        host.terminate()
        host.wait()


if __name__ == "__main__":
    main()
