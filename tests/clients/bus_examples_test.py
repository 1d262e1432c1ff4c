"""Runs what docs/bayeux.md shows: the Python in a host, one evaluation each, then the JavaScript as its client, whose output is
compared with the page line by line as JSON. Usage: bus_examples_test.py VENDRA PAGE NODE
"""

import json
import os
import subprocess
import sys
import tempfile

from examples_test import BLOCK
from vendra_process import TIMEOUT, Vendra


def main():
    vendra, page, node = sys.argv[1:]
    with open(page, encoding="utf-8") as file:
        blocks = BLOCK.findall(file.read())
    parts = {kind: [text for other, text in blocks if other == kind] for kind in ("python", "javascript", "output")}
    assert len(parts["python"]) >= 3 and len(parts["javascript"]) == len(parts["output"]) >= 1, parts
    with Vendra(vendra) as host:
        for code in parts["python"]:
            answer = host.ask("Eval", code=code)
            assert answer["type"] == "EvalResponse", (answer, code)
        environment = {**os.environ, "CONNECTOR_URL": host.discovery["url"].rstrip("/"),
                       "CONNECTOR_TOKEN": host.discovery["token"]}
        for code, output in zip(parts["javascript"], parts["output"]):
            with tempfile.NamedTemporaryFile("w", suffix=".mjs", encoding="utf-8") as program:
                program.write(code)
                program.flush()
                done = subprocess.run([node, program.name], env=environment, capture_output=True, text=True,
                                      timeout=TIMEOUT, check=False)
            assert done.returncode == 0, done.stderr
            printed, expected = ([json.loads(line) for line in text.splitlines()] for text in (done.stdout, output))
            assert printed == expected, f"{printed} instead of {expected}"
        host.ask("Eval", code="close()")
    return 0


if __name__ == "__main__":
    sys.exit(main())
