# SPDX-License-Identifier: Apache-2.0
"""Frames of samples as arrays: what is taken, and how a wrong argument is named."""
import operator
from typing import Any, Dict, Iterable, NamedTuple, Optional, Tuple

import numpy as np


class Format(NamedTuple):
    """A sample format: the C headers' code, a sample's bytes, and an array's elements."""
    pcm: int
    sample_bytes: int
    dtype: type

    def shape(self, frames: int, channels: int) -> Tuple[int, ...]:
        return (frames, channels, 3) if self.sample_bytes == 3 else (frames, channels)


# In the order by which the bit converter numbers its conversions.
FORMATS: Dict[str, Format] = {"s16": Format(1, 2, np.int16), "s32": Format(3, 4, np.int32),
                              "q8.24": Format(4, 4, np.int32), "s24": Format(6, 3, np.uint8)}


def chosen(name: str, value: Any, choices: Iterable[str]) -> str:
    """value, if it is one of the choices."""
    choices = list(choices)
    if not isinstance(value, str) or value not in choices:
        raise ValueError(f"{name}: {value!r} is none of {', '.join(choices)}")
    return value


def whole(name: str, value: Any, low: int, high: int) -> int:
    """value, if it is a whole number from low to high."""
    try:
        number = operator.index(value)
    except TypeError:
        raise ValueError(f"{name}: {value!r} is no whole number") from None
    if not low <= number <= high:
        raise ValueError(f"{name}: {number} is not within {low} to {high}")
    return number


def checked(frames: Any, sample_format: Optional[str] = None) -> Tuple[np.ndarray, str]:
    """The frames, one after the other in memory, and their format: that of their dtype, or the one that is named."""
    array = np.asarray(frames)
    shape = array.shape
    found = {("<i2", 2): "s16", ("<i4", 2): "s32", ("|u1", 3): "s24"}.get((array.dtype.str, array.ndim))
    if found is None or shape[1] < 1 or found == "s24" and shape[2] != 3:
        raise ValueError("frames: must be int16 or int32 of shape (n, channels), or packed 24-bit: uint8 of shape "
                         f"(n, channels, 3); not {array.dtype} of shape {shape}")
    if sample_format is not None:
        chosen("sample_format", sample_format, FORMATS)
        if FORMATS[sample_format].dtype != FORMATS[found].dtype:
            raise ValueError(f"frames: {array.dtype} is not {sample_format}")
    return np.ascontiguousarray(array), sample_format or found
