# SPDX-License-Identifier: Apache-2.0
"""kesaudio for numpy: exact channel mixes, and changes of rate and sample format.

Frames are arrays, one sample of every channel in a row:

    int16, int32     shape (n, channels)
    uint8            shape (n, channels, 3): packed 24-bit, least significant byte first

Nothing is changed in place: every call returns a new array. A wrong argument gives a ValueError that names it, before
the library is called. What the library does to the samples is said in its C headers.
"""
from ctypes import byref, c_uint32
from typing import Optional, Union

import numpy as np

from .frames import FORMATS, checked, chosen, whole
from .library import LIB
from .streams import BitConverter, ChannelConverter, Resampler

__all__ = ["LAYOUTS", "BitConverter", "ChannelConverter", "Resampler", "convert", "downmix", "resample", "upmix"]
__version__ = ".".join(str(LIB.kes_version() // part % 100) for part in (10000, 100, 1))

#: Channel masks by name: the layouts that have a stereo mix of their own, mono and stereo, and two that say none.
LAYOUTS = {"5.1": 0x3F, "quad": 0x33, "3.0": 0x7, "3.0-back": 0x103, "2.1": 0xB, "stereo": 0x3, "mono": 0x1,
           "none": 0, "unknown": 0xFFFF}
_MAX_CHANNELS = 128  # no sum of a frame wraps
_MAX_BYTES = 1 << 30  # of a block, on either side; the library counts in 32 bits


def _mixed(entry, array: np.ndarray, sample_format: str, channels: int, last: int) -> np.ndarray:
    form, taken = FORMATS[sample_format], array.shape[1]
    out = np.empty(form.shape(len(array), channels), form.dtype)
    step = _MAX_BYTES // (max(taken, channels) * form.sample_bytes)
    for at in range(0, len(array), step):
        src, dst = array[at:at + step], out[at:at + step]
        entry(taken, channels, form.pcm, src.ctypes.data, byref(c_uint32(src.nbytes)), dst.ctypes.data,
              byref(c_uint32(dst.nbytes)), last)
    return out


def downmix(frames: np.ndarray, channels: int = 2, layout: Union[str, int] = "5.1") -> np.ndarray:
    """Mixes to as many or fewer channels, by Audio_Channel_Downmix.

    frames: shape (n, in_channels), 24-bit (n, in_channels, 3). Returns (n, channels), likewise.
    layout: a name of LAYOUTS, whose number of channels the frames must have, or a channel mask, taken as it is. The
    mixes of "5.1", "quad", "3.0", "3.0-back" and "2.1" are for two channels; any other layout gives them averages of
    the even and of the odd channels. One channel is the average for "none", else a fold; more are the first ones for
    "none" and "unknown", else a fold."""
    array, found = checked(frames)
    taken = whole("frames: channels", array.shape[1], 1, _MAX_CHANNELS)
    channels = whole("channels", channels, 1, taken)
    if isinstance(layout, str):
        mask = LAYOUTS[chosen("layout", layout, LAYOUTS)]
        positions = bin(mask).count("1")
        if layout not in ("none", "unknown") and positions != taken:
            raise ValueError(f"layout: {layout!r} has {positions} channels, frames have {taken}")
    else:
        mask = whole("layout", layout, 0, 0xFFFFFFFF)
    return _mixed(LIB.Audio_Channel_Downmix, array, found, channels, mask)


def upmix(frames: np.ndarray, channels: int, fill: str = "duplicate") -> np.ndarray:
    """Adds channels, by Audio_Channel_Upmix: copies of the others in turn, or with a fill of "zero" silent ones.

    frames: shape (n, in_channels), 24-bit (n, in_channels, 3). Returns (n, channels), likewise."""
    array, found = checked(frames)
    channels = whole("channels", channels, array.shape[1], _MAX_CHANNELS)
    zeros = chosen("fill", fill, ("duplicate", "zero")) == "zero"
    return _mixed(LIB.Audio_Channel_Upmix, array, found, channels, zeros)


def resample(frames: np.ndarray, in_rate: int, out_rate: int, sample_format: Optional[str] = None) -> np.ndarray:
    """Changes the sampling rate of all of a signal: as long as before, every sound in its place.

    frames: int16 or int32, shape (n, channels), 1 to 8 channels; packed 24-bit is to be converted to "s32" first.
    sample_format: "q8.24" for int32 frames in 8.24. Returns shape (ceil(n * out_rate / in_rate), channels)."""
    array, found = checked(frames, sample_format)
    if found == "s24":
        raise ValueError("frames: the resampler takes no packed 24-bit; convert them to 's32' first")
    with Resampler(in_rate, out_rate, array.shape[1], found, align=False) as stream:
        wanted = -(-len(array) * int(out_rate) // int(in_rate))
        # The latency is 38 frames of the lower rate, which is 4000 Hz or more: 20 ms of silence bring the end.
        silence = np.zeros((int(in_rate) // 50 + 1, array.shape[1]), array.dtype)
        return np.concatenate((stream.process(array), stream.process(silence)))[:wanted]


def convert(frames: np.ndarray, to: str, sample_format: Optional[str] = None) -> np.ndarray:
    """Changes the sample format; full scale stays full scale. Exact towards more bits, rounded to the nearest, ties
    to even, and clamped towards fewer.

    frames: shape (n, channels), 24-bit (n, channels, 3). to: "s16", "s24", "s32" or "q8.24" (8.24 fixed point in
    int32). sample_format: "q8.24" for int32 frames in 8.24. Returns (n, channels), 24-bit (n, channels, 3)."""
    array, found = checked(frames, sample_format)
    with BitConverter(found, chosen("to", to, FORMATS), array.shape[1]) as stream:
        return stream.process(array)
