"""A Bayeux client over a WebSocket, with nothing but the standard library."""

import base64
import json
import os
import socket
import struct

from vendra_process import TIMEOUT


class BayeuxSocket:
    """Handshakes when it is made, or goes on with a session that lost its socket; `events` are messages that are no
    replies to meta requests."""

    def __init__(self, host, session=None):
        url = host.discovery["url"].split("//", 1)[1].rstrip("/")
        address, port = url.rsplit(":", 1)
        self.socket = socket.create_connection((address, int(port)), TIMEOUT)
        self.buffer = b""
        key = base64.b64encode(os.urandom(16)).decode()
        self.socket.sendall((f"GET /messageservice/async HTTP/1.1\r\nHost: {url}\r\nUpgrade: websocket\r\n"
                             f"Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: {key}\r\n"
                             f"Authorization: Bearer {host.discovery['token']}\r\n\r\n").encode())
        while b"\r\n\r\n" not in self.buffer:
            self._fill()
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        assert head.startswith(b"HTTP/1.1 101"), head
        self.events = []
        self.id = session
        if not session:
            self.id = self.ask("/meta/handshake", version="1.0", supportedConnectionTypes=["websocket"])["clientId"]
            self.ask("/meta/connect", connectionType="websocket")

    def close(self):
        """At once, as a client that dies."""
        self.socket.close()

    def send(self, channel, **members):
        members = {"channel": channel, **members}
        if self.id:
            members["clientId"] = self.id
        payload = json.dumps([members]).encode()
        size = len(payload)
        head = bytes([0x81]) + (bytes([0x80 | size]) if size < 126 else
                                bytes([0x80 | 126]) + struct.pack(">H", size) if size < 65536 else
                                bytes([0x80 | 127]) + struct.pack(">Q", size))
        self.socket.sendall(head + bytes(4) + payload)  # a mask of zeros

    def ask(self, channel, **members):
        self.send(channel, **members)
        return self._next(lambda message: message["channel"] == channel and "successful" in message)

    def event(self, wanted=lambda message: True):
        """The next event that is wanted; others stay in `events`."""
        for position, message in enumerate(self.events):
            if wanted(message):
                return self.events.pop(position)
        return self._next(lambda message: "successful" not in message and wanted(message))

    def call(self, verb, **data):
        """What the interpreter's service answers."""
        self.send("/service/interpreter/" + verb, data={**data, "tag": [verb]})
        data = self.event(lambda message: message["channel"] == "/service/interpreter/" + verb)["data"]
        assert data.pop("tag") == [verb]
        return data

    def _next(self, wanted):
        found = None
        while found is None:
            for message in json.loads(self._frame()):
                if found is None and wanted(message):
                    found = message
                elif "successful" not in message:
                    self.events.append(message)
                elif message["channel"] == "/meta/connect" and message["successful"] and self.id:
                    self.send("/meta/connect", connectionType="websocket")
        return found

    def _frame(self):
        while True:
            first, second = self._bytes(2)
            size = second & 0x7F
            if size == 126:
                size, = struct.unpack(">H", self._bytes(2))
            elif size == 127:
                size, = struct.unpack(">Q", self._bytes(8))
            payload = self._bytes(size)
            if first == 0x81:
                return payload
            assert first in (0x89, 0x8A), f"a frame that begins with {first:#x}: {payload!r}"

    def _bytes(self, count):
        while len(self.buffer) < count:
            self._fill()
        taken, self.buffer = self.buffer[:count], self.buffer[count:]
        return taken

    def _fill(self):
        piece = self.socket.recv(1 << 20)
        if not piece:
            raise ConnectionError("the server closed")
        self.buffer += piece
