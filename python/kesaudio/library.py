# SPDX-License-Identifier: Apache-2.0
"""The shared library: where it is found, and its records and functions as include/kesaudio/*.h declare them."""
import os
from ctypes import CDLL, CFUNCTYPE, POINTER, Structure, c_int32, c_uint32, c_void_p
from pathlib import Path

NAME = "libkesaudio.so.0"
OK = 0
_COUNT = POINTER(c_uint32)
_WORD = c_uint32
_BLOCKS = (c_void_p, _COUNT, c_void_p, _COUNT)  # source, its bytes, destination, its bytes


def _operation(*arguments):
    return CFUNCTYPE(_WORD, c_void_p, *arguments)


class ChannelConverterRecord(Structure):
    """KesAudioChannelConverterInC."""
    _fields_ = [("SetParameter", _operation(c_int32, _WORD)), ("GetParameter", _operation(c_int32, c_void_p)),
                ("Reset", _operation()), ("Open", _operation(_WORD, _WORD, _WORD)), ("Close", _operation()),
                ("Process", _operation(*_BLOCKS)), ("mState", _WORD), ("mInChannels", _WORD),
                ("mOutChannels", _WORD), ("mFormat", _WORD), ("mUpmixMode", _WORD), ("mChannelMask", _WORD),
                ("mChannelMaskValid", _WORD)]


class SrcParam(Structure):
    """SrcParam."""
    _fields_ = [("inSampleRate", _WORD), ("inChannels", _WORD), ("outSampleRate", _WORD), ("outChannels", _WORD),
                ("format", _WORD)]


class ResamplerRecord(Structure):
    """KesAudioSrcInC."""
    _fields_ = [("SetParameter", _operation(c_int32, _WORD)), ("GetParameter", _operation(c_int32)),
                ("Reset", _operation()), ("Open", _operation(*[_WORD] * 5)), ("Close", _operation()),
                ("Process", _operation(*_BLOCKS)), ("MultiChannel_Open", _operation(*[_WORD] * 5)),
                ("MultiChannel_ResetBuffer", _operation()), ("MultiChannel_Process", _operation(*_BLOCKS)),
                ("mTempBufSize", _WORD), ("mInternalBufSize", _WORD), ("mpTempBuf", c_void_p),
                ("mpInternalBuf", c_void_p), ("mParam", SrcParam), ("mpResampler", c_void_p), ("mState", _WORD),
                ("mFirstBlockDone", _WORD)]


class LimiterParam(Structure):
    """LimiterParam."""
    _fields_ = [("channels", _WORD), ("sampleRate", _WORD), ("reserved0", _WORD), ("reserved1", _WORD)]


class BitConverterRecord(Structure):
    """KesAudioBitConverterC."""
    _fields_ = [("Open", _operation(_WORD, _WORD, _WORD)), ("Close", _operation()),
                ("SetParameter", _operation(c_int32, _WORD)), ("GetParameter", _operation(c_int32, c_void_p)),
                ("Reset", _operation()), ("Process", _operation(*_BLOCKS)), ("mConvertType", _WORD),
                ("mChannels", _WORD), ("mSampleRate", _WORD), ("mpTempBuf", c_void_p), ("mpInternalBuf", c_void_p),
                ("mTempBufSize", _WORD), ("mInternalBufSize", _WORD), ("mLimiterParam", LimiterParam),
                ("mpLimiter", c_void_p), ("mState", _WORD)]


def _load() -> CDLL:
    beside = Path(__file__).with_name(NAME)
    name = os.environ.get("KESAUDIO_LIBRARY") or (str(beside) if beside.exists() else NAME)
    try:
        library = CDLL(name)
        functions = {
            "kes_version": (_WORD, []),
            "kes_resampler_max_output": (_WORD, [POINTER(SrcParam), _WORD]),
            "Audio_Channel_Downmix": (_WORD, [_WORD, _WORD, _WORD, *_BLOCKS, _WORD]),
            "Audio_Channel_Upmix": (c_int32, [_WORD, _WORD, _WORD, *_BLOCKS, _WORD]),
            "InitKesAudioChannelConverterInC": (None, [POINTER(ChannelConverterRecord)]),
            "InitKesAudioSrcInC": (None, [POINTER(ResamplerRecord)]),
            "InitKesAudioBitConverterC": (None, [POINTER(BitConverterRecord)])}
        for symbol, (result, arguments) in functions.items():
            function = getattr(library, symbol)
            function.restype, function.argtypes = result, arguments
    except (OSError, AttributeError) as error:
        raise ImportError(f"kesaudio: {error}; install {NAME}, or name it in KESAUDIO_LIBRARY") from None
    if library.kes_version() // 10000 != int(NAME.rpartition(".")[2]):
        raise ImportError(f"kesaudio: {name} is of version {library.kes_version() // 10000}, not {NAME}")
    return library


LIB = _load()
