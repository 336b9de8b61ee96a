"""NumPy arrays and scalars as dtype texts and raw buffers."""

from __future__ import annotations

import re
from collections.abc import Iterable, Sequence
from itertools import accumulate
from math import prod
from typing import Any, Literal

import numpy as np
import numpy.typing as npt

Array = npt.NDArray[Any]

_ARRAY_DTYPE = re.compile(r"[<>|][biufcSU][1-9][0-9]{0,9}|[<>][mM]8(\[[0-9]{0,9}[A-Za-z]{1,2}\])?")
# Kinds whose scalars hold exactly what their buffer holds. Text and byte scalars do not: their
# buffer drops trailing zeros, so they are kept as text and bytes.
_SCALAR_KINDS = frozenset("biufcmM")
_C_ORDER, _FORTRAN_ORDER = 0, 1


def dtype_from_text(text: str) -> np.dtype[Any] | None:
    """Return the dtype whose ``str`` is `text`, or None when it is not one that is kept.

    Kept are booleans, integers, floats, complex numbers, fixed-width text and bytes, dates and
    time differences, in either byte order; never objects, structures or user-defined types.
    """
    if _ARRAY_DTYPE.fullmatch(text) is None:
        return None
    try:
        dtype: np.dtype[Any] = np.dtype(text)
    except (TypeError, ValueError, OverflowError):
        return None
    return dtype if dtype.str == text and dtype.itemsize > 0 else None


def keeps_array_dtype(dtype: np.dtype[Any]) -> bool:
    """Tell whether an array of `dtype` comes back with an equal dtype."""
    return dtype.metadata is None and dtype_from_text(dtype.str) == dtype


def keeps_scalar_type(scalar_type: type) -> bool:
    """Tell whether `scalar_type` is a NumPy scalar type whose values come back exactly."""
    if not issubclass(scalar_type, np.generic):
        return False
    try:
        dtype: np.dtype[Any] = np.dtype(scalar_type)
    except TypeError:
        return False
    # A user's subclass of numpy.float64 has the dtype of numpy.float64, whose type it is not.
    return dtype.type is scalar_type and dtype.kind in _SCALAR_KINDS and keeps_array_dtype(dtype)


def array_order(array: Array) -> int:
    """Return the code of the memory order an array is stored in: its own, or C if it has none."""
    flags = array.flags
    return _FORTRAN_ORDER if flags.f_contiguous and not flags.c_contiguous else _C_ORDER


def array_bytes(array: Array, order: int) -> bytes:
    """Return the items of `array` in the memory order `order`."""
    return array.tobytes("F" if order == _FORTRAN_ORDER else "C")


def arrays_from_parts(
    texts: Sequence[str], orders: bytes, shapes: Sequence[tuple[int, ...]], data: memoryview
) -> list[Array]:
    """Return new writable arrays, the reverse of taking each array's dtype, order, shape, bytes.

    Raises
    ------
    ValueError
        A dtype that is not kept, an unknown order, or shapes that do not use up `data`.
    """
    if not len(texts) == len(orders) == len(shapes):
        raise ValueError("array column with parts of different lengths")
    dtypes = [_required_dtype(text) for text in texts]
    sizes = [_byte_count(shape, dtype) for shape, dtype in zip(shapes, dtypes, strict=True)]
    if sum(sizes) != len(data) or not set(orders) <= {_C_ORDER, _FORTRAN_ORDER}:
        raise ValueError("array column whose shapes do not fit its buffer")
    return [
        _array_at(data, start, dtype, shape, order)
        for dtype, shape, order, start in zip(dtypes, shapes, orders, _starts(sizes), strict=True)
    ]


def scalars_from_parts(texts: Sequence[str], data: memoryview) -> list[np.generic]:
    """Return the scalars whose dtypes and joined bytes are given.

    Raises
    ------
    ValueError
        A dtype that is not kept, or bytes that do not fit the dtypes.
    """
    dtype_of = {text: _required_dtype(text) for text in set(texts)}
    if any(dtype.kind not in _SCALAR_KINDS for dtype in dtype_of.values()):
        raise ValueError("scalar column with a dtype that has no exact scalars")
    sizes = [dtype_of[text].itemsize for text in texts]
    if sum(sizes) != len(data):
        raise ValueError("scalar column whose dtypes do not fit its buffer")
    if len(dtype_of) == 1:
        return list(np.frombuffer(data, dtype_of[texts[0]]))
    return [
        np.frombuffer(data, dtype_of[text], count=1, offset=start)[0]
        for text, start in zip(texts, _starts(sizes), strict=True)
    ]


def _array_at(
    data: memoryview, start: int, dtype: np.dtype[Any], shape: tuple[int, ...], order: int
) -> Array:
    letter: Literal["C", "F"] = "F" if order == _FORTRAN_ORDER else "C"
    view: Array = np.ndarray(shape, dtype, buffer=data, offset=start, order=letter)
    # The copy owns its memory, is aligned, and can be written to.
    return view.copy(order=letter)


def _required_dtype(text: str) -> np.dtype[Any]:
    dtype = dtype_from_text(text) if type(text) is str else None
    if dtype is None:
        raise ValueError(f"dtype {text!r} is not one that is kept")
    return dtype


def _byte_count(shape: tuple[int, ...], dtype: np.dtype[Any]) -> int:
    if not all(type(length) is int and length >= 0 for length in shape):
        raise ValueError(f"array shape {shape!r}")
    return prod(shape) * dtype.itemsize


def _starts(sizes: Sequence[int]) -> Iterable[int]:
    return accumulate(sizes[:-1], initial=0) if sizes else ()
