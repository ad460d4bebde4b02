# SPDX-License-Identifier: Apache-2.0
"""Measures the sound of the host's resampler and limiter: level, noise, timing, rounding, gain.

Usage: python3 engines_quality.py FOLDER    with libpalix32_vendor.so and libkeslimiter_vendor.so
"""
import sys
import unittest
from ctypes import CDLL, byref, c_uint32, c_void_p

import numpy as np
from numpy.testing import assert_allclose, assert_array_equal
from resampler_quality import RATE_PAIRS, decibels, measure

FOLDER = sys.argv.pop(1) if len(sys.argv) > 1 else sys.exit(__doc__)
# The resampler's formats: number, input and output type.
S16, S16_TO_S32 = (0, np.int16, np.int16), (1, np.int16, np.int32)
S32, Q8_24 = (2, np.int32, np.int32), (3, np.int32, np.int32)
LIMITED, FULL_SCALE = 256, 1 << 24  # the limiter's conversion, from 8.24


def engine(library, prefix):
    """Calls an operation of the library, named without its prefix."""
    operations = CDLL(f"{FOLDER}/lib{library}.so")
    return lambda name, *arguments: operations[f"{prefix}_{name}"](*arguments)


PALIX, LIMITER = engine("palix32_vendor", "Palix"), engine("keslimiter_vendor", "Limiter")


def words(*values):
    return np.array(values, np.uint32).ctypes


def buffer_sizes(call, stream):
    """Returns the result, and the sizes of the internal and the scratch buffer."""
    internal, scratch = c_uint32(1), c_uint32(1)
    return call("GetBufferSize", byref(internal), byref(scratch), stream), internal.value, scratch.value


