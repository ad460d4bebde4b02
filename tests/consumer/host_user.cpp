// SPDX-License-Identifier: Apache-2.0
// Calls the library and, directly, a host library: converts one sample to 24 bits.
#include <kesaudio/kesaudio.h>
#include <kesaudio/platform/shifter_lib.h>

int main() {
  const uint8_t sample[2] = {0x34, 0x12};
  uint8_t wider[3] = {};
  uint32_t inBytes = sizeof sample, outBytes = sizeof wider;
  KesAudioBitConverterC converter;
  InitKesAudioBitConverterC(&converter);
  return Shifter_Process(sample, &inBytes, wider, &outBytes, KES_CONVERT_S16_TO_S24) != SHIFTER_OK ||
         wider[1] != 0x34 || wider[2] != 0x12 || converter.mState != KES_STATE_CLOSED;
}
