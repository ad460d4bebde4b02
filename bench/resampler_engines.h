// SPDX-License-Identifier: Apache-2.0
// The resamplers to compare behind one interface: ours as a user reaches it, and those of Debian. All of them take
// and make interleaved frames and find out by themselves how they do it best.
#ifndef KESAUDIO_BENCH_RESAMPLER_ENGINES_H
#define KESAUDIO_BENCH_RESAMPLER_ENGINES_H

#include <kesaudio/resampler.h>
#include <samplerate.h>
#include <soxr.h>
#include <speex/speex_resampler.h>
#include <zita-resampler/resampler.h>
extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

constexpr size_t kBlockFrames = 1024;  // fed at a time, at most

enum class Sample { kS16, kS32, kFloat };

constexpr size_t bytesOf(Sample sample) { return sample == Sample::kS16 ? 2 : 4; }

inline void fromFloat(const float* from, size_t count, Sample sample, void* to) {
  switch (sample) {
    case Sample::kS16: return src_float_to_short_array(from, static_cast<short*>(to), static_cast<int>(count));
    case Sample::kS32: return src_float_to_int_array(from, static_cast<int*>(to), static_cast<int>(count));
    case Sample::kFloat: std::copy_n(from, count, static_cast<float*>(to));
  }
}
inline void toFloat(const void* from, size_t count, Sample sample, float* to) {
  switch (sample) {
    case Sample::kS16: return src_short_to_float_array(static_cast<const short*>(from), to, static_cast<int>(count));
    case Sample::kS32: return src_int_to_float_array(static_cast<const int*>(from), to, static_cast<int>(count));
    case Sample::kFloat: std::copy_n(static_cast<const float*>(from), count, to);
  }
}

struct Stream {
  uint32_t inRate, outRate, channels;
  Sample sample;

  bool isS16() const { return sample == Sample::kS16; }
  // Frames: what a block can make, and what an engine held back before.
  template <class Count = size_t>
  Count capacity() const {
    return static_cast<Count>(2 * kBlockFrames * outRate / inRate + 4096);
  }
};

// Takes frames of in, all of them, and returns how many it made of out, which has room for the stream's capacity.
using Engine = std::function<size_t(const void* in, size_t frames, void* out)>;

inline void require(bool succeeded) {
  if (!succeeded) throw std::runtime_error("a resampler refused a stream, or left some of its input");
}

// ---- one function an engine; the number is its setting of quality

template <int>
Engine kesAudio(const Stream& s) {
  std::shared_ptr<KesAudioSrcInC> record(new KesAudioSrcInC, [](KesAudioSrcInC* r) {
    r->Close(r);
    delete r;
  });
  InitKesAudioSrcInC(record.get());
  const bool isMulti = s.channels > 2;
  const auto open = isMulti ? record->MultiChannel_Open : record->Open;
  require(open(record.get(), s.inRate, s.channels, s.outRate, s.channels,
               s.isS16() ? KES_RESAMPLER_S16 : KES_RESAMPLER_S32) == KES_OK);
  const size_t frameBytes = s.channels * bytesOf(s.sample);
  return [=, process = isMulti ? record->MultiChannel_Process : record->Process](const void* in, size_t frames,
                                                                                 void* out) {
    auto inBytes = static_cast<uint32_t>(frames * frameBytes);
    auto outBytes = static_cast<uint32_t>(s.capacity() * frameBytes);
    require(process(record.get(), in, &inBytes, out, &outBytes) == KES_OK && inBytes == 0);
    return outBytes / frameBytes;
  };
}

template <int kTaps>
Engine swresample(const Stream& s) {
  AVChannelLayout layout;
  av_channel_layout_default(&layout, static_cast<int>(s.channels));
  const AVSampleFormat format = s.isS16() ? AV_SAMPLE_FMT_S16 : AV_SAMPLE_FMT_FLT;
  SwrContext* made = nullptr;
  require(swr_alloc_set_opts2(&made, &layout, format, static_cast<int>(s.outRate), &layout, format,
                              static_cast<int>(s.inRate), 0, nullptr) == 0);
  std::shared_ptr<SwrContext> context(made, [](SwrContext* c) { swr_free(&c); });
  require(av_opt_set_int(made, "filter_size", kTaps, 0) == 0 && swr_init(made) == 0);
  return [=](const void* in, size_t frames, void* out) {
    const auto* from = static_cast<const uint8_t*>(in);
    auto* to = static_cast<uint8_t*>(out);
    const int count = swr_convert(context.get(), &to, s.capacity<int>(), &from, static_cast<int>(frames));
    require(count >= 0);
    return static_cast<size_t>(count);
  };
}