class Stream:
    """A stream through an engine, whose memory holds other values before."""

    def __init__(self, call, sized_by, param, taken, made):
        self.call, self.taken, self.made, self.instance = call, taken, made, c_void_p()
        result, *sizes = buffer_sizes(call, sized_by)
        self.internal, self.scratch = (np.full(size, 0xA5, np.uint8) for size in sizes)
        assert (result, call("Open", byref(self.instance), self.internal.ctypes, param)) == (0, 0)

    def run(self, samples):
        samples, output = np.asarray(samples, self.taken), np.empty(1 << 20, self.made)
        left, size = c_uint32(samples.nbytes), c_uint32(output.nbytes)
        blocks = samples.ctypes, byref(left), output.ctypes, byref(size)
        assert (self.call("Process", self.instance, self.scratch.ctypes, *blocks), left.value) == (0, 0)
        return output[:size.value // output.itemsize]


def resampler(in_rate, out_rate, sample_format=S32):
    number, taken, made = sample_format
    param = words(in_rate, 1, out_rate, 1, number)
    return Stream(PALIX, param, param, taken, made)


def limited(channels, rate, samples):
    stream = Stream(LIMITER, LIMITED, words(channels, rate, 0, 0), np.int32, np.int16)
    return stream.run(samples).reshape(samples.shape)


def sine(cycles):
    return np.sin(2 * np.pi * (cycles % 1))


def run_sine(stream, amplitude, cycles, first, frames):
    """Runs a sine in 32 bits; amplitude and output have full scale 1, cycles counts periods per frame."""
    return stream.run(np.rint(amplitude * 2**31 * sine(cycles * np.arange(first, first + frames)))) / 2**31


class Resampler(unittest.TestCase):
    def test_level_noise_and_time_of_sines(self):
        """A sine of -1 dB full scale keeps its timing and level, and nothing else exceeds -123 dB, or -117 dB where
        images of interpolated taps add up; above 1.1 of the lower Nyquist frequency it is stopped."""
        for in_rate, out_rate, frequency, loss in (  # of the lower Nyquist frequency; in dB, None if it is stopped
                (44100, 48000, 0.0452, 0.001), (44100, 48000, 0.9, 0.02), (48000, 44100, 0.9, 0.02),
                (48000, 44100, 0.1, 0.001), (48000, 16000, 0.9, 0.02), (48000, 16000, 1.1, None),
                (44100, 48001, 0.9, 0.02), (96000, 44100, 1.12, None), (44100, 44100, 0.3, 0.001),
                (4000, 768000, 0.9, 0.02), (768000, 4000, 0.9, 0.02), (768000, 4000, 1.1, None),
                (767999, 4001, 0.5, 0.001), (8000, 11025, 0.9, 0.02)):
            with self.subTest(in_rate=in_rate, out_rate=out_rate, frequency=frequency):
                lower, amplitude = min(in_rate, out_rate), 10 ** (-1 / 20)
                hertz, frames = frequency * lower / 2, 1000 * in_rate // lower
                output = run_sine(resampler(in_rate, out_rate), amplitude, hertz / in_rate, 0, frames)
                self.assertEqual(len(output), np.ceil(frames * out_rate / in_rate - 30 * out_rate / lower))
                onset = 100 * out_rate // lower
                wave, output = sine(hertz / out_rate * np.arange(onset, len(output))), output[onset:]
                gain = wave @ output / (wave @ wave) if loss else 0
                if loss:
                    self.assertAlmostEqual(decibels(gain / amplitude), 0, delta=loss)
                limit = -117 if (in_rate, out_rate) == (44100, 48001) else -123
                self.assertLess(decibels(abs(output - gain * wave).max() / amplitude), limit)

    def test_sounds_as_well_as_the_benchmark_says(self):
        for rates in (*RATE_PAIRS, (96000, 48000), (16000, 48000), (44100, 48001)):
            with self.subTest(rates=rates):
                quality = measure(
                    lambda signal: resampler(*rates).run(np.rint(signal * 2**31)) / 2**31,
                    lambda signal: resampler(*rates, S16).run(np.rint(signal * 2**15)) / 2**15, *rates)
                self.assertTrue(quality.is_good(), quality)
                self.assertGreater(quality.thd_n_16, 94)

    def test_rate_changes_without_a_click(self):
        """The sine continues in phase, at the new rate from the first output after the change."""
        for in_rate, out_rate, skipped_rate, new_rate in (
                (44100, 48000, 48000, 47990), (48000, 44100, 24000, 48000), (48000, 24000, 44100, 12000),
                (16000, 48000, 768000, 16000), (8000, 44100, 96000, 11025), (44100, 48001, 48000, 32000),
                (192000, 4000, 8000, 88200), (768000, 8000, 16000, 4000)):
            with self.subTest(in_rate=in_rate, out_rate=out_rate, new_rate=new_rate):
                stream, cycles = resampler(in_rate, out_rate), 1000 / in_rate
                fed = 1001 + 230 * in_rate // out_rate  # for the last one: just dropped old frames
                start = len(run_sine(stream, 0.5, cycles, 0, fed)) / out_rate
                for rate in (skipped_rate, new_rate):
                    self.assertEqual(PALIX("SetSamplingRate", stream.instance, rate), 0)
                after = run_sine(stream, 0.5, cycles, fed, 3000 + 1000 * in_rate // new_rate)
                self.assertGreater(len(after), 700)
                wave = sine(1000 * (start + np.arange(len(after)) / new_rate))
                gain = wave @ after / (wave @ wave)
                self.assertAlmostEqual(decibels(gain / 0.5), 0, delta=0.001)
                self.assertLess(decibels(abs(after - gain * wave).max()), -130)

                noise = np.random.default_rng(5).integers(-2**31, 2**31, 1000)
                self.assertEqual(PALIX("Reset", stream.instance), 0)
                assert_array_equal(stream.run(noise), resampler(in_rate, new_rate).run(noise))

    def test_formats_round_and_clamp(self):
        """All formats get the same numbers, and 16 bits the nearest within their range. The input is noise, and steps
        of full scale, which overshoot."""
        narrow = np.append(np.random.default_rng(4).integers(-32768, 32768, 1000),
                           np.tile(np.repeat((-32768, 32767), 50), 10))
        exact = resampler(44100, 48000, S32).run(narrow * 65536)
        assert_array_equal(resampler(44100, 48000, Q8_24).run(narrow * 65536), exact)
        assert_array_equal(resampler(44100, 48000, S16_TO_S32).run(narrow), exact)
        error = resampler(44100, 48000, S16).run(narrow) - np.minimum(exact / 65536, 32767)
        self.assertLessEqual(abs(error).max(), 0.50001)
        self.assertGreater(min(np.count_nonzero(exact == limit) for limit in (-2**31, 2**31 - 1)), 50)

    def test_names_what_it_refuses(self):
        for result, *param in ((0, 4000, 1, 768000, 1, 0), (0, 768000, 8, 4000, 8, 3), (-1, 44100, 2, 48000, 2, 4),
                               (-1, 44100, 2, 48000, 2, 2**32 - 1), (-2, 3999, 2, 48000, 2, 0),
                               (-2, 44100, 2, 768001, 2, 0), (-2, 0, 0, 0, 0, 0), (-3, 44100, 0, 48000, 0, 0),
                               (-3, 44100, 9, 48000, 9, 0), (-3, 44100, 2, 48000, 1, 0)):
            with self.subTest(param=param):
                named, *sizes = buffer_sizes(PALIX, words(*param))
                self.assertEqual(named, result)
                self.assertTrue(min(sizes) > 1 if result == 0 else sizes == [0, 0], sizes)
        stream = resampler(48000, 48000)
        for rate, result in ((768001, -2), (23000, -4), (24000, 0)):
            self.assertEqual(PALIX("SetSamplingRate", stream.instance, rate), result, rate)


class Limiter(unittest.TestCase):
    def test_leaves_alone_what_16_bits_hold(self):
        """Within the threshold, samples are rounded to the nearest, ties to even, and delayed; also once the release
        of a peak is over."""
        for rate, delay in ((8000, 12), (44100, 66), (96000, 144), (250000, 288)):
            with self.subTest(rate=rate):
                samples = np.random.default_rng(2).integers(-32768 * 512, 32767 * 512, 3 * rate, endpoint=True)
                samples[rate] = 3 * FULL_SCALE
                output = limited(1, rate, samples)
                expected = np.append(np.zeros(delay), np.rint(samples[:-delay] / 512))
                assert_array_equal(output[:rate], expected[:rate])  # then the peak comes into view
                self.assertEqual(output[rate + delay], 32767)
                assert_array_equal(output[rate * 9 // 4:], expected[rate * 9 // 4:])  # its release is over

    def test_turns_down_without_a_click(self):
        """A constant in one channel shows the gain while the other channel peaks: down in a straight line until the
        peak, and up by 63 % within 80 ms; the same for both channels."""
        rate, delay, peak = 48000, 72, 10000
        samples = np.full((rate, 2), (FULL_SCALE // 2, 0))
        samples[peak, 1] = 2 * FULL_SCALE
        output = limited(2, rate, samples)[delay:]
        self.assertEqual(output[peak, 1], 32767)
        gain = output[:, 0] / 16384
        assert_allclose(gain[peak - delay - 1:peak + 1], np.linspace(1, 0.5, delay + 2), rtol=0, atol=5e-5)
        self.assertAlmostEqual(gain[peak + delay + rate * 8 // 100], 1 - 0.5 / np.e, delta=0.003)
        steps = np.diff(gain[peak:])
        self.assertGreaterEqual(steps.min(), 0)
        self.assertLessEqual(steps.max(), 0.5 / 3840 + 1e-4)

    def test_lets_go_behind_the_peak(self):
        """The gain is held no frame too long: visible at 700 Hz, where the window is two frames."""
        samples = np.full(200, FULL_SCALE // 2)
        samples[100] = 2 * FULL_SCALE
        output = limited(1, 700, samples)
        self.assertEqual(output[101], 32767)
        self.assertAlmostEqual(output[102], 8264, delta=20)

    def test_names_what_it_refuses(self):
        self.assertEqual(buffer_sizes(LIMITER, 257), (-1, 0, 0))
        for param in ((0, 48000, 0, 0), (3, 48000, 0, 0), (2, 0, 0, 0)):
            instance = c_void_p(1)
            self.assertEqual(LIMITER("Open", byref(instance), None, words(*param)), -2, param)
            self.assertIsNone(instance.value)


unittest.main()
