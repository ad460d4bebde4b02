// SPDX-License-Identifier: Apache-2.0
#include "audio_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "failure.h"

namespace kesconvert {
namespace {

// A length beyond any file's. Given it, libsndfile keeps the length that a header states, instead of cutting it to
// the file's.
constexpr sf_count_t kEndless = sf_count_t{1} << 50;

// Most bytes of audio in containers with 32-bit sizes, with room for the longest header.
constexpr std::uint64_t kMaxBytes = 0xFFFFFFFF - 4096;

constexpr const char* kAdvice = "get it anew from where it came";

// Kinds of files by their first bytes. An MP3 without a tag is not listed: libsndfile knows it by its frames.
struct Kind {
  off_t at;
  std::string_view bytes;
  const char* name;
  enum { kUnreadable, kReadable, kPromising } use;  // promising: the header says how much audio follows
};
// clang-format off
constexpr Kind kKinds[] = {
    {8, "WAVE", "WAV", Kind::kPromising}, {8, "AIF", "AIFF", Kind::kPromising}, {0, "caff", "CAF", Kind::kPromising},
    {0, ".snd", "AU", Kind::kPromising},  {0, "dns.", "AU", Kind::kPromising},  {0, "riff", "W64", Kind::kReadable},
    {0, "fLaC", "FLAC", Kind::kReadable}, {0, "OggS", "Ogg", Kind::kReadable},  {0, "ID3", "MP3", Kind::kReadable},
    {4, "ftyp", "MP4 or M4A", Kind::kUnreadable}, {0, "\x1A\x45\xDF\xA3", "Matroska or WebM", Kind::kUnreadable},
    {0, "\x30\x26\xB2\x75", "WMA", Kind::kUnreadable}, {0, "wvpk", "WavPack", Kind::kUnreadable},
    {0, "\xFF\xF1", "AAC", Kind::kUnreadable}, {0, "\xFF\xF9", "AAC", Kind::kUnreadable}};
// clang-format on

// The kind of a file; nullptr for an unknown one.
const Kind* kindOf(int fd) {
  char first[12] = {};
  if (pread(fd, first, sizeof first, 0) < 0) return nullptr;
  const auto found = std::ranges::find_if(
      kKinds, [&](const Kind& kind) { return std::string_view(first + kind.at, kind.bytes.size()) == kind.bytes; });
  return found != std::end(kKinds) ? &*found : nullptr;
}

// The length of the file that the header of a RIFF, AIFF or W64 states; 0 for other files.
sf_count_t promisedLength(int fd) {
  struct {
    char name[4];
    std::uint32_t size;
    std::uint64_t more[2];
  } header{};
  if (pread(fd, &header, sizeof header, 0) != ssize_t{sizeof header}) return 0;
  const std::string_view name(header.name, sizeof header.name);
  if (name == "RIFF") return header.size + sf_count_t{8};
  if (name == "RIFX" || name == "FORM") return __builtin_bswap32(header.size) + sf_count_t{8};
  return name == "riff" ? static_cast<sf_count_t>(header.more[1]) : 0;
}

// libsndfile's encodings and the samples that they are read as. Those not listed are read as 16 bits.
struct Encoding {
  int subtype;
  PcmFormat samples;
  unsigned bytes;  // of a sample in the file; 0 if compressed
};
// clang-format off
constexpr Encoding kEncodings[] = {
    {SF_FORMAT_PCM_16, KES_PCM_S16, 2}, {SF_FORMAT_PCM_24, KES_PCM_S24_PACKED, 3}, {SF_FORMAT_PCM_32, KES_PCM_S32, 4},
    {SF_FORMAT_PCM_S8, KES_PCM_S16, 1}, {SF_FORMAT_PCM_U8, KES_PCM_S16, 1},
    {SF_FORMAT_ULAW, KES_PCM_S16, 1}, {SF_FORMAT_ALAW, KES_PCM_S16, 1},
    {SF_FORMAT_ALAC_20, KES_PCM_S24_PACKED, 0}, {SF_FORMAT_ALAC_24, KES_PCM_S24_PACKED, 0},
    {SF_FORMAT_ALAC_32, KES_PCM_S32, 0}, {SF_FORMAT_DWVW_24, KES_PCM_S24_PACKED, 0},
    {SF_FORMAT_FLOAT, KES_PCM_Q8_24, 4}, {SF_FORMAT_DOUBLE, KES_PCM_Q8_24, 8},
    {SF_FORMAT_VORBIS, KES_PCM_Q8_24, 0}, {SF_FORMAT_OPUS, KES_PCM_Q8_24, 0},
    {SF_FORMAT_MPEG_LAYER_I, KES_PCM_Q8_24, 0}, {SF_FORMAT_MPEG_LAYER_II, KES_PCM_Q8_24, 0},
    {SF_FORMAT_MPEG_LAYER_III, KES_PCM_Q8_24, 0}};
// clang-format on

Encoding encodingOf(int format) {
  const auto found = std::ranges::find(kEncodings, format & SF_FORMAT_SUBMASK, &Encoding::subtype);
  return found != std::end(kEncodings) ? *found : Encoding{format & SF_FORMAT_SUBMASK, KES_PCM_S16, 0};
}

bool isOneOf(int format, std::initializer_list<int> formats) {
  return std::ranges::find(formats, format) != formats.end();
}

SF_INFO infoOf(const StreamFormat& format, int major) {
  SF_INFO info{};
  info.samplerate = format.rate;
  info.channels = static_cast<int>(format.channels);
  info.format =
      major | kEncodings[bytesOf(format.samples) - 2].subtype | (major == SF_FORMAT_RAW ? SF_ENDIAN_LITTLE : 0);
  return info;
}

VirtualFile& fileOf(void* user) { return *static_cast<VirtualFile*>(user); }

sf_count_t seekVirtual(sf_count_t offset, int whence, void* user) {
  VirtualFile& file = fileOf(user);
  const sf_count_t origin = whence == SEEK_CUR ? file.position : whence == SEEK_END ? file.length : 0;
  sf_count_t place = 0;  // a damaged header may lead anywhere
  if (__builtin_add_overflow(origin, offset, &place) || place < 0) return -1;
  return file.position = place;
}

// Calls move(bytes done, bytes to do) until all bytes are moved or it returns 0 or fails.
template <class Move>
sf_count_t moveAll(VirtualFile& file, sf_count_t count, Move move) {
  sf_count_t done = 0;
  while (done < count) {
    const ssize_t moved = move(done, static_cast<std::size_t>(count - done));
    if (moved < 0) file.error = errno;
    if (moved <= 0) break;
    done += moved;
    file.position += moved;
  }
  return done;
}

sf_count_t readVirtual(void* target, sf_count_t count, void* user) {
  VirtualFile& file = fileOf(user);
  auto* bytes = static_cast<unsigned char*>(target);
  const sf_count_t got = moveAll(file, count, [&](sf_count_t done, std::size_t left) {
    return file.sequential ? ::read(file.fd, bytes + done, left) : pread(file.fd, bytes + done, left, file.position);
  });
  // A scan for chunks ends with the file.
  if (got == 0 && !file.sequential) file.position = std::max(file.position, file.length);
  return got;
}

sf_count_t writeVirtual(const void* source, sf_count_t count, void* user) {
  VirtualFile& file = fileOf(user);
  const auto* bytes = static_cast<const unsigned char*>(source);
  const sf_count_t put = moveAll(file, count, [&](sf_count_t done, std::size_t left) {
    return file.sequential ? ::write(file.fd, bytes + done, left)
                           : pwrite(file.fd, bytes + done, left, file.position);
  });
  file.length = std::max(file.length, file.position);
  return put;
}

// Keeps libmpg123's messages about damaged files off standard error.
struct QuietStandardError {
  QuietStandardError() {
    const Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(null.get(), STDERR_FILENO);
  }
  ~QuietStandardError() { dup2(saved.get(), STDERR_FILENO); }
  const Descriptor saved{fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)};
};

SNDFILE* openSound(VirtualFile& file, int mode, SF_INFO& info) {
  SF_VIRTUAL_IO io{[](void* user) { return fileOf(user).length; }, seekVirtual, readVirtual, writeVirtual,
                   [](void* user) { return fileOf(user).position; }};
  file.position = 0;
  const QuietStandardError quiet;
  return sf_open_virtual(&io, mode, &info, &file);
}

// libsndfile's reason for a failure: of this sound, or with nullptr of the last open.
std::string reasonOf(SNDFILE* sound) {
  const std::string reason = sf_strerror(sound);
  if (reason.find("nternal error") != std::string::npos) return "its header makes no sense";
  return reason.substr(0, reason.find_last_not_of(".\n") + 1);
}

const char* nameOfFormat(int format) {
  SF_FORMAT_INFO info{format, "nameless", nullptr};
  sf_command(nullptr, SFC_GET_FORMAT_INFO, &info, sizeof info);
  return info.name;
}

// The layout of a file without a channel map.
ChannelMask layoutWithoutMap(int major, unsigned channels) {
  if (major == SF_FORMAT_FLAC) return flacLayout(channels);
  return channels <= 2 ? standardLayout(channels) : ChannelMask{KES_LAYOUT_NONE};
}

// True if a header's frame count is a placeholder of a program that wrote to a pipe: at or just below the greatest
// size of 32 or 31 bits.
bool isPlaceholder(std::uint64_t frames, std::uint64_t frameBytes) {
  const std::uint64_t bytes = frames * frameBytes;
  const auto isJustBelow = [&](std::uint64_t mark) { return bytes <= mark && bytes + frameBytes + 0xFFF > mark; };
  return frames > kEndless / 1024 || isJustBelow(0xFFFFFFFF) || isJustBelow(0x7FFFFFFF) || isJustBelow(0x7F000000);
}

}  // namespace

