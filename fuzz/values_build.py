"""Values of all sorts from bytes, for the fuzz target of conversions."""

import array, collections, ctypes, dataclasses, datetime, decimal, enum, fractions, itertools, struct, uuid, warnings
import numpy as np, pandas as pd

warnings.simplefilter("ignore")


class Kind(enum.Enum):
    ONE = 1
    TWO = "two"

@dataclasses.dataclass
class Place:
    x: object = None
    y: object = None

def _raise(*arguments, **named):
    raise RuntimeError("asked")

_hooks = "len iter getitem str repr int index float complex bytes bool eq contains reversed".split()
_liars = [type("Lying" + base.__name__, (base,), {f"__{hook}__": _raise for hook in _hooks} | {"__hash__": base.__hash__})
          for base in (list, tuple, dict, set, str, int, float, bytes, complex, collections.OrderedDict, collections.deque)]
_types = ("b1 i1 u1 i2 u2 i4 u4 i8 u8 f2 f4 f8 g F D G >i2 >u4 >f8 >D M8[D] M8[ns] M8[25s] m8[s] >m8[ms] M8 m8 U3 >U2 S2 O V3 "
          "i4,f8 u1,S1 U1,M8[D] f4,(2,)f4").split()


class _Maker:
    def __init__(self, data):
        self.data, self.at, self.made = data, 0, []

    def byte(self):
        self.at += 1
        return self.data[self.at - 1] if self.at <= len(self.data) else 0

    def bytes(self, count):
        return bytes(self.byte() for _ in range(count))

    def number(self):
        return int.from_bytes(self.bytes(self.byte() % 20), "little", signed=True)

    def float(self):
        return struct.unpack("d", self.bytes(8))[0]

    def text(self):
        return "".join(chr(min(self.number() & 0x1FFFFF, 0x10FFFF)) for _ in range(self.byte() % 6))

    def array(self):
        dtype = np.dtype(_types[self.byte() % len(_types)])
        shape = tuple(self.byte() % 4 for _ in range(self.byte() % 5))
        count = int(np.prod(shape, dtype=int))
        if dtype.kind == "O":
            made = np.empty(shape, object)
            made.ravel()[:] = [self.value(3) for _ in range(count)]
        else:
            made = np.frombuffer(self.bytes(count * dtype.itemsize), dtype).reshape(shape)
        for _ in range(self.byte() % 3):
            way = self.byte() % 5
            if way == 0:
                made = made.T
            elif way == 1 and made.ndim:
                made = made[:: self.byte() % 5 - 2 or 1]
            elif way == 2:
                made = np.broadcast_to(made, (self.byte() % 3, *made.shape))
            elif way == 3:
                made = made[()] if made.ndim == 0 else made[self.byte() % max(1, len(made))]
            else:
                made = np.ma.array(made, mask=self.byte() % 2)
        return made

    def buffer(self):
        letter = "bBhHiIlLqQfd?c"[self.byte() % 14]
        data = self.bytes(8 * (self.byte() % 4))
        return memoryview(data).cast(letter)[:: self.byte() % 5 - 2 or 1]

    def pointers(self):
        kind = (ctypes.c_int, ctypes.c_double, ctypes.c_char, ctypes.c_bool, ctypes.c_longdouble, ctypes.c_wchar)[self.byte() % 6]
        return ((kind * (self.byte() % 4)) * (self.byte() % 4))()

    def table(self, depth):
        columns = [self.array() if self.byte() % 2 else [self.value(depth) for _ in range(3)] for _ in range(self.byte() % 3 + 1)]
        way = self.byte() % 5
        if way == 0:
            return pd.Series(columns[0], name=self.text())
        if way == 1:
            return pd.Index(columns[0])
        if way == 2:
            return pd.Categorical(columns[0])
        if way == 3:
            return pd.Series(columns[0]).astype(("Int64", "string", "category", "boolean")[self.byte() % 4])
        return pd.DataFrame(dict(enumerate(columns)))

    def leaf(self, way):
        if way == 0:
            return (None, True, False, ..., Kind.ONE, Kind.TWO, pd.NA, pd.NaT, np.ma.masked, object())[self.byte() % 10]
        if way == 1:
            return self.number()
        if way == 2:
            return self.float()
        if way == 3:
            return self.text()
        if way == 4:
            return self.bytes(self.byte() % 5)
        if way == 5:
            return complex(self.float(), self.float())
        if way == 6:
            return decimal.Decimal((self.byte() % 2, tuple(self.byte() % 10 for _ in range(self.byte() % 30)), self.byte() - 128))
        if way == 7:
            return fractions.Fraction(self.number(), self.number())
        if way == 8:
            return datetime.datetime(1, 1, 1) + datetime.timedelta(microseconds=abs(self.number()) % 10**17)
        if way == 9:
            return datetime.timedelta(microseconds=self.number())
        if way == 10:
            return range(self.number(), self.number(), self.byte() - 128)
        if way == 11:
            return pd.Timestamp(self.number())
        if way == 12:
            return uuid.UUID(bytes=self.bytes(16))
        return datetime.time(self.byte() % 24, fold=self.byte() % 2)

    def value(self, depth):
        way = self.byte() % 32
        if way < 14 or depth > 6:
            made = self.leaf(way % 14)
        elif way < 18:
            made = self.array()
        elif way == 18:
            made = self.buffer()
        elif way == 19:
            made = self.pointers()
        elif way == 20:
            made = self.table(depth + 1)
        elif way == 21 and self.made:
            return self.made[self.byte() % len(self.made)]
        elif way == 22:
            made = Place()
            self.made.append(made)
            made.x, made.y = self.value(depth + 1), self.value(depth + 1)
        elif way == 23:
            made = {}
            self.made.append(made)
            for _ in range(self.byte() % 4):
                made[self.leaf(self.byte() % 14)] = self.value(depth + 1)
        elif way == 24:
            base = _liars[self.byte() % len(_liars)]
            content = [self.value(depth + 1)] if self.byte() % 2 else []
            made = base(*content) if not content or type(content[0]) not in (int, range) or base.__base__ is int else base()
        else:
            items = [self.value(depth + 1) for _ in range(self.byte() % 4)]
            made = (list, tuple, set, frozenset, collections.deque, list, list)[way - 25](items)
            if type(made) is list:
                self.made.append(made)
                if self.byte() % 16 == 15:
                    made.append(self.made[self.byte() % len(self.made)])
        return made


def build(data):
    """A value; an error where the bytes make none."""
    return _Maker(data).value(0)


_SAME = {bool, int, float, complex, str, bytes, decimal.Decimal, fractions.Fraction, datetime.datetime, datetime.timedelta,
         datetime.time, range, uuid.UUID, pd.Timestamp, Kind, np.datetime64, np.timedelta64, type(pd.NaT), type(pd.NA)}


def differs(value, back):
    """Whether what came back is of the same type and yet another value."""
    kind = type(value)
    if kind is not type(back):
        return False
    if kind in _SAME:
        return repr(value) != repr(back)
    if kind in (list, collections.deque):
        return len(value) != len(back) or any(map(differs, value, back))
    if kind is Place:
        return differs(value.x, back.x) or differs(value.y, back.y)
    if kind is np.ndarray and value.dtype == back.dtype and value.shape == back.shape and value.dtype.kind in "biufcmM":
        return repr(value.tolist()) != repr(back.tolist())
    return False
