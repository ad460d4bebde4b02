// SPDX-License-Identifier: Apache-2.0
// The host resampler's filter: the ratio of the rates, and the taps of an output at any fraction of an input frame.
//
//   h(t) = sinc(b * t) * kaiser(2 * t / taps)      b = 0.98 * min(1, L / M)      t in input frames
//
// 76 taps (M / L times as many when the rate falls) and a Kaiser window of beta 13: 0.02 dB loss at 0.9 of the lower
// Nyquist frequency, and at least 126 dB attenuation from 1.1 of it on.
#ifndef KESAUDIO_HOST_RESAMPLER_FILTER_DESIGN_H
#define KESAUDIO_HOST_RESAMPLER_FILTER_DESIGN_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <numeric>

namespace palix {

// L / M, output over input rate in lowest terms.
struct Ratio {
  uint32_t L = 0, M = 0;

  Ratio() = default;
  Ratio(uint32_t inRate, uint32_t outRate)
      : L(outRate / std::gcd(inRate, outRate)), M(inRate / std::gcd(inRate, outRate)) {}
  bool operator==(const Ratio&) const = default;

  double bandwidth() const { return L < M ? static_cast<double>(L) / M : 1; }  // of the input's
  uint32_t taps() const { return L < M ? 2 * ((38 * M + L - 1) / L) : 76; }
};

// Only the four basic operations, each rounded by itself: the same bits everywhere.

// To the nearest integer, |x| < 2^51.
inline double nearest(double x) { return (x + 0x1.8p52) - 0x1.8p52; }

template <size_t kTerms>
double polynomial(const std::array<double, kTerms>& coefficients, double x) {
  double sum = 0;
  for (size_t k = kTerms; k-- > 0;) sum = sum * x + coefficients[k];
  return sum;
}

// sin(pi * x) / (pi * x). The series takes the distance to the nearest integer, an angle of at most pi / 2; the sine
// is negated for odd integers.
inline double sinc(double x) {
  constexpr auto kSine = [] {  // sin(a) / a in powers of a^2
    std::array<double, 12> terms{1};
    for (size_t k = 1; k < 12; ++k) terms[k] = -terms[k - 1] / static_cast<double>(2 * k * (2 * k + 1));
    return terms;
  }();
  const double integer = nearest(x), odd = integer - 2 * nearest(integer / 2);  // odd: 0, or 1 or -1
  const double angle = std::numbers::pi * (x - integer);
  const double sine = (1 - 2 * odd * odd) * angle * polynomial(kSine, angle * angle);
  return x == 0 ? 1 : sine / (std::numbers::pi * x);
}

// The Kaiser window, -1 <= x <= 1, without its constant factor: I0(beta * sqrt(1 - x^2)).
inline double kaiser(double x) {
  constexpr double kBeta = 13;
  constexpr auto kBessel = [] {  // I0(a) in powers of (a / 2)^2
    std::array<double, 36> terms{1};
    for (size_t k = 1; k < 36; ++k) terms[k] = terms[k - 1] / static_cast<double>(k * k);
    return terms;
  }();
  return polynomial(kBessel, kBeta * kBeta / 4 * (1 - x * x));
}

// The taps of an output that stands p behind the input frame taps / 2 - 1, 0 <= p <= 1, normalised to a sum of one,
// so that a constant stays constant. scratch has room for `taps` numbers.
inline void makeRow(float* row, uint32_t taps, double bandwidth, double p, double* scratch) {
  constexpr double kCutoff = 0.98;  // of the lower Nyquist frequency, where the loss is 6 dB
  const double first = -p - (taps / 2 - 1);
  double sum = 0;
  for (uint32_t k = 0; k < taps; ++k) {
    const double t = first + k;
    scratch[k] = sinc(kCutoff * bandwidth * t) * kaiser(2 * t / taps);
  }
  for (uint32_t k = 0; k < taps; ++k) sum += scratch[k];
  for (uint32_t k = 0; k < taps; ++k) row[k] = static_cast<float>(scratch[k] / sum);
}

}  // namespace palix

#endif
