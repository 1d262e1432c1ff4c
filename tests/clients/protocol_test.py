#!/usr/bin/env python3
"""Runs the exchanges of pages like docs/protocol.md against real hosts, one per page, and compares each answer with the
page's.

A text "..." on the page stands for any text. Usage: protocol_test.py VENDRA PAGE…
"""

import json
import re
import sys

from vendra_process import Vendra

BLOCK = re.compile(r"^```json (request|answer)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def differs(expected, actual, where="answer"):
    """The first difference as a text, or None. 5 and 5.0 are different values."""
    if expected == "..." and isinstance(actual, str) and actual:
        return None
    if type(expected) is not type(actual):
        return f"{where}: {actual!r} instead of {expected!r}"
    if isinstance(expected, dict):
        if expected.keys() != actual.keys():
            return f"{where}: members {sorted(actual)} instead of {sorted(expected)}"
        parts = [(f"{where}.{key}", expected[key], actual[key]) for key in expected]
    elif isinstance(expected, list):
        if len(expected) != len(actual):
            return f"{where}: {len(actual)} elements instead of {len(expected)}"
        parts = [(f"{where}[{i}]", *pair) for i, pair in enumerate(zip(expected, actual))]
    else:
        return None if expected == actual else f"{where}: {actual!r} instead of {expected!r}"
    return next((found for name, e, a in parts if (found := differs(e, a, name))), None)


def run_page(vendra, page):
    """Whether all its exchanges go as it says."""
    with open(page, encoding="utf-8") as file:
        blocks = BLOCK.findall(file.read())
    kinds = [kind for kind, _ in blocks]
    assert kinds and kinds == ["request", "answer"] * (len(kinds) // 2), f"blocks out of order: {kinds}"

    failures = 0
    with Vendra(vendra) as host:
        for (_, request), (_, answer) in zip(blocks[::2], blocks[1::2]):
            status, body = host.post(request)
            problem = f"HTTP status {status}: {body}" if status != 200 else differs(json.loads(answer), json.loads(body))
            if problem:
                failures += 1
                print(f"FAILED {request.strip()}\n       {problem}")
    print(f"{page}: {len(blocks) // 2 - failures} passed, {failures} failed")
    return failures == 0


def main():
    vendra, *pages = sys.argv[1:]
    assert pages, "no page to run"
    return 0 if all([run_page(vendra, page) for page in pages]) else 1


if __name__ == "__main__":
    sys.exit(main())