template <int kRecipe>
Engine soxR(const Stream& s) {
  const soxr_datatype_t type = s.isS16() ? SOXR_INT16_I : SOXR_FLOAT32_I;
  soxr_io_spec_t io = soxr_io_spec(type, type);
  io.flags = SOXR_NO_DITHER;  // as all the others
  const soxr_quality_spec_t quality = soxr_quality_spec(kRecipe, 0);
  std::shared_ptr<struct soxr> resampler(
      soxr_create(s.inRate, s.outRate, s.channels, nullptr, &io, &quality, nullptr), soxr_delete);
  require(resampler != nullptr);
  return [=](const void* in, size_t frames, void* out) {
    size_t taken = 0, made = 0;
    require(!soxr_process(resampler.get(), in, frames, &taken, out, s.capacity(), &made) && taken == frames);
    return made;
  };
}

template <int kQuality>
Engine speex(const Stream& s) {
  std::shared_ptr<SpeexResamplerState> state(speex_resampler_init(s.channels, s.inRate, s.outRate, kQuality, nullptr),
                                             speex_resampler_destroy);
  require(state != nullptr);
  return [=](const void* in, size_t frames, void* out) {
    auto taken = static_cast<uint32_t>(frames), made = s.capacity<uint32_t>();
    if (s.isS16())
      speex_resampler_process_interleaved_int(state.get(), static_cast<const int16_t*>(in), &taken,
                                              static_cast<int16_t*>(out), &made);
    else
      speex_resampler_process_interleaved_float(state.get(), static_cast<const float*>(in), &taken,
                                                static_cast<float*>(out), &made);
    require(taken == frames);
    return size_t{made};
  };
}

template <int kHalfTaps>
Engine zita(const Stream& s) {
  const auto resampler = std::make_shared<Resampler>();
  require(resampler->setup(s.inRate, s.outRate, s.channels, kHalfTaps) == 0);
  return [=](const void* in, size_t frames, void* out) {
    resampler->inp_count = static_cast<unsigned>(frames);
    resampler->inp_data = const_cast<float*>(static_cast<const float*>(in));  // it only reads
    resampler->out_count = s.capacity<unsigned>();
    resampler->out_data = static_cast<float*>(out);
    require(resampler->process() == 0 && resampler->inp_count == 0);
    return s.capacity() - resampler->out_count;
  };
}

template <int kConverter>
Engine samplerate(const Stream& s) {
  std::shared_ptr<SRC_STATE> state(src_new(kConverter, static_cast<int>(s.channels), nullptr), src_delete);
  require(state != nullptr);
  return [=](const void* in, size_t frames, void* out) {
    SRC_DATA data = {};
    data.data_in = static_cast<const float*>(in);
    data.data_out = static_cast<float*>(out);
    data.input_frames = static_cast<long>(frames);
    data.output_frames = s.capacity<long>();
    data.src_ratio = static_cast<double>(s.outRate) / s.inRate;
    require(src_process(state.get(), &data) == 0 && data.input_frames_used == data.input_frames);
    return static_cast<size_t>(data.output_frames_gen);
  };
}

// One that knows float alone: it gets 16-bit samples by way of float.
template <Engine (*kMake)(const Stream&)>
Engine byFloat(const Stream& s) {
  if (!s.isS16()) return kMake(s);
  return
      [=, engine = kMake(s), floatIn = std::vector<float>(kBlockFrames * s.channels),
       floatOut = std::vector<float>(s.capacity() * s.channels)](const void* in, size_t frames, void* out) mutable {
        toFloat(in, frames * s.channels, Sample::kS16, floatIn.data());
        const size_t made = engine(floatIn.data(), frames, floatOut.data());
        fromFloat(floatOut.data(), made * s.channels, Sample::kS16, out);
        return made;
      };
}

struct EngineType {
  const char* name;
  Sample wide;  // its samples where a job is not 16-bit
  Engine (*make)(const Stream& stream);
};

inline constexpr EngineType kEngines[] = {
    {"kesaudio", Sample::kS32, kesAudio<0>},
    {"libswresample, default", Sample::kFloat, swresample<32>},
    {"libswresample, 64 taps", Sample::kFloat, swresample<64>},
    {"SoXR HQ", Sample::kFloat, soxR<SOXR_HQ>},
    {"SoXR VHQ", Sample::kFloat, soxR<SOXR_VHQ>},
    {"zita, 48", Sample::kFloat, byFloat<zita<48>>},
    {"speexdsp q5", Sample::kFloat, speex<5>},
    {"speexdsp q10", Sample::kFloat, speex<10>},
    {"libsamplerate medium", Sample::kFloat, byFloat<samplerate<SRC_SINC_MEDIUM_QUALITY>>},
    {"libsamplerate best", Sample::kFloat, byFloat<samplerate<SRC_SINC_BEST_QUALITY>>},
};

#endif
