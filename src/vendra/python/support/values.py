"""Looking at values without running anybody's code: what they are, how big, and a line of text about them.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback.

A watcher looks all the time, so a class of somebody's must not be able to stop or to hang it. Classes are therefore
compared by identity (a metaclass may define `==`), members are read from the dictionaries where they are, and only the
`repr` of the language's own types is called.

A look may be on a thread of its own while a script changes what is looked at, and the turn may change between any two
steps here. What can be large is therefore read in one step of the language's own, as far as it is needed; what goes
wrong all the same is tried again (_steady).
"""

import collections
import itertools
import sys
import types

_MOST_PREVIEW_BYTES = 200
_MOST_COPIED = 10_000  # entries of a dictionary that is searched
_TRIES = 10
_MOST_PREVIEW_BITS = 640  # of an int: the decimal form of a huge number takes its time

_module_of = type.__dict__["__module__"].__get__
_name_of = type.__dict__["__name__"].__get__
_ancestors = type.__dict__["__mro__"].__get__
_names_in = type.__dict__["__dict__"].__get__
_flags_of = type.__dict__["__flags__"].__get__
_MADE_BY_CODE = 1 << 9  # the flag of classes that a class statement made

_SEQUENCES = (list, tuple, collections.deque, range)
_CONTAINERS = (*_SEQUENCES, dict, set, frozenset)
_TEXTS = (str, bytes, bytearray)
_NUMBERS = (bool, int, float, complex)
_BASES = {id(kind): kind for kind in (*_CONTAINERS, *_TEXTS, *_NUMBERS)}
_BRACKETS = {list: "[]", tuple: "()", set: "{}", frozenset: "{}", dict: "{}"}
_SAFE_DESCRIPTORS = (types.GetSetDescriptorType, types.MemberDescriptorType)


class _Refused(Exception):
    """(code, text) for the client."""


class _Unsteady(Exception):
    pass


def _steady(look):
    """Tries again when what is looked at changed under the look."""

    def call(*arguments):
        for _ in range(_TRIES - 1):
            try:
                return look(*arguments)
            except (_Refused, RecursionError, MemoryError):
                raise
            except Exception:
                pass
        try:
            return look(*arguments)
        except RecursionError:
            raise
        except RuntimeError:  # that is how a container says that it changed
            raise _Unsteady("What is looked at changes all the time.") from None

    return call


def _is_any(kind, kinds):
    return any(kind is other for other in kinds)


def _base(value):
    """The language's own type that a value is of, also where somebody's class extends it; None for all others."""
    kind = type(value)
    known = _BASES.get(id(kind))
    if known is None:
        known = next((base for base in _BASES.values() if issubclass(kind, base)), None)
    return known


def _own_type(module, name):
    """A type of a module that is loaded already, or None."""
    found = sys.modules.get(module)
    kind = found.__dict__.get(name) if type(found) is types.ModuleType else None
    return kind if issubclass(type(kind), type) else None


def _is_kind(value, module, name):
    kind = _own_type(module, name)
    return kind is not None and type(value) is kind


def _is_array(value):
    return _is_kind(value, "numpy", "ndarray") and not _flags_of(type(value)) & _MADE_BY_CODE


def _is_frame(value):
    return _is_kind(value, "pandas", "DataFrame")


def _is_column(value):
    return _is_kind(value, "pandas", "Series") or _is_kind(value, "pandas", "RangeIndex") or \
        _is_kind(value, "pandas", "Index")


def _rows_of(column, first, end):
    return column.iloc[first:end] if _is_kind(column, "pandas", "Series") else column[first:end]


def _is_buffer(value):
    return type(value) is memoryview or _is_kind(value, "array", "array")


def _as_number(value):
    """The number, or the text, in one of numpy's scalars; None for all others."""
    kind = type(value)
    scalars = _own_type("numpy", "generic")
    if scalars is None or _flags_of(kind) & _MADE_BY_CODE or not issubclass(kind, scalars):
        return None
    return value.item() if value.dtype.kind in "biufcUS" else None