std::optional<int> containerOfName(const std::string& name) {
  std::string extension = std::filesystem::path(name).extension();
  std::ranges::transform(extension, extension.begin(),
                         [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
  constexpr struct {
    const char* extension;
    int format;
  } kContainers[] = {
      {".wav", SF_FORMAT_WAV},   {".rf64", SF_FORMAT_RF64}, {".w64", SF_FORMAT_W64},
      {".aiff", SF_FORMAT_AIFF}, {".aif", SF_FORMAT_AIFF},  {".aifc", SF_FORMAT_AIFF | SF_ENDIAN_LITTLE},
      {".caf", SF_FORMAT_CAF},   {".flac", SF_FORMAT_FLAC}, {".au", SF_FORMAT_AU},
      {".snd", SF_FORMAT_AU},    {".ogg", SF_FORMAT_OGG},   {".oga", SF_FORMAT_OGG},
      {".opus", SF_FORMAT_OGG},  {".mp3", SF_FORMAT_MPEG}};
  for (const auto& container : kContainers)
    if (extension == container.extension) return container.format;
  return std::nullopt;
}

AudioSource::AudioSource(const Descriptor& file, const std::string& name, const std::optional<StreamFormat>& raw)
    : name_(name), file_{.fd = file.get()} {
  const struct stat status = file.status();
  const bool isNamedFile = S_ISREG(status.st_mode) && name != "-";
  const Kind* const kind = kindOf(file_.fd);
  const bool isPromising = kind != nullptr && kind->use == Kind::kPromising;
  const sf_count_t promised = promisedLength(file_.fd);
  const bool isW64 = kind != nullptr && kind->bytes == "riff";  // its header states the whole file's length
  file_.length = isPromising ? kEndless : isW64 ? std::max(status.st_size, promised) : status.st_size;
  constexpr sf_count_t kMaxMissing = 1 << 20;
  if (isPromising && kind->bytes == "caff") file_.length = status.st_size + kMaxMissing;  // it reads chunks whole
  SF_INFO info{};
  const bool isSound = (!raw || isNamedFile) && open(info);
  const bool isCompressed = isSound && encodingOf(info.format).bytes == 0;
  if (isCompressed && isPromising) {  // some decoders read on beyond the end of the file
    file_.length = status.st_size;
    open(info = {});
  }
  if (raw) {
    if (isNamedFile && (kind != nullptr || (isSound && (info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_MPEG)))
      fail("{} is no raw PCM but {}; leave --raw out", name, kind != nullptr ? kind->name : "MP3");
    file_ = {.fd = file_.fd, .sequential = true, .length = kEndless};
    info = infoOf(*raw, SF_FORMAT_RAW);
    open(info);
    if (S_ISREG(status.st_mode)) info.frames = status.st_size / static_cast<off_t>(raw->frameBytes());
  }
  if (file_.error != 0) failToRead(name, file_.error);
  if (!raw && status.st_size == 0) fail("cannot read {}: it is empty; {}", name, kAdvice);
  if (!sound_ && kind == nullptr)
    fail(
        "cannot read {}: its kind is unknown; decode it first: ffmpeg -i {} decoded.wav, or say with --raw which PCM "
        "it holds",
        name, name);
  if (!sound_)
    fail("cannot read {}: it is {}{}; decode it first: ffmpeg -i {} decoded.wav", name, kind->name,
         kind->use == Kind::kUnreadable ? "" : fmt::format(", but damaged or unusual ({})", reasonOf(nullptr)), name);
  if (!raw) {
    // Refuses cut files that libsndfile accepts: those without a frame, compressed ones, an Ogg without its end.
    const bool isShort = status.st_size + 1 < promised && !isPlaceholder(static_cast<std::uint64_t>(promised), 1);
    const bool isEndless = info.frames > kEndless && (info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_OGG;
    if (isEndless || (isShort && (info.frames == 0 || isCompressed))) fail("{} is cut short; {}", name, kAdvice);
    constexpr off_t kMaxHeader = 4096;
    if (info.frames == 0 && status.st_size > kMaxHeader)
      fail("{} says that it holds no audio, but has {} bytes; repair its header: ffmpeg -i {} repaired.wav", name,
           status.st_size, name);
  }
  setFormat(info);
}

bool AudioSource::open(SF_INFO& info) {
  sound_.reset(openSound(file_, SFM_READ, info));
  return sound_ != nullptr;
}

void AudioSource::setFormat(const SF_INFO& info) {
  const Encoding known = encodingOf(info.format);
  format = {info.samplerate, static_cast<unsigned>(info.channels), known.samples};
  container = nameOfFormat(info.format & SF_FORMAT_TYPEMASK);
  const bool isPlain = known.bytes == bytesOf(known.samples) && known.samples != KES_PCM_Q8_24;
  encoding = isPlain ? nameOf(known.samples) : nameOfFormat(known.subtype);
  usualOutput = known.samples;
  if (known.samples == KES_PCM_Q8_24) usualOutput = known.bytes == 0 ? KES_PCM_S16 : KES_PCM_S24_PACKED;
  const auto promised = static_cast<std::uint64_t>(info.frames);
  if (!isPlaceholder(promised, std::uint64_t{format.channels} * known.bytes)) frames = promised;
  findLayout(info.format);
}

void AudioSource::findLayout(int fileFormat) {
  const int major = fileFormat & SF_FORMAT_TYPEMASK;
  const bool isVorbisOrder = isOneOf(fileFormat & SF_FORMAT_SUBMASK, {SF_FORMAT_VORBIS, SF_FORMAT_OPUS});
  std::vector<int> map(format.channels);
  if (sf_command(sound_.get(), SFC_GET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int)))) {
    layout = layoutOfChannelMap(map);
    layoutOrigin = layout != 0 ? "from the file's channel map" : "the file's channel map is in no usual order";
  } else if (isVorbisOrder) {
    order_ = vorbisOrder(format.channels);
    layout = flacLayout(format.channels);
    layoutOrigin = "from Vorbis's fixed order";
  } else if ((layout = layoutWithoutMap(major, format.channels)) != 0) {
    layoutOrigin = major == SF_FORMAT_FLAC ? "from FLAC's fixed order" : "from the channel count";
  } else if (format.channels == 4 || format.channels == 6) {
    layout = standardLayout(format.channels);
    layoutOrigin = fmt::format("assumed for {} channels without a map; --layout says otherwise", format.channels);
  }
}

std::size_t AudioSource::read(std::int32_t* samples, std::size_t wanted) {
  const auto count = static_cast<sf_count_t>(wanted);
  sf_count_t read = 0;
  if (format.samples == KES_PCM_Q8_24) {
    doubles_.resize(wanted * format.channels);
    const QuietStandardError quiet;
    read = sf_readf_double(sound_.get(), doubles_.data(), count);
    for (std::size_t i = 0; i < static_cast<std::size_t>(read) * format.channels; ++i) {
      const std::size_t source =
          order_.empty() ? i : i - i % format.channels + static_cast<std::size_t>(order_[i % format.channels] - '0');
      const double sample = doubles_[source] * (1 << 24);
      const double inRange = std::isnan(sample) ? 0 : std::clamp<double>(sample, INT32_MIN, INT32_MAX);
      clippedSamples += inRange != sample;
      samples[i] = static_cast<std::int32_t>(std::lrint(inRange));
    }
  } else {
    read = sf_readf_int(sound_.get(), samples, count);
  }
  const auto got = static_cast<std::size_t>(read);
  delivered_ += got;
  if (got == wanted) return got;
  if (file_.error != 0) failToRead(name_, file_.error);
  if (file_.sequential && static_cast<std::uint64_t>(file_.position) % format.frameBytes() != 0)
    fail("{} ends inside a frame of {} bytes; check --raw, or {}", name_, format.frameBytes(), kAdvice);
  if (frames && delivered_ < *frames)
    fail("{} is cut short or damaged: {} of {} frames can be read; {}", name_, delivered_, *frames, kAdvice);
  if (sf_error(sound_.get()) != 0) fail("{} is damaged: {}; {}", name_, reasonOf(sound_.get()), kAdvice);
  return got;
}

AudioSink::AudioSink(const OutputFile& file, int major, const StreamFormat& format, ChannelMask layout,
                     const std::optional<std::uint64_t>& frames)
    : output_(file),
      layout_(layout),
      file_{.fd = file.fd(), .sequential = major == SF_FORMAT_RAW},
      maxFrames_(kMaxBytes / format.frameBytes()) {
  const bool toRf64 = major == SF_FORMAT_WAV && (!frames || *frames > maxFrames_);
  if (toRf64) major = SF_FORMAT_RF64;
  const bool needsMask = layout == KES_LAYOUT_NONE || layout != layoutWithoutMap(major, format.channels);
  if (major == SF_FORMAT_WAV && (needsMask || format.samples != KES_PCM_S16)) major = SF_FORMAT_WAVEX;
  container = frames || !toRf64 ? nameOfFormat(major & SF_FORMAT_TYPEMASK) : "WAV, or RF64 if it passes 4 GiB";
  if (isOneOf(major, {SF_FORMAT_RAW, SF_FORMAT_RF64, SF_FORMAT_W64, SF_FORMAT_CAF, SF_FORMAT_AU, SF_FORMAT_FLAC}))
    maxFrames_ = UINT64_MAX;
  checkLength(frames.value_or(0));
  // Other programs read little-endian AIFC of 16 bits only.
  if (major == (SF_FORMAT_AIFF | SF_ENDIAN_LITTLE) && format.samples != KES_PCM_S16) major = SF_FORMAT_AIFF;

  SF_INFO info = infoOf(format, major);
  if (!sf_format_check(&info))
    fail("cannot write {}: {} does not take {} channels of {} PCM; use .wav, .caf or .aiff", file.name(), container,
         format.channels, nameOf(format.samples));
  constexpr int kMaxAiffRate = 1 << 30;  // libsndfile writes greater rates as 800 MHz
  if ((major & SF_FORMAT_TYPEMASK) == SF_FORMAT_AIFF && format.rate > kMaxAiffRate)
    fail("cannot write {}: {} does not take {} Hz; use .wav, .caf or .au", file.name(), container, format.rate);
  sound_.reset(openSound(file_, SFM_WRITE, info));
  if (!sound_) failOfSound();
  if (toRf64) sf_command(sound_.get(), SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);

  hasMask_ = isOneOf(major, {SF_FORMAT_WAVEX, SF_FORMAT_RF64});
  std::vector<int> map = channelMapOfLayout(layout);
  map.resize(format.channels);
  const bool isMapTaken =
      sf_command(sound_.get(), SFC_SET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int)));
  storedLayout = hasMask_ || isMapTaken ? layout : layoutWithoutMap(major, format.channels);
}

