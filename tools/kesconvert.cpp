// SPDX-License-Identifier: Apache-2.0
// kesconvert: changes the channels, the sampling rate and the sample format of an audio file with kesaudio.
#include <fcntl.h>
#include <kesaudio/channel_converter.h>
#include <kesaudio/version.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <regex>

#include "audio_file.h"
#include "conversion.h"
#include "failure.h"
#include "files.h"
#include "layout.h"

namespace kesconvert {
namespace {

constexpr unsigned kMaxChannels = KES_CHANNEL_CONVERTER_MAX_CHANNELS;

constexpr const char* kExamples = R"(Examples:
  kesconvert film.wav film-stereo.flac --channels 2
      A 5.1 recording to stereo; the layout is taken from the file.
  kesconvert take.wav stereo.wav --channels 2 --layout 4.0
      The file does not say where its four channels belong, and they are not quad, so say it.
  kesconvert film.wav cd.wav --channels 2 --rate 44100
      Mixed first, then resampled: two channels instead of six.
  kesconvert film.wav cd.wav --channels 2 --rate 44100 --limit
      To 16 bits, with peaks that the mix makes too high turned down, not cut off.
  kesconvert stereo.wav surround.wav --channels 6 --upmix zero
      Left and right stay where they are, four silent channels follow.
  arecord -t raw -f S16_LE -r 48000 -c 2 | kesconvert - mono.wav --channels 1 --raw 48000:2:s16
      Raw PCM from a pipe.

The layout comes from --layout, else from the file; where neither says it, four channels are taken as quad and six as
5.1. Only a downmix to two channels depends on it: 3.0, 3.0-back, 2.1, quad and 5.1 have a mix of their own, 5.1-side,
5.0, 6.1 and 7.1 are mixed as 5.1, any other layout, and none, gets the pairwise average.)";

struct Options {
  std::string in;
  std::string out;
  std::optional<unsigned> channels;
  std::optional<ChannelMask> layout;
  std::optional<int> rate;
  std::optional<unsigned> sampleBytes;
  Wishes wishes;
  std::size_t blockFrames = 4096;
  std::optional<StreamFormat> raw;
};

// One line, whatever is in the names that it quotes.
void printLine(std::FILE* stream, std::string text) {
  std::ranges::replace_if(
      text, [](char c) { return std::iscntrl(static_cast<unsigned char>(c)) != 0; }, '?');
  std::fputs((text + '\n').c_str(), stream);
}

StreamFormat parseRaw(const std::string& text) {
  std::smatch parts;
  if (!std::regex_match(text, parts, std::regex("([1-9][0-9]{0,6}):([1-8]):s(16|24|32)")))
    failUsage("--raw {} is not RATE:CHANNELS:FORMAT; give 1 to 8 channels of s16, s24 or s32, e.g. 48000:2:s16",
              text);
  const auto number = [&](std::size_t part) { return static_cast<unsigned>(std::stoul(parts[part])); };
  return {static_cast<int>(number(1)), number(2), number(3) / 8};
}

// "44.1k" as "44100"; anything else as it is.
std::string parseRate(const std::string& text) {
  std::smatch parts;
  if (!std::regex_match(text, parts, std::regex("([0-9]{1,3})(?:\\.([0-9]{1,3}))?[kK]"))) return text;
  std::string fraction = parts[2];
  fraction.resize(3, '0');
  return std::to_string(std::stoi(parts[1]) * 1000 + std::stoi(fraction));
}

ChannelMask parseLayoutOption(const std::string& text) {
  if (const auto layout = parseLayout(text)) return *layout;
  failUsage("--layout {} is unknown; use a mask like 0x3F or one of {}", text, layoutNames());
}

// The exit code, when there is nothing more to do.
std::optional<int> parseArguments(int argc, char** argv, Options& options) {
  CLI::App app("Changes the channels, the sampling rate and the sample format of an audio file.", "kesconvert");
  app.footer(kExamples);
  app.set_version_flag("--version", fmt::format("kesconvert {}.{}.{}", KESAUDIO_VERSION_MAJOR, KESAUDIO_VERSION_MINOR,
                                                KESAUDIO_VERSION_PATCH));
  app.option_defaults()->always_capture_default();
  app.add_option("IN", options.in,
                 "file of 16, 24 or 32-bit PCM: WAV, RF64, W64, AIFF, CAF, FLAC or AU; - is standard input")
      ->required();
  app.add_option("OUT", options.out, "file, its container by its extension; - is standard output, a WAV")->required();
  app.add_option("-c,--channels", options.channels, "channels of the output, as many as the input's if not given")
      ->check(CLI::Range(1u, kMaxChannels));
  CLI::Option* const rate =
      app.add_option("-r,--rate", options.rate,
                     "sampling rate of the output in Hz or as 44.1k, the input's if not given")
          ->transform(parseRate)
          ->check(CLI::Range(kLeastRate, kMostRate).description(fmt::format("{} to {}", kLeastRate, kMostRate)));
  app.add_flag("--multichannel", options.wishes.multichannel,
               "resample stereo too as every other number of channels: by the multichannel resampler")
      ->needs(rate);
  app.add_option_function<std::string>(
      "--layout", [&](const std::string& text) { options.layout = parseLayoutOption(text); },
      "layout of the input: a mask like 0x3F or one of " + layoutNames());
  app.add_option_function<std::string>(
         "--format", [&](const std::string& text) { options.sampleBytes = std::stoul(text.substr(1)) / 8; },
         "samples of the output, the input's if not given")
      ->check(CLI::IsMember({"s16", "s24", "s32"}));
  app.add_flag("--limit", options.wishes.limit,
               "mix with headroom, and turn down what 16 bits cannot hold instead of clipping it; makes s16");
  std::string upmix = "duplicate";
  app.add_option("--upmix", upmix, "what fills new channels, the others in turn or silence")
      ->check(CLI::IsMember({"duplicate", "zero"}));
  app.add_option("--block", options.blockFrames, "frames per call of the library")->check(CLI::Range(1, 1 << 20));
  app.add_option_function<std::string>(
      "--raw", [&](const std::string& text) { options.raw = parseRaw(text); },
      "RATE:CHANNELS:FORMAT (s16, s24 in 3 bytes, s32) of raw PCM: of -, and of names without a container's "
      "extension");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& done) {  // --help or --version
    app.exit(done);
    if (!std::cout.flush()) failToWrite("standard output", errno);
    return 0;
  } catch (const CLI::ParseError& error) {
    failUsage("{}; see kesconvert --help", error.what());
  }
  if (options.out == "/dev/stdout") options.out = "-";
  options.wishes.addSilentChannels = upmix == "zero";
  if (options.wishes.limit && options.sampleBytes.value_or(2) != 2)
    failUsage("--limit makes samples of 16 bits; leave --format out, or --limit");
  return std::nullopt;
}

