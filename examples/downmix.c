/* SPDX-License-Identifier: Apache-2.0 */
/* Mixes one block of 5.1 to stereo: 16 bits, 10 ms at 48 kHz. */
#include <kesaudio/kesaudio.h>
#include <stdio.h>

enum { FRAMES = 480 };

int main(void) {
  static int16_t surround[FRAMES][6], stereo[FRAMES][2];
  for (int i = 0; i < FRAMES; ++i) {
    surround[i][0] = (int16_t)(10 * i); /* front left: a ramp */
    surround[i][2] = 1000;              /* centre */
    surround[i][5] = -500;              /* back right */
  }
  uint32_t inBytes = sizeof surround, outBytes = sizeof stereo;
  Audio_Channel_Downmix(6, 2, KES_PCM_S16, surround, &inBytes, stereo, &outBytes, KES_LAYOUT_5POINT1);
  printf("%u bytes made, %u left\n", outBytes, inBytes);
  for (int i = 0; i < FRAMES; i += 160) printf("frame %d: left %d, right %d\n", i, stereo[i][0], stereo[i][1]);
  return 0;
}
