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
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <regex>
#include <set>
#include <span>

#include "audio_file.h"
#include "conversion.h"
#include "failure.h"
#include "files.h"
#include "layout.h"

namespace kesconvert {
namespace {

namespace fs = std::filesystem;

constexpr unsigned kMaxChannels = KES_CHANNEL_CONVERTER_MAX_CHANNELS;

constexpr const char* kExamples = R"(Examples:
  kesconvert take.wav stereo.wav --channels 2 --layout 4.0
      The four channels have no layout in the file, and are not quad.
  kesconvert film.wav cd.wav --channels 2 --rate 44100 --limit
      To 16 bits; peaks of the mix over full scale are turned down, not clipped.
  kesconvert stereo.wav surround.wav --channels 6 --upmix zero
      Left and right stay where they are, four silent channels follow.
  kesconvert *.mp3 *.flac stereo/ --channels 2
      Several files, to a folder.
  arecord -t raw -f S16_LE -r 48000 -c 2 | kesconvert - mono.wav --channels 1 --raw 48000:2:s16
      Raw PCM from a pipe.

The manual page kesconvert(1) says which layout is assumed, and which mix it gets.)";

struct Options {
  std::vector<std::string> files;  // inputs, and the output
  std::optional<unsigned> channels;
  std::optional<ChannelMask> layout;
  std::optional<int> rate;
  std::optional<PcmFormat> samples;
  ConversionOptions conversion;
  std::size_t blockFrames = 4096;
  std::optional<StreamFormat> raw;
};

bool isFolder(const std::string& name) {
  std::error_code none;
  return fs::is_directory(name, none);
}

// Prints one line: control characters, which names may have, become question marks.
void printLine(std::FILE* stream, std::string text) {
  std::ranges::replace_if(
      text, [](char c) { return std::iscntrl(static_cast<unsigned char>(c)) != 0; }, '?');
  std::fputs((text + '\n').c_str(), stream);
}

const std::map<std::string, PcmFormat> kSampleNames = {
    {"s16", KES_PCM_S16}, {"s24", KES_PCM_S24_PACKED}, {"s32", KES_PCM_S32}};

StreamFormat parseRaw(const std::string& text) {
  std::smatch parts;
  if (!std::regex_match(text, parts, std::regex("([1-9][0-9]{0,6}):([1-8]):(s16|s24|s32)")))
    failUsage("--raw {} is not RATE:CHANNELS:FORMAT; give 1 to 8 channels of s16, s24 or s32, e.g. 48000:2:s16",
              text);
  return {std::stoi(parts[1]), static_cast<unsigned>(std::stoul(parts[2])), kSampleNames.at(parts[3])};
}

// "44.1k" as "44100"; anything else as it is.
std::string parseRate(const std::string& text) {
  std::smatch parts;
  if (!std::regex_match(text, parts, std::regex("([0-9]{1,3})(?:\\.([0-9]{1,3}))?[kK]"))) return text;
  std::string fraction = parts[2];
  fraction.resize(3, '0');
  return std::to_string(std::stoi(parts[1]) * 1000 + std::stoi(fraction));
}

// Names options in CLI11's messages as they were typed: CLI11 takes the long name.
std::string asTyped(std::string message, const std::vector<std::string>& arguments) {
  const auto isTyped = [&](const char* name) {
    return std::ranges::any_of(arguments, [&](const std::string& argument) { return argument.starts_with(name); });
  };
  for (const auto& [typed, full] : {std::pair("-c", "--channels"), std::pair("-r", "--rate")})
    if (message.starts_with(full) && isTyped(typed) && !isTyped(full)) message.replace(0, std::strlen(full), typed);
  return message;
}

struct Usage : CLI::Formatter {
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: kesconvert [OPTIONS] IN... OUT\n";
  }
};

