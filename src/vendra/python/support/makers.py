"""Values made again from what tells them: the way back from forms.py.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback. What is made is what a client asked for: a class of a script's may run its code.
"""

import collections
import sys


def _loaded(name, kind):
    found = sys.modules.get(name)
    if found is None:
        raise ValueError(f"a value of the kind {kind!r} needs {name}, which no script has imported")
    return found


def _hashable(value):
    """Tuples are told as lists, which cannot be keys."""
    return tuple(map(_hashable, value)) if type(value) is list else value


def _to_array(values):
    """At least a row; bytes are how arrays of them come."""
    numpy = sys.modules["numpy"]
    return numpy.frombuffer(values, "u1") if type(values) is bytes else numpy.atleast_1d(values)


def _to_complex(parts):
    real, imaginary = parts
    if type(real) is list:
        return [_to_complex(pair) for pair in zip(real, imaginary, strict=True)]
    if type(real) in (int, float) and type(imaginary) in (int, float):
        return complex(real, imaginary)
    numpy = _loaded("numpy", "complex")
    if real is None and imaginary is None:
        return numpy.zeros((0, 0), complex)
    made = numpy.empty(real.shape, "c8" if real.dtype == numpy.float32 else "c16")
    made.real, made.imag = real, imaginary
    return made


def _to_moment(content, name):
    kind = getattr(library("datetime"), name)
    if type(content) is str:
        return kind.fromisoformat(content)
    made = kind.fromisoformat(content["time"]).replace(fold=content.get("fold", 0))
    return made.replace(tzinfo=library("zoneinfo").ZoneInfo(content["zone"])) if "zone" in content else made


def _to_timestamp(content):
    kind = _loaded("pandas", "timestamp").Timestamp
    if type(content) is str:
        return kind(content)
    made = kind(content["time"])
    made = made.tz_convert(content["zone"]) if "zone" in content else made
    return made.replace(fold=content["fold"]) if "fold" in content else made


def _to_times(content, letter, kind):
    elements, unit = content
    dtype = f"{letter}8" if unit == "generic" else f"{letter}8[{unit}]"
    made = _loaded("numpy", kind).asarray(elements)
    return (made.view(dtype) if made.dtype.kind == "i" else made.astype(dtype))[()]


def _class_at(path, ancestor=None):
    names = path.split(".")
    for count in range(len(names) - 1, 0, -1):
        found = sys.modules.get(".".join(names[:count]))
        if found is not None:
            for name in names[count:]:
                found = getattr(found, name)
            if isinstance(found, type) and (ancestor is None or issubclass(found, ancestor)):
                return found
    raise ValueError(f"there is no such class {path!r}")


def _to_enum(content):
    kind = _class_at(content["class"], library("enum").Enum)
    name = content["name"]
    return kind[name] if name in kind.__members__ else kind(content["value"])


def _to_dataclass(content):
    kind = _class_at(content["class"])
    if _fields_of(kind) is None:
        raise ValueError(f"{content['class']!r} is no dataclass")
    made = kind.__new__(kind)
    for name, value in content["fields"].items():
        object.__setattr__(made, name, value)
    return made


def _to_records(content):
    numpy = _loaded("numpy", "records")
    size = tuple(content["size"])
    columns = {}
    for (name, values), dtype in zip(content["fields"].items(), content["dtypes"], strict=True):
        if dtype is not None and numpy.dtype(dtype).kind == "S":
            column = numpy.array(values, dtype, ndmin=1)
        else:
            column = _to_array(values)
            column = column if dtype is None else column.astype(dtype)
        inner = column.size // max(1, numpy.prod(size, dtype=int))
        columns[name] = column.reshape(size if inner == 1 or not column.size else (*size, *(column.shape[len(size):] or (-1,))))
    made = numpy.empty(size, [(name, column.dtype, column.shape[len(size):]) for name, column in columns.items()])
    for name, column in columns.items():
        made[name] = column
    return made[()]


