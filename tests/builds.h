// SPDX-License-Identifier: Apache-2.0
// The builds of a host library: the one for every machine first, then those for newer levels of x86-64, if they were
// built and this machine can run them. Each is loaded by its path, so that none is left out.
#pragma once

#include <dlfcn.h>

#include <stdexcept>
#include <string>
#include <vector>

class Build {
 public:
  explicit Build(const std::string& path) : library_(dlopen(path.c_str(), RTLD_NOW)) {
    if (!library_) throw std::runtime_error(dlerror());
  }
  // Its function of that name, to a pointer of the declaration's type.
  template <class Function>
  void find(Function*& function, const char* name) const {
    function = reinterpret_cast<Function*>(dlsym(library_, name));
  }

 private:
  void* library_;
};

inline std::vector<Build> buildsOf(const std::string& name) {
  const std::string folder = HOST_LIBRARIES, file = "/lib" + name + ".so";
  std::vector<Build> builds{Build(folder + file)};
#ifdef __x86_64__
  const auto add = [&](const std::string& level, bool runs) {
    const std::string path = folder + "/glibc-hwcaps/" + level + file;
    if (runs && std::string(HOST_LEVELS).find(level) != std::string::npos) builds.emplace_back(path);
  };
  add("x86-64-v3", __builtin_cpu_supports("avx2"));
  add("x86-64-v4", __builtin_cpu_supports("avx512vl"));
#endif
  return builds;
}
