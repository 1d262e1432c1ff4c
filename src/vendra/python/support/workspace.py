"""The workspace as clients look at it: names, listing, completion, files.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback.
"""

import builtins
import collections
import importlib
import keyword
import os
import re
import sys
import types


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
    try:
        for item in value.items() if kind is dict else value:
            if length > _PREVIEW_BYTES:
                break
            part = ": ".join(map(_scalar_preview, item)) if kind is dict else _scalar_preview(item)
            parts.append(part)
            length += len(part) + 2
    except RuntimeError:  # another thread changes it
        return _scalar_preview(value)
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


def _variables():
    return {
        name: value
        for name, value in workspace.copy().items()
        if type(name) is str and not name.startswith("_") and type(value) is not types.ModuleType
    }


def variable_names():
    return sorted(_variables())


def list_variables():
    """(name, type, size, preview) of each; runs nobody's code."""
    variables = _variables()
    return [
        (name, _type_name(type(variables[name])), _size(variables[name]), _preview(variables[name]))
        for name in sorted(variables)
    ]


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