def _type_name(kind):
    return str.__str__(_name_of(kind))


def _stranger(value):
    kind = type(value)
    module = _names_in(kind).get("__module__") if _flags_of(kind) & _MADE_BY_CODE else _module_of(kind)
    module = f"{str.__str__(module)}." if issubclass(type(module), str) else ""
    return f"<{module}{_type_name(kind)} object>"


def _cut(text, limit=_MOST_PREVIEW_BYTES):
    data = text.encode("utf-8", "replace")
    if len(data) <= limit:
        return data.decode("utf-8")
    return data[: limit - 3].decode("utf-8", "ignore") + "…"


_PLAIN_REPRS = [("datetime", "date"), ("datetime", "timedelta"), ("decimal", "Decimal")]


def _other_preview(value):
    kind = type(value)
    if kind is type or issubclass(kind, type):
        return f"<class '{_type_name(value)}'>"
    if _is_any(kind, (types.FunctionType, types.BuiltinFunctionType)):
        return f"<function {str.__str__(value.__name__)}>"
    if kind is types.ModuleType:
        return "<module>"
    number = _as_number(value)
    if number is not None:
        return repr(number)
    if kind is memoryview:
        return "memoryview"
    if _is_array(value):
        if value.ndim == 0 and value.dtype.kind in "biufc":
            return repr(value.item())
        return f"{value.dtype.name} array of {' by '.join(map(str, value.shape))}"
    if _is_frame(value):
        return f"table of {len(value.index)} by {len(value.columns)}"
    if any(_is_kind(value, *name) and not _flags_of(kind) & _MADE_BY_CODE for name in _PLAIN_REPRS):
        return repr(value)
    if _is_kind(value, "datetime", "datetime"):
        zone = value.tzinfo  # may be of somebody's own class
        if zone is None or _is_kind(zone, "datetime", "timezone"):
            return repr(value)
    return _stranger(value)


def _short_preview(value):
    """What stands for a value inside another one's preview."""
    kind = type(value)
    if value is None or value is Ellipsis or value is NotImplemented:
        return repr(value)
    known = _BASES.get(id(kind))
    if known is None:
        return _other_preview(value)
    if known is range:
        large = any(part.bit_length() > _MOST_PREVIEW_BITS for part in (value.start, value.stop, value.step))
        return "range of huge ints" if large else repr(value)
    if _is_any(known, _TEXTS):
        return repr(value[:_MOST_PREVIEW_BYTES])
    if known is int and value.bit_length() > _MOST_PREVIEW_BITS:
        return f"int of {value.bit_length()} bits"
    if _is_any(known, _NUMBERS):
        return repr(value)
    return f"{_type_name(kind)} of {known.__len__(value)}"


def _preview_items(items, brackets):
    parts, length = [], 0
    for item in list(itertools.islice(items, _MOST_PREVIEW_BYTES)):
        if length > _MOST_PREVIEW_BYTES:
            break
        part = ": ".join(map(_short_preview, item)) if brackets == ":" else _short_preview(item)
        parts.append(part)
        length += len(part) + 2
    return ", ".join(parts)


def _preview(value):
    """At most 200 bytes of text."""
    brackets = _BRACKETS.get(_BASES.get(id(type(value))))
    try:
        if brackets is not None:
            of_dict = type(value) is dict
            text = _preview_items(value.items() if of_dict else value, ":" if of_dict else "")
            return _cut(brackets[0] + text + brackets[1])
        if _is_array(value) and value.ndim == 1:
            shown = value[:_MOST_PREVIEW_BYTES]
            shown = shown.astype(str) if shown.dtype.kind in "mM" else shown
            return _cut("[" + _preview_items(shown.tolist(), "") + "]")
        if _is_column(value):
            shown = _rows_of(value, 0, _MOST_PREVIEW_BYTES)
            shown = shown.astype(str) if shown.dtype.kind in "mM" else shown
            return _cut("[" + _preview_items(shown.tolist(), "") + "]")
        if _is_frame(value):
            return _cut(f"{_other_preview(value)}: {_preview_items(value.columns[:100].tolist(), '')}")
    except Exception:  # another thread changes it, or its library cannot show it
        pass
    return _cut(_short_preview(value))


