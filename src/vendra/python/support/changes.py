"""Which variables changed: compared each time somebody asks, by what costs next to nothing to compare.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback.
"""

import os

_KEPT_REMOVALS = 10_000
_KEPT_TEXT = 1_000  # characters of a text, bits of an int that is kept to compare
_COMPARED_PARTS = 64
_COMPARED_BYTES = 2_048

_watch = os.urandom(6).hex()  # tells this process's tokens from another's
_revision = 0
_oldest = 0  # removals before this revision are forgotten
_marks = {}  # name -> what _mark made of the value
_changed_at = {}
_removed_at = {}


def _mark_number(value):
    return value


def _mark_int(value):
    return value if value.bit_length() <= _KEPT_TEXT else (id(value), value.bit_length())


def _mark_text(value):
    return value if len(value) <= _KEPT_TEXT else (id(value), len(value))


def _mark_sequence(value):
    return id(value), len(value), tuple(map(id, value[:_COMPARED_PARTS]))


def _mark_dict(value):
    if len(value) > _COMPARED_PARTS:
        return id(value), len(value)
    return id(value), len(value), tuple(map(id, value.keys())), tuple(map(id, value.values()))


def _mark_set(value):
    return id(value), len(value), tuple(map(id, value)) if len(value) <= _COMPARED_PARTS else ()


def _mark_bytearray(value):
    return id(value), len(value), bytes(value[:_COMPARED_BYTES])


_MARKERS = {
    id(kind): marker
    for kind, marker in [
        (bool, _mark_number), (float, _mark_number), (complex, _mark_number), (type(None), _mark_number),
        (int, _mark_int), (str, _mark_text), (bytes, _mark_text), (list, _mark_sequence), (tuple, _mark_sequence),
        (dict, _mark_dict), (set, _mark_set), (frozenset, _mark_set), (bytearray, _mark_bytearray),
        (types.FunctionType, id), (type, id),
    ]
}


def _mark(value):
    """What tells a value from one that stood there before. Keeps small immutable values, and no other: their identity
    alone would say little, for the next value may take the place of one that is gone."""
    marker = _MARKERS.get(id(type(value)))
    if marker is not None:
        return marker(value)
    if _is_array(value):
        content = value.tobytes() if value.nbytes <= _COMPARED_BYTES else b""
        return id(value), value.shape, hash(content)
    if _is_frame(value) or _is_column(value):
        return id(value), value.shape
    attributes = _dict_of(value)
    if attributes is None or dict.__len__(attributes) > _COMPARED_PARTS:
        return id(value), id(type(value))
    return id(value), id(type(value)), tuple(map(id, dict.values(attributes)))


def _look():
    global _revision
    names = workspace.copy()
    known = _marks
    changed, hidden = [], []
    for name, value in names.items():
        mark = known.get(name, _ABSENT)
        if mark is value:
            continue
        if mark is _ABSENT and _is_hidden(name, value):
            continue
        if type(value) is types.ModuleType:
            hidden.append(name)
            continue
        try:
            new = _mark(value)
        except RuntimeError:  # another thread changes it
            new = None
        if new is not None and type(new) is type(mark) and new == mark:
            continue
        known[name] = new
        changed.append(name)
    removed = [name for name in known if name not in names] if len(known) + len(hidden) else []
    removed += hidden
    if changed or removed:
        _revision += 1
        _note(changed, removed)


def _note(changed, removed):
    global _oldest
    for name in changed:
        _changed_at[name] = _revision
        _removed_at.pop(name, None)
    for name in removed:
        _marks.pop(name, None)
        _changed_at.pop(name, None)
        _removed_at[name] = _revision
    while len(_removed_at) > _KEPT_REMOVALS:
        forgotten = next(iter(_removed_at))
        _oldest = _removed_at.pop(forgotten)


def _revision_of(token):
    """The revision that a token of this process stands for, or None."""
    watch, _, number = token.partition(".")
    if watch != _watch or not (number.isascii() and number.isdigit() and len(number) < 20):
        return None
    return int(number) if _oldest <= int(number) <= _revision else None


def changes_since(token):
    """(token, changed names, removed names, whether the token meant nothing, so that all names are given)"""
    _look()
    now = f"{_watch}.{_revision}"
    if not token:
        return now, [], [], False
    since = _revision_of(token)
    if since is None:
        return now, sorted(_changed_at), [], True
    if since == _revision:
        return now, [], [], False
    return (now, sorted(name for name, at in _changed_at.items() if at > since),
            sorted(name for name, at in _removed_at.items() if at > since), False)
