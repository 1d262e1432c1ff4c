"""What a client with a token waits while strangers crowd the port, and what of the memory stays after they left.

512 unfinished bodies of 1 MiB in chunks, 5,000 unfinished heads of 32 KB, 768 connections that were refused and stay.

Usage: strangers.py BUILD_FOLDER
"""

import http.client
import json
import os
import re
import resource
import socket
import subprocess
import sys
import tempfile
import time
import urllib.parse

SECONDS = 8  # of each crowd; less than the time limit of a head
MOST_WAIT = 0.05
MOST_KEPT = 10 << 20
GIVEN_BACK_WITHIN = 60


def evaluate(where, token):
    """Seconds of one request on a connection of its own, its body apart from its head."""
    begin = time.perf_counter()
    connection = http.client.HTTPConnection(where.hostname, where.port, timeout=10)
    connection.request("POST", "/messageservice/container", '{"type": "Eval", "id": "1", "code": "1+1"}',
                       {"Authorization": f"Bearer {token}", "Content-Type": "application/json"})
    response = connection.getresponse()
    body = response.read()
    connection.close()
    if response.status != 200:
        raise RuntimeError(f"{response.status} {body}")
    return time.perf_counter() - begin


def resident(pid):
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        return 1024 * int(re.search(r"VmRSS:\s+(\d+)", file.read())[1])


def bodies(netloc):
    head = f"POST /messageservice/container HTTP/1.1\r\nHost: {netloc}\r\nTransfer-Encoding: chunked\r\n\r\n"
    return 512, head.encode() + b"100000\r\n" + b"x" * 900_000


def heads(netloc):
    return 5_000, f"GET / HTTP/1.1\r\nHost: {netloc}\r\nX-Long: ".encode() + b"x" * 32_000


def refused(netloc):
    return 768, f"GET / HTTP/1.1\r\nHost: {netloc}\r\n\r\n".encode()


def crowd(where, kind):
    """The clients, one after the other as each has sent what goes at once."""
    count, wire = kind(where.netloc)
    for _ in range(count):
        client = socket.create_connection((where.hostname, where.port), 10)
        client.setblocking(False)
        try:
            client.send(wire)
        except OSError:
            pass  # refused meanwhile
        yield client


def attack(where, token, pid, kind):
    """The waits during one crowd, and the most that the host held."""
    waits = []
    peak = 0
    clients = []
    end = time.monotonic() + SECONDS
    for client in crowd(where, kind):
        clients.append(client)
        if len(clients) % 50 == 0:
            waits.append(evaluate(where, token))
    came = time.monotonic()
    while time.monotonic() < end or len(waits) < 20:
        waits.append(evaluate(where, token))
        peak = max(peak, resident(pid))
    for client in clients:
        client.close()
    return sorted(waits), peak, SECONDS - (end - came)


def kept(pid, before):
    """Seconds until no more than MOST_KEPT is left over, and what is left."""
    begin = time.monotonic()
    while resident(pid) > before + MOST_KEPT and time.monotonic() < begin + GIVEN_BACK_WITHIN:
        time.sleep(0.5)
    return time.monotonic() - begin, resident(pid) - before


def main():
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    build = os.path.abspath(sys.argv[1])
    good = True
    with tempfile.TemporaryDirectory(prefix="strangers-") as base:
        host = subprocess.Popen([os.path.join(build, "root/bin/vendra"), "--connector"], text=True,
                                env={**os.environ, "HOME": base, "XDG_RUNTIME_DIR": base, "XDG_CONFIG_HOME": base,
                                     "VENDRA_ROOT": os.path.join(build, "root")},
                                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (1024, most)),
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        try:
            host.stdout.readline()
            with open(host.stdout.readline().split(": ", 1)[1].strip(), encoding="utf-8") as file:
                found = json.load(file)
            where = urllib.parse.urlsplit(found["url"])
            for _ in range(100):
                evaluate(where, found["token"])
            for kind in (bodies, heads, refused):
                before = resident(host.pid)
                waits, peak, came = attack(where, found["token"], host.pid, kind)
                seconds, left = kept(host.pid, before)
                good = good and waits[-1] <= MOST_WAIT and left <= MOST_KEPT
                print(f"{kind.__name__}: came in {came:.1f} s; {len(waits)} requests meanwhile, "
                      f"p50 {waits[len(waits) // 2] * 1e3:.2f} ms, longest {waits[-1] * 1e3:.2f} ms; "
                      f"at most {(peak - before) / 2**20:.1f} MiB more, {left / 2**20:.1f} MiB {seconds:.1f} s after",
                      flush=True)
        finally:
            host.terminate()
            host.wait()
    sys.exit(0 if good else 1)


if __name__ == "__main__":
    main()