void AudioSink::write(const std::int32_t* samples, std::size_t frames) {
  checkLength(written_ += frames);
  const auto count = static_cast<sf_count_t>(frames);
  if (sf_writef_int(sound_.get(), samples, count) != count) failOfSound();
}

void AudioSink::finish() {
  sf_command(sound_.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);  // else a FLAC without frames lacks its header
  if (sf_close(sound_.release()) != 0 || file_.error != 0) failOfSound();
  if (!hasMask_) return;
  // Writes the mask into the header: libsndfile guesses one from the channel count if the layout does not place every
  // channel.
  char header[64] = {};
  const bool isRead = pread(file_.fd, header, sizeof header, 0) > 0;
  const auto format = std::string_view(header, sizeof header).find("fmt ");
  const auto mask = static_cast<off_t>(format + 8 + 20);
  if (!isRead || format == std::string_view::npos ||
      pwrite(file_.fd, &layout_, sizeof layout_, mask) != ssize_t{sizeof layout_})
    failToWrite(output_.name(), errno);
}

void AudioSink::checkLength(std::uint64_t frames) const {
  if (frames > maxFrames_)
    fail("cannot write {}: {} ends at 4 GiB; use .wav, .caf or .flac", output_.name(), container);
}

void AudioSink::failOfSound() const {
  if (file_.error != 0) failToWrite(output_.nameWritten(), file_.error);
  fail("cannot write {}: {}; use another container, e.g. .wav", output_.name(), reasonOf(sound_.get()));
}

}  // namespace kesconvert