// Returns the exit code if there is nothing to convert (--help, --version).
std::optional<int> parseArguments(int argc, char** argv, Options& options) {
  CLI::App app("Changes the channels, the sampling rate and the sample format of audio files.", "kesconvert");
  app.footer(kExamples);
  app.set_version_flag("--version", fmt::format("kesconvert {}.{}.{}", KESAUDIO_VERSION_MAJOR, KESAUDIO_VERSION_MINOR,
                                                KESAUDIO_VERSION_PATCH));
  app.option_defaults()->always_capture_default();
  app.formatter(std::make_shared<Usage>());
  app.add_option(
      "IN... OUT", options.files,
      "files that libsndfile reads (WAV, RF64, W64, AIFF, CAF, AU, FLAC, Ogg, Opus, MP3 and others), then the "
      "output: a file, its container by its extension, or a folder; - is standard input, or standard "
      "output as WAV");
  app.add_option("-c,--channels", options.channels, "channels of the output, as many as the input's if not given")
      ->check(CLI::Range(1u, kMaxChannels));
  app.add_option("-r,--rate", options.rate, "sampling rate of the output in Hz or as 44.1k, the input's if not given")
      ->transform(parseRate)
      ->check(CLI::Range(kMinRate, kMaxRate).description(fmt::format("{} to {}", kMinRate, kMaxRate)));
  app.add_option_function<std::string>(
      "--layout", [&](const std::string& text) { options.layout = parseLayout(text); },
      "layout of the input: a mask like 0x3F or one of " + layoutNames());
  app.add_option_function<std::string>(
         "--format", [&](const std::string& text) { options.samples = kSampleNames.at(text); },
         "samples of the output, the input's if not given; s24 for float, s16 for lossy formats")
      ->check(CLI::IsMember({"s16", "s24", "s32"}));
  app.add_flag("--limit", options.conversion.limit,
               "mix with headroom, and turn peaks over full scale down instead of clipping them; makes s16");
  std::string upmix = "duplicate";
  app.add_option("--upmix", upmix, "fills new channels with the input's in turn, or with silence")
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
    failUsage("{}; see kesconvert --help", asTyped(error.what(), {argv + 1, argv + argc}));
  }
  if (options.files.size() < 2)
    failUsage("{} is required; see kesconvert --help", options.files.empty() ? "IN" : "OUT");
  if (std::ranges::count(options.files, "") > 0) failUsage("the name of a file is empty; see kesconvert --help");
  if ((options.files.size() > 2 || options.files.back().ends_with('/')) && !isFolder(options.files.back()))
    failUsage("{} is no folder; make it first, to hold the outputs", options.files.back());
  if (options.files.back() == "/dev/stdout") options.files.back() = "-";
  options.conversion.addSilentChannels = upmix == "zero";
  if (options.conversion.limit && options.samples.value_or(KES_PCM_S16) != KES_PCM_S16)
    failUsage("--limit makes samples of 16 bits; leave --format out, or --limit");
  return std::nullopt;
}

// Shows the progress on a terminal, from the first second on.
class Progress {
 public:
  ~Progress() { clear(); }
  double seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

  void show(std::uint64_t frames, const std::optional<std::uint64_t>& allFrames) {
    if (!isTerminal_ || seconds() < next_) return;
    next_ = seconds() + 0.1;
    constexpr std::uint64_t kWidth = 50;
    const std::uint64_t all = std::max<std::uint64_t>(allFrames.value_or(0), frames);  // a raw file may still grow
    fmt::print(stderr, "\r{}",
               allFrames
                   ? fmt::format("[{:<{}}] {} %", std::string(frames * kWidth / all, '#'), kWidth, frames * 100 / all)
                   : fmt::format("{} frames", frames));
  }
  void clear() {
    if (next_ > 1) std::fputs("\r\033[K", stderr);
    next_ = 1;
  }

 private:
  using Clock = std::chrono::steady_clock;
  const bool isTerminal_ = isatty(STDERR_FILENO) != 0;
  const Clock::time_point start_ = Clock::now();
  double next_ = 1;  // seconds after the start
};