def _is_endless(base, value):
    """Whether a range is longer than lengths can be."""
    return base is range and not -sys.maxsize <= (value.stop - value.start) // value.step <= sys.maxsize


def _size(value):
    base = _base(value)
    if base is not None:
        return [] if _is_any(base, _NUMBERS) or _is_endless(base, value) else [base.__len__(value)]
    if _is_array(value) or _is_frame(value) or _is_column(value):
        return list(value.shape)
    if type(value) is memoryview:
        try:
            return list(value.shape)
        except ValueError:
            return []  # released
    return [len(value)] if _is_buffer(value) else []


def _bytes(value):
    """The memory that a value takes by itself, without what it refers to; of tables the cells."""
    if _is_frame(value):
        numpy_type = _own_type("numpy", "dtype")
        cells = (kind.itemsize if isinstance(kind, numpy_type) else 8 for kind in value.dtypes.values)
        return sum(cells) * len(value.index)
    if _is_array(value):
        return value.nbytes
    if _is_column(value):
        return 8 * len(value)
    if _is_buffer(value):
        return type(value).__sizeof__(value)
    return (_base(value) or object).__sizeof__(value)


def _elements(value):
    """The type of an array's elements, or ""."""
    if _is_array(value) or _is_kind(value, "pandas", "Series"):
        return _cut(value.dtype.name)
    return ""


def _info(name, value):
    kind = _type_name(type(value))
    try:
        return name, kind, _size(value), _preview(value), _bytes(value), _elements(value)
    except RuntimeError:  # another thread changes it
        raise
    except Exception:  # one value that cannot be described is no reason not to list the others
        return name, kind, [], _cut(_stranger(value)), 0, ""


def _dict_of(value):
    """The dictionary of an object's attributes, or None. Not by its name: a class may define that as it likes."""
    for kind in _ancestors(type(value)):
        found = _names_in(kind).get("__dict__")
        if _is_any(type(found), _SAFE_DESCRIPTORS):
            try:
                attributes = found.__get__(value)
            except (AttributeError, TypeError):
                continue
            return attributes if issubclass(type(attributes), dict) else None
    return None


def _slots_of(value):
    """(name, value) of the attributes that classes keep outside of dictionaries."""
    for kind in _ancestors(type(value)):
        if not _flags_of(kind) & _MADE_BY_CODE:
            continue
        for name, member in list(_names_in(kind).items()):
            if type(name) is str and type(member) is types.MemberDescriptorType:
                try:
                    yield name, member.__get__(value)
                except AttributeError:
                    pass  # not set


def _find(names, wanted):
    """The value of a str in a dictionary, found without comparing it to keys of other types; KeyError."""
    items = dict.items(names)
    for key, value in list(items) if dict.__len__(names) <= _MOST_COPIED else items:
        if type(key) is type(wanted) and key == wanted:
            return value
    raise KeyError(wanted)


def _is_hidden(name, value):
    return type(name) is not str or name.startswith("_") or type(value) is types.ModuleType


def _variables():
    return {name: value for name, value in workspace.copy().items() if not _is_hidden(name, value)}


def variable_names():
    return sorted(_variables())


@_steady
def list_variables():
    """Each variable's _info."""
    variables = _variables()
    return [_info(name, variables[name]) for name in sorted(variables)]


@_steady
def page_of_variables(pattern, offset, limit):
    """(how many names fit the pattern, the _info of a part of them)"""
    variables = _variables()
    fits = library("fnmatch").fnmatchcase
    names = sorted(name for name in variables if not pattern or fits(name, pattern))
    return len(names), [_info(name, variables[name]) for name in names[offset : offset + limit]]