// Shows how far the work is, on a terminal, once it has lasted a second.
class Progress {
 public:
  explicit Progress(const std::optional<std::uint64_t>& allFrames) : allFrames_(allFrames) {}
  ~Progress() { clear(); }
  double seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

  void show(std::uint64_t frames) {
    if (!onTerminal_ || seconds() < next_) return;
    next_ = seconds() + 0.1;
    std::string text = fmt::format("{} frames", frames);
    if (allFrames_) {
      constexpr std::uint64_t kWidth = 50;
      const std::uint64_t all = std::max(*allFrames_, frames);  // a raw file may still grow
      text = fmt::format("[{:<{}}] {} %", std::string(frames * kWidth / all, '#'), kWidth, frames * 100 / all);
    }
    std::fputs(("\r" + text).c_str(), stderr);
  }
  void clear() {
    if (next_ > 1) std::fputs("\r\033[K", stderr);
    next_ = 1;
  }

 private:
  using Clock = std::chrono::steady_clock;
  std::optional<std::uint64_t> allFrames_;
  bool onTerminal_ = isatty(STDERR_FILENO) != 0;
  Clock::time_point start_ = Clock::now();
  double next_ = 1;  // seconds after the start
};

bool isRaw(const Options& options, const std::string& name) {
  return options.raw && (name == "-" || !containerOfName(name));
}

int outputContainer(const Options& options) {
  if (isRaw(options, options.out)) return SF_FORMAT_RAW;
  if (const auto container = containerOfName(options.out)) return *container;
  const std::filesystem::path out = options.out;
  std::error_code none;
  const bool isStream = out == "-" || (exists(out, none) && !is_regular_file(out, none));
  if (!isStream)
    fail("cannot write {}: its extension names no container; use .wav, .flac, .aiff or .caf", options.out);
  return SF_FORMAT_WAV;
}

void checkRaw(const Options& options) {
  for (const std::string& name : {options.in, options.out})
    if (!options.raw && (name.ends_with(".raw") || name.ends_with(".pcm")))
      failUsage("{} is raw PCM by its name; say what it holds with --raw, e.g. --raw 48000:2:s16", name);
  if (options.raw && !isRaw(options, options.in) && !isRaw(options, options.out))
    failUsage("neither {} nor {} is raw PCM; leave --raw out, or name one of them -", options.in, options.out);
}

// --raw also says what a raw output of another input will be; it cannot make it so.
void checkRawOutput(const StreamFormat& raw, const StreamFormat& in, const StreamFormat& out) {
  const bool channelsFit = raw.channels == out.channels || raw.channels == in.channels;
  if (raw.rate != out.rate || raw.sampleBytes != out.sampleBytes || !channelsFit)
    fail("--raw does not describe the output; give --raw {}:{}:s{}", out.rate, out.channels, out.sampleBytes * 8);
}

