"""What the host says more easily in the language itself: cells, tracebacks, streams, the workspace's listing.

Loaded once into a module of its own. Its frames never show in a traceback.
"""

import ast
import builtins
import collections
import functools
import importlib
import io
import keyword
import linecache
import os
import re
import sys
import traceback
import types

OWN_FILE = "<vendra>"

workspace = sys.modules["__main__"].__dict__


# --- streams -----------------------------------------------------------------------------------------------------


class _Output(io.TextIOBase):
    """Goes where the host says at each write; everything else is as the real stream has it."""

    def __init__(self, real, write, flush, captured):
        self._real = real
        self._captured = captured
        self.write = write
        self.flush = flush
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

    def __getattr__(self, name):
        return getattr(self.__dict__["_real"], name)

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
    """The real standard input, but at its end for code that no terminal typed."""

    def __init__(self, real, captured):
        self._real = real
        self._captured = captured

    def _source(self):
        return io.StringIO() if self._captured() or self._real is None else self._real

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

    def read(self, size=-1):
        return self._source().read(size)

    def readline(self, size=-1):
        return self._source().readline(size)

    def isatty(self):
        return self._source().isatty()

    def fileno(self):
        return self._source().fileno()

    def close(self):
        pass

    def __getattr__(self, name):
        return getattr(self.__dict__["_real"], name)


def install_streams(write_out, flush_out, write_err, flush_err, captured):
    sys.stdout = _Output(sys.stdout, write_out, flush_out, captured)
    sys.stderr = _Output(sys.stderr, write_err, flush_err, captured)
    sys.stdin = _Input(sys.stdin, captured)


# --- sources of cells and what tracebacks show ----------------------------------------------------------------------

_KEPT_CELLS = 500
_KEPT_CHARACTERS = 16 << 20

_cells = collections.OrderedDict()  # name the compiler knows -> (name people see, characters)
_kept_characters = 0
_cell_count = 0


def _remember(file_name, code):
    """A name for the compiler under which later tracebacks find this cell's lines."""
    global _kept_characters, _cell_count
    if not (file_name.startswith("<") and file_name.endswith(">")):
        return file_name
    _cell_count += 1
    name = f"{file_name[:-1]}#{_cell_count}>"
    _cells[name] = (file_name, len(code))
    _kept_characters += len(code)
    linecache.cache[name] = (len(code), None, code.splitlines(True), name)
    while len(_cells) > 1 and (len(_cells) > _KEPT_CELLS or _kept_characters > _KEPT_CHARACTERS):
        old, (_, size) = _cells.popitem(last=False)
        _kept_characters -= size
        linecache.cache.pop(old, None)
    return name


_CELL_NAME = re.compile(r"#\d+>$")


def _shown(file_name):
    known = _cells.get(file_name)
    if known:
        return known[0]
    if file_name.startswith("<"):
        return _CELL_NAME.sub(">", file_name)
    return file_name


def _tidy(report):
    """Takes the host's own frames out and gives cells the names people know."""
    pending, seen = [report], set()
    while pending:
        part = pending.pop()
        if part is None or id(part) in seen:
            continue
        seen.add(id(part))
        frames = [frame for frame in part.stack if frame.filename != OWN_FILE]
        for frame in frames:
            frame.line  # looked up under the compiler's name
            frame.filename = _shown(frame.filename)
        part.stack[:] = frames
        if not frames:
            part.stack = None
        if getattr(part, "filename", None):
            part.filename = _shown(part.filename)
        pending += [part.__cause__, part.__context__]
        pending += part.exceptions or ()


def describe(error):
    """(type, message, traceback) of an exception, all text."""
    kind = type(error)
    name = kind.__qualname__
    if kind.__module__ not in ("builtins", "__main__"):
        name = f"{kind.__module__}.{name}"
    if isinstance(error, SyntaxError) and isinstance(error.filename, str):
        error.filename = _shown(error.filename)
    try:
        message = str(error)
    except Exception:
        message = "<exception str() failed>"
    report = traceback.TracebackException(kind, error, error.__traceback__, compact=True)
    _tidy(report)
    return name, message, "".join(report.format())