def _to_masked(content):
    data = content["data"]
    data = _to_array(data) if type(data) is bytes else data
    return _loaded("numpy", "masked").ma.MaskedArray(data, content["mask"], fill_value=content.get("fill"))


def _to_column(values, dtype):
    return values if isinstance(values, (list, range)) or dtype == "category" else _to_array(values)


def _to_series(content):
    pandas = _loaded("pandas", "series")
    dtype = content["dtype"]
    return pandas.Series(_to_column(content["data"], dtype), content["index"], dtype=dtype, name=_hashable(content["name"]))


def _to_index(content):
    pandas = _loaded("pandas", "index")
    name = _hashable(content["name"])
    if isinstance(content["data"], range):
        return pandas.RangeIndex(content["data"], name=name)
    data = _to_column(content["data"], content["dtype"])
    if content["dtype"] == "object":
        return pandas.Index([_hashable(label) for label in data], dtype=object, name=name, tupleize_cols=False)
    made = pandas.Index(data, dtype=content["dtype"], name=name)
    if "freq" in content:
        made.freq = content["freq"]
    return made


def _to_multi_index(content):
    return _loaded("pandas", "multiindex").MultiIndex.from_tuples(map(tuple, content["data"]), names=content["names"])


def _to_categorical(content):
    kind = _loaded("pandas", "categorical").Categorical
    return kind.from_codes(_to_array(content["codes"]).astype(int), content["categories"], ordered=content["ordered"])


def _to_frame(content):
    pandas = _loaded("pandas", "dataframe")
    columns = [pandas.Series(_to_column(data, dtype), content["index"], dtype=dtype)
               for data, dtype in zip(content["data"], content["dtypes"], strict=True)]
    made = pandas.DataFrame(dict(enumerate(columns)), index=content["index"])
    made.columns = content["columns"]
    return made


def _to_missing(content):
    if content == "masked":
        return _loaded("numpy", "missing").ma.masked
    return {"NA": _loaded("pandas", "missing").NA, "NaT": _loaded("pandas", "missing").NaT}[content]


def _to_empty(content):
    numpy = sys.modules.get("numpy")
    return [] if numpy is None else numpy.zeros(content)


_READERS = {
    "bytes": lambda content: bytes([content]),
    "categorical": _to_categorical,
    "complex": _to_complex,
    "dataclass": _to_dataclass,
    "dataframe": _to_frame,
    "date": lambda content: library("datetime").date.fromisoformat(content),
    "datetime": lambda content: _to_moment(content, "datetime"),
    "datetime64": lambda content: _to_times(content, "M", "datetime64"),
    "decimal": lambda content: library("decimal").Decimal(content),
    "deque": lambda content: collections.deque(*content),
    "dict": lambda content: {_hashable(key): value for key, value in content},
    "empty": _to_empty,
    "enum": _to_enum,
    "fraction": lambda content: library("fractions").Fraction(content),
    "frozenset": lambda content: frozenset(map(_hashable, content)),
    "index": _to_index,
    "integer": int,
    "interval": lambda content: _loaded("pandas", "interval").Interval(**content),
    "masked": _to_masked,
    "missing": _to_missing,
    "multiindex": _to_multi_index,
    "path": lambda content: library("pathlib").Path(content),
    "period": lambda content: _loaded("pandas", "period").Period(*content),
    "range": lambda content: range(*content),
    "records": _to_records,
    "series": _to_series,
    "set": lambda content: set(map(_hashable, content)),
    "time": lambda content: _to_moment(content, "time"),
    "timedelta": lambda content: library("datetime").timedelta(**content),
    "timedelta64": lambda content: _to_times(content, "m", "timedelta64"),
    "timestamp": _to_timestamp,
    "uuid": lambda content: library("uuid").UUID(content),
}


def value_of(kind, content):
    """The value of a kind. ValueError."""
    reader = _READERS.get(kind)
    if reader is None:
        raise ValueError(f"there are no values of the kind {kind!r}")
    try:
        return reader(content)
    except ValueError:
        raise
    except Exception as error:
        raise ValueError(f"this is no value of the kind {kind!r}: {type(error).__name__}: {error}") from None
