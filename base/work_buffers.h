// SPDX-License-Identifier: Apache-2.0
// The two work buffers that a component obtains for its closed library and frees when it is closed.
#ifndef KESAUDIO_BASE_WORK_BUFFERS_H
#define KESAUDIO_BASE_WORK_BUFFERS_H

#include <cstdint>
#include <cstdlib>

namespace kesaudio {

// Allocates a buffer of the size that the library asks for; 0 means no buffer. False when out of memory.
inline bool allocateBuffer(void** buffer, std::uint32_t bytes) {
  if (bytes != 0) *buffer = std::malloc(bytes);
  return bytes == 0 || *buffer;
}

template <class Record>
void freeBuffers(Record* handle) {
  std::free(handle->mpTempBuf);
  std::free(handle->mpInternalBuf);
  handle->mpTempBuf = handle->mpInternalBuf = nullptr;
}

}  // namespace kesaudio

#endif
