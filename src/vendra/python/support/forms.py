"""Values that are neither numbers, texts nor lists of them, told as something that is, under the name of their kind.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback. As in values.py nobody's code runs to tell a value: its kind is known by its exact class, and told
by what that class's own library says.
"""

import collections
import sys

_MOST_VALUES = 2_000_000
_MOST_COLUMNS = 10_000
_MOST_BITS = 14_284  # 4300 decimal digits: beyond them the language takes its time, and refuses by itself

_qualified_name_of = type.__dict__["__qualname__"].__get__


class _Told:
    """A form that was made already, inside of a copy."""

    __slots__ = ("form",)

    def __init__(self, *form):
        self.form = form


def _no_form(what):
    return TypeError(f"{what} has no array form")


def _of_type(value):
    return f"a value of type {_type_name(type(value))!r}"


def _check_count(count):
    if count > _MOST_VALUES:
        raise ValueError(f"a container holds more than {_MOST_VALUES} values")


def _digits(number):
    if int.bit_length(number) > _MOST_BITS:
        raise ValueError(f"an int of {int.bit_length(number)} bits is too long to be told")
    return int.__repr__(number)


def _member(value, name):
    """What a class of a library keeps outside of dictionaries."""
    return _names_in(type(value))[name].__get__(value)


def _class_path(kind):
    module = _names_in(kind).get("__module__")
    if type(module) is not str:
        raise _no_form(f"a class without a module ({_type_name(kind)})")
    return f"{module}.{str.__str__(_qualified_name_of(kind))}"


# -- The standard library --


def _decimal(value):
    return "typed", type(value).__str__(value), "decimal"


def _fraction(value):
    parts = _member(value, "_numerator"), _member(value, "_denominator")
    if any(type(part) is not int for part in parts):
        raise _no_form("a fraction of other things than ints")
    return "typed", "/".join(map(_digits, parts)), "fraction"


def _set(value):
    base = _base(value)
    _check_count(base.__len__(value))
    return "typed", list(base.__iter__(value)), base.__name__


def _deque(value):
    items = list(collections.deque.__iter__(value))
    _check_count(len(items))
    return "typed", [items, collections.deque.maxlen.__get__(value)], "deque"


def _range(value):
    return "typed", [value.start, value.stop, value.step], "range"


def _zone_name(zone):
    """The name of a time zone; None where its distance from UTC says it all."""
    kind = type(zone)
    if zone is None or _is_kind(zone, "datetime", "timezone") or _is_kind(zone, "pytz", "_FixedOffset"):
        return None
    if _is_kind(zone, "zoneinfo", "ZoneInfo") and type(zone.key) is str:
        return zone.key
    named = _own_type("pytz.tzinfo", "BaseTzInfo")
    if named is not None and issubclass(kind, named) and type(kind) is type:
        ours = sys.modules.get("pytz").__dict__.get("utc") is zone
        names = _names_in(kind)
        if (ours or {"utcoffset", "__getattribute__"}.isdisjoint(names)) and type(names.get("zone")) is str:
            return names["zone"]
    raise _no_form(f"a time zone of type {_type_name(kind)!r}")


def _moment(value, kind):
    zone = _zone_name(value.tzinfo)
    text = type(value).isoformat(value)
    if zone is None and not value.fold:
        return "typed", text, kind
    content = {"time": text}
    if zone is not None:
        content["zone"] = zone
    if value.fold:
        content["fold"] = value.fold
    return "typed", content, kind


def _date(value):
    return "typed", type(value).isoformat(value), "date"


def _duration(value):
    return "typed", {"days": value.days, "seconds": value.seconds, "microseconds": value.microseconds}, "timedelta"


def _uuid(value):
    digits = f"{int.__index__(_member(value, 'int')):032x}"
    return "typed", "-".join((digits[:8], digits[8:12], digits[12:16], digits[16:20], digits[20:])), "uuid"


def _path(value):
    return "typed", _own_type("pathlib", "PurePath").__str__(value), "path"


def _enum(value):
    attributes = _dict_of(value)
    try:
        name, content = _find(attributes, "_name_"), _find(attributes, "_value_")
    except (KeyError, TypeError):
        raise _no_form(_of_type(value)) from None
    return "typed", {"class": _class_path(type(value)), "name": name, "value": content}, "enum"


def _fields_of(kind):
    """The names of a dataclass's fields, or None."""
    for ancestor in _ancestors(kind):
        fields = _names_in(ancestor).get("__dataclass_fields__")
        if type(fields) is dict:
            known = _own_type("dataclasses", "Field")
            ordinary = sys.modules["dataclasses"].__dict__.get("_FIELD") if known else None
            if any(type(name) is not str or type(field) is not known for name, field in list(fields.items())):
                return None
            return [name for name, field in list(fields.items()) if field._field_type is ordinary]
    return None


