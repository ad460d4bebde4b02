// SPDX-License-Identifier: Apache-2.0
// Input and output files. An output appears complete or not at all.
#ifndef KESCONVERT_FILES_H
#define KESCONVERT_FILES_H

#include <sys/stat.h>

#include <string>
#include <utility>

namespace kesconvert {

// An open file, closed with its owner.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor();

  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  struct stat status() const;

 private:
  int fd_;
};

// Fail with the reason that errno gives.
[[noreturn]] void failToRead(const std::string& name, int error);
[[noreturn]] void failToWrite(const std::string& name, int error);

// Opens a file for reading; "-" is standard input. With seekable, copies a pipe to a temporary file first, since most
// containers are read by seeking.
Descriptor openInput(const std::string& name, bool seekable);

// Writes a file beside its place, under a hidden name, which commit() renames: an older file stays until then, and
// without commit() nothing is left behind, after a failure or a signal. Follows a link to its file. Writes directly
// to anything else ("-" for standard output, a pipe, a device); with seekable, commit() copies it there from a
// temporary file.
class OutputFile {
 public:
  OutputFile(const std::string& name, bool seekable, const Descriptor& input);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  const std::string& name() const { return name_; }
  std::string nameWritten() const;  // name of the file behind fd(), for messages
  int fd() const { return copy_.get() >= 0 ? copy_.get() : target_.get(); }
  void commit();

 private:
  void createBeside();

  std::string name_;
  std::string place_;      // where the file goes; empty when there is nothing to rename
  std::string temporary_;  // its name until it is renamed
  Descriptor target_;
  Descriptor copy_;
};

}  // namespace kesconvert

#endif
