#!/usr/bin/env python3
"""Requests that are meant to cost a host more than their sender, and what must stay secret. Usage: bombs_test.py VENDRA"""

import json
import os
import re
import socket
import sys
import time
import unittest
import urllib.parse

from vendra_process import Vendra
from wire import EVAL, WireTest

WireTest.executable = sys.argv.pop(1)
MEGABYTE = 1 << 20


def call(arguments):
    return '{"type":"FEval","id":"1","function":"len","arguments":%s}' % arguments


def code(text):
    return '{"type":"Eval","id":"1","code":"%s"}' % text


def names(count, text='"%d":0'):
    return ",".join(text % i for i in range(count))


class Json(WireTest):
    def answer(self, body):
        found = self.send(self.post(body))
        self.assertEqual(len(found), 1)
        return found[0][0], found[0][2].decode()

    def test_what_is_no_message_is_refused(self):
        """With a text that says where, and is short."""
        bodies = [
            "", " ", "x", "5", "null", "true", '"text"', "[]", "[" + EVAL + "]", EVAL + EVAL, EVAL + "x", EVAL[:-1],
            EVAL.replace('"', "'"), "\xef\xbb\xbf" + EVAL, EVAL.replace(",", ",,"), '{"type":"Eval",}', "{" * 100,
            code("\\ud800"), code("\\udc00\\ud800"), code("\\u12"), code("\\x41"), code("\n"), code("\x00"), code("\xff"),
            code("\xc0\x80"), code("\xed\xa0\x80"), code("\xf4\x90\x80\x80"), code("\xe2\x82"), EVAL + "\x00",
            '{"type":"Eval","id":"1","code":"1","code":"2"}', '{"type":"Eval","type":"Interrupt"}',
            '{"type":"Eval","\\u0074ype":"Interrupt"}', "{}", '{"type":null}', '{"type":5}', '{"type":{}}',
            '{"type":["Eval"]}', '{"type":""}', '{"type":"eval"}', '{"type":"Eval"}', '{"type":"Eval","code":5}',
            '{"type":"EvalResponse"}', '{"type":"Fault"}', '{"type":"ContainerResponse"}', '{"messages":5}',
            '{"messages":{}}', '{"id":5,"messages":[]}', '{"type":"ContainerRequest"}', '{"type":"OpenPort","port":1} x',
            call("5"), call("{}"), call("[1e400]"), call("[NaN]"), call("[01]"), call("[.5]"), call("[+1]"), call("[0x1]"),
            call('[{"vx":"double","size":[1,1],"data":["x"]}]'), call('[{"vx":"double","size":[9999999999,2],"data":[]}]'),
            call('[{"vx":"double","size":[-1,1],"data":[]}]'), call('[{"vx":"x"}]'), call('[{"vx":5}]'),
            call('[{"vx":"cell","size":[4294967296,4294967296,4294967296],"data":[]}]')]
        for body in bodies:
            with self.subTest(body=body[:80]):
                status, text = self.answer(body)
                self.assertEqual(status, 400, text)
                self.assertTrue(0 < len(text) < 1000, text)
        self.assertEqual(self.answer('{"messages":[]}')[0], 200)

    def test_types_that_clients_have_no_business_with(self):
        for type_ in ("OpenPort", "ClosePort", "SetConfiguration", "GetConfiguration", "AddContentRoot", "CreateNonce",
                      "RedeemNonce", "CreateEntryUrl", "HttpClientRequest", "ContainerRequest"):
            _, text = self.answer(json.dumps({"messages": [
                {"type": type_, "id": "1", "messages": [], "name": "http.port", "value": 1, "port": 1, "prefix": "/x",
                 "folder": "/", "nonce": "x", "purpose": "entry", "lifeSeconds": 1, "baseUrl": self.host.url,
                 "url": self.host.url}]}))
            fault = json.loads(text)["messages"][0]
            code = "forbidden" if type_.endswith(("Port", "Root")) else "unknownType"
            self.assertEqual((fault["type"], fault["code"]), ("Fault", code), type_)

    def test_one_bad_message_leaves_the_others(self):
        status, text = self.answer('{"id":"c","messages":[5,null,[],{},{"type":"Eval","id":7},%s,{"type":"X"}]}' % EVAL)
        self.assertEqual(status, 200)
        codes = [message.get("code") for message in json.loads(text)["messages"]]
        self.assertEqual(codes, ["badMessage"] * 5 + [None, "unknownType"])

    def test_limits_hold(self):
        depth = call("[" * 63 + "]" * 63)
        self.assertEqual((self.answer(depth)[0], self.answer(depth.replace("[]", "[[]]"))[0]),
                         (200, 400))
        message = '{"type":"Interrupt","id":"1"}'
        self.assertEqual([self.answer('{"messages":[%s]}' % ",".join([message] * count))[0] for count in (1000, 1001)],
                         [200, 400])
        self.assertEqual(self.answer(call("[%s]" % ("9" * 1025)))[0], 400)
        self.assertEqual(self.answer(code("x" * (64 * MEGABYTE)))[0], 413)
        self.assertEqual(self.answer(code("#" + "x" * (64 * MEGABYTE - 100)))[0], 200)


