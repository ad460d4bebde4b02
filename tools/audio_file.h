// SPDX-License-Identifier: Apache-2.0
// Reads and writes audio files and raw PCM through libsndfile. Samples are 32-bit words: 8.24, or integers, with
// narrower ones in the high bits.
#ifndef KESCONVERT_AUDIO_FILE_H
#define KESCONVERT_AUDIO_FILE_H

#include <sndfile.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "files.h"
#include "layout.h"
#include "stream_format.h"

namespace kesconvert {

// libsndfile's major format for the extension of a file name; empty for an unknown one.
std::optional<int> containerOfName(const std::string& name);

// State of the I/O callbacks given to libsndfile.
struct VirtualFile {
  int fd = -1;
  bool sequential = false;  // a stream, which cannot seek
  sf_count_t length = 0;    // as libsndfile is told
  sf_count_t position = 0;
  int error = 0;  // errno of a call that failed
};

using Sound = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

class AudioSource {
 public:
  // raw: the format of a file without a header; empty if the file describes itself.
  AudioSource(const Descriptor& file, const std::string& name, const std::optional<StreamFormat>& raw);

  // Returns the frames read, fewer than wanted only at the end. Fails if the input is cut short or damaged.
  std::size_t read(std::int32_t* samples, std::size_t wanted);

  StreamFormat format;                  // 8.24 for float and lossy files
  std::optional<std::uint64_t> frames;  // empty if known only at the end
  std::string container;
  std::string encoding;                 // "24-bit", "MPEG Layer III"
  PcmFormat usualOutput = KES_PCM_S16;  // the samples of an output without --format
  std::uint64_t clippedSamples = 0;     // beyond 8.24, or not a number
  ChannelMask layout = KES_LAYOUT_NONE;
  std::string layoutOrigin = "nothing names it";

 private:
  bool open(SF_INFO& info);
  void setFormat(const SF_INFO& info);
  void findLayout(int format);

  std::string name_;
  VirtualFile file_;
  Sound sound_{nullptr, sf_close};
  std::uint64_t delivered_ = 0;
  std::vector<double> doubles_;
  std::string order_;  // place of each channel in the file's frames; empty if in the order of the layout
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
  ChannelMask storedLayout = KES_LAYOUT_NONE;  // as a reader of the file will understand it

 private:
  void checkLength(std::uint64_t frames) const;
  [[noreturn]] void failOfSound() const;

  const OutputFile& output_;
  ChannelMask layout_;
  VirtualFile file_;
  Sound sound_{nullptr, sf_close};
  bool hasMask_ = false;  // the header is WAV's extensible one
  std::uint64_t maxFrames_;
  std::uint64_t written_ = 0;
};

}  // namespace kesconvert

#endif
