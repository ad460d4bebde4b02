#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Feeds examples/stream.c channels of different, constant levels: a byte lost or displaced changes a level or the length.
Its blocks are no whole frames, nor is the end. Usage: stream_test.py PROGRAM..."""
import array
import subprocess
import sys

LEVELS, FRAMES, SILENCE = [0.1, 0.22, -0.15, 0.31, 0.05, -0.28], 48000, 192
frame = b''.join(round(level * 2**23).to_bytes(3, 'little', signed=True) for level in LEVELS)
run = subprocess.run(sys.argv[1:], input=frame * FRAMES + b'\1\2\3\4\5', stdout=subprocess.PIPE,
                     stderr=subprocess.PIPE, check=True)
assert run.stderr == b'5 bytes at the end are no frame\n', run.stderr
samples = array.array('h', run.stdout)
frames = -(-(FRAMES + SILENCE) * 147 // 160)
assert len(samples) == 2 * frames, f'{len(samples)} samples, not of {frames} frames'
for channel in 0, 1:
    level = round(sum(LEVELS[channel::2]) / 6 * 2**15)
    inside = samples[2 * 200 + channel:2 * 44000:2]
    assert abs(min(inside) - level) <= 1 and abs(max(inside) - level) <= 1, (channel, level, min(inside), max(inside))