def show(error):
    """Prints an uncaught exception of the terminal or of a script, by the hook that people may have replaced."""
    trace = error.__traceback__
    while trace is not None and trace.tb_frame.f_code.co_filename == OWN_FILE:
        trace = trace.tb_next
    error.__traceback__ = trace
    sys.last_type, sys.last_value, sys.last_traceback = type(error), error, trace
    try:
        sys.excepthook(type(error), error, trace)
    except BaseException:
        traceback.print_exception(error, file=sys.__stderr__)


# --- running -------------------------------------------------------------------------------------------------------

_FUTURE_FLAGS = 0
for _name in __import__("__future__").all_feature_names:
    _FUTURE_FLAGS |= getattr(__import__("__future__"), _name).compiler_flag

_ABSENT = object()


def evaluate(code, file_name, want_value, echo):
    """Runs a cell in the workspace; the value of its last expression, if wanted and there is one."""
    name = _remember(file_name, code)
    tree = compile(code, name, "exec", ast.PyCF_ONLY_AST, True)
    last = None
    if want_value and tree.body and isinstance(tree.body[-1], ast.Expr):
        last = ast.Expression(tree.body.pop().value)
    flags = 0
    first = None
    if tree.body:
        whole = ast.Interactive(tree.body) if echo else tree
        first = compile(whole, name, "single" if echo else "exec", 0, True)
        flags = first.co_flags & _FUTURE_FLAGS
    if last is not None:
        last = compile(last, name, "eval", flags, True)

    if not echo:
        if first is not None:
            exec(first, workspace)
        return None if last is None else eval(last, workspace)

    # The display hook sets builtins._, which belongs to the terminal (or to gettext).
    kept = builtins.__dict__.get("_", _ABSENT)
    try:
        if first is not None:
            exec(first, workspace)
        if last is None:
            return None
        value = eval(last, workspace)
        sys.displayhook(value)
        return value
    finally:
        if kept is _ABSENT:
            builtins.__dict__.pop("_", None)
        else:
            builtins._ = kept


def exit_status(error):
    code = error.code
    if code is None:
        return 0
    if isinstance(code, int):
        return code & 0xFF
    try:
        sys.stdout.flush()
        print(code, file=sys.stderr)
    except Exception:
        pass
    return 1


def _foreground(run):
    """What came of the host's own code: (leave, status)."""
    try:
        run()
    except SystemExit as error:
        return True, exit_status(error)
    except KeyboardInterrupt as error:
        show(error)
        return False, 130
    except BaseException as error:
        show(error)
        return False, 1
    return False, 0


def run_source(code, file_name):
    return _foreground(lambda: exec(compile(code, file_name, "exec", 0, True), workspace))


def run_file(path):
    if os.path.isdir(path) or _is_archive(path):
        return _foreground(lambda: _run_package(path))
    try:
        with open(path, "rb") as file:
            code = file.read()
    except OSError as error:
        shown = os.path.abspath(path)
        print(f"vendra: can't open file {shown!r}: [Errno {error.errno}] {error.strerror}", file=sys.stderr)
        return True, 2
    if not sys.flags.safe_path:
        sys.path.insert(0, os.path.dirname(os.path.realpath(path)))
    path = os.path.abspath(path)
    workspace["__file__"] = path
    workspace["__cached__"] = None
    return run_source(code, path)


def _is_archive(path):
    if not path.endswith((".zip", ".pyz")):
        return False
    import zipfile

    return zipfile.is_zipfile(path)


def _run_package(path):
    import runpy

    sys.path.insert(0, path)
    runpy._run_module_as_main("__main__", False)


def prepare_interactive(set_prompts):
    if not sys.flags.safe_path:
        sys.path.insert(0, "")
    if set_prompts:
        sys.ps1, sys.ps2 = ">>> ", "... "


def prompt(continued):
    try:
        return str(getattr(sys, "ps2" if continued else "ps1"))
    except Exception:
        return "... " if continued else ">>> "


_compiler = None
_compiled = None


