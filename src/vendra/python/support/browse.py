"""Looking into values: a part by its path, what is inside it, and its own value where that is small.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback. As in values.py nobody's code runs, but for set_inside.
"""

import itertools
import math

_DEEPEST_VALUE = 64
_LABEL_BYTES = 64


def _not_found(place):
    return _Refused("notFound", f"There is no {place}.")


class _NoForm(Exception):
    """Why a value is not sent."""


def _show_path(name, path):
    return name + "".join(f"[{step!r}]" for step in path)


def _step(value, step, place):
    """What is inside a value at a position, under a key or under an attribute's name."""
    base = _base(value)
    at = type(step) is int
    try:
        if base is dict:
            return _find(value, step)
        if at and step < 0:
            raise _not_found(place)
        if at and base is not None and _is_any(base, _SEQUENCES):
            return base.__getitem__(value, step)
        if at and (_is_array(value) or _is_buffer(value)):
            return value[step]
        if at and _is_column(value):
            return value.iloc[step] if _is_kind(value, "pandas", "Series") else value[step]
        if _is_frame(value):
            return value.iloc[:, _column_at(value, step, place)]
        if not at:
            return _attribute(value, step)
    except (LookupError, NotImplementedError):
        pass
    raise _not_found(place)


def _column_at(frame, step, place):
    if type(step) is int:
        return step
    for position, name in enumerate(frame.columns.tolist()):
        if type(name) is str and name == step:
            return position
    raise _not_found(place)


def _attribute(value, name):
    attributes = _dict_of(value)
    if type(value) is not types.ModuleType and isinstance(attributes, dict):
        try:
            return _find(attributes, name)
        except KeyError:
            pass
    for slot, found in _slots_of(value):
        if slot == name:
            return found
    raise LookupError(name)


def _walk(name, path):
    found = workspace.get(name, _ABSENT)
    if found is _ABSENT:
        raise _not_found(f"variable {name!r}")
    for depth, step in enumerate(path, 1):
        found = _step(found, step, _show_path(name, path[:depth]))
    return found


def _numbered(items, offset):
    return [(position, f"[{position}]", item) for position, item in enumerate(items, offset)]


def _keyed(items):
    reachable = (str, int)
    return [
        (key if _is_any(type(key), reachable) else None, _cut(key if type(key) is str else _preview(key)), item)
        for key, item in items
    ]


def _read_inside(value, offset, limit):
    """(how many parts a value has, [(step, name, part)] of some of them)"""
    base = _base(value)
    end = offset + limit
    if base is not None:
        if _is_any(base, (*_NUMBERS, *_TEXTS)) or _is_endless(base, value):
            return 0, []
        count = base.__len__(value)
        if _is_any(base, (list, tuple, range)):
            return count, _numbered(base.__getitem__(value, slice(offset, end)), offset)
        if base is dict:
            return count, _keyed(list(itertools.islice(dict.items(value), offset, end)))
        if _is_any(base, _CONTAINERS):
            items = _numbered(list(itertools.islice(base.__iter__(value), offset, end)), offset)
            return count, items if base is collections.deque else [(None, name, item) for _, name, item in items]
        return 0, []
    if _is_array(value):
        return (len(value), _numbered(value[offset:end], offset)) if value.ndim else (0, [])
    if _is_column(value):
        return len(value), _numbered(_rows_of(value, offset, end).tolist(), offset)
    if _is_frame(value):
        columns = value.columns[offset:end].tolist()
        return value.shape[1], [
            (name if type(name) is str else position, _cut(name if type(name) is str else _preview(name)),
             value.iloc[:, position])
            for position, name in enumerate(columns, offset)
        ]
    if _is_buffer(value):
        return 0, []
    attributes = {} if type(value) is types.ModuleType or issubclass(type(value), type) else _dict_of(value)
    parts = [(name, name, part) for name, part in _slots_of(value)]
    parts += [(key, key, part) for key, part in list(dict.items({} if attributes is None else attributes)) if type(key) is str]
    return len(parts), parts[offset:end]


class _Budget:
    """How long the text of a value may become, by the least that its parts take."""

    def __init__(self, limit):
        self.limit = self.left = limit

    def take(self, count):
        self.left -= count
        if self.left < 0:
            raise _NoForm(f"the value takes more than {self.limit} bytes")


