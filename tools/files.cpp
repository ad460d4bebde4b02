// SPDX-License-Identifier: Apache-2.0
#include "files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

#include "failure.h"

namespace kesconvert {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTemporaryCopy = "the temporary copy, which goes where TMPDIR says";

// Removed by a signal. The name is ours alone, so removing it too early or too late does no harm.
char gTemporary[PATH_MAX];

extern "C" void removeTemporaryAndDie(int signal) {
  unlink(gTemporary);
  std::signal(signal, SIG_DFL);
  raise(signal);
}

Descriptor namelessFile() {
  std::error_code none;
  const fs::path folder = fs::temp_directory_path(none);
  if (none) failToWrite(kTemporaryCopy, none.value());
  std::string name = folder / "kesconvert-XXXXXX";
  Descriptor file(mkostemp(name.data(), O_CLOEXEC));
  if (file.get() < 0) failToWrite(kTemporaryCopy, errno);
  unlink(name.c_str());
  return file;
}

void copyToEnd(int from, const std::string& fromName, int to, const std::string& toName) {
  char block[1 << 16];
  while (const ssize_t got = read(from, block, sizeof block)) {
    if (got < 0) failToRead(fromName, errno);
    for (ssize_t done = 0; done < got;) {
      const ssize_t put = write(to, block + done, static_cast<std::size_t>(got - done));
      if (put < 0) failToWrite(toName, errno);
      done += put;
    }
  }
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd_ >= 0) close(fd_);
}

struct stat Descriptor::status() const {
  struct stat status {};
  fstat(fd_, &status);
  return status;
}

void failToRead(const std::string& name, int error) {
  fail("cannot read {}: {}; check the name and its permissions", name, strerror(error));
}

void failToWrite(const std::string& name, int error) {
  if (error == EPIPE) throw Failure("");  // the reader of our output is gone: no message
  const bool noRoom = error == ENOSPC || error == EDQUOT || error == EFBIG;
  fail("cannot write {}: {}; {}", name, strerror(error),
       noRoom ? "make room, or write elsewhere" : "check the name, its folder and their permissions");
}

Descriptor openInput(const std::string& name, bool seekable) {
  Descriptor input(name == "-" ? dup(STDIN_FILENO) : open(name.c_str(), O_RDONLY | O_CLOEXEC));
  if (input.get() < 0) failToRead(name, errno);
  const mode_t mode = input.status().st_mode;
  if (S_ISDIR(mode)) failToRead(name, EISDIR);
  if (!seekable || S_ISREG(mode)) return input;
  if (!S_ISFIFO(mode) && !S_ISSOCK(mode)) fail("cannot read {}: it is a device; give a file, a pipe or --raw", name);
  Descriptor copy = namelessFile();
  copyToEnd(input.get(), name, copy.get(), kTemporaryCopy);
  return copy;
}

OutputFile::OutputFile(const std::string& name, bool seekable, const Descriptor& input) : name_(name) {
  struct stat old {};
  const bool exists = name == "-" ? fstat(STDOUT_FILENO, &old) == 0 : stat(name.c_str(), &old) == 0;
  if (!exists && errno != ENOENT) failToWrite(name, errno);
  const struct stat source = input.status();
  if (exists && S_ISREG(old.st_mode) && old.st_dev == source.st_dev && old.st_ino == source.st_ino)
    fail("{} is the input itself; give the output another name", name);
  if (name == "-" || (exists && !S_ISREG(old.st_mode))) {
    target_ = Descriptor(name == "-" ? dup(STDOUT_FILENO) : open(name.c_str(), O_WRONLY | O_CLOEXEC));
    if (target_.get() < 0) failToWrite(name, errno);
    if (seekable) copy_ = namelessFile();
    return;
  }
  if (exists && faccessat(AT_FDCWD, name.c_str(), W_OK, AT_EACCESS) != 0) failToWrite(name, errno);
  createBeside();
  if (exists) fchmod(target_.get(), old.st_mode & 0777);
}

std::string OutputFile::nameWritten() const { return copy_.get() >= 0 ? kTemporaryCopy : name_; }

void OutputFile::createBeside() {
  fs::path place = name_;
  constexpr int kMaxLinks = 40;  // Linux's own limit
  std::error_code none;
  for (int links = 0; links < kMaxLinks && fs::is_symlink(place, none); ++links)
    place = place.parent_path() / fs::read_symlink(place);
  temporary_ = place.parent_path() / fmt::format(".kesconvert-{:08x}", std::random_device()());
  if (temporary_.size() >= sizeof gTemporary) failToWrite(name_, ENAMETOOLONG);
  std::memcpy(gTemporary, temporary_.c_str(), temporary_.size() + 1);
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
    if (std::signal(signal, removeTemporaryAndDie) == SIG_IGN) std::signal(signal, SIG_IGN);  // as under nohup

  target_ = Descriptor(open(temporary_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (target_.get() < 0) failToWrite(name_, errno);
  place_ = place;
}

void OutputFile::commit() {
  if (copy_.get() >= 0) {
    lseek(copy_.get(), 0, SEEK_SET);
    copyToEnd(copy_.get(), kTemporaryCopy, target_.get(), name_);
  }
  const bool renamed = !place_.empty();
  if (renamed && fsync(target_.get()) != 0) failToWrite(name_, errno);
  if (close(target_.release()) != 0) failToWrite(name_, errno);
  if (renamed && rename(temporary_.c_str(), place_.c_str()) != 0) failToWrite(name_, errno);
  place_.clear();
}

OutputFile::~OutputFile() {
  if (!place_.empty()) unlink(temporary_.c_str());
}

}  // namespace kesconvert
