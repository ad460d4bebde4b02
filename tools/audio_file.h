// SPDX-License-Identifier: Apache-2.0
// Audio in files, containers and raw PCM alike, through libsndfile. Samples are 32-bit words that hold a narrower
// sample in their high bits.
#ifndef KESCONVERT_AUDIO_FILE_H
#define KESCONVERT_AUDIO_FILE_H

#include <sndfile.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "files.h"
#include "layout.h"

namespace kesconvert {

struct StreamFormat {
  int rate = 0;
  unsigned channels = 0;
  unsigned sampleBytes = 0;

  std::uint64_t frameBytes() const { return std::uint64_t{channels} * sampleBytes; }
};

// libsndfile's major format for the extension of a name; empty when it is none of the containers that we take.
std::optional<int> containerOfName(const std::string& name);

// What libsndfile reads and writes through.
struct VirtualFile {
  int fd = -1;
  bool sequential = false;        // a stream: its position cannot be chosen
  sf_count_t length = 0;          // what libsndfile is told
  sf_count_t unknownSizeAt = -1;  // where a size stands that is not known; its first bytes are read as
  std::string_view readAs = "\xFF\xFF\xFF\xFF";
  sf_count_t position = 0;
  int error = 0;  // errno of a call that failed
};

using Sound = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

class AudioSource {
 public:
  // raw: the format of a file without a header; empty for a container.
  AudioSource(const Descriptor& file, const std::string& name, const std::optional<StreamFormat>& raw);

  // Returns the frames read, fewer than wanted at the end only. Fails when the input is cut short or damaged.
  std::size_t read(std::int32_t* samples, std::size_t wanted);

  StreamFormat format;
  std::optional<std::uint64_t> frames;  // empty: known at the end
  std::string container;
  ChannelMask layout = KES_LAYOUT_NONE;
  std::string layoutOrigin = "nothing names it";

 private:
  void setSound(SNDFILE* sound);
  void findLayout(int major);
  void checkFrameBytes() const;
  void checkFrames(std::uint64_t there) const;

  std::string name_;
  VirtualFile file_;
  Sound sound_{nullptr, sf_close};
  std::uint64_t delivered_ = 0;
};

class AudioSink {
 public:
  // container: SF_FORMAT_RAW for no header. frames: the length, if known; a WAV beyond 4 GiB becomes an RF64.
  AudioSink(const OutputFile& file, int container, const StreamFormat& format, ChannelMask layout,
            const std::optional<std::uint64_t>& frames);
  void write(const std::int32_t* samples, std::size_t frames);

  // Completes the file; then it can be committed.
  void finish();

  std::string container;
  ChannelMask layoutTold = KES_LAYOUT_NONE;  // what a reader of the file will take the layout for

 private:
  void checkLength(std::uint64_t frames) const;
  [[noreturn]] void failOfSound() const;

  const OutputFile& output_;
  ChannelMask layout_;
  VirtualFile file_;
  Sound sound_{nullptr, sf_close};
  bool hasMask_ = false;  // the header is WAV's extensible one
  std::uint64_t mostFrames_;
  std::uint64_t written_ = 0;
};

}  // namespace kesconvert

#endif
