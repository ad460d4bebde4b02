/* SPDX-License-Identifier: Apache-2.0 */
/* Calls the 5.1 mix alone, to be weighed: of a static library nothing else may come along. */
#include <kesaudio/channel_kernels.h>

int main(void) {
  const int16_t surround[6] = {0, 0, 1000, 0, 0, 0};
  int16_t stereo[2];
  channel_DownMix_To_Stereo(stereo, 2, surround, 6, sizeof surround, KES_PCM_S16, KES_LAYOUT_5POINT1);
  return stereo[0] != 1414 || stereo[1] != 1414;
}
