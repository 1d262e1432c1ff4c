"""HTTP beside nginx, in one run: small files, large files both ways, idle connections.

Usage: http_bench.py BUILD_FOLDER. Needs nginx and wrk.
"""

import http.client
import json
import os
import re
import resource
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.parse

ROUNDS = 3
LARGE_ROUNDS = 9
SECONDS = 5
CONNECTIONS = 32
IDLE = 10_000
MB = 1_000_000

NGINX = """
worker_processes 2; daemon off; pid {folder}/nginx.pid; error_log {folder}/error.log;
events {{ worker_connections 4096; }}
http {{
  access_log off; sendfile on; tcp_nopush on; keepalive_requests 100000000; types {{ text/plain txt; }}
  client_body_temp_path {folder}/body; proxy_temp_path {folder}/proxy; fastcgi_temp_path {folder}/fastcgi;
  uwsgi_temp_path {folder}/uwsgi; scgi_temp_path {folder}/scgi; client_max_body_size 4g;
  server {{
    listen 127.0.0.1:{port} reuseport; root {root};
    location /put/ {{ alias {folder}/put/; dav_methods PUT; }}
  }}
}}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(port):
    while True:
        try:
            socket.create_connection(("127.0.0.1", port)).close()
            return
        except ConnectionRefusedError:
            time.sleep(0.01)


def resident(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return int(re.search(r"VmRSS:\s+(\d+)", status.read())[1]) * 1024


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=True, **options).stdout


def wrk(url, *headers):
    extra = [word for header in headers for word in ("-H", header)]
    text = run("wrk", "-t2", f"-c{CONNECTIONS}", f"-d{SECONDS}s", *extra, url)
    if "Non-2xx" in text or "Socket errors" in text:
        raise RuntimeError(text)
    return float(re.search(r"Requests/sec:\s+([\d.]+)", text)[1])


def exchange(url, method, token=None, size=0):
    """Bytes per second of one transfer over a connection of its own, by a client that costs as little as it can."""
    where = urllib.parse.urlsplit(url)
    head = f"{method} {where.path} HTTP/1.1\r\nHost: {where.netloc}\r\nConnection: close\r\n"
    if token:
        head += f"Authorization: Bearer {token}\r\n"
    if size:
        head += f"Content-Length: {size}\r\n"
    piece = memoryview(os.urandom(MB))
    buffer = bytearray(MB)
    with socket.create_connection((where.hostname, where.port)) as client:
        begin = time.perf_counter()
        client.sendall(head.encode() + b"\r\n")
        for at in range(0, size, MB):
            client.sendall(piece[:size - at])
        received = status = 0
        while count := client.recv_into(buffer):
            status = status or int(buffer[9:12])
            received += count
        seconds = time.perf_counter() - begin
    if status not in (200, 201, 204):
        raise RuntimeError(f"{method} {url}: {status}")
    return max(size, received) / seconds


def compare(what, ours, theirs, unit, scale=1.0):
    mine, other = statistics.median(ours) / scale, statistics.median(theirs) / scale
    print(f"{what}: {mine:,.0f} {unit}, nginx {other:,.0f} {unit}, ratio {mine / other:.2f} "
          f"({min(ours) / scale:,.0f} to {max(ours) / scale:,.0f}; {min(theirs) / scale:,.0f} to {max(theirs) / scale:,.0f})")


def idle(url, token, pid):
    """What many silent connections cost, and what a request among them takes."""
    where = urllib.parse.urlsplit(url)
    request = (f"GET /bench/small.txt HTTP/1.1\r\nHost: {where.netloc}\r\nAuthorization: Bearer {token}\r\n\r\n").encode()
    before = resident(pid)
    held = []
    for _ in range(IDLE):
        client = socket.create_connection((where.hostname, where.port))
        client.sendall(request)
        client.recv(4096)
        held.append(client)
    after = resident(pid)
    connection = http.client.HTTPConnection(where.hostname, where.port)
    times = []
    for _ in range(2_000):
        begin = time.perf_counter()
        connection.request("GET", "/bench/small.txt", headers={"Authorization": f"Bearer {token}"})
        connection.getresponse().read()
        times.append(time.perf_counter() - begin)
    times.sort()
    threads = [name for name in (open(f"/proc/{pid}/task/{task}/comm").read().strip()
                                 for task in os.listdir(f"/proc/{pid}/task")) if name == "http-io"]
    print(f"{IDLE:,} idle connections: {(after - before) / IDLE / 1024:.1f} KiB each, {len(threads)} I/O threads, "
          f"a request among them p50 {times[1000] * 1e3:.2f} ms, p99 {times[1980] * 1e3:.2f} ms")
    for client in held:
        client.close()


def main():
    build = os.path.abspath(sys.argv[1])
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    folder = tempfile.TemporaryDirectory(prefix="bench-http-", dir="/var/tmp")
    base = folder.name
    os.chmod(base, 0o755)
    for name in ("root", "put"):
        os.mkdir(os.path.join(base, name))
        os.chmod(os.path.join(base, name), 0o777)
    with open(os.path.join(base, "root", "small.txt"), "wb") as file:
        file.write(os.urandom(512).hex().encode())
    with open(os.path.join(base, "root", "large.txt"), "wb") as file:
        for _ in range(100):
            file.write(os.urandom(MB))

    port = free_port()
    with open(os.path.join(base, "nginx.conf"), "w", encoding="ascii") as file:
        file.write(NGINX.format(folder=base, root=os.path.join(base, "root"), port=port))
    environment = {**os.environ, "HOME": base, "XDG_RUNTIME_DIR": base, "XDG_CONFIG_HOME": base,
                   "VENDRA_ROOT": os.path.join(build, "root"), "VENDRA_HTTP_MAX_CONNECTIONS": "20000",
                   "VENDRA_HTTP_CONTENT_ROOTS": "/bench=" + os.path.join(base, "root")}
    nginx = subprocess.Popen(["nginx", "-c", os.path.join(base, "nginx.conf")], stderr=subprocess.DEVNULL)
    host = subprocess.Popen([os.path.join(build, "root/bin/vendra"), "--connector"], env=environment, text=True,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    uploads = subprocess.Popen([os.path.join(build, "bench/upload_server")], env=environment, text=True,
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    try:
        host.stdout.readline()
        with open(host.stdout.readline().split(": ", 1)[1].strip(), encoding="utf-8") as file:
            found = json.load(file)
        url, token = found["url"], found["token"]
        engine = int(uploads.stdout.readline())
        wait_for(port)
        theirs = f"http://127.0.0.1:{port}/"
        bearer = f"Authorization: Bearer {token}"
        small, large, upload = ([], []), ([], []), ([], [])
        before = resident(uploads.pid)
        for _ in range(ROUNDS):
            small[0].append(wrk(url + "bench/small.txt", bearer))
            small[1].append(wrk(theirs + "small.txt"))
        for _ in range(LARGE_ROUNDS):
            large[0].append(exchange(url + "bench/large.txt", "GET", token))
            large[1].append(exchange(theirs + "large.txt", "GET"))
            upload[0].append(exchange(f"http://127.0.0.1:{engine}/", "PUT", size=100 * MB))
            upload[1].append(exchange(theirs + "put/large.txt", "PUT", size=100 * MB))
        grown = resident(uploads.pid) - before
        compare(f"1 KiB file, {CONNECTIONS} connections, all guards on", *small, "requests/s")
        compare("100 MB download", *large, "MB/s", MB)
        compare("100 MB upload to a file", *upload, "MB/s", MB)
        print(f"memory after {LARGE_ROUNDS} uploads of 100 MB: {grown / MB:+.1f} MB")
        idle(url, token, host.pid)
    finally:
        uploads.stdin.close()
        for process in (nginx, host, uploads):
            process.terminate()
            process.wait()
        folder.cleanup()


if __name__ == "__main__":
    main()
