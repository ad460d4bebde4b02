// SPDX-License-Identifier: Apache-2.0
#include "audio_file.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "failure.h"

namespace kesconvert {
namespace {

// A length beyond any file's: with it libsndfile believes a header instead of cutting what it promises down to what
// is there.
constexpr sf_count_t kEndless = sf_count_t{1} << 50;

// Where the containers end whose sizes have 32 bits, with room for the longest header.
constexpr std::uint64_t kMostBytes = 0xFFFFFFFF - 4096;

constexpr const char* kAdvice = "get it anew from where it came";

constexpr int kSubtypes[] = {SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32};  // of 2, 3, 4 bytes

bool isOneOf(int format, std::initializer_list<int> formats) {
  return std::ranges::find(formats, format) != formats.end();
}

SF_INFO infoOf(const StreamFormat& format, int major) {
  SF_INFO info{};
  info.samplerate = format.rate;
  info.channels = static_cast<int>(format.channels);
  info.format = major | kSubtypes[format.sampleBytes - 2] | (major == SF_FORMAT_RAW ? SF_ENDIAN_LITTLE : 0);
  return info;
}

VirtualFile& fileOf(void* user) { return *static_cast<VirtualFile*>(user); }

sf_count_t seekVirtual(sf_count_t offset, int whence, void* user) {
  VirtualFile& file = fileOf(user);
  const sf_count_t origin = whence == SEEK_CUR ? file.position : whence == SEEK_END ? file.length : 0;
  sf_count_t place = 0;  // a header's numbers lead anywhere
  if (__builtin_add_overflow(origin, offset, &place) || place < 0) return -1;
  return file.position = place;
}

// Moves bytes by call(bytes done, bytes to do) until they are all moved or it returns 0 or fails.
template <class Call>
sf_count_t moveAll(VirtualFile& file, sf_count_t count, Call call) {
  sf_count_t done = 0;
  while (done < count) {
    const ssize_t moved = call(done, static_cast<std::size_t>(count - done));
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
  const sf_count_t start = file.position;
  const sf_count_t got = moveAll(file, count, [&](sf_count_t done, std::size_t left) {
    return file.sequential ? ::read(file.fd, bytes + done, left) : pread(file.fd, bytes + done, left, file.position);
  });
  const sf_count_t mark = file.unknownSizeAt;
  if (mark >= 0)
    for (sf_count_t i = std::max(start, mark); i < std::min(start + got, mark + std::ssize(file.readAs)); ++i)
      bytes[i - start] = static_cast<unsigned char>(file.readAs[static_cast<std::size_t>(i - mark)]);
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

SNDFILE* openSound(VirtualFile& file, int mode, SF_INFO& info) {
  SF_VIRTUAL_IO io{[](void* user) { return fileOf(user).length; }, seekVirtual, readVirtual, writeVirtual,
                   [](void* user) { return fileOf(user).position; }};
  file.position = 0;
  return sf_open_virtual(&io, mode, &info, &file);
}

// libsndfile's reason, without a sound that of the last open.
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

std::uint32_t readWord(int fd, off_t at, bool bigEndian = false) {
  std::uint32_t word = 0;
  if (pread(fd, &word, sizeof word, at) != ssize_t{sizeof word}) return 0;
  return bigEndian ? __builtin_bswap32(word) : word;
}

off_t readLong(int fd, off_t at, bool bigEndian = false) {
  const off_t first = readWord(fd, at, bigEndian), second = readWord(fd, at + 4, bigEndian);
  return bigEndian ? first << 32 | second : second << 32 | first;
}

// The four letters that containers and their parts begin with; empty where the file ends.
std::string readName(int fd, off_t at) {
  char name[4];
  return pread(fd, name, sizeof name, at) == ssize_t{sizeof name} ? std::string(name, sizeof name) : "";
}

// Whether a file is in a container that we take. The others that libsndfile knows stay out: their readers are little
// used, some print what they think of a damaged file, and those of MP3 and Ogg hold no PCM.
bool isKnown(int fd) {
  const std::string name = readName(fd, 0);
  if (name.starts_with("ID3")) {  // a tag that some put before FLAC; its size has 7 bits a byte
    const std::uint32_t size = readWord(fd, 6, true);
    return readName(fd, 10 + ((size & 0x7F000000) >> 3 | (size & 0x7F0000) >> 2 | (size & 0x7F00) >> 1 |
                              (size & 0x7F))) == "fLaC";
  }
  const std::string form = readName(fd, 8);
  if (name == "RIFF" || name == "RIFX" || name == "RF64") return form == "WAVE";
  if (name == "FORM") return form == "AIFF" || form == "AIFC";
  return name == "riff" || name == "caff" || name == "fLaC" || name == ".snd" || name == "dns.";
}

// The kind of a compressed file that we do not take, from how it begins; empty for anything else.
std::string_view compressedKind(int fd) {
  const std::string name = readName(fd, 0);
  if (name == "OggS") return "Ogg";
  if (name.starts_with("ID3") && !isKnown(fd)) return "MP3";
  return "";
}

// A WAV or an RF64 as a row of chunks, each with its name and its size before it.
struct Riff {
  explicit Riff(int file) : fd(file), bigEndian(readName(file, 0) == "RIFX") {}
  off_t sizeOf(off_t chunk) const { return readWord(fd, chunk + 4, bigEndian); }
  off_t after(off_t chunk) const { return chunk + 8 + sizeOf(chunk) + sizeOf(chunk) % 2; }

  // 0 if it is nowhere.
  off_t find(const char* name) const {
    off_t at = 12;
    for (std::string there; (there = readName(fd, at)) != name; at = after(at))
      if (there.empty()) return 0;
    return at;
  }

  bool areChunks(off_t from, off_t end) const {
    const auto isNamed = [&](off_t at) {
      return std::ranges::all_of(readName(fd, at),
                                 [](char c) { return std::isprint(static_cast<unsigned char>(c)) != 0; });
    };
    while (from < end && isNamed(from)) from = after(from);
    return from == end || from == end + 1;  // the last one's padding may be missing
  }

  const int fd;
  const bool bigEndian;
};

// The part of an AU's header that says where the audio is.
struct AuHeader {
  explicit AuHeader(int fd) {
    const bool bigEndian = readName(fd, 0) == ".snd";
    start = readWord(fd, 4, bigEndian);
    bytes = readWord(fd, kBytesAt, bigEndian);
  }
  static constexpr off_t kBytesAt = 8;
  static constexpr off_t kUnknown = 0xFFFFFFFF;
  off_t start, bytes;
};

// Where a file says that it has no audio although some follows, as a writer leaves it that cannot go back; else -1.
off_t unfilledSize(int fd, int major, off_t length) {
  if (major == SF_FORMAT_AU) {
    const AuHeader header(fd);
    return header.bytes == 0 && header.start < length ? AuHeader::kBytesAt : -1;
  }
  if (!isOneOf(major, {SF_FORMAT_WAV, SF_FORMAT_WAVEX, SF_FORMAT_RF64})) return -1;
  const Riff riff(fd);
  const bool isRf64 = major == SF_FORMAT_RF64;  // whose sizes have 64 bits, in the chunk that comes first
  constexpr off_t kFileBytesAt = 20, kDataBytesAt = 28;
  const off_t data = riff.find("data"), audio = data + 8;
  const off_t bytes = isRf64 ? readLong(fd, kDataBytesAt) : riff.sizeOf(data);
  if (data == 0 || bytes != 0 || audio >= length) return -1;
  const off_t end = std::min(length, isRf64 ? readLong(fd, kFileBytesAt) : riff.sizeOf(0)) + 8;
  const bool chunksFollow = audio < end && end <= length && riff.areChunks(audio, end);
  if (chunksFollow) return -1;
  return isRf64 ? kDataBytesAt + 3 : data + 4;  // its upper bytes, so that it is beyond any file's
}

// The chunk at which a CAF's row of chunks ends though the file does not: its size is below 0, or the file ends
// inside its name and size. 0 if there is none.
off_t lastChunk(int fd, off_t length) {
  constexpr off_t kHeaderBytes = 12;
  off_t chunk = 8;
  for (std::string name; !(name = readName(fd, chunk)).empty() && name[0] != '\0';) {
    const off_t bytes = readLong(fd, chunk + 4, true);
    if (bytes < 0 || length < chunk + kHeaderBytes) return chunk;
    if (bytes > length) return 0;
    chunk += kHeaderBytes + bytes;
  }
  return 0;
}

// Where a CAF says that its audio goes on to the end of the file, by a size of -1; else -1.
off_t openSize(int fd, off_t length) {
  if (readName(fd, 0) != "caff") return -1;
  const off_t chunk = lastChunk(fd, length);
  constexpr off_t kAudioAt = 12 + 4;  // behind a name, a size, and a count of edits
  const bool isOpen = readName(fd, chunk) == "data" && readLong(fd, chunk + 4, true) == -1;
  return isOpen && chunk + kAudioAt <= length ? chunk + 4 : -1;
}

// What a file without a channel map is taken for.
ChannelMask layoutWithoutMap(int major, unsigned channels) {
  if (major == SF_FORMAT_FLAC) return flacLayout(channels);
  return channels <= 2 ? standardLayout(channels) : ChannelMask{KES_LAYOUT_NONE};
}

// Whether the file ends too early in a way that libsndfile overlooks: inside a WAV's last header field, in an AU
// whose size is beyond 31 bits, inside the header of a CAF's chunk, which it would wait for without end where the
// file is said to have no end, or anywhere in a W64, which says how long it is as a whole.
bool isCutUnnoticed(int fd, int major, off_t length) {
  if (major == SF_FORMAT_WAV || major == SF_FORMAT_WAVEX) return length < Riff(fd).find("data") + 8;
  if (major == SF_FORMAT_AU) {
    const AuHeader header(fd);
    return header.bytes != AuHeader::kUnknown && length < header.start + header.bytes;
  }
  if (major == SF_FORMAT_CAF) {
    const off_t chunk = lastChunk(fd, length);
    return chunk != 0 && readLong(fd, chunk + 4, true) >= 0;
  }
  constexpr off_t kWholeLengthAt = 16;
  return major == SF_FORMAT_W64 && length < readLong(fd, kWholeLengthAt);
}

// Whether a header's size is what programs write that do not know it: the largest, or nearly, of 32 or 31 bits.
bool standsForUnknown(std::uint64_t bytes, std::uint64_t frameBytes) {
  const auto isJustBelow = [&](std::uint64_t mark) { return bytes <= mark && bytes + frameBytes + 0xFFF > mark; };
  return bytes >= kEndless / 2 || isJustBelow(0xFFFFFFFF) || isJustBelow(0x7FFFFFFF) || isJustBelow(0x7F000000);
}

}  // namespace

std::optional<int> containerOfName(const std::string& name) {
  std::string extension = std::filesystem::path(name).extension();
  std::ranges::transform(extension, extension.begin(),
                         [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
  constexpr struct {
    const char* extension;
    int format;
  } kContainers[] = {{".wav", SF_FORMAT_WAV},  {".rf64", SF_FORMAT_RF64},
                     {".w64", SF_FORMAT_W64},  {".aiff", SF_FORMAT_AIFF},
                     {".aif", SF_FORMAT_AIFF}, {".aifc", SF_FORMAT_AIFF | SF_ENDIAN_LITTLE},
                     {".caf", SF_FORMAT_CAF},  {".flac", SF_FORMAT_FLAC},
                     {".au", SF_FORMAT_AU},    {".snd", SF_FORMAT_AU}};
  for (const auto& container : kContainers)
    if (extension == container.extension) return container.format;
  return std::nullopt;
}

AudioSource::AudioSource(const Descriptor& file, const std::string& name, const std::optional<StreamFormat>& raw)
    : name_(name), file_{file.get(), raw.has_value(), kEndless} {
  const struct stat status = file.status();
  SF_INFO info{};
  const bool isNamed = S_ISREG(status.st_mode) && name != "-";
  const std::string_view compressed = isNamed ? compressedKind(file_.fd) : "";
  if (!compressed.empty())
    fail("cannot read {}: it is {}; decode it first: ffmpeg -i {} decoded.wav", name, compressed, name);
  if (raw) {
    if (isNamed && isKnown(file_.fd)) fail("{} is no raw PCM, it has a header; leave --raw out", name);
    info = infoOf(*raw, SF_FORMAT_RAW);
    setSound(openSound(file_, SFM_READ, info));
  } else {
    errno = 0;
    if (!isKnown(file_.fd)) {
      if (errno != 0) failToRead(name, errno);
      fail("cannot read {}: it does not begin as WAV, RF64, W64, AIFF, CAF, FLAC or AU; give one of these, or --raw",
           name);
    }
    file_.unknownSizeAt = openSize(file_.fd, status.st_size);
    lseek(file_.fd, 0, SEEK_SET);
    if (file_.unknownSizeAt < 0) {
      setSound(sf_open_fd(file_.fd, SFM_READ, &info, SF_FALSE));
    } else {  // -1 becomes 00 02 FF ..., which is longer than any file, and shorter than kEndless, so not refused
      file_.readAs = {"\0\2", 2};
      setSound(openSound(file_, SFM_READ, info));
    }
  }
  const int major = info.format & SF_FORMAT_TYPEMASK;
  const sf_count_t framesThere = info.frames;
  if (isCutUnnoticed(file_.fd, major, status.st_size)) fail("{} is cut short; {}", name, kAdvice);
  if (isOneOf(major, {SF_FORMAT_WAV, SF_FORMAT_WAVEX, SF_FORMAT_RF64, SF_FORMAT_AIFF, SF_FORMAT_AU, SF_FORMAT_CAF})) {
    if (info.frames == 0) file_.unknownSizeAt = unfilledSize(file_.fd, major, status.st_size);
    info = {};
    setSound(openSound(file_, SFM_READ, info));
  }

  const int subtype = info.format & SF_FORMAT_SUBMASK;
  const auto width = std::ranges::find(kSubtypes, subtype) - kSubtypes;
  if (width == std::ssize(kSubtypes))
    fail("{} holds {} samples; convert it to 16, 24 or 32-bit PCM first, e.g. sox {} -e signed-integer -b {} pcm.wav",
         name, nameOfFormat(subtype), name, isOneOf(subtype, {SF_FORMAT_FLOAT, SF_FORMAT_DOUBLE}) ? 24 : 16);
  format = {info.samplerate, static_cast<unsigned>(info.channels), static_cast<unsigned>(width) + 2};
  container = nameOfFormat(major);
  if (isOneOf(major, {SF_FORMAT_WAV, SF_FORMAT_WAVEX, SF_FORMAT_RF64})) checkFrameBytes();
  if (raw && S_ISREG(status.st_mode)) info.frames = status.st_size / static_cast<off_t>(format.frameBytes());
  const auto known = static_cast<std::uint64_t>(info.frames);
  if (!standsForUnknown(known * format.frameBytes(), format.frameBytes())) frames = known;
  checkFrames(static_cast<std::uint64_t>(framesThere));
  findLayout(major);
}

void AudioSource::setSound(SNDFILE* sound) {
  sound_.reset(sound);
  if (file_.error != 0) failToRead(name_, file_.error);
  if (sound == nullptr)
    fail("cannot read {}: {}; give a complete file, e.g. .wav or .flac", name_, reasonOf(nullptr));
}

void AudioSource::checkFrameBytes() const {
  const Riff riff(file_.fd);
  constexpr off_t kFrameBytesAt = 8 + 12;  // 16 bits
  const std::uint32_t word = readWord(file_.fd, riff.find("fmt ") + kFrameBytesAt, riff.bigEndian);
  const std::uint32_t frameBytes = riff.bigEndian ? word >> 16 : word & 0xFFFF;
  if (frameBytes != format.frameBytes())
    fail("{} contradicts itself: {} channels of {} bits, but {} bytes a frame; {}", name_, format.channels,
         format.sampleBytes * 8, frameBytes, kAdvice);
}

void AudioSource::findLayout(int major) {
  std::vector<int> map(format.channels);
  if (sf_command(sound_.get(), SFC_GET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int)))) {
    layout = layoutOfChannelMap(map);
    layoutOrigin = layout != 0 ? "from the file's channel map" : "the file's channel map is in no usual order";
  } else {
    layout = layoutWithoutMap(major, format.channels);
    if (layout != 0) layoutOrigin = major == SF_FORMAT_FLAC ? "from FLAC's fixed order" : "from the channel count";
    if (layout == 0 && (format.channels == 4 || format.channels == 6)) {
      layout = standardLayout(format.channels);
      layoutOrigin = fmt::format("assumed for {} channels without a map; --layout says otherwise", format.channels);
    }
  }
}

std::size_t AudioSource::read(std::int32_t* samples, std::size_t wanted) {
  const auto got = static_cast<std::size_t>(sf_readf_int(sound_.get(), samples, static_cast<sf_count_t>(wanted)));
  delivered_ += got;
  if (got == wanted) return got;
  if (file_.error != 0) failToRead(name_, file_.error);
  if (file_.sequential && static_cast<std::uint64_t>(file_.position) % format.frameBytes() != 0)
    fail("{} ends inside a frame of {} bytes; check --raw, or {}", name_, format.frameBytes(), kAdvice);
  checkFrames(delivered_);
  if (sf_error(sound_.get()) != 0) fail("{} is damaged: {}; {}", name_, reasonOf(sound_.get()), kAdvice);
  return got;
}

void AudioSource::checkFrames(std::uint64_t there) const {
  if (frames && there < *frames)
    fail("{} is cut short or damaged: {} of {} frames can be read; {}", name_, there, *frames, kAdvice);
}

AudioSink::AudioSink(const OutputFile& file, int major, const StreamFormat& format, ChannelMask layout,
                     const std::optional<std::uint64_t>& frames)
    : output_(file),
      layout_(layout),
      file_{file.fd(), major == SF_FORMAT_RAW},
      mostFrames_(kMostBytes / format.frameBytes()) {
  const bool toRf64 = major == SF_FORMAT_WAV && (!frames || *frames > mostFrames_);
  if (toRf64) major = SF_FORMAT_RF64;
  const bool needsMask = layout == KES_LAYOUT_NONE || layout != layoutWithoutMap(major, format.channels);
  if (major == SF_FORMAT_WAV && (needsMask || format.sampleBytes > 2)) major = SF_FORMAT_WAVEX;
  container = frames || !toRf64 ? nameOfFormat(major & SF_FORMAT_TYPEMASK) : "WAV, or RF64 if it passes 4 GiB";
  if (isOneOf(major, {SF_FORMAT_RAW, SF_FORMAT_RF64, SF_FORMAT_W64, SF_FORMAT_CAF, SF_FORMAT_AU, SF_FORMAT_FLAC}))
    mostFrames_ = UINT64_MAX;
  checkLength(frames.value_or(0));
  // Other programs know little-endian AIFC of 16 bits alone.
  if (major == (SF_FORMAT_AIFF | SF_ENDIAN_LITTLE) && format.sampleBytes > 2) major = SF_FORMAT_AIFF;

  SF_INFO info = infoOf(format, major);
  if (!sf_format_check(&info))
    fail("cannot write {}: {} does not take {} channels of {} bits; use .wav, .caf or .aiff", file.name(), container,
         format.channels, format.sampleBytes * 8);
  constexpr int kMostAiffRate = 1 << 30;  // libsndfile writes any that is greater as 800 MHz
  if ((major & SF_FORMAT_TYPEMASK) == SF_FORMAT_AIFF && format.rate > kMostAiffRate)
    fail("cannot write {}: {} does not take {} Hz; use .wav, .caf or .au", file.name(), container, format.rate);
  sound_.reset(openSound(file_, SFM_WRITE, info));
  if (!sound_) failOfSound();
  if (toRf64) sf_command(sound_.get(), SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);

  hasMask_ = isOneOf(major, {SF_FORMAT_WAVEX, SF_FORMAT_RF64});
  std::vector<int> map = channelMapOfLayout(layout);
  map.resize(format.channels);
  const bool mapTaken =
      sf_command(sound_.get(), SFC_SET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int)));
  layoutTold = hasMask_ || mapTaken ? layout : layoutWithoutMap(major, format.channels);
}

void AudioSink::write(const std::int32_t* samples, std::size_t frames) {
  checkLength(written_ += frames);
  const auto count = static_cast<sf_count_t>(frames);
  if (sf_writef_int(sound_.get(), samples, count) != count) failOfSound();
}

void AudioSink::finish() {
  if (sf_close(sound_.release()) != 0 || file_.error != 0) failOfSound();
  if (!hasMask_) return;
  // libsndfile keeps a layout only if it places every channel, and otherwise guesses one from their count.
  constexpr off_t kMaskOffset = 8 + 20;
  const off_t format = Riff(file_.fd).find("fmt ");
  if (pwrite(file_.fd, &layout_, sizeof layout_, format + kMaskOffset) != ssize_t{sizeof layout_})
    failToWrite(output_.name(), errno);
}

void AudioSink::checkLength(std::uint64_t frames) const {
  if (frames > mostFrames_)
    fail("cannot write {}: {} ends at 4 GiB; use .wav, .caf or .flac", output_.name(), container);
}

void AudioSink::failOfSound() const {
  if (file_.error != 0) failToWrite(output_.nameWritten(), file_.error);
  fail("cannot write {}: {}; use another container, e.g. .wav", output_.name(), reasonOf(sound_.get()));
}

}  // namespace kesconvert
