// SPDX-License-Identifier: Apache-2.0
// The builds of a host library: the one for every machine first, then those for newer levels of x86-64 that this
// machine can run. Each is loaded by its path, so that none is left out.
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
  if (__builtin_cpu_supports("avx2")) builds.emplace_back(folder + "/glibc-hwcaps/x86-64-v3" + file);
  if (__builtin_cpu_supports("avx512vl")) builds.emplace_back(folder + "/glibc-hwcaps/x86-64-v4" + file);
#endif
  return builds;
}
