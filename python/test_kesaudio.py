# SPDX-License-Identifier: Apache-2.0
"""The package against formulas in numpy. KESAUDIO_LIBRARY names the library if none is installed."""
import ctypes
import os
import subprocess
import sys

import kesaudio
import numpy as np
import pytest
from kesaudio import library
from numpy.testing import assert_allclose, assert_array_equal

RANDOM = np.random.default_rng(1)


def noise(bits, channels, n=1000):
    """Whole numbers of all magnitudes, the extremes among them."""
    top = 1 << (bits - 1)
    loud = RANDOM.integers(-top, top, (n - 2, channels)) >> RANDOM.integers(0, bits, (n - 2, channels))
    return np.vstack((loud, [[-top] * channels, [top - 1] * channels]))


def packed(samples, bits):
    """As the package takes them."""
    if bits != 24:
        return samples.astype(f"<i{bits // 8}")
    return np.ascontiguousarray(samples.astype("<i4")).view(np.uint8).reshape(*samples.shape, 4)[..., :3]


def clamp(x, bits):
    return np.clip(x, -1 << (bits - 1), (1 << (bits - 1)) - 1)


def gain(x):
    return clamp(x * 46346 >> 15, 32)


def mix_5_1(s, bits):
    t = gain(clamp(s[2] + gain(s[3]), 16 if bits == 16 else 32))
    return s[0] + t + gain(s[4]), s[1] + t + gain(s[5])


