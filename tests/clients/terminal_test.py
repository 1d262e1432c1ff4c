"""What who sits at the terminal sees of clients."""

import os
import pty
import re
import select
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from vendra_process import TIMEOUT, Vendra

VENDRA = sys.argv.pop(1)


class AtTerminal(Vendra):
    """A host whose standard streams are a terminal."""

    def __enter__(self):
        self.terminal, inside = pty.openpty()
        self.process = subprocess.Popen(self._command, stdin=inside, stdout=inside, stderr=inside, env=self.environment,
                                        start_new_session=True,
                                        preexec_fn=lambda: __import__("fcntl").ioctl(0, __import__("termios").TIOCSCTTY))
        os.close(inside)
        self.shown = ""
        self.expect(r"Connector: (\S+)")
        self.token_file = self.expect(r"Token file: (\S+)")
        self.discovery = self._discovered()
        self.url = self.discovery["url"]
        self.expect(r"(>>> )")
        return self

    def expect(self, pattern):
        """What the first group is in what comes to be seen; that is not looked at again."""
        end = time.monotonic() + TIMEOUT
        while not (found := re.search(pattern, self.shown)):
            if not select.select([self.terminal], [], [], max(0, end - time.monotonic()))[0]:
                raise AssertionError(f"no {pattern!r} in {self.shown!r}")
            self.shown += os.read(self.terminal, 4096).decode(errors="replace")
        self.shown = self.shown[found.end():]
        return found[1]

    def type(self, text):
        os.write(self.terminal, text.encode())

    def stop(self):
        self.process.terminate()
        self.process.wait(TIMEOUT)
        os.close(self.terminal)


class Terminal(unittest.TestCase):
    def test_interrupt_says_whose_code_it_hit(self):
        with AtTerminal(VENDRA) as host:
            begun = os.path.join(host.home, "begun")
            answers = []
            code = f"open({begun!r}, 'x').close()  # \x1b[2J\nwhile True: pass"
            client = threading.Thread(target=lambda: answers.append(host.ask("Eval", code=code)))
            client.start()
            while not os.path.exists(begun):
                time.sleep(0.001)
            host.type("\x03")
            about = host.expect(r"Interrupted: ([^\r\n]*)\r\n")
            self.assertTrue(about.startswith(f"a program: open({begun!r}"[:50]), about)
            self.assertNotIn("\x1b", about)
            host.expect(r"(>>> )")
            client.join(TIMEOUT)
            self.assertEqual(answers[0]["code"], "interrupted")
            # A client's own interrupt is no news at the terminal.
            client = threading.Thread(target=lambda: answers.append(host.ask("Eval", code="while True: pass")))
            client.start()
            while not host.ask("Interrupt")["interrupted"]:
                time.sleep(0.001)
            client.join(TIMEOUT)
            host.type("print(6 * 7)\r")
            host.expect(r"(\n42)")
            self.assertNotIn("Interrupted", host.shown)


if __name__ == "__main__":
    unittest.main()
