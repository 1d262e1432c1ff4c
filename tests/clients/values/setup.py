"""What the expressions of values.txt are about; runs in the host's workspace."""

import array, collections, ctypes, dataclasses, datetime as dt, decimal, enum, fractions, ipaddress, math, mmap, operator
import pathlib, re, sys, time, types, typing, uuid, weakref, zoneinfo
import numpy as np, pandas as pd, warnings

warnings.simplefilter("ignore")


def same(value):
    return value


def make(code):
    return eval(code)


def differs(value, code):
    """What tells a value that came back from that of an expression; "" when nothing does."""
    wanted = eval(code)
    if type(value) is not type(wanted):
        return f"{type(value).__name__} instead of {type(wanted).__name__}"
    if isinstance(wanted, (pd.Series, pd.DataFrame, pd.Index)):
        types = [str(getattr(table, "dtypes", table.dtype if table is not wanted and hasattr(table, "dtype") else None))
                 for table in (value, wanted)]
        return "" if value.equals(wanted) and repr(value) == repr(wanted) else f"{value!r} {types}"
    if isinstance(wanted, np.ndarray):
        equal = value.dtype == wanted.dtype and value.shape == wanted.shape and value.tobytes() == wanted.tobytes()
        return "" if equal and (not isinstance(wanted, np.ma.MaskedArray) or repr(value) == repr(wanted)) else f"{value!r}"
    return "" if repr(value) == repr(wanted) else f"{value!r}"


class Colour(enum.Enum):
    RED = 1
    GREEN = (2, "g")

class Level(enum.IntEnum):
    LOW = 1

class Word(enum.StrEnum):
    YES = "yes"

class Access(enum.Flag):
    READ = 1
    WRITE = 2

class Odd(enum.Enum):
    THING = object()

Point = collections.namedtuple("Point", "x y")

@dataclasses.dataclass
class Place:
    name: str
    at: list = dataclasses.field(default_factory=list)
    kind: typing.ClassVar[int] = 5

@dataclasses.dataclass(frozen=True)
class Slotted:
    __slots__ = ("x",)
    x: int

class Plain:
    pass


# Objects that lie. None may be believed, run away or take the host along.

def raises(*arguments, **named):
    raise RuntimeError("asked")

class LyingList(list):
    __len__ = lambda self: 10 ** 9
    __getitem__ = __iter__ = __contains__ = raises

class LyingTuple(tuple):
    __len__ = __getitem__ = __iter__ = raises

class LyingDict(dict):
    __len__ = lambda self: -1
    items = keys = values = __iter__ = __getitem__ = raises

class LyingOrdered(collections.OrderedDict):
    items = keys = __iter__ = raises

class LyingSet(set):
    __iter__ = __len__ = __contains__ = raises

class LyingText(str):
    __str__ = __len__ = encode = __iter__ = raises

class LyingInt(int):
    __int__ = __index__ = __eq__ = bit_length = raises
    __hash__ = int.__hash__

class LyingFloat(float):
    __float__ = __int__ = hex = raises

class LyingBytes(bytes):
    __bytes__ = __len__ = __iter__ = raises

class LyingComplex(complex):
    __complex__ = raises
    real = imag = property(raises)

class LyingClass:
    __class__ = property(lambda self: dict)

class RaisingClass:
    __class__ = __dict__ = property(raises)

class HugeRepr:
    __repr__ = lambda self: "x" * 10 ** 7

class NoTextRepr:
    __repr__ = lambda self: 5

class OddRepr:
    __repr__ = lambda self: LyingText("\ud800")

class OddError(Exception):
    __str__ = raises

class OddIndex:
    def __index__(self):
        raise OddError

class GetsAll:
    __getattr__ = __getattribute__ = raises
    __repr__ = lambda self: "<GetsAll>"

class Index:
    __index__ = lambda self: 12

class BigIndex:
    __index__ = lambda self: 2 ** 70

class BoolIndex:
    __index__ = lambda self: True

class TextIndex:
    __index__ = lambda self: "12"

class RaisingIndex:
    __index__ = raises

class Float:
    __float__ = lambda self: 2.5

class Complex:
    __complex__ = lambda self: 1j

class Arrayable:
    __array__ = lambda self, *_: np.arange(3)
    __array_interface__ = {"shape": (10 ** 6,), "typestr": "<f8", "data": (1, False), "version": 3}

class LyingLength:
    __len__ = lambda self: 3
    __getitem__ = lambda self, at: at

class EqualsAll(str):
    __eq__ = lambda self, other: True
    __hash__ = lambda self: 1

class EqualsNone(str):
    __eq__ = lambda self, other: False
    __hash__ = lambda self: 1

class Units(np.ndarray):
    unit = "m"

class SubInt64(np.int64):
    pass

class SubSeries(pd.Series):
    pass

class SubDate(dt.datetime):
    isoformat = lambda self, *_: "never"

class SubDecimal(decimal.Decimal):
    __str__ = raises

class Zone(dt.tzinfo):
    utcoffset = dst = tzname = raises

class Meta(type):
    __instancecheck__ = __subclasscheck__ = __eq__ = mro = lambda *_: raises()
    mro = type.mro
    __hash__ = type.__hash__

class OfMeta(metaclass=Meta):
    pass

class FakeFields:
    __dataclass_fields__ = {"x": 1}

@dataclasses.dataclass
class Gone:
    x: int = 0

class Structure(ctypes.Structure):
    _fields_ = [("a", ctypes.c_int), ("b", ctypes.c_double)]

decimal_like = type("Decimal", (), {"__module__": "decimal", "__str__": raises, "__repr__": lambda self: "Decimal('1')"})
gone = Gone(); del gone.x
loop_list = []; loop_list.append(loop_list)
loop_dict = {}; loop_dict["self"] = [loop_dict]
loop_array = np.empty(1, object); loop_array[0] = loop_array
loop_place = Place("loop"); loop_place.at.append(loop_place)
deep = []
for _ in range(70): deep = [deep]
deep51 = 1
for _ in range(50): deep51 = [deep51]

released = memoryview(b"ab"); released.release()
ordered = collections.OrderedDict(a=1, b=2); ordered.move_to_end("a")
rnd = np.random.default_rng(1)
