# SPDX-License-Identifier: Apache-2.0
"""The three components as objects that take a stream block by block."""
from ctypes import byref, c_uint32
from typing import Any, Optional, TypeVar

import numpy as np

from .frames import FORMATS, checked, chosen, whole
from .library import LIB, OK, BitConverterRecord, ChannelConverterRecord, ResamplerRecord

MAX_CHANNELS = 8
_MAX_BYTES = 1 << 28  # offered in one call; counts have 32 bits
_MAX_WORD = (1 << 32) - 1
_Self = TypeVar("_Self", bound="_Stream")


class _Stream:
    """A stream through a component; use it in a `with` statement, or close it.

    Objects are independent of each other; one is used by one thread at a time."""
    _record: Any = None

    def _start(self, record, process, reset, taken, made, max_bytes: int, copies=False) -> None:
        """taken and made: the format's name and the channels of a frame, on either side."""
        self._record, self._process, self._reset = record, process, reset
        self._taken, self._made = FORMATS[taken[0]], FORMATS[made[0]]
        self._in_format, self._in_channels, self._out_channels = taken[0], taken[1], made[1]
        self._in_frame = taken[1] * self._taken.sample_bytes
        self._out_frame = made[1] * self._made.sample_bytes
        self._max_bytes = max(max_bytes // self._in_frame, 1) * self._in_frame
        self._copies = copies
        self._left = np.empty(0, np.uint8)

    def _room(self, in_bytes: int) -> int:
        return in_bytes // self._in_frame * self._out_frame

    def _bytes_of(self, frames: Any) -> np.ndarray:
        if isinstance(frames, (bytes, bytearray, memoryview)):
            return np.frombuffer(frames, np.uint8)
        array, _ = checked(frames, self._in_format)
        if array.shape[1] != self._in_channels:
            raise ValueError(f"frames: must have {self._in_channels} channels, not {array.shape[1]}")
        return array.reshape(-1).view(np.uint8)

    def _open_record(self) -> Any:
        if self._record is None:
            raise ValueError(f"{type(self).__name__}: the stream is closed")
        return byref(self._record)

    def process(self, frames: Any) -> np.ndarray:
        """Converts the next block of the stream, of any length, and returns the frames that came out of it.

        frames: an array of the stream's format, shape (n, channels), 24-bit (n, channels, 3); or bytes, as read from
        a file or pipe, which may end inside a frame: what is left over is kept and goes before the next block."""
        record = self._open_record()
        data = np.concatenate((self._left, self._bytes_of(frames)))
        end, at, blocks = data.size - data.size % self._in_frame, 0, [np.empty(0, np.uint8)]
        if self._copies:
            at = end
            blocks.append(data[:end])
        while at < end:
            offered = min(end - at, self._max_bytes)
            block = np.empty(self._room(offered), np.uint8)
            left, made = c_uint32(offered), c_uint32(block.size)
            if self._process(record, data[at:].ctypes.data, byref(left), block.ctypes.data, byref(made)) != OK:
                raise RuntimeError(f"{type(self).__name__}: the library refuses the block")
            blocks.append(block[:made.value])
            if left.value == offered:
                break
            at += offered - left.value
        self._left = data[at:].copy()
        out = np.concatenate(blocks).view(self._made.dtype)
        return out.reshape(self._made.shape(out.nbytes // self._out_frame, self._out_channels))

    def reset(self) -> None:
        """Forgets the stream so far, left-over bytes too."""
        self._reset(self._open_record())
        self._left = np.empty(0, np.uint8)

    def close(self) -> None:
        """Frees what the component holds. Any later block is refused."""
        if self._record is not None:
            self._record.Close(byref(self._record))
            self._record = None

    __del__ = close

    def __enter__(self: _Self) -> _Self:
        self._open_record()
        return self

    def __exit__(self, *_) -> None:
        self.close()


class ChannelConverter(_Stream):
    """The channel converter, which knows no layouts: it averages to stereo pairwise and to mono, keeps the first of
    more channels, and repeats channels when there are more of them after it. As many channels are copied.

    in_channels, out_channels: 1 to 8. sample_format: "s16", "s24", "s32", "q8.24"."""

    def __init__(self, in_channels: int, out_channels: int, sample_format: str = "s16") -> None:
        taken = whole("in_channels", in_channels, 1, MAX_CHANNELS)
        made = whole("out_channels", out_channels, 1, MAX_CHANNELS)
        chosen("sample_format", sample_format, FORMATS)
        record = ChannelConverterRecord()
        LIB.InitKesAudioChannelConverterInC(byref(record))
        record.Open(byref(record), taken, made, FORMATS[sample_format].pcm)
        self._start(record, record.Process, record.Reset, (sample_format, taken), (sample_format, made), _MAX_BYTES,
                    copies=taken == made)


class Resampler(_Stream):
    """The resampler. Its output lags; the stream's last frames come when silence is fed behind it.

    in_rate, out_rate: Hz. channels: 1 to 8. sample_format: "s16", "s32" or "q8.24". to: the format that comes out,
    the same or, of "s16", "s32". align: have the first block made as long as its input by silence before it, as the
    component does."""
    _FORMATS = {("s16", "s16"): 0, ("s16", "s32"): 1, ("s32", "s32"): 2, ("q8.24", "q8.24"): 3}

    def __init__(self, in_rate: int, out_rate: int, channels: int, sample_format: str = "s16",
                 to: Optional[str] = None, align: bool = True) -> None:
        rates = whole("in_rate", in_rate, 1, _MAX_WORD), whole("out_rate", out_rate, 1, _MAX_WORD)
        channels = whole("channels", channels, 1, MAX_CHANNELS)
        chosen("sample_format", sample_format, (taken for taken, _ in self._FORMATS))
        made = chosen("to", to or sample_format, (made for taken, made in self._FORMATS if taken == sample_format))
        record = ResamplerRecord()
        LIB.InitKesAudioSrcInC(byref(record))
        operations = ((record.Open, record.Process, record.Reset) if channels == 2 else
                      (record.MultiChannel_Open, record.MultiChannel_Process, record.MultiChannel_ResetBuffer))
        kind = self._FORMATS[sample_format, made]
        if operations[0](byref(record), rates[0], channels, rates[1], channels, kind) != OK:
            raise ValueError(f"in_rate, out_rate: the library does not resample {rates[0]} to {rates[1]} Hz")
        # A longer first block would not be aligned.
        max_bytes = _MAX_WORD // (rates[1] * channels * (1 if made == sample_format else 2))
        self._start(record, *operations[1:], (sample_format, channels), (made, channels), min(max_bytes, _MAX_BYTES))
        if not align:
            self._process(byref(record), None, byref(c_uint32(0)), None, byref(c_uint32(0)))

    def _room(self, in_bytes: int) -> int:
        return LIB.kes_resampler_max_output(byref(self._record.mParam), in_bytes)


class BitConverter(_Stream):
    """The bit converter.

    sample_format, to: "s16", "s24", "s32", "q8.24"; full scale stays full scale, fewer bits are rounded and clamped.
    Of "q8.24" also to "limited": 16 bits by the limiter, which turns down peaks above full scale and delays by
    1.5 ms; channels: 1 or 2 then; rate: Hz, which only the limiter asks for."""

    def __init__(self, sample_format: str, to: str, channels: int = 2, rate: int = 48000) -> None:
        formats = list(FORMATS)
        chosen("sample_format", sample_format, formats)
        chosen("to", to, formats + ["limited"] * (sample_format == "q8.24"))
        channels = whole("channels", channels, 1, 2 if to == "limited" else _MAX_WORD)
        rate = whole("rate", rate, 1, _MAX_WORD)
        if to == "limited":
            kind, to = 256, "s16"
        elif to == sample_format:
            kind = 12
        else:
            taken, made = formats.index(sample_format), formats.index(to)
            kind = 3 * taken + made - (made > taken)
        record = BitConverterRecord()
        LIB.InitKesAudioBitConverterC(byref(record))
        if record.Open(byref(record), rate, channels, kind) != OK:
            raise MemoryError("BitConverter: the limiter's buffers")
        self._start(record, record.Process, record.Reset, (sample_format, channels), (to, channels), _MAX_BYTES,
                    copies=kind == 12)
