#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Finds the gains of the resampler's filter: prints kSpectrum of filter_design.h.

A linear program: of all sums of cosines over 60 frames, the one whose greatest gain in the stop band is least, while
the pass band keeps to its ripple. Needs Debian's python3-scipy; takes some seconds.
"""
import textwrap

import numpy as np
from scipy.optimize import linprog

SPAN, LAST = 60, 36  # frames; highest cosine
# Frequencies in cycles per frame: 0.5 is the lower Nyquist frequency.
PASS = np.linspace(0, 0.45, 8 * SPAN)
STOP = np.concatenate([0.55 + np.arange(1176) / (8 * SPAN), 3 + np.arange(2160) / (4 * SPAN) + 0.13 / SPAN])
# The ripple grows from -100 dB in the lower half of the band to 0.018 dB at its end.
RIPPLE = 1e-5 * 210 ** (np.maximum(PASS - 0.25, 0) / 0.2)
# Harmonics of the lower rate, where low notes have their images, are attenuated by 10 dB more.
NEAR_HARMONICS = (STOP > 0.7) & (abs(STOP - STOP.round()) < 0.07)
WEIGHT = np.where(NEAR_HARMONICS, 0.3, np.where(STOP > 0.6, 0.8, 1))


def responses(frequencies):
    """Gains at the frequencies (rows) of each cosine (columns)."""
    at, k = np.atleast_1d(frequencies)[:, None] * SPAN, np.arange(LAST + 1)
    gains = np.sinc(at - k) + np.sinc(at + k)
    gains[:, 0] /= 2
    return gains


def rows(gains, last):
    """Rows of a constraint; its last column is that of the stop band's gain, counted in millionths."""
    return np.column_stack([gains, np.broadcast_to(last, len(gains))])


passing, stopping = responses(PASS), responses(STOP) * 1e6
at_3_db = responses(0.95 / 2)
ends = (-1.0) ** np.arange(LAST + 1)[None]  # of the span
ends[0, 0] /= 2
solution = linprog(
    rows(np.zeros((1, LAST + 1)), 1)[0],  # least gain in the stop band
    A_ub=np.vstack([rows(passing, 0), rows(-passing, 0), rows(stopping, -WEIGHT), rows(-stopping, -WEIGHT),
                    rows(-at_3_db, 0)]),
    b_ub=np.concatenate([1 + RIPPLE, RIPPLE - 1, np.zeros(2 * len(STOP)), [-0.7079]]),
    # No step at the ends, and a gain of exactly 1 for a constant.
    A_eq=np.vstack([rows(ends, 0), rows(responses(0), 0)]), b_eq=[0, 1],
    bounds=(None, None), method="highs-ipm")
spectrum = solution.x[:-1].round(9)
spectrum[0] /= 2
print(textwrap.fill(", ".join(f"{gain:.9f}".rstrip("0") for gain in spectrum), 100))