def _plain(value, budget, path=()):
    """A copy made of the language's own types, of buffers, and of forms of other values."""
    base = _base(value)
    if value is None or (base is not None and _is_any(base, _NUMBERS)):
        budget.take(1 if base is not int else 1 + int.bit_length(value) // 4)
        return value
    if base is not None and _is_any(base, _TEXTS):
        budget.take(base.__len__(value))
        return value
    if _is_buffer(value):
        if not _size(value):
            raise _NoForm("the memory was released")
        budget.take(2 * math.prod(_size(value)))
        return value
    if any(value is outer for outer in path):
        raise _NoForm("a container that holds itself has no array form")
    if len(path) >= _DEEPEST_VALUE:
        raise _NoForm(f"containers nest deeper than {_DEEPEST_VALUE} levels")
    path = (*path, value)
    if base is None or not _is_any(base, (list, tuple, dict)):
        return _plain_form(value, budget, path)
    budget.take(2 * base.__len__(value))
    if base is not dict:
        return [_plain(item, budget, path) for item in base.__getitem__(value, slice(None))]
    kind = collections.OrderedDict if issubclass(type(value), collections.OrderedDict) else dict
    items = list(kind.items(value))
    texts = {str.__str__(key) for key, _ in items if issubclass(type(key), str)}
    if len(texts) != len(items):
        return _Told("typed", [_plain(list(item), budget, path) for item in items], "dict")
    copy = {}
    for key, item in items:
        key = str.__str__(key)
        budget.take(len(key))
        copy[key] = _plain(item, budget, path)
    return copy


def _plain_form(value, budget, path):
    """The same of a value that support/forms.py knows, or that offers a buffer."""
    before = budget.left
    budget.take(2 * math.prod(_size(value) or [0]))  # before anything is made of so many elements
    budget.left = before
    try:
        form = form_of(value)
    except (TypeError, ValueError, OverflowError) as reason:
        raise _NoForm(str(reason)) from None
    if form is None:
        try:
            budget.take(memoryview(value).nbytes)
        except (TypeError, ValueError, BufferError):
            raise _NoForm(f"a value of type {_type_name(type(value))!r} has no array form") from None
        return value
    what, content, *rest = form
    if what == "buffer":
        budget.take(2 * content.size)
        return content
    if what == "cells":
        budget.take(2 * len(content))
        return _Told(what, [_plain(item, budget, path) for item in content], *rest)
    budget.take(len(rest[0]) if rest else 0)
    return _Told(what, _plain(content, budget, path), *rest)


def _bounds(wanted, count):
    if wanted is None:
        return 0, count
    start, length = wanted
    start = min(start, count)
    return start, min(start + length, count)


def _no_table(value, what):
    return _Refused("badRequest", f"A value of type {_type_name(type(value))!r} has no {what}.")


def _cell(value):
    """A cell of a table: numbers and texts as they are, all else as a text about it."""
    number = _as_number(value)
    if number is not None:
        return number
    if value is None or _is_any(type(value), (bool, int, float, str)):
        return value
    missing = sys.modules["pandas"].__dict__
    return None if value is missing.get("NA") or value is missing.get("NaT") else _cut(_short_preview(value))


def _plain_column(column, budget):
    budget.take(2 * len(column))
    if column.dtype.kind in "mM":
        column = column.astype(str)
    elif column.dtype.kind in "biuf" and isinstance(column.dtype, _own_type("numpy", "dtype")):
        return column.to_numpy()
    return _plain([_cell(item) for item in column.tolist()], budget)


def _labels(index, budget):
    names = [_cut(name if type(name) is str else _short_preview(_cell(name)), _LABEL_BYTES) for name in index.tolist()]
    budget.take(sum(map(len, names)))
    return names


class _Part:
    """The part of a value that is sent."""

    def __init__(self):
        self.value = None
        self.missing = None  # why there is none
        self.rows = self.columns = None  # (first, count)
        self.row_names, self.column_names, self.column_types = [], [], []


def _table_part(part, frame, rows, columns, budget):
    budget.take(rows[1] - rows[0] + columns[1] - columns[0])
    frame = frame.iloc[rows[0] : rows[1], columns[0] : columns[1]]
    kinds = frame.dtypes.values.tolist()
    part.row_names, part.column_names = _labels(frame.index, budget), _labels(frame.columns, budget)
    part.column_types = [_cut(kind.name, _LABEL_BYTES) for kind in kinds]
    part.value = [_plain_column(frame.iloc[:, position], budget) for position in range(len(kinds))]


def _list_part(value, base, rows, columns, budget):
    budget.take(2 * (rows[1] - rows[0]))
    if base is collections.deque:
        items = list(itertools.islice(collections.deque.__iter__(value), *rows))
    else:
        items = list(base.__getitem__(value, slice(*rows)))
    if columns is None:
        return items, None
    cut, taken = [], (columns[0], 0)
    for position, item in enumerate(items, rows[0]):
        kind = _base(item)
        if kind is None or not _is_any(kind, (list, tuple)):
            raise _Refused("badRequest", f"The element {position} is no row that has columns.")
        first, last = _bounds(columns, kind.__len__(item))
        taken = max(taken, (first, last - first))
        cut.append(kind.__getitem__(item, slice(first, last)))
    return cut, taken


def _fill_part(part, value, rows, columns, budget):
    base = _base(value)
    size = _size(value)
    if rows is None and columns is None and not _is_frame(value) and not _is_column(value):
        part.value = _plain(value, budget)
        return
    sequence = base is not None and _is_any(base, (*_SEQUENCES, *_TEXTS))
    has_rows = sequence or _is_array(value) or _is_frame(value) or _is_column(value) or _is_buffer(value)
    if not has_rows or not size:
        raise _no_table(value, "rows")
    row_bounds = _bounds(rows, size[0])
    if rows is not None:
        part.rows = row_bounds[0], row_bounds[1] - row_bounds[0]
    nested = sequence and not _is_any(base, _TEXTS)
    if nested:
        items, part.columns = _list_part(value, base, row_bounds, columns, budget)
        part.value = _plain(items, budget)
        return
    if _is_buffer(value) and len(size) > 1:
        raise _no_table(value, "rows")
    if columns is not None and len(size) < 2:
        raise _no_table(value, "columns")
    column_bounds = _bounds(columns, size[1]) if len(size) > 1 else None
    if columns is not None:
        part.columns = column_bounds[0], column_bounds[1] - column_bounds[0]
    if _is_frame(value):
        _table_part(part, value, row_bounds, column_bounds, budget)
    elif _is_column(value):
        value = _rows_of(value, *row_bounds)
        part.value = _plain_column(value, budget)
        if _is_kind(value, "pandas", "Series"):
            part.row_names = _labels(value.index, budget)
    elif _is_array(value):
        part.value = _plain(value[tuple(slice(*bounds) for bounds in (row_bounds, column_bounds) if bounds)], budget)
    else:
        budget.take(row_bounds[1] - row_bounds[0])
        rows = slice(*row_bounds)
        part.value = _plain(value[rows] if base is None else base.__getitem__(value, rows), budget)


def _answered(function):
    """Makes what _Refused says a part of the answer: ("found", …) or (code, text)."""

    def call(*arguments):
        try:
            return "found", *function(*arguments)
        except _Refused as refusal:
            return refusal.args
        except _Unsteady as reason:
            return "unsteady", str(reason)

    return call


@_answered
@_steady
def browse(name, path, rows, columns, offset, limit, value_bytes):
    """(_info, number of parts, [(step, _info) of parts], _Part's members as a tuple) of a value."""
    value = _walk(name, path)
    try:
        count, parts = _read_inside(value, offset, limit)
    except (_Refused, RuntimeError):
        raise
    except Exception:  # its library cannot take it apart
        count, parts = 0, []
    part = _Part()
    try:
        _fill_part(part, value, rows, columns, _Budget(value_bytes))
    except (_Refused, RuntimeError):
        raise
    except Exception as reason:
        part = _Part()
        part.missing = str(reason) or _type_name(type(reason))
    return (_info(name, value), count, [(step, _info(shown, inside)) for step, shown, inside in parts],
            (part.value, part.missing, part.rows, part.columns, part.row_names, part.column_names, part.column_types))


def _takes_elements(value):
    return _is_any(_base(value), (list, collections.deque, bytearray)) or _is_array(value) or _is_buffer(value)


@_answered
def set_inside(name, path, value):
    """Sets what is at a path. This is an assignment like any other: a class that redefines it gets its way."""
    *above, step = path
    holder = _walk(name, above)
    base = _base(holder)
    place = _show_path(name, path)
    _marks.pop(name, None)  # changed, however deep
    if _is_frame(holder):
        if type(step) is int:
            raise _Refused("badRequest", "A column of a table is named by a text.")
        holder[step] = value
    elif len(path) > 1 and type(step) is int and _is_frame(_walk(name, above[:-1])):
        frame = _walk(name, above[:-1])
        if not 0 <= step < len(frame.index):
            raise _not_found(place)
        frame.iat[step, _column_at(frame, above[-1], place)] = value
    elif base is dict:
        holder[step] = value
    elif type(step) is int and _takes_elements(holder):
        if not 0 <= step < len(holder):
            raise _not_found(place)
        holder[step] = value
    elif type(step) is str and base is None and type(holder) is not types.ModuleType:
        setattr(holder, step, value)
    else:
        raise _Refused("badRequest", f"A value of type {_type_name(type(holder))!r} has no {step!r} to set.")
    return ()
