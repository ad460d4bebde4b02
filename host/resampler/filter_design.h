// SPDX-License-Identifier: Apache-2.0
// The host resampler's filter: the ratio of the rates, and the taps of an output at any fraction of an input frame.
//
//   h(t) = sum over k of kSpectrum[k] * cos(2 * pi * k * t / 60) / 30     |t| < 30, t in frames of the lower rate
//
// kSpectrum[k] is the gain at k / 30 of the lower Nyquist frequency. Also between these points the gain is within
// 0.0001 dB of 1 up to half of that frequency and within 0.02 dB up to 0.9 of it; it is -3 dB at 0.952, and at most
// -131 dB from 1.1 on.
#ifndef KESAUDIO_HOST_RESAMPLER_FILTER_DESIGN_H
#define KESAUDIO_HOST_RESAMPLER_FILTER_DESIGN_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <numbers>
#include <numeric>

#include "host/resampler/polyphase.h"

namespace palix {

constexpr uint32_t kReach = 30;  // frames of the lower rate on either side of an output

// L / M, output over input rate in lowest terms.
struct Ratio {
  uint32_t L = 0, M = 0;

  Ratio() = default;
  Ratio(uint32_t inRate, uint32_t outRate)
      : L(outRate / std::gcd(inRate, outRate)), M(inRate / std::gcd(inRate, outRate)) {}
  bool operator==(const Ratio&) const = default;

  double bandwidth() const { return L < M ? static_cast<double>(L) / M : 1; }  // of the input's
  uint32_t taps() const { return L < M ? 2 * ((kReach * M + L - 1) / L) : 2 * kReach; }
};

// Found by filter_design.py. The first gain is halved.
constexpr double kSpectrum[] = {
    0.5,         0.999990334, 1.000009995,  0.999990265,  1.00000925,  0.999991362, 1.000007951, 0.999992792,
    1.000006439, 0.99999427,  1.000005097,  0.999995414,  1.000004279, 0.99999568,  1.00000493,  0.999992864,
    1.000013141, 0.999979139, 1.000031169,  0.999956008,  1.000055909, 0.999941324, 1.000033946, 1.000049578,
    0.999764252, 1.000555884, 0.999069638,  0.9979,       0.881711291, 0.54452291,  0.191422375, 0.030682654,
    0.001380893, 0.000000266, -0.000000204, -0.000000182, 0.000000213};

// h at 8 points, by Clenshaw's recurrence for cosines of multiples. Only the four basic operations, each rounded by
// itself: the same bits everywhere.
inline void impulseResponse(const double (&t)[kBlock], double (&h)[kBlock]) {
  constexpr auto kSine = [] {  // sin(a) / a in powers of a^2, |a| <= pi / 2
    std::array<double, 12> terms{1};
    for (size_t k = 1; k < 12; ++k) terms[k] = -terms[k - 1] / static_cast<double>(2 * k * (2 * k + 1));
    return terms;
  }();
  typedef double Doubles __attribute__((vector_size(4 * kBlockLanes)));
  constexpr uint32_t kVectors = kBlock * sizeof(double) / sizeof(Doubles);
  Doubles at[kVectors], twice[kVectors], next[kVectors] = {}, after[kVectors] = {};  // sums from k + 1 and k + 2 on
  std::memcpy(at, t, sizeof at);
  unrolled<kVectors>([&](auto i) __attribute__((always_inline)) {
    const Doubles angle = std::numbers::pi / (2 * kReach) * at[i], square = angle * angle;
    Doubles sine = {};
    for (size_t k = kSine.size(); k-- > 0;) sine = sine * square + kSine[k];
    sine *= angle;
    twice[i] = 2 - 4 * (sine * sine);  // of the cosine of twice the angle
  });
  for (size_t k = std::size(kSpectrum); k-- > 1;) {
    unrolled<kVectors>([&](auto i) __attribute__((always_inline)) {
      const Doubles sum = twice[i] * next[i] + (kSpectrum[k] - after[i]);
      after[i] = next[i];
      next[i] = sum;
    });
  }
  unrolled<kVectors>([&](auto i) __attribute__((always_inline)) {
    at[i] = twice[i] / 2 * next[i] + (kSpectrum[0] - after[i]);
  });
  std::memcpy(h, at, sizeof h);
  for (uint32_t i = 0; i < kBlock; ++i) h[i] = t[i] > -double{kReach} && t[i] < double{kReach} ? h[i] / kReach : 0;
}

// Makes a row of `floats` taps, a multiple of 8, whose blocks lie blockFloats apart. The first tap is for the input
// frame that stands `first` frames behind the output. Taps beyond the filter's reach are zero.
inline void makeRow(float* row, uint32_t floats, size_t blockFloats, double bandwidth, double first) {
  for (uint32_t k = 0; k < floats; k += kBlock, row += blockFloats) {
    double t[kBlock], h[kBlock];
    for (uint32_t i = 0; i < kBlock; ++i) t[i] = (first + (k + i)) * bandwidth;
    impulseResponse(t, h);
    for (uint32_t i = 0; i < kBlock; ++i) row[i] = static_cast<float>(h[i] * bandwidth);
  }
}

}  // namespace palix

#endif
