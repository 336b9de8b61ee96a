"""Numbers at the limits of what is allowed and beyond them, and what may pass for one."""

from decimal import Decimal
from fractions import Fraction

import numpy as np

from adversary.values.answers import ByFloat, ByIndex, ByInt

NAN = float("nan")
INF = float("inf")


class Int(int):
    """Int of another class."""


class Float(float):
    """Float of another class."""


class IntLike:
    """Converts by int() and indexes differently."""

    def __int__(self):
        return 1

    def __index__(self):
        return 2


class OddInt(int):
    """Int whose conversions and comparisons disagree with its own value."""

    def __int__(self):
        return 2

    def __float__(self):
        return 0.5

    def __index__(self):
        return 1

    def __lt__(self, other):
        return False

    __ge__ = __gt__ = __le__ = __lt__

    def __hash__(self):
        return 0

    def __eq__(self, other):
        return True


class OddFloat(float):
    def __float__(self):
        return 0.125

    def __int__(self):
        return 1


class BadNumber:
    def __int__(self):
        raise LookupError("int")

    __float__ = __index__ = __int__


ODD_NUMBERS = [
    IntLike(),
    ByIndex(3),
    ByFloat(0.75),
    OddInt(3),
    OddFloat(2.5),
    ByInt("not an int"),
    ByFloat(1),
    BadNumber(),
    "3",
    " 3\n",
    "0x3",
    "1_0",
    "٣",
    "3.0",
    b"3",
    bytearray(b"3"),
    True,
    2**63 - 1,
    2**63,
    -(2**63) - 1,
    2**1023,
    2**1024,
    1e308,
    5e-324,
    NAN,
    float("inf"),
    np.float32(1.5),
    np.float16(2.5),
    np.longdouble(2.5),
    np.int8(-1),
    np.uint64(2**64 - 1),
    np.bool_(True),
    np.array(2),
    np.array("3"),
    np.str_("3"),
    np.bytes_(b"3"),
    1j,
    np.complex128(1.0),
    memoryview(b"3"),
    None,
    object,
    [],
]

INTEGERS = [0, 1, 2, 3, 4, 5, 6, 7, -1, -2, -7, 255, 256, 2**31 - 1, 2**31, 2**32, -(2**31) - 1]
INTEGERS += [2**53 + 1, 2**62, 2**63 - 1, 2**63, -(2**63), -(2**63) - 1, 2**64, 2**1023, 10**400]
FLOATS = [
    0.0,
    -0.0,
    1.0,
    -1.0,
    0.5,
    2.9,
    -0.5,
    1e308,
    -1e308,
    5e-324,
    2.0**63,
    NAN,
    -NAN,
    INF,
    -INF,
]
NUMBERS = [
    lambda: True,
    lambda: False,
    lambda: None,
    lambda: 1j,
    lambda: Int(2),
    lambda: OddInt(3),
    lambda: Float(0.25),
    lambda: Decimal("2.5"),
    lambda: Decimal("sNaN"),
    lambda: Fraction(7, 2),
    lambda: np.int64(1),
    lambda: np.int8(-1),
    lambda: np.uint8(5),
    lambda: np.uint64(2**64 - 1),
    lambda: np.float32(0.1),
    lambda: np.float16(2.5),
    lambda: np.float64(3.7),
    lambda: np.longdouble(2.5),
    lambda: np.bool_(True),
    lambda: np.complex128(1.0),
    lambda: np.datetime64("2020-01-01"),
    lambda: np.array(2),
    lambda: np.array([1.5]),
    lambda: np.array("3"),
    lambda: np.str_("3"),
]


NEIGHBOURS = [
    lambda number: number + 1,
    lambda number: number - 1,
    lambda number: number * 2,
    lambda number: -number,
    str,
    Decimal,
]