def _dataclass(value):
    fields = {}
    for name in _fields_of(type(value)):
        try:
            fields[name] = _attribute(value, name)
        except LookupError:
            raise _no_form(f"a dataclass without its field {name!r}") from None
    return "typed", {"class": _class_path(type(value)), "fields": fields}, "dataclass"


# -- numpy --


def _unit_of(dtype):
    unit, count = sys.modules["numpy"].datetime_data(dtype)
    return unit if count == 1 else f"{count}{unit}"


def _dates_content(dates):
    """Texts; the counts where there are none, or of dates too far away for numpy's texts to be exact."""
    numpy = sys.modules["numpy"]
    try:
        texts = numpy.asarray(numpy.datetime_as_string(dates))
        if dates.size and (texts.astype(dates.dtype).view("i8") == dates.view("i8")).all():
            return texts
    except (ValueError, OverflowError):
        pass
    return dates.view("i8")


def _array(value):
    kind = value.dtype.kind
    if kind in "biufc":
        # Of doubles this is what stands for "nothing".
        empty = value.shape == (0, 0) and kind == "f" and value.dtype.itemsize == 8
        return ("typed", list(value.shape), "empty") if empty else ("buffer", value)
    if kind == "V" and value.dtype.names is not None:
        names = value.dtype.names
        plain = [value.dtype[name].base for name in names]
        return "typed", {"size": list(value.shape), "dtypes": [None if kind.names else kind.str for kind in plain],
                         "fields": {name: value[name] for name in names}}, "records"
    _check_count(value.size)
    if kind in "mM":
        native = value.astype(value.dtype.newbyteorder("="))
        content = native.view("i8") if kind == "m" else _dates_content(native)
        return "typed", [content, _unit_of(native.dtype)], "timedelta64" if kind == "m" else "datetime64"
    if kind not in "OUS":
        raise _no_form(f"an array of {value.dtype.name}")
    if value.ndim == 0 and kind == "O":
        return "plain", value.item()
    try:
        items = value.ravel(order="F").tolist()
    except SystemError:  # numpy takes any bits for a character, the language does not
        raise ValueError("an array of texts with what is no character has no array form") from None
    return ("cells", items, list(value.shape)) if value.ndim else ("plain", items[0])


def _numpy_scalar(value):
    return _array(sys.modules["numpy"].asarray(value))


def _array_kind(value):
    """An array of a class of numpy's own that adds nothing to the elements."""
    plain = sys.modules["numpy"].ndarray
    return _array(plain.view(value, plain))


def _masked(value):
    numpy = sys.modules["numpy"]
    content = {"data": numpy.ndarray.view(value, numpy.ndarray), "mask": numpy.ma.getmaskarray(value)}
    if repr(value.fill_value) != repr(numpy.ma.MaskedArray([], dtype=value.dtype).fill_value):
        content["fill"] = value.fill_value
    return "typed", content, "masked"


# -- pandas --


def _dtype_name(dtype):
    kind = type(dtype)
    module = _module_of(kind)
    if not (isinstance(dtype, _own_type("numpy", "dtype")) or
            (type(module) is str and module.startswith("pandas.") and _own_type(module, _type_name(kind)) is kind)):
        raise _no_form(f"a column of type {_type_name(kind)!r}")
    return str(dtype)


def _column_content(values):
    """The elements of a column: an array, or a list, which a column of one row always is."""
    dtype = values.dtype
    if isinstance(dtype, _own_type("numpy", "dtype")) and dtype.kind in "biufcmM":
        if len(values) != 1 or dtype.kind in "mM":
            return values.to_numpy()
    elif _is_kind(dtype, "pandas.core.dtypes.dtypes", "CategoricalDtype"):
        return values.array
    _check_count(len(values))
    return values.tolist()


def _series(value):
    return "typed", {"name": value.name, "dtype": _dtype_name(value.dtype), "index": value.index,
                     "data": _column_content(value)}, "series"


def _index(value):
    if _is_kind(value, "pandas.core.indexes.range", "RangeIndex"):
        return "typed", {"name": value.name, "dtype": "int64", "data": range(value.start, value.stop, value.step)}, "index"
    content = {"name": value.name, "dtype": _dtype_name(value.dtype), "data": _column_content(value)}
    if value.dtype.kind in "mM" and value.freqstr is not None:
        content["freq"] = value.freqstr
    return "typed", content, "index"


def _multi_index(value):
    _check_count(len(value) * value.nlevels)
    return "typed", {"names": list(value.names), "data": value.tolist()}, "multiindex"


def _categorical(value):
    codes = value.codes
    return "typed", {"categories": value.categories, "codes": codes.tolist() if len(codes) == 1 else codes,
                     "ordered": bool(value.ordered)}, "categorical"


