"""Standard streams that ask the host at each use where they lead.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback.
"""

import _thread
import functools
import io
import sys


def _of_real(name):
    return property(lambda self: getattr(self._real, name))


class _Output(io.TextIOBase):
    """Goes where the host says at each write; everything else is as the real stream has it."""

    # What is printed looks "write" up twice a line. So there is no __getattr__, with which a class looks up every name
    # the slow way, and "write" and "flush" are the class's own, beside instances that need no dictionary.
    __slots__ = ("_real", "_captured", "_bytes")
    name = _of_real("name")
    mode = _of_real("mode")
    line_buffering = _of_real("line_buffering")
    write_through = _of_real("write_through")
    reconfigure = _of_real("reconfigure")

    @classmethod
    def around(cls, real, write, flush, captured):
        members = {"__slots__": (), "write": write, "flush": flush}
        return type(cls.__name__, (cls,), members)(real, captured)

    def __init__(self, real, captured):
        self._real = real
        self._captured = captured
        self._bytes = _OutputBytes(self)

    @property
    def encoding(self):
        return "utf-8" if self._captured() else getattr(self._real, "encoding", "utf-8")

    @property
    def errors(self):
        return "replace" if self._captured() else getattr(self._real, "errors", "strict")

    @property
    def buffer(self):
        return self._bytes if self._captured() or self._real is None else self._real.buffer

    def isatty(self):
        return not self._captured() and self._real is not None and self._real.isatty()

    def fileno(self):
        if self._real is None:
            raise io.UnsupportedOperation("fileno")
        return self._real.fileno()

    def writable(self):
        return True

    def close(self):
        self.flush()

    def __repr__(self):
        return f"<host stream around {self._real!r}>"


class _OutputBytes(io.BufferedIOBase):
    def __init__(self, stream):
        import codecs

        self._stream = stream
        self._decoder = codecs.getincrementaldecoder("utf-8")("replace")

    def writable(self):
        return True

    def write(self, data):
        data = bytes(data)
        text = self._decoder.decode(data)
        if text:
            self._stream.write(text)
        return len(data)

    def flush(self):
        self._stream.flush()

    def close(self):
        self.flush()


class _Input(io.TextIOBase):
    """The real standard input; for code that no terminal typed, what its client has to say."""

    def __init__(self, real, read_line, captured):
        self._real = real
        self._read_line = read_line
        self._captured = captured
        self._left = ""  # of a client's line that was read in part

    @property
    def encoding(self):
        return getattr(self._real, "encoding", "utf-8")

    @property
    def errors(self):
        return getattr(self._real, "errors", "strict")

    @property
    def buffer(self):
        return io.BytesIO() if self._captured() else self._real.buffer

    def readable(self):
        return True

    def readline(self, size=-1):
        if not self._captured():
            return "" if self._real is None else self._real.readline(size)
        line = self._left or self._read_line()
        self._left = ""
        if size is not None and 0 <= size < len(line):
            line, self._left = line[:size], line[size:]
        return line

    def read(self, size=-1):
        if not self._captured():
            return "" if self._real is None else self._real.read(size)
        if size is not None and size >= 0:
            return self.readline(size)
        return "".join(iter(self.readline, ""))

    def isatty(self):
        return not self._captured() and self._real is not None and self._real.isatty()

    def fileno(self):
        if self._captured() or self._real is None:
            raise io.UnsupportedOperation("fileno")
        return self._real.fileno()

    def close(self):
        pass

    def __getattr__(self, name):
        return getattr(self.__dict__["_real"], name)


def install_streams(write_out, flush_out, write_err, flush_err, read_line, captured):
    sys.stdout = _Output.around(sys.stdout, write_out, flush_out, captured)
    sys.stderr = _Output.around(sys.stderr, write_err, flush_err, captured)
    sys.stdin = _Input(sys.stdin, read_line, captured)
    after_load("getpass", functools.partial(_ask_clients, captured))


def _ask_clients(captured, module):
    """Secrets come from who is asked for everything else: the host's terminal is not theirs who run code from afar."""
    ask_terminal = module.getpass

    @functools.wraps(ask_terminal)
    def getpass(prompt="Password: ", stream=None):
        if not captured():
            return ask_terminal(prompt, stream)
        stream = stream or sys.stderr
        stream.write(str(prompt))
        stream.flush()
        line = sys.stdin.readline()
        if not line:
            raise EOFError
        return line.removesuffix("\n")

    module.getpass = getpass


def install_threads(outlet, run_for):
    """Has threads print to where the thread that starts them does, and work for a pool's threads to where its giver
    does. `outlet` tells that place, None for the host's own output; `run_for` runs a function there."""
    start = _thread.start_new_thread

    @functools.wraps(start)
    def start_new_thread(function, args, /, *named):
        place = outlet()
        fits = callable(function) and isinstance(args, tuple) and len(named) < 2 and all(isinstance(one, dict) for one in named)
        if place is None or not fits:
            return start(function, args, *named)
        return start(run_for, (place, function, args, *named))

    def inherit(module):
        class WorkItem(module._WorkItem):
            def __init__(self, *details):
                super().__init__(*details)
                self.place = outlet()

            def run(self):
                if self.place is None:
                    return super().run()
                place, self.place = self.place, None
                return run_for(place, super().run, ())

        module._WorkItem = WorkItem

    def start_by(module):
        module._start_new_thread = start_new_thread

    _thread.start_new_thread = _thread.start_new = start_new_thread
    after_load("threading", start_by)
    after_load("concurrent.futures.thread", inherit)