bool isRaw(const Options& options, const std::string& name) {
  return options.raw && (name == "-" || !containerOfName(name));
}

int outputContainer(const Options& options, const std::string& name) {
  if (isRaw(options, name)) return SF_FORMAT_RAW;
  if (const auto container = containerOfName(name)) return *container;
  std::error_code none;
  if (name != "-" && (!fs::exists(name, none) || fs::is_regular_file(name, none)))
    fail("cannot write {}: its extension is of no known container; use .wav, .flac, .aiff or .caf", name);
  return SF_FORMAT_WAV;
}

void checkRaw(const Options& options, const std::string& in, const std::string& out) {
  for (const std::string& name : {in, out})
    if (!options.raw && (name.ends_with(".raw") || name.ends_with(".pcm")))
      failUsage("{} is raw PCM by its name; say what it holds with --raw, e.g. --raw 48000:2:s16", name);
  if (options.raw && !isRaw(options, in) && !isRaw(options, out))
    failUsage("neither {} nor {} is raw PCM; leave --raw out, or name one of them -", in, out);
}

void convertFile(const Options& options, const std::string& inName, const std::string& outName) {
  checkRaw(options, inName, outName);
  const bool rawIn = isRaw(options, inName);
  const int container = outputContainer(options, outName);
  const bool rawOut = container == SF_FORMAT_RAW;

  const Descriptor input = openInput(inName, !rawIn);
  AudioSource source(input, inName, rawIn ? options.raw : std::nullopt);
  const StreamFormat& in = source.format;
  if (in.channels > kMaxChannels)
    fail("{} has {} channels; kesconvert takes 1 to {}", inName, in.channels, kMaxChannels);
  if (options.layout) {
    source.layout = *options.layout;
    source.layoutOrigin = "from --layout";
  }
  const unsigned placed = positions(source.layout);
  if (placed > in.channels)
    fail("--layout {} places {} channels, but {} has {}; use a smaller layout", describe(source.layout), placed,
         inName, in.channels);
  StreamFormat out{options.rate.value_or(in.rate), options.channels.value_or(in.channels),
                   options.conversion.limit ? PcmFormat{KES_PCM_S16} : options.samples.value_or(source.usualOutput)};
  if (rawOut) {  // --raw describes a raw output, too; it converts nothing
    const StreamFormat& raw = *options.raw;
    if (!options.channels) out.channels = raw.channels;
    const bool channelsFit = raw.channels == out.channels || raw.channels == in.channels;
    if (!rawIn && (raw.rate != out.rate || raw.samples != out.samples || !channelsFit))
      fail("--raw does not describe the output; give --raw {}:{}:s{}", out.rate, out.channels,
           bytesOf(out.samples) * 8);
  }
  const Plan plan = makePlan(in, source.layout, out, options.conversion);

  OutputFile output(outName, !rawOut, input);
  const auto outFrames =
      source.frames ? std::optional(rescaledFrameCount(*source.frames, in.rate, out.rate)) : std::nullopt;
  AudioSink sink(output, container, out, plan.layout, outFrames);

  const auto say = [&]<class... Args>(fmt::format_string<const Args&...> text, const Args&... args) {
    printLine(outName == "-" ? stderr : stdout, fmt::format(text, args...));
  };
  say("input:  {}, {}, {} Hz, {}, {} ch, {}", inName, source.container, in.rate, source.encoding, in.channels,
      source.frames ? fmt::format("{} frames", *source.frames) : "length unknown");
  if (source.encoding != nameOf(in.samples))
    say("input:  read as {} samples{}", nameOf(in.samples),
        in.samples == KES_PCM_Q8_24 ? fmt::format(", with headroom; the output is {}", nameOf(out.samples)) : "");
  say("layout: {}, {}", describe(source.layout), source.layoutOrigin);
  if (placed > 0 && placed < in.channels) say("layout: channels from {} on have no position", placed + 1);
  for (const std::string& description : plan.descriptions) say("{}", description);
  say("output: {}, {}, {} Hz, {}, {} ch, {}", outName, sink.container, out.rate, nameOf(out.samples), out.channels,
      describe(plan.layout));
  if (sink.storedLayout != plan.layout)
    say("output: the container cannot store that layout; readers will take it for {}", describe(sink.storedLayout));

  Progress progress;
  const Report report = convert(source, plan.stages, out, sink, options.blockFrames,
                                [&](std::uint64_t frames) { progress.show(frames, source.frames); });
  sink.finish();
  output.commit();
  progress.clear();

  const double audio = static_cast<double>(report.outFrames) / out.rate;
  const double time = progress.seconds();
  std::string loss = "nothing clipped";
  if (plan.limiterPeak)
    loss = decibelsOver16Bits(*plan.limiterPeak) > 0
               ? fmt::format("peaks up to {:.2f} dB over full scale limited", decibelsOver16Bits(*plan.limiterPeak))
               : "nothing to limit";
  else if (report.clippedSamples > 0)
    loss = fmt::format("{} samples clipped or at full scale; --limit{} turns such peaks down", report.clippedSamples,
                       out.channels <= 2 ? "" : " with --channels 2");
  say("done:   {} frames, {} to {} ch, {:.3f} s of audio in {:.3f} s ({:.0f} x real time), peak {:.2f} dBFS in, "
      "{:.2f} dBFS out, {}",
      report.outFrames, in.channels, out.channels, audio, time, audio / time, report.in.decibels(in.samples),
      report.out.decibels(out.samples), loss);
}

