#!/usr/bin/env python3
"""Runs the programs of docs/clients.md, those of one language as one program, and compares what they print, line by line
as JSON, with the page. Usage: examples_test.py VENDRA PAGE NODE
"""

import json
import os
import re
import subprocess
import sys
import tempfile

from vendra_process import TIMEOUT, Vendra

BLOCK = re.compile(r"^```(python|javascript|output)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def main():
    vendra, page, node = sys.argv[1:]
    with open(page, encoding="utf-8") as file:
        blocks = BLOCK.findall(file.read())
    kinds = [kind for kind, _ in blocks]
    assert kinds and kinds == ["python", "javascript", "output"] * (len(kinds) // 3), f"blocks out of order: {kinds}"
    parts = {kind: [text for other, text in blocks if other == kind] for kind in set(kinds)}
    expected = [json.loads(line) for line in "".join(parts["output"]).splitlines()]

    failed = False
    for language, command, suffix in (("python", sys.executable, ".py"), ("javascript", node, ".mjs")):
        with Vendra(vendra) as host, tempfile.NamedTemporaryFile("w", suffix=suffix, encoding="utf-8") as program:
            program.write("\n".join(parts[language]))
            program.flush()
            environment = {**os.environ, "CONNECTOR_URL": host.discovery["url"].rstrip("/"),
                           "CONNECTOR_TOKEN": host.discovery["token"]}
            done = subprocess.run([command, program.name], env=environment, capture_output=True, text=True,
                                  timeout=TIMEOUT, check=False)
        printed = [json.loads(line) for line in done.stdout.splitlines()]
        wrong = [f"{got!r} instead of {wanted!r}" for got, wanted in zip(printed, expected) if got != wanted]
        if done.returncode or wrong or len(printed) != len(expected):
            failed = True
            print(f"{language}: exit code {done.returncode}, {len(printed)} of {len(expected)} lines\n"
                  + "\n".join(wrong) + done.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
