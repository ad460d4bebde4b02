#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the sound of a resampler by sines and an impulse, for engines_quality.py and for the benchmark.

All rates and sines are whole numbers of hertz, and exactly one second of output is transformed. So each sine, image,
alias and harmonic is one bin of the spectrum: no window is needed, and nothing leaks between bins.

Usage: resampler_quality.py RESAMPLER_BENCH    prints tables of all engines of the benchmark
"""
import math
import subprocess
import sys
from typing import NamedTuple

import numpy as np

AMPLITUDE = 10 ** (-1 / 20)  # -1 dB of full scale
RATE_PAIRS = (44100, 48000), (48000, 44100), (48000, 16000)


def decibels(ratio):
    return 20 * np.log10(ratio + 1e-12)


class Quality(NamedTuple):
    loss: float       # dB, at 0.9 of the lower Nyquist frequency
    worst_spur: float  # dB re the sine, below that frequency
    thd_n: float      # dB, 997 Hz
    thd_n_16: float   # dB, the same in 16-bit samples
    minus_3_db: float  # where the loss is 3 dB, of the lower Nyquist frequency

    def is_good(self):
        return abs(self.loss) < 0.05 and self.worst_spur < -120 and self.thd_n > 120 and self.minus_3_db >= 0.93


def spectrum(resample, in_rate, out_rate, hertz):
    """Amplitudes at 0, 1, 2, ... Hz relative to the sine, from a quarter of a second on."""
    phases = np.arange(3 * in_rate // 2) * hertz % in_rate  # reduced while exact integers
    second = resample(AMPLITUDE * np.sin(2 * np.pi * phases / in_rate))[out_rate // 4:][:out_rate]
    assert len(second) == out_rate, "a resampler makes too little output"
    return abs(np.fft.rfft(second)) * 2 / out_rate / AMPLITUDE


def thd_n(amplitudes, hertz=997):
    rest = np.delete(amplitudes, (0, hertz))
    return decibels(amplitudes[hertz] / math.sqrt(rest @ rest))


def measure(resample, resample16, in_rate, out_rate):
    """resample and resample16 take and return arrays of one channel, full scale 1."""
    nyquist = min(in_rate, out_rate) / 2
    limit = int(0.9 * nyquist)
    bins = lambda hertz: spectrum(resample, in_rate, out_rate, hertz)
    # The first two sines have their image or alias on the limit itself, where the filter attenuates least.
    sines = [out_rate - limit, in_rate + limit - out_rate, *range(173, in_rate // 2, 173)]
    spurs = [np.delete(bins(hertz)[:limit + 1], hertz if hertz <= limit else []).max()
             for hertz in sines if 0 < hertz < in_rate / 2]
    below, above = int(nyquist / 2), int(nyquist)
    while above - below > 1:
        middle = (below + above) // 2
        below, above = (middle, above) if -decibels(bins(middle)[middle]) < 3 else (below, middle)
    return Quality(-decibels(bins(limit)[limit]), decibels(max(spurs)), thd_n(bins(997)),
                   thd_n(spectrum(resample16, in_rate, out_rate, 997)), below / nyquist)


def latency(blocks_of, in_rate, out_rate):
    """Input frames that an output waits for, at most, when fed frame by frame. The peak of an impulse tells which
    output belongs to which input frame."""
    divisor = math.gcd(in_rate, out_rate)
    in_step, out_step = in_rate // divisor, out_rate // divisor
    impulse = 8192 // in_step
    signal = np.zeros(in_rate // 2)
    signal[impulse * in_step] = AMPLITUDE
    blocks = blocks_of(signal)
    made = np.cumsum([len(block) for block in blocks])
    offset = int(np.concatenate(blocks).argmax()) - impulse * out_step
    outputs = np.arange(impulse, (made[-1] - 1 - offset) // out_step + 1)
    return (np.searchsorted(made, outputs * out_step + offset, "right") - outputs * in_step).max()


def main(bench):
    def blocks_of(engine, rates, sample, block, signal):
        output = subprocess.run([bench, "--resample", engine, *map(str, rates), sample, str(block)], check=True,
                                input=signal.astype(np.float32).tobytes(), stdout=subprocess.PIPE).stdout
        numbers, blocks, at = np.frombuffer(output, np.float32), [], 0
        while at < len(numbers):
            end = at + 1 + int(numbers[at])
            blocks.append(numbers[at + 1:end].astype(float))
            at = end
        return blocks

    engines = subprocess.run([bench, "--engines"], check=True, stdout=subprocess.PIPE, text=True).stdout.splitlines()
    for rates in RATE_PAIRS:
        print(f"\n{rates[0]} to {rates[1]} Hz\n\n| engine | latency, samples | loss at 0.9 Nyquist, dB | worst spur below it, "
              "dB | THD+N, dB | THD+N 16-bit, dB | -3 dB at | good |\n|---|---|---|---|---|---|---|---|")
        for engine in engines:
            resample = [lambda signal, sample=sample: np.concatenate(blocks_of(engine, rates, sample, 1024, signal))
                        for sample in ("wide", "s16")]
            q = measure(*resample, *rates)
            waits = latency(lambda signal: blocks_of(engine, rates, "wide", 1, signal), *rates)
            print(f"| {engine} | {waits} | {q.loss:.3f} | {q.worst_spur:.1f} | {q.thd_n:.1f} | {q.thd_n_16:.1f} | "
                  f"{q.minus_3_db:.3f} | {'yes' if q.is_good() else 'no'} |", flush=True)
    print("\nGood: loss below 0.05 dB, spurs below -120 dB, THD+N above 120 dB, -3 dB not before 0.93.")


if __name__ == "__main__":
    main(sys.argv[1]) if len(sys.argv) == 2 else sys.exit(__doc__)
