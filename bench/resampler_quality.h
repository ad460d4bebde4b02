// SPDX-License-Identifier: Apache-2.0
// What a resampler does to sines and to an impulse.
//
// Every rate and every sine is a whole number of hertz, and exactly one second of output is transformed. So each
// sine, image, alias and harmonic is one bin of the spectrum: there is no window, and nothing leaks from bin to bin.
#ifndef KESAUDIO_BENCH_RESAMPLER_QUALITY_H
#define KESAUDIO_BENCH_RESAMPLER_QUALITY_H

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <numeric>

#include "resampler_engines.h"

struct Quality {
  double latency;    // input frames from an impulse to its peak in the output, at most
  double loss;       // dB, at 0.9 of the lower Nyquist frequency
  double worstSpur;  // dB re the sine, of all that lands below that frequency and is not the sine
  double thdN;       // dB, 997 Hz at -1 dB of full scale
  double thdN16;     // dB, the same in 16-bit samples
  double minus3dB;   // where the loss is 3 dB, of the lower Nyquist frequency
};

using Signal = std::vector<double>;  // one channel, full scale is 1

constexpr double kAmplitude = 0.8912509381337456;  // -1 dB

inline double decibels(double ratio) { return 20 * std::log10(ratio); }
inline double lowerNyquist(const Stream& s) { return std::min(s.inRate, s.outRate) / 2.0; }

inline Signal sine(uint32_t rate, uint32_t hertz, size_t frames) {
  Signal signal(frames);
  for (uint64_t n = 0; n < frames; ++n)  // the argument is reduced in whole numbers
    signal[n] = kAmplitude * std::sin(2 * std::numbers::pi * static_cast<double>(n * hertz % rate) / rate);
  return signal;
}

// The amplitudes at 0, 1, 2, ... Hz of a second of a signal.
inline Signal spectrum(const double* second, uint32_t rate) {
  Signal in(second, second + rate);
  std::vector<std::complex<double>> bins(rate / 2 + 1);
  const fftw_plan plan = fftw_plan_dft_r2c_1d(static_cast<int>(rate), in.data(),
                                              reinterpret_cast<fftw_complex*>(bins.data()), FFTW_ESTIMATE);
  fftw_execute(plan);
  fftw_destroy_plan(plan);
  Signal amplitudes(bins.size());
  for (size_t k = 0; k < bins.size(); ++k) amplitudes[k] = std::abs(bins[k]) * (2 * k % rate ? 2.0 : 1.0) / rate;
  return amplitudes;
}

// The output for a signal that is fed block by block, and how much there was of it after each.
inline Signal resampled(const EngineType& type, const Stream& stream, const Signal& signal, size_t blockFrames,
                        std::vector<size_t>* framesMade = nullptr) {
  const Engine engine = type.make(stream);
  std::vector<float> block(stream.capacity());
  std::vector<std::byte> in(blockFrames * bytesOf(stream.sample)), out(block.size() * bytesOf(stream.sample));
  Signal all;
  for (size_t begin = 0; begin + blockFrames <= signal.size(); begin += blockFrames) {
    for (size_t f = 0; f < blockFrames; ++f) block[f] = static_cast<float>(signal[begin + f]);
    fromFloat(block.data(), blockFrames, stream.sample, in.data());
    const size_t made = engine(in.data(), blockFrames, out.data());
    toFloat(out.data(), made, stream.sample, block.data());
    all.insert(all.end(), block.data(), block.data() + made);
    if (framesMade) framesMade->push_back(all.size());
  }
  return all;
}

// The spectrum of a resampled sine, once it lasts a quarter of a second.
inline Signal sineSpectrum(const EngineType& type, const Stream& stream, uint32_t hertz) {
  const Signal out = resampled(type, stream, sine(stream.inRate, hertz, 3 * stream.inRate / 2), kBlockFrames);
  if (out.size() < 5 * stream.outRate / 4) throw std::runtime_error("a resampler makes too little output");
  return spectrum(out.data() + stream.outRate / 4, stream.outRate);
}

inline double loss(const EngineType& type, const Stream& stream, uint32_t hertz) {
  return -decibels(sineSpectrum(type, stream, hertz)[hertz] / kAmplitude);
}