def compile_line(source):
    """None: more lines are needed; True: run_line may run it; False: it is wrong, and that was shown."""
    global _compiler, _compiled
    if _compiler is None:
        import codeop

        _compiler = codeop.CommandCompiler()
    try:
        _compiled = _compiler(source, "<stdin>", "single")
    except (SyntaxError, OverflowError, ValueError, MemoryError) as error:
        error.__traceback__ = None
        show(error)
        return False
    return None if _compiled is None else True


def run_line():
    global _compiled
    code, _compiled = _compiled, None
    return _foreground(lambda: exec(code, workspace))


def start_connector():
    def run():
        import connector

        connector.start()

    return _foreground(run)


def install_signals(terminate, break_signal, break_requested):
    """Returns the function that sets the descriptor on which signals show."""
    import signal

    for number in (signal.SIGTERM, signal.SIGHUP):
        if signal.getsignal(number) == signal.SIG_DFL:
            signal.signal(number, terminate)

    def interrupt(number, frame):
        if break_requested():
            raise KeyboardInterrupt

    signal.signal(break_signal, interrupt)
    return functools.partial(signal.set_wakeup_fd, warn_on_full_buffer=False)


def let_next_signal_kill():
    import signal

    for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
        signal.signal(number, signal.SIG_DFL)


# --- names and variables -------------------------------------------------------------------------------------------


def check_name(name):
    """Why a name cannot be a variable's, or None."""
    if not name.isidentifier():
        return f"{name!r} is not a variable name."
    if keyword.iskeyword(name):
        return f"{name!r} is a keyword of the language."
    return None


def resolve(name):
    """The object that a dotted name means in the workspace, else among builtins and modules."""
    head, *rest = name.split(".")
    if head in workspace:
        found = workspace[head]
    elif hasattr(builtins, head):
        found = getattr(builtins, head)
    else:
        if not rest:
            raise NameError(f"name {head!r} is not defined", name=head)
        try:
            found = importlib.import_module(head)
        except ImportError:
            raise NameError(f"name {head!r} is not defined", name=head) from None
    path = head
    for part in rest:
        path = f"{path}.{part}"
        if isinstance(found, types.ModuleType) and not hasattr(found, part):
            try:
                importlib.import_module(path)
            except ImportError:
                pass
        found = getattr(found, part)
    return found


def take_results(value, count):
    if not isinstance(value, (list, tuple)) or len(value) < count:
        size = f" of {len(value)}" if isinstance(value, (list, tuple)) else ""
        raise ValueError(f"{count} results are wanted, but the function returned a {type(value).__name__}{size}")
    return list(value[:count])


_type_name = type.__dict__["__name__"].__get__
_PREVIEW_BYTES = 200


def _cut(text):
    data = text.encode("utf-8", "replace")
    if len(data) <= _PREVIEW_BYTES:
        return data.decode("utf-8")
    return data[: _PREVIEW_BYTES - 3].decode("utf-8", "ignore") + "…"


def _scalar_preview(value):
    kind = type(value)
    if kind is str:
        return repr(value[:_PREVIEW_BYTES])
    if kind in (bytes, bytearray):
        return repr(value[:_PREVIEW_BYTES])
    if kind is int and value.bit_length() > 640:
        return f"int of {value.bit_length()} bits"
    if value is None or kind in (bool, int, float, complex):
        return repr(value)
    if kind in _BRACKETS:
        return f"{_type_name(kind)} of {len(value)}"
    return _type_name(kind)


_BRACKETS = {list: "[]", tuple: "()", set: "{}", frozenset: "{}", dict: "{}"}


def _preview(value):
    kind = type(value)
    if kind not in _BRACKETS:
        return _cut(_scalar_preview(value))
    opening, closing = _BRACKETS[kind]
    parts, length = [], 0
    for item in value.items() if kind is dict else value:
        if length > _PREVIEW_BYTES:
            break
        part = ": ".join(map(_scalar_preview, item)) if kind is dict else _scalar_preview(item)
        parts.append(part)
        length += len(part) + 2
    return _cut(opening + ", ".join(parts) + closing)


