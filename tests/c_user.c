/* SPDX-License-Identifier: Apache-2.0 */
/* Mixes two 5.1 frames to stereo in C99: through a component, and through an entry point. */
#include <kesaudio/kesaudio.h>
#include <stdio.h>

static int check(const char* what, const int16_t* samples, int16_t left, int16_t right) {
  if (samples[0] == left && samples[1] == right) return 0;
  fprintf(stderr, "%s: got %d %d, expected %d %d\n", what, samples[0], samples[1], left, right);
  return 1;
}

int main(void) {
  const int16_t surround[2][6] = {{600, 60, 0, 0, 0, 0}, {0, 0, 1000, 0, 0, 0}}; /* FL FR FC LFE BL BR */
  int16_t stereo[2][2] = {{0}};
  uint32_t inBytes = sizeof surround, outBytes = sizeof stereo;
  int failures = 0;

  KesAudioChannelConverterInC converter;
  InitKesAudioChannelConverterInC(&converter);
  if (converter.Open(&converter, 6, 2, KES_PCM_S16) != KES_OK) return 1;
  if (converter.Process(&converter, surround, &inBytes, stereo, &outBytes) != KES_OK) return 1;
  converter.Close(&converter);
  failures += check("pairwise average", stereo[0], 100, 10);

  inBytes = sizeof surround;
  Audio_Channel_Downmix(6, 2, KES_PCM_S16, surround, &inBytes, stereo, &outBytes, KES_LAYOUT_5POINT1);
  failures += check("5.1 mix", stereo[1], 1414, 1414);
  return failures != 0 || inBytes != 0 || outBytes != sizeof stereo;
}
