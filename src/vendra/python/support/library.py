"""Modules that the host itself needs and is too slow to load at its start.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback. A folder that scripts import from may hold a traceback.py or re.py of its own, and so may the current
one: the host runs none of them.
"""

import _thread
import importlib
import importlib.machinery
import os
import sys

_LIBRARY = os.path.dirname(os.__file__)
_LIBRARY_FOLDERS = [_LIBRARY, os.path.join(_LIBRARY, "lib-dynload")]


_when_loaded = {}  # name of a module -> what is to be done with it once somebody loads it


class _Watch:
    """Looks after the modules that the host has something to do with, and leaves loading them to those who need them."""

    @staticmethod
    def find_spec(name, path=None, target=None):
        if name not in _when_loaded:
            return None
        spec = importlib.machinery.PathFinder.find_spec(name, path)
        return spec and _watched(spec)


def _watched(spec):
    if spec.name not in _when_loaded or not _comes_from_library(spec):
        return spec
    load = spec.loader.exec_module

    def exec_module(module):
        load(module)
        change = _when_loaded.pop(spec.name, None)
        if change:
            change(module)
        if not _when_loaded and _Watch in sys.meta_path:
            sys.meta_path.remove(_Watch)

    spec.loader.exec_module = exec_module
    return spec


def after_load(name, change):
    """Has `change` called with a module of the library once it is loaded."""
    if _is_of_library(sys.modules.get(name)):
        return change(sys.modules[name])
    _when_loaded[name] = change
    if _Watch not in sys.meta_path:
        sys.meta_path.insert(0, _Watch)


class LibraryFirst:
    """While it is entered, names of the language's library mean just that for what the thread imports."""

    def __enter__(self):
        self._thread = _thread.get_ident()
        sys.meta_path.insert(0, self)

    def __exit__(self, *error):
        if self in sys.meta_path:  # which a script may have replaced
            sys.meta_path.remove(self)

    def find_spec(self, name, path=None, target=None):
        if path is not None or name not in sys.stdlib_module_names or _thread.get_ident() != self._thread:
            return None
        for finder in (importlib.machinery.BuiltinImporter, importlib.machinery.FrozenImporter):
            spec = finder.find_spec(name)
            if spec is not None:
                return spec
        spec = importlib.machinery.PathFinder.find_spec(name, _LIBRARY_FOLDERS)
        if spec is None:
            raise ModuleNotFoundError(f"No module named {name!r} in {_LIBRARY}", name=name)
        return _watched(spec)


def _is_of_library(module):
    return _comes_from_library(getattr(module, "__spec__", None))


def _comes_from_library(spec):
    origin = getattr(spec, "origin", None)
    return origin in ("built-in", "frozen") or isinstance(origin, str) and origin.startswith(os.path.join(_LIBRARY, ""))


_own_modules = {}


def _import_from_library(name):
    # A script's own modules by names of the library's are out of the way meanwhile, and keep their places.
    hidden = {
        known: module
        for known, module in sys.modules.copy().items()
        if known.partition(".")[0] in sys.stdlib_module_names and not _is_of_library(module)
    }
    for known in hidden:
        sys.modules.pop(known, None)
    sys.modules.update((known, module) for known, module in _own_modules.items() if known in hidden)
    try:
        with LibraryFirst():
            return importlib.import_module(name)
    finally:
        _own_modules.update((known, sys.modules[known]) for known in hidden if known in sys.modules)
        sys.modules.update(hidden)


def library(name):
    """A module of the language's library, whatever scripts have by its name."""
    module = _own_modules.get(name)
    if module is None:
        module = _own_modules[name] = _import_from_library(name)
    return module


_wanted_soon = ["re", "tokenize", "linecache", "textwrap", "traceback", "fnmatch"]  # each after what it needs itself


def prepare_ahead():
    """Loads one of the modules that clients' first error, completion or listing needs; False when none is wanted."""
    if not _wanted_soon or "connector" not in sys.modules:
        return False
    library(_wanted_soon.pop(0))
    return bool(_wanted_soon)