class Cost(WireTest):
    """Processor time for a byte sent, memory afterwards, and the time of others."""

    def spent(self, requests, expected):
        """Processor seconds of the host, and megabytes sent."""
        before = self.gauge.cpu_seconds()
        sent = 0
        for request in requests:
            found = self.send(request, [request.partition(" ")[0]], finish=True)
            self.assertEqual({status for status, _, _ in found}, {expected})
            sent += len(request)
        return self.gauge.cpu_seconds() - before, sent / MEGABYTE

    def setUp(self):
        plain = [self.get("/files/a.txt")] * 200
        self.plain = self.spent(plain, 200)[0] / len(plain)  # of one small request

    def trim(self):
        """The allocator may keep what was freed; asked for it, it gives it back."""
        self.host.ask("Eval", code="import ctypes, gc; gc.collect(); ctypes.CDLL(None).malloc_trim(0)")

    def check_cost(self, bombs, memory=4):
        """`memory`: bytes that may be held for a byte sent."""
        for name, (request, times, expected) in bombs.items():
            with self.subTest(bomb=name):
                self.trim()
                self.gauge.reset_peak()
                before = self.gauge.resident_bytes()
                seconds, megabytes = self.spent([request] * times, expected)
                grown = self.gauge.peak_bytes() - before
                print(f"{name}: {seconds / megabytes:.3f} s/MB, {grown >> 20} MB for {megabytes:.1f}", file=sys.stderr)
                # A request costs something by itself; beyond that it is its bytes that cost.
                most = 10 * self.plain * times + megabytes + 0.1
                self.assertLess(seconds, 3 * most if self.gauge.is_sanitized() else most)
                if not self.gauge.is_sanitized():
                    self.assertLess(grown, memory * len(request) + 32 * MEGABYTE)

    def test_heads_ranges_and_chunks(self):
        large = "/files/large.txt"
        tiny = "".join("1;%s\r\nx\r\n" % ("" if i else "a") for i in range(30_000)).replace(";\r", "\r") + "0\r\n\r\n"
        self.check_cost({
            "fields": (self.get(large, *["X%d: %s" % (i, "y" * 250) for i in range(95)], line="HEAD {} HTTP/1.1"), 40, 200),
            "cookies": (self.get(large, "Cookie: " + "a=b;" * 7500, line="HEAD {} HTTP/1.1"), 40, 200),
            "same cookies": (self.get(large, "Cookie: " + "VENDRAACCESS_{port}=x;" * 1200, line="HEAD {} HTTP/1.1"), 40, 200),
            "accept": (self.get(large, "Accept-Encoding: " + "br;q=0.1," * 3000, line="HEAD {} HTTP/1.1"), 40, 200),
            "etags": (self.get(large, "If-None-Match: " + '"x",' * 7500, line="HEAD {} HTTP/1.1"), 40, 200),
            "segments": (self.get("/files/" + "x/" * 3900 + "a.txt"), 40, 404),
            "percents": (self.get("/files/" + "%41" * 2600 + ".txt"), 40, 404),
            "ranges": (self.get("/files/a.txt", "Range: bytes=" + "0-," * 10_000 + "0-"), 40, 200),
            "parts": (self.get(large, "Range: bytes=" + ",".join(f"{i * 999}-{i * 999}" for i in range(16))), 100, 206),
            "chunks": (self.post(tiny, length="Transfer-Encoding: chunked"), 4, 400),
            "one connection": (self.get("/files/a.txt", last="") * 500, 1, 200)})

    def test_json(self):
        wide = "{%s}" % names(400)
        same = "n" * 60_000
        good = {
            "names": call("[{%s}]" % names(400_000)), "wide": call("[%s]" % ",".join([wide] * 1500)),
            "values": call("[%s]" % ("0," * 990_000 + "0")), "arrays": call("[%s]" % ("[]," * 600_000 + "0")),
            "deep": call("[%s]" % (("[" * 60 + "]" * 60 + ",") * 15_000 + "0")),
            "long names": call("[{%s}]" % names(400, '"' + same + '%d":0')),
            "fractions": call("[%s]" % (("0." + "1" * 1000 + "e-300,") * 4000 + "0")),
            "escapes": code("#" + "\\ud83d\\ude00" * 400_000), "string": code("# " + "x" * 30 * MEGABYTE),
            "messages": '{"messages":[%s{}]}' % (('{"type":"X%s"},' % ("x" * 5000)) * 999)}
        bad = {
            "types": '{"type":[%s0],"id":[%s0]}' % ("0," * 400_000, "0," * 400_000),
            "unknown": '{"type":"%s"}' % ("x" * 20 * MEGABYTE), "broken": "[" * 10 * MEGABYTE,
            "numbers": call("[%s0]" % (("9" * 1000 + ",") * 4000)), "twice": "{%s,%s}" % (names(400_000), '"0":0')}
        self.check_cost({name: (self.post(body), 1, status) for bodies, status in ((good, 200), (bad, 400))
                         for name, body in bodies.items()}, memory=256)
        # Strangers get none of that.
        self.check_cost({"no token": (self.post(good["deep"]).replace("{auth}\r\n", ""), 1, 401),
                         "foreign": (self.post(good["deep"], "Origin: null"), 1, 403)}, memory=0)

    def test_memory_does_not_grow(self):
        if self.gauge.is_sanitized():
            self.skipTest("sanitizers keep what was freed")
        bombs = [call("[%s0]" % ("0," * 990_000)), code("# " + "x" * 30 * MEGABYTE), call("[{%s}]" % names(400_000)),
                 call("[%s[]]" % ("[]," * 600_000)), "[" * 30 * MEGABYTE, '{"a":[%s0]}' % ("0," * 990_000)]

        def drop_bombs(rounds):
            for bomb in bombs * rounds:
                self.send(self.post(bomb), finish=True)

        self.trim()
        before = self.gauge.resident_bytes()
        drop_bombs(3)
        untouched = self.gauge.resident_bytes()
        self.trim()
        after = self.gauge.resident_bytes()
        print(f"resident: {before >> 20} MB before, {untouched >> 20} MB after, {after >> 20} MB trimmed", file=sys.stderr)
        self.assertLess(untouched, before + 256 * MEGABYTE)  # the interpreter's part, too, keeps some of what it freed
        self.assertLess(after, before + 96 * MEGABYTE)

    def test_held_connections_delay_nobody(self):
        holding = [self.get("/files/a.txt")[:30], self.post(EVAL)[:-5], self.post("5\r\nhel", length="Transfer-Encoding: chunked"),
                   "", self.post("", "Expect: 100-continue", length="Content-Length: 2000000")[:-2]]
        held = []
        try:
            for i in range(200):
                held.append(self.connect())
                held[-1].sendall(self.fill(holding[i % len(holding)]))
            times = []
            for _ in range(200):
                begin = time.monotonic()
                self.assertEqual(self.send(self.get("/files/a.txt"))[0][0], 200)
                times.append(time.monotonic() - begin)
            self.assertLess(sorted(times)[-3], 1)
            print(f"p99 beside 200 held connections: {1000 * sorted(times)[-3]:.1f} ms", file=sys.stderr)
        finally:
            for client in held:
                client.close()


