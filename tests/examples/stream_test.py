#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Feeds examples/stream.c channels that rise from different levels: a byte lost, displaced or repeated bends the
straight lines that must come out, or changes the length. Its blocks are no whole frames, nor is the end.
Usage: stream_test.py PROGRAM..."""
import array
import subprocess
import sys

LEVELS, RISE, FRAMES, SILENCE = [0.1, 0.22, -0.15, 0.31, 0.05, -0.28], 0.6, 48000, 192
surround = b''.join(round((level + RISE * i / FRAMES) * 2**23).to_bytes(3, 'little', signed=True)
                    for i in range(FRAMES) for level in LEVELS)
run = subprocess.run(sys.argv[1:], input=surround + b'\1\2\3\4\5', stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                     check=True)
assert run.stderr == b'5 bytes at the end are no frame\n', run.stderr
samples = array.array('h', run.stdout)
frames = -(-(FRAMES + SILENCE) * 147 // 160)
assert len(samples) == 2 * frames, f'{len(samples)} samples, not of {frames} frames'
rise = RISE / 2 * 2**15 / FRAMES * 160 / 147  # of a side, a frame
for side in 0, 1:
    line = samples[2 * 400 + side:2 * 44000:2]
    assert abs(line[0] - sum(LEVELS[side::2]) / 6 * 2**15 - 295 * rise) < 3, f'side {side} begins at {line[0]}'
    bends = [sample - line[0] - rise * i for i, sample in enumerate(line)]
    assert max(map(abs, bends)) < 2, f'side {side} bends by {min(bends)} to {max(bends)}'