def mean(s, n):
    return np.sign(sum(s)) * (abs(sum(s)) // n)


def fold(s, bits):
    shift = 15 if bits < 32 else 16 + (len(s) - 1).bit_length()
    return sum(x * 46346 >> shift for x in s)


MIXES = [  # layout, channels before and after, each output channel of the input's
    ("5.1", 6, 2, mix_5_1),
    ("quad", 4, 2, lambda s, bits: (s[0] + gain(s[2]), s[1] + gain(s[3]))),
    ("3.0", 3, 2, lambda s, bits: (s[0] + gain(s[2]), s[1] + gain(s[2]))),
    ("none", 5, 2, lambda s, bits: (mean(s[::2], 5), mean(s[1::2], 5))),
    (0x63F, 8, 2, lambda s, bits: (mean(s[::2], 8), mean(s[1::2], 8))),
    ("none", 6, 1, lambda s, bits: (mean(s, 6),)),
    ("5.1", 6, 1, lambda s, bits: (fold(s, bits),)),
    ("quad", 4, 3, lambda s, bits: (fold(s, bits),) * 3),
    ("unknown", 6, 4, lambda s, bits: s[:4]),
]


@pytest.mark.parametrize("bits", [16, 24, 32])
def test_mixes(bits, monkeypatch):
    monkeypatch.setattr(kesaudio, "_MAX_BYTES", 1000)  # several calls of the library
    for layout, before, after, formula in MIXES:
        samples = noise(bits, before)
        expected = clamp(np.stack(formula(list(samples.T), bits), axis=1), bits)
        made = kesaudio.downmix(packed(samples, bits), after, layout)
        assert_array_equal(made, packed(expected, bits), str(layout))
    samples = noise(bits, 3)[::-1]  # not in one piece
    repeated, silent = samples[:, [0, 1, 2, 0, 1]], np.pad(samples, ((0, 0), (0, 2)))
    assert_array_equal(kesaudio.upmix(packed(samples, bits), 5), packed(repeated, bits))
    assert_array_equal(kesaudio.upmix(packed(samples, bits), 5, "zero"), packed(silent, bits))
    assert kesaudio.downmix(packed(samples[:0], bits), 1, "none").shape[:2] == (0, 1)


def test_sample_formats():
    scales = {"s16": (16, 15), "s24": (24, 23), "s32": (32, 31), "q8.24": (32, 24)}  # bits, full scale
    for before, (bits, scale) in scales.items():
        samples = noise(bits, 2)
        for after, (made_bits, made_scale) in scales.items():
            expected = clamp(np.rint(samples * 2.0 ** (made_scale - scale)).astype(np.int64), made_bits)
            made = kesaudio.convert(packed(samples, bits), after, before)
            assert_array_equal(made, packed(expected, made_bits), f"{before} to {after}")


def tone(rate, frames, dtype):
    angle = 2 * np.pi * 997 / rate * np.arange(frames)
    return np.rint(np.stack((np.sin(angle), np.cos(angle)), axis=1) * np.iinfo(dtype).max * 0.9).astype(dtype)


@pytest.mark.parametrize("rates", [(48000, 44100), (44100, 48000), (8000, 192000), (96000, 8000), (48000, 48000)])
def test_rates(rates):
    before, after = rates
    for dtype, tolerance in (np.int16, 2), (np.int32, 20000):
        made = kesaudio.resample(tone(before, before // 5 + 1, dtype), before, np.int32(after))
        expected = tone(after, -(-(before // 5 + 1) * after // before), dtype)
        assert (made.dtype, made.shape) == (dtype, expected.shape)
        inside = slice(after // 20, -after // 20)
        assert_allclose(made[inside].astype(float), expected[inside], rtol=0, atol=tolerance)


def test_streams_keep_what_is_left_over():
    surround = packed(noise(24, 6, 3001), 24)
    quiet = packed(noise(24, 2, 3001), 32)
    for stream, frames, whole in [
            (kesaudio.ChannelConverter(6, 2, "s24"), surround, kesaudio.downmix(surround, 2, "none")),
            (kesaudio.ChannelConverter(6, 6, "s24"), surround, surround),
            (kesaudio.BitConverter("s24", "s16", 6), surround, kesaudio.convert(surround, "s16")),
            (kesaudio.Resampler(48000, 44100, 2, "s32", align=False), quiet, kesaudio.resample(quiet, 48000, 44100)),
            (kesaudio.Resampler(48000, 96000, 2, "s32", align=False), quiet, kesaudio.resample(quiet, 48000, 96000)),
            (kesaudio.BitConverter("q8.24", "limited", 2, 48000), quiet, np.pad(
                kesaudio.convert(quiet, "s16", "q8.24"), ((72, 0), (0, 0))))]:
        data, made, at = frames.tobytes(), [], 0
        for size in (0, 1, 17, 4096, 4099, len(data)):  # in pieces that end inside frames
            made.append(stream.process(data[at:at + size]))
            at += size
        made = np.concatenate(made)
        assert 0 <= len(whole) - len(made) <= 90, "what the latency keeps"
        assert_array_equal(made, whole[:len(made)])
        stream.reset()
        assert_array_equal(stream.process(frames)[:100], made[:100])
        stream.close()
        for call in (lambda: stream.process(frames)), stream.reset:
            with pytest.raises(ValueError, match=f"{type(stream).__name__}: the stream is closed"):
                call()


def test_first_block_is_as_long_as_its_input():
    with kesaudio.Resampler(48000, 44100, 2) as aligned, kesaudio.Resampler(48000, 44100, 2, to="s32") as wide:
        assert aligned.process(tone(48000, 48000, np.int16)).shape == (44100, 2)  # longer than one call may be
        made = wide.process(np.full((480, 2), 1000, np.int16))
        assert made.shape == (441, 2) and not made[:30].any() and made[-1, 0] == 1000 << 16


STEREO, SURROUND = np.zeros((4, 2), np.int16), np.zeros((4, 6), np.int16)


@pytest.mark.parametrize("call, argument", [
    (lambda: kesaudio.downmix(SURROUND.astype(float)), "frames"),
    (lambda: kesaudio.downmix(SURROUND.astype(">i2")), "frames"),
    (lambda: kesaudio.downmix(np.zeros((4, 6, 4), np.uint8)), "frames"),
    (lambda: kesaudio.downmix(np.zeros((4, 0), np.int16)), "frames"),
    (lambda: kesaudio.downmix(STEREO), "layout"),
    (lambda: kesaudio.downmix(SURROUND, layout="5.2"), "layout"),
    (lambda: kesaudio.downmix(SURROUND, 7), "channels"),
    (lambda: kesaudio.downmix(SURROUND, 2.0), "channels"),
    (lambda: kesaudio.upmix(SURROUND, 5), "channels"),
    (lambda: kesaudio.upmix(STEREO, 4, "noise"), "fill"),
    (lambda: kesaudio.convert(STEREO, "f32"), "to"),
    (lambda: kesaudio.convert(STEREO, "s24", "q8.24"), "frames"),
    (lambda: kesaudio.resample(STEREO, 0, 48000), "in_rate"),
    (lambda: kesaudio.resample(STEREO, 48000, 100), "in_rate, out_rate"),
    (lambda: kesaudio.resample(np.zeros((4, 2, 3), np.uint8), 48000, 44100), "frames"),
    (lambda: kesaudio.Resampler(48000, 44100, 2, "s32", "s16"), "to"),
    (lambda: kesaudio.ChannelConverter(9, 2), "in_channels"),
    (lambda: kesaudio.ChannelConverter(6, 2).process(STEREO), "frames"),
    (lambda: kesaudio.BitConverter("q8.24", "limited", 3), "channels"),
])
def test_wrong_arguments_are_named(call, argument):
    with pytest.raises(ValueError, match=f"^{argument}:"):
        call()


def test_records_lie_as_the_headers_say(tmp_path):
    lines = ["#include <kesaudio/kesaudio.h>", "#include <stddef.h>"]
    for name, record in (("KesAudioChannelConverterInC", library.ChannelConverterRecord),
                         ("KesAudioSrcInC", library.ResamplerRecord),
                         ("KesAudioBitConverterC", library.BitConverterRecord)):
        facts = [f"sizeof({name}) == {ctypes.sizeof(record)}"]
        facts += [f"offsetof({name}, {field}) == {getattr(record, field).offset}" for field, _ in record._fields_]
        lines += [f'_Static_assert({fact}, "{fact}");' for fact in facts]
    source = tmp_path / "records.c"
    source.write_text("\n".join(lines))
    include = os.environ.get("KESAUDIO_INCLUDE", os.path.join(os.path.dirname(__file__), "../include"))
    subprocess.run([os.environ.get("CC", "cc"), "-fsyntax-only", f"-I{include}", source], check=True)


def test_a_missing_library_is_named():
    environment = {**os.environ, "KESAUDIO_LIBRARY": "/none.so", "PYTHONPATH": os.pathsep.join(sys.path)}
    run = subprocess.run([sys.executable, "-B", "-c", "import kesaudio"], env=environment, stderr=subprocess.PIPE)
    assert b"ImportError: kesaudio: /none.so" in run.stderr