Form formOf(const StreamFormat& format) { return {format.rate, format.channels, integersOf(format.sampleBytes)}; }

void run(const Options& options) {
  checkRaw(options);
  const bool rawIn = isRaw(options, options.in);
  const int container = outputContainer(options);
  const bool rawOut = container == SF_FORMAT_RAW;

  const Descriptor input = openInput(options.in, !rawIn);
  AudioSource source(input, options.in, rawIn ? options.raw : std::nullopt);
  const StreamFormat& in = source.format;
  if (in.channels > kMaxChannels)
    fail("{} has {} channels; kesconvert takes 1 to {}", options.in, in.channels, kMaxChannels);
  if (options.layout) {
    source.layout = *options.layout;
    source.layoutOrigin = "from --layout";
  }
  const unsigned placed = positions(source.layout);
  if (placed > in.channels)
    fail("--layout {} places {} channels, but {} has {}; use a smaller layout", describe(source.layout), placed,
         options.in, in.channels);
  StreamFormat out = in;
  out.channels = options.channels.value_or(rawOut ? options.raw->channels : in.channels);
  out.rate = options.rate.value_or(in.rate);
  out.sampleBytes = options.wishes.limit ? 2 : options.sampleBytes.value_or(in.sampleBytes);
  if (rawOut && !rawIn) checkRawOutput(*options.raw, in, out);
  const Form from = formOf(in), to = formOf(out);
  const Plan plan = makePlan(from, source.layout, to, options.wishes);

  OutputFile output(options.out, !rawOut, input);
  const auto outFrames = source.frames ? std::optional(framesAt(*source.frames, in.rate, out.rate)) : std::nullopt;
  AudioSink sink(output, container, out, plan.layout, outFrames);

  const auto say = [&]<class... Args>(fmt::format_string<const Args&...> text, const Args&... args) {
    printLine(options.out == "-" ? stderr : stdout, fmt::format(text, args...));
  };
  say("input:  {}, {}, {} Hz, {} bits, {} ch, {}", options.in, source.container, in.rate, in.sampleBytes * 8,
      in.channels, source.frames ? fmt::format("{} frames", *source.frames) : "length unknown");
  say("layout: {}, {}", describe(source.layout), source.layoutOrigin);
  if (placed > 0 && placed < in.channels) say("layout: channels from {} on have no position", placed + 1);
  for (const std::string& description : plan.descriptions) say("{}", description);
  say("output: {}, {}, {} Hz, {} bits, {} ch, {}", options.out, sink.container, out.rate, out.sampleBytes * 8,
      out.channels, describe(plan.layout));
  if (sink.layoutTold != plan.layout)
    say("output: the container cannot tell that layout; readers will take it for {}", describe(sink.layoutTold));

  Progress progress(source.frames);
  const Report report = convert(source, plan.steps, to, sink, options.blockFrames,
                                [&](std::uint64_t frames) { progress.show(frames); });
  sink.finish();
  output.commit();
  progress.clear();

  const double audio = static_cast<double>(report.outFrames) / out.rate;
  const double time = progress.seconds();
  std::string loss = "nothing clipped";
  if (plan.limited)
    loss = decibelsOver16Bits(*plan.limited) > 0
               ? fmt::format("peaks up to {:.2f} dB over full scale limited", decibelsOver16Bits(*plan.limited))
               : "nothing to limit";
  else if (report.clippedSamples > 0)
    loss = fmt::format("{} samples clipped or at full scale{}", report.clippedSamples,
                       out.channels <= 2 ? "; --limit turns such peaks down" : "");
  say("done:   {} frames, {} to {} ch, {:.3f} s of audio in {:.3f} s ({:.0f} x real time), peak {:.2f} dBFS in, "
      "{:.2f} dBFS out, {}",
      report.outFrames, in.channels, out.channels, audio, time, audio / time, report.in.decibels(),
      report.out.decibels(), loss);
}

}  // namespace
}  // namespace kesconvert

int main(int argc, char** argv) {
  using namespace kesconvert;
  // A file must not be opened in the place of a closed standard stream, or messages would go into it.
  for (int fd = 0; fd >= 0 && fd <= STDERR_FILENO;) fd = open("/dev/null", O_RDONLY);
  // Writing fails instead, and the failure cleans up.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  std::string message;
  int code = kExitFailure;
  try {
    Options options;
    if (const auto done = parseArguments(argc, argv, options)) return *done;
    run(options);
    return 0;
  } catch (const Failure& failure) {
    message = failure.what();
    code = failure.exitCode;
  } catch (const std::bad_alloc&) {
    message = "out of memory; close other programs, or give a smaller --block";
  } catch (const std::exception& error) {
    message = error.what();
  }
  if (!message.empty()) printLine(stderr, "kesconvert: " + message);
  return code;
}
