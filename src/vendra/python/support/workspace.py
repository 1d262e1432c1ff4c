"""The workspace as clients use it: names, calls, folders, files.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback.
"""

import builtins
import importlib
import keyword
import os
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


def search_path():
    return [str(entry) for entry in sys.path]


def set_search_path(folders):
    sys.path[:] = folders
    importlib.invalidate_caches()


def set_current_folder(folder):
    os.chdir(os.path.expanduser(folder))


_FORMAT = "vendra workspace 1"


def _pickler():
    pickle = library("pickle")

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
    with open(os.path.expanduser(path), "rb") as file:
        saved = library("pickle").load(file)
    if not isinstance(saved, dict) or saved.get("format") != _FORMAT:
        raise ValueError(f"{path!r} holds no saved workspace")
    workspace.update(saved["variables"])
    return sorted(saved["variables"])