def _size(value):
    kind = type(value)
    if kind in _BRACKETS or kind in (bytes, bytearray, collections.deque):
        return [len(value)]
    if kind is memoryview:
        try:
            return list(value.shape)
        except ValueError:
            return []  # released
    numpy = sys.modules.get("numpy")
    if numpy is not None and kind is getattr(numpy, "ndarray", None):
        return list(value.shape)
    if _type_name(kind) == "array" and getattr(sys.modules.get("array"), "array", None) is kind:
        return [len(value)]
    return []


def variable_names():
    return sorted(
        name
        for name, value in list(workspace.items())
        if type(name) is str and not name.startswith("_") and type(value) is not types.ModuleType
    )


def list_variables():
    """(name, type, size, preview) of each; runs nobody's code."""
    found = []
    for name in variable_names():
        value = workspace[name]
        found.append((name, _type_name(type(value)), _size(value), _preview(value)))
    return found


_TOKEN = re.compile(r"[\w.]*\Z")


def complete(before):
    """(text that a candidate replaces, candidates) at the end of `before`."""
    path = _TOKEN.search(before).group()
    head, dot, tail = path.rpartition(".")
    if dot:
        if not head or not all(part.isidentifier() for part in head.split(".")):
            return tail, []
        return tail, _attributes(head.split("."), tail)
    if not tail or tail[0].isdigit():
        return tail, []
    names = set(workspace) | set(builtins.__dict__) | set(keyword.kwlist)
    return tail, _matching(names, tail)


def _attributes(path, tail):
    try:
        value = workspace[path[0]] if path[0] in workspace else getattr(builtins, path[0])
        for part in path[1:]:
            value = getattr(value, part)
        names = set(dir(value))
    except Exception:
        return []
    return _matching(names, tail)


def _matching(names, tail):
    """Names that begin with `tail`, private ones only when asked for."""
    return sorted(
        name
        for name in names
        if isinstance(name, str) and name.startswith(tail) and (tail.startswith("_") or not name.startswith("_"))
    )


# --- settings and files ----------------------------------------------------------------------------------------------


def search_path():
    return [str(entry) for entry in sys.path]


def set_search_path(folders):
    sys.path[:] = folders
    importlib.invalidate_caches()


def set_current_folder(folder):
    os.chdir(os.path.expanduser(folder))


_FORMAT = "vendra workspace 1"


def _pickler():
    import pickle

    class Pickler(pickle.Pickler):
        """Refuses what a file cannot carry: code that only this workspace defines."""

        def reducer_override(self, value):
            if isinstance(value, (type, types.FunctionType)) and value.__module__ == "__main__":
                raise pickle.PicklingError(f"{value.__qualname__} is defined in the workspace itself")
            return NotImplemented

    return Pickler


def _dump(file, variables):
    _pickler()(file, protocol=4).dump({"format": _FORMAT, "variables": variables})


class _Nowhere:
    def write(self, data):
        return len(data)


def _saves(name, value):
    try:
        _dump(_Nowhere(), {name: value})
    except Exception:
        return False
    return True


def save_workspace(path, names):
    """Names of those that could not be saved."""
    names = names or variable_names()
    left_out = [name for name in names if name not in workspace]
    variables = {name: workspace[name] for name in names if name in workspace}
    path = os.path.abspath(os.path.expanduser(path))
    temporary = f"{path}.{os.getpid()}.part"
    handle = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o600)
    try:
        with open(handle, "wb") as file:
            try:
                _dump(file, variables)
            except Exception:
                left_out += [name for name, value in variables.items() if not _saves(name, value)]
                file.seek(0)
                file.truncate()
                _dump(file, {name: value for name, value in variables.items() if name not in left_out})
            file.flush()
            os.fsync(file.fileno())
        os.replace(temporary, path)
    except BaseException:
        os.unlink(temporary)
        raise
    return left_out


def load_workspace(path):
    import pickle

    with open(os.path.expanduser(path), "rb") as file:
        saved = pickle.load(file)
    if not isinstance(saved, dict) or saved.get("format") != _FORMAT:
        raise ValueError(f"{path!r} holds no saved workspace")
    workspace.update(saved["variables"])
    return sorted(saved["variables"])