// Calls work and returns the exit code. A failure prints one line: the reason, after the file's name if it lacks it.
int reportFailure(const std::string& file, const std::function<void()>& work) {
  std::string message;
  int code = kExitFailure;
  try {
    work();
    return 0;
  } catch (const Failure& failure) {
    message = failure.what();
    code = failure.exitCode;
  } catch (const std::bad_alloc&) {
    message = "out of memory; close other programs, or give a smaller --block";
  } catch (const std::exception& error) {
    message = error.what();
  }
  if (message.empty()) return code;
  if (message.find(file) == std::string::npos) message = file + ": " + message;
  printLine(stderr, "kesconvert: " + message);
  return code;
}

// Converts every input. In a folder an output has its input's name, as a WAV if the input's container cannot be
// written.
int convertAll(const Options& options) {
  const std::string& out = options.files.back();
  const bool toFolder = isFolder(out);
  std::set<fs::path> written;
  int code = 0;
  for (const std::string& in : std::span(options.files).first(options.files.size() - 1)) {
    const int failed = reportFailure(toFolder ? in : "", [&] {
      if (!toFolder) return convertFile(options, in, out);
      if (in == "-") fail("- has no name for a file in {}; give one", out);
      fs::path path = out / fs::path(in).filename();
      const int container = containerOfName(path).value_or(SF_FORMAT_MPEG);
      if (container == SF_FORMAT_MPEG || container == SF_FORMAT_OGG) path.replace_extension(".wav");
      if (written.contains(path)) fail("{} has been written from another input; rename {}", path.string(), in);
      convertFile(options, in, path);
      written.insert(path);
    });
    if (code == 0) code = failed;
  }
  return code;
}

}  // namespace
}  // namespace kesconvert

int main(int argc, char** argv) {
  // Fills closed standard streams, so that no file gets their numbers, and with them the messages.
  for (int fd = 0; fd >= 0 && fd <= STDERR_FILENO;) fd = open("/dev/null", O_RDONLY);
  // Writing to a closed pipe, or past the limit of a file's size, then fails with an error, which cleans up.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  using namespace kesconvert;
  Options options;
  std::optional<int> code;
  const int failed = reportFailure("", [&] { code = parseArguments(argc, argv, options); });
  if (failed != 0 || code) return code.value_or(failed);
  return convertAll(options);
}
