"""Running cells of clients, and telling what they raised.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback.
"""

import __future__
import _ast  # ast itself takes long to load
import _io
import builtins
import collections
import sys

OWN_FILE = "<vendra>"  # what these files are called when they are compiled

workspace = sys.modules["__main__"].__dict__

_KEPT_CELLS = 500
_KEPT_CHARACTERS = 16 << 20

_cells = collections.OrderedDict()  # name the compiler knows -> (name people see, source)
_expressions = {}  # (source, name people see) -> (name the compiler knows, code object), for as long as the cell is kept
_kept_characters = 0
_cell_count = 0


def _lines_of(name, source):
    """As linecache keeps them: lines as the compiler counts them, each with its end, by which carets are placed."""
    lines = _io.StringIO(source, newline=None).readlines()
    if lines and not lines[-1].endswith("\n"):
        lines[-1] += "\n"
    return len(source), None, lines, name


def _tell_cells(linecache):
    """It takes a tenth of the host's start to load."""
    linecache.cache.update((cell, _lines_of(cell, source)) for cell, (_, source) in list(_cells.items()))


after_load("linecache", _tell_cells)


def _remember(file_name, code):
    """A name for the compiler under which later tracebacks find this cell's lines."""
    global _kept_characters, _cell_count
    if not (file_name.startswith("<") and file_name.endswith(">")):
        return file_name
    _cell_count += 1
    name = f"{file_name[:-1]}#{_cell_count}>"
    _cells[name] = (file_name, code)
    _kept_characters += len(code)
    lines = getattr(_own_modules.get("linecache", sys.modules.get("linecache")), "cache", None)  # another thread may be just loading it
    if lines is not None:
        lines[name] = _lines_of(name, code)
    while len(_cells) > 1 and (len(_cells) > _KEPT_CELLS or _kept_characters > _KEPT_CHARACTERS):
        old, (shown, source) = _cells.popitem(last=False)
        _kept_characters -= len(source)
        if lines is not None:
            lines.pop(old, None)
        if _expressions.get((source, shown), (None,))[0] == old:
            del _expressions[source, shown]
    return name


def _shown(file_name):
    known = _cells.get(file_name)
    if known:
        return known[0]
    begin, _, number = file_name.removesuffix(">").rpartition("#")
    forgotten = file_name.startswith("<") and file_name.endswith(">") and number.isdecimal()
    return begin + ">" if forgotten else file_name


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
    traceback = library("traceback")
    with LibraryFirst():
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
        print_error(error, sys.__stderr__)


def print_error(error, file=None):
    traceback = library("traceback")
    with LibraryFirst():
        traceback.print_exception(error, file=file)


_FUTURE_FLAGS = 0
for _feature in __future__.all_feature_names:
    _FUTURE_FLAGS |= getattr(__future__, _feature).compiler_flag

_ABSENT = object()


def _looks_single(code):
    return len(code) < 200 and "\n" not in code and "=" not in code and not code[:1].isspace()


def evaluate(code, file_name, want_value, echo):
    """Runs a cell in the workspace; the value of its last expression, if wanted and there is one."""
    quick = want_value and not echo and _looks_single(code)
    if quick:
        # Clients that watch a value ask for the same expression again and again.
        known = _expressions.get((code, file_name))
        if known:
            _cells.move_to_end(known[0])
            return eval(known[1], workspace)
    name = _remember(file_name, code)
    if quick:
        # The quick way for what clients ask most; anything but an expression goes the long way.
        try:
            expression = compile(code, name, "eval", 0, True)
        except SyntaxError:
            pass
        else:
            if name in _cells:
                _expressions[code, file_name] = name, expression
            return eval(expression, workspace)
    tree = compile(code, name, "exec", _ast.PyCF_ONLY_AST, True)
    last = None
    if want_value and tree.body and isinstance(tree.body[-1], _ast.Expr):
        last = _ast.Expression(tree.body.pop().value)
    flags = 0
    first = None
    if tree.body:
        whole = _ast.Interactive(tree.body) if echo else tree
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