class Secrets(unittest.TestCase):
    """Neither log, at its most talkative, nor refusal knows a secret."""

    def test_are_kept(self):
        host = Vendra(WireTest.executable, environment={"VENDRA_LOG": "*=63"})
        key = "k3y-" * 10
        key_file = os.path.join(host.home, "key")
        with open(os.open(key_file, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="ascii") as file:
            file.write(key)
        host.environment["VENDRA_SECURITY_ACCESS_KEY_FILE"] = key_file
        log = os.path.join(host.home, "connector.log")
        with host:
            host.ask("Eval", code="import connector\nconnector.setLogSpecification('trace')\n"
                                  f"connector.setLogDestination('file:{log}')")
            port = urllib.parse.urlsplit(host.url).port
            token = host.discovery["token"]
            nonces = [urllib.parse.urlsplit(host.entry_url).query.partition("=")[2]]
            nonces.append(self.ask(port, "POST /messageservice/nonce", f"Authorization: Bearer {token}")[1]
                          .partition('"nonce":"')[2][:64])
            name = urllib.parse.urlsplit(host.entry_url).netloc
            entered, _ = self.ask(port, f"GET /?nonce={nonces[0]}", name=name)
            self.assertIn(" 303 ", entered)
            cookie = re.search(r"Set-Cookie: (\w+)=(\w+)", entered)
            code = re.search(r"#entry=(\w+)", entered)[1]
            page_key = json.loads(self.ask(port, "POST /messageservice/entry", f"Vendra-Entry: {code}")[1])["key"]
            ticket = json.loads(self.ask(port, "POST /messageservice/ticket", f"Vendra-Page: {page_key}")[1])["ticket"]
            secrets = [token, key, cookie[2], *nonces, code, page_key, ticket, name.partition(".")[0]]
            for secret in secrets:
                self.assertGreaterEqual(len(secret), 32)
                self.ask(port, f"POST /messageservice/async?nonce={secret}", f"Authorization: Bearer {token}\r\n"
                                                                            f"Cookie: {cookie[1]}={secret}")
                for line, fields in (
                        ("GET /", f"Authorization: Bearer {secret}x"), ("GET /", f"Authorization : Bearer {secret}"),
                        ("GET /", f"Cookie {cookie[1]}={secret}"), ("GET /", f"X: {secret}\x01"), (f"GET /{secret}\\", ""),
                        (f"GET /?nonce={secret}x", ""), (f"HEAD /?nonce={secret}", ""), (f"GET  /?nonce={secret}", ""),
                        (f"GET ?nonce={secret}", ""), (f"GET /x.txt?nonce={secret}#", ""),
                        (f"POST /messageservice/nonce?nonce={secret}x", f"Authorization: Bearer {secret}x"),
                        ("GET /", f"Origin: {secret}")):
                    head, body = self.ask(port, line, fields)
                    self.assertNotIn(" 20", head.partition("\r\n")[0])
                    self.assertNotIn(secret[:16], head + body, line)
            _, errors = host.stop()
            with open(log, encoding="utf-8") as file:
                written = file.read() + errors
        for secret in secrets:
            self.assertNotIn(secret[:16], written)
        self.assertIn(" TRACE connector::", written)

    @staticmethod
    def ask(port, line, fields="", name=None):
        with socket.create_connection(("127.0.0.1", port), 5) as client:
            client.sendall(f"{line} HTTP/1.1\r\nHost: {name or f'127.0.0.1:{port}'}\r\nConnection: close\r\n{fields}\r\n\r\n"
                           .replace("\r\n\r\n\r\n", "\r\n\r\n").encode())
            received = b""
            while piece := client.recv(1 << 16):
                received += piece
        head, _, body = received.decode().partition("\r\n\r\n")
        return head, body


if __name__ == "__main__":
    unittest.main()