inline double thdN(const Signal& amplitudes, uint32_t hertz) {
  double rest = 0;
  for (size_t k = 1; k < amplitudes.size(); ++k) rest += k == hertz ? 0 : amplitudes[k] * amplitudes[k];
  return decibels(amplitudes[hertz] / std::sqrt(rest));
}

// Of sines all over the input's band. What lands below the limit are their images, and those sines themselves that
// are too high for the output, as aliases. The first two of the list land, either way, on the limit itself, where a
// filter has had the least room to suppress them.
inline double worstSpur(const EngineType& type, const Stream& stream) {
  constexpr uint32_t kStep = 173;  // Hz
  const auto limit = static_cast<uint32_t>(0.9 * lowerNyquist(stream));
  std::vector<uint32_t> sines = {stream.outRate - limit, stream.inRate + limit - stream.outRate};
  for (uint32_t hertz = kStep; hertz < stream.inRate / 2; hertz += kStep) sines.push_back(hertz);
  double worst = 0;
  for (const uint32_t hertz : sines) {
    if (hertz >= stream.inRate / 2) continue;
    const Signal amplitudes = sineSpectrum(type, stream, hertz);
    for (uint32_t k = 0; k <= limit; ++k)
      if (k != hertz) worst = std::max(worst, amplitudes[k]);
  }
  return decibels(worst / kAmplitude);
}

// Fed frame by frame, so that it is the engine's own. The peak of one impulse tells which output belongs to which
// input frame; the latency, which varies with engines that work in blocks, is then that of every input frame which
// coincides with an output.
inline double latency(const EngineType& type, const Stream& stream) {
  const uint32_t divisor = std::gcd(stream.inRate, stream.outRate);
  const size_t inStep = stream.inRate / divisor, outStep = stream.outRate / divisor, impulse = 8192 / inStep;
  Signal signal(stream.inRate / 2);
  signal[impulse * inStep] = kAmplitude;
  std::vector<size_t> framesMade;
  const Signal out = resampled(type, stream, signal, 1, &framesMade);
  const auto peak = std::max_element(out.begin(), out.end());
  const auto offset = peak - out.begin() - static_cast<ptrdiff_t>(impulse * outStep);
  size_t longest = 0;
  for (size_t i = impulse;; ++i) {
    const auto output = static_cast<size_t>(static_cast<ptrdiff_t>(i * outStep) + offset);
    const auto made = std::upper_bound(framesMade.begin(), framesMade.end(), output);
    if (made == framesMade.end()) return static_cast<double>(longest);
    longest = std::max(longest, static_cast<size_t>(made - framesMade.begin()) - i * inStep);
  }
}

inline double minus3dB(const EngineType& type, const Stream& stream) {
  const double nyquist = lowerNyquist(stream);
  auto below = static_cast<uint32_t>(nyquist / 2), above = static_cast<uint32_t>(nyquist);
  while (above - below > 1) {
    const uint32_t middle = (below + above) / 2;
    (loss(type, stream, middle) < 3 ? below : above) = middle;
  }
  return below / nyquist;
}

inline Quality quality(const EngineType& type, uint32_t inRate, uint32_t outRate) {
  const Stream wide = {inRate, outRate, 1, type.wide}, s16 = {inRate, outRate, 1, Sample::kS16};
  return {latency(type, wide),
          loss(type, wide, static_cast<uint32_t>(0.9 * lowerNyquist(wide))),
          worstSpur(type, wide),
          thdN(sineSpectrum(type, wide, 997), 997),
          thdN(sineSpectrum(type, s16, 997), 997),
          minus3dB(type, wide)};
}

// What the measurement itself finds: the strongest other bin of a sine that no resampler touched, in double or float.
template <class Float>
double measuringFloor() {
  Signal signal = sine(48000, 997, 48000);
  for (double& value : signal) value = static_cast<Float>(value);
  Signal amplitudes = spectrum(signal.data(), 48000);
  amplitudes[997] = 0;
  return decibels(*std::max_element(amplitudes.begin(), amplitudes.end()) / kAmplitude);
}

#endif