def _frame(value):
    width = value.shape[1]
    if width > _MOST_COLUMNS:
        raise _no_form(f"a table of more than {_MOST_COLUMNS} columns")
    columns = [value.iloc[:, position] for position in range(width)]
    return "typed", {"columns": value.columns, "dtypes": [_dtype_name(column.dtype) for column in columns],
                     "index": value.index, "data": [_column_content(column) for column in columns]}, "dataframe"


def _timestamp(value):
    return _moment(value, "timestamp")


def _pandas_duration(value):
    return "typed", [value.value, "ns"], "timedelta64"


def _period(value):
    return "typed", [str(value), value.freqstr], "period"


def _interval(value):
    return "typed", {"left": value.left, "right": value.right, "closed": value.closed}, "interval"


# -- Which class has which form --

_INDEXES = [("base", "Index"), ("range", "RangeIndex"), ("numeric", "Int64Index"), ("numeric", "UInt64Index"),
            ("numeric", "Float64Index"), ("datetimes", "DatetimeIndex"), ("timedeltas", "TimedeltaIndex"),
            ("category", "CategoricalIndex"), ("interval", "IntervalIndex"), ("period", "PeriodIndex")]

_MAKERS = {  # by the module and the name of a class
    ("builtins", "range"): _range,
    ("builtins", "set"): _set,
    ("builtins", "frozenset"): _set,
    ("collections", "deque"): _deque,
    ("datetime", "date"): _date,
    ("datetime", "datetime"): lambda value: _moment(value, "datetime"),
    ("datetime", "time"): lambda value: _moment(value, "time"),
    ("datetime", "timedelta"): _duration,
    ("decimal", "Decimal"): _decimal,
    ("fractions", "Fraction"): _fraction,
    ("numpy", "chararray"): _array_kind,
    ("numpy", "matrix"): _array_kind,
    ("numpy", "memmap"): _array_kind,
    ("numpy", "ndarray"): _array,
    ("numpy", "recarray"): _array_kind,
    ("numpy", "record"): _numpy_scalar,
    ("numpy.ma.core", "MaskedArray"): _masked,
    ("numpy.ma.core", "MaskedConstant"): lambda value: ("typed", "masked", "missing"),
    ("pandas._libs.interval", "Interval"): _interval,
    ("pandas._libs.missing", "NAType"): lambda value: ("typed", "NA", "missing"),
    ("pandas._libs.tslibs.nattype", "NaTType"): lambda value: ("typed", "NaT", "missing"),
    ("pandas._libs.tslibs.period", "Period"): _period,
    ("pandas._libs.tslibs.timedeltas", "Timedelta"): _pandas_duration,
    ("pandas._libs.tslibs.timestamps", "Timestamp"): _timestamp,
    ("pandas.core.arrays.categorical", "Categorical"): _categorical,
    ("pandas.core.frame", "DataFrame"): _frame,
    ("pandas.core.indexes.multi", "MultiIndex"): _multi_index,
    ("pandas.core.series", "Series"): _series,
    ("pathlib", "PosixPath"): _path,
    ("uuid", "UUID"): _uuid,
    **{(f"pandas.core.indexes.{module}", name): _index for module, name in _INDEXES},
}
_known_makers = {id(_Told): (_Told, lambda value: value.form)}  # of classes of libraries, which are kept


def _library_maker(kind):
    module = _names_in(kind).get("__module__") if _flags_of(kind) & _MADE_BY_CODE else _module_of(kind)
    maker = _MAKERS.get((module, _type_name(kind))) if type(module) is str else None
    if maker is not None and _own_type(module, _type_name(kind)) is kind:
        return maker
    scalars = _own_type("numpy", "generic")
    if scalars is not None and issubclass(kind, scalars) and not _flags_of(kind) & _MADE_BY_CODE:
        return _numpy_scalar
    return None


def _family_maker(kind):
    """Of classes that scripts make."""
    arrays = _own_type("numpy", "ndarray")
    if arrays is not None and issubclass(kind, arrays):
        raise _no_form(f"a value of type {_type_name(kind)!r}, an array with a meaning of its own,")
    if issubclass(kind, (set, frozenset)):
        return _set
    if issubclass(kind, collections.deque):
        return _deque
    enums = _own_type("enum", "Enum")
    if enums is not None and issubclass(kind, enums):
        return _enum
    return _dataclass if _fields_of(kind) is not None else None


def form_of(value):
    """("typed", what tells it, kind), ("buffer", what offers one), ("cells", values with the first index fastest,
    sizes) or ("plain", another value); None where nothing is known here. TypeError and ValueError say why not."""
    kind = type(value)
    known = _known_makers.get(id(kind))
    if known is not None:
        return known[1](value)
    maker = _library_maker(kind)
    if maker is not None:
        _known_makers[id(kind)] = kind, maker
        return maker(value)
    maker = _family_maker(kind)
    return None if maker is None else maker(value)

