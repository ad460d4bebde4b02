/* SPDX-License-Identifier: Apache-2.0 */
/* Streams raw 5.1 of packed 24-bit samples at 48 kHz through all three components, to stereo of 16 bits at 44.1 kHz:
 *
 *   stream <surround.s24 >stereo.s16
 *
 * A block may end anywhere, inside a frame too. Every stage takes whole frames out of a buffer; what it leaves moves
 * to the buffer's start and is offered again, with more behind it. */
#include <kesaudio/kesaudio.h>
#include <stdio.h>
#include <string.h>

enum { STAGES = 4, BUFFER_BYTES = 16384, READ_BYTES = 4096, LATENCY_FRAMES = 192 };

static KesAudioBitConverterC toHeadroom, limiter;
static KesAudioChannelConverterInC mixer;
static KesAudioSrcInC resampler;

static uint32_t addHeadroom(const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes) {
  return toHeadroom.Process(&toHeadroom, src, inBytes, dst, outBytes);
}
static uint32_t mix(const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes) {
  return mixer.Process(&mixer, src, inBytes, dst, outBytes); /* averages; the 5.1 mix is Audio_Channel_Downmix's */
}
static uint32_t resample(const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes) {
  return resampler.Process(&resampler, src, inBytes, dst, outBytes);
}
static uint32_t limit(const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes) {
  return limiter.Process(&limiter, src, inBytes, dst, outBytes);
}

/* Before, between and after the stages. */
static struct {
  uint32_t frameBytes, bytes;
  unsigned char data[BUFFER_BYTES];
} buffers[STAGES + 1] = {
    {.frameBytes = 18}, {.frameBytes = 24}, {.frameBytes = 8}, {.frameBytes = 8}, {.frameBytes = 4}};

typedef uint32_t Process(const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes);
static Process* const stages[STAGES] = {addHeadroom, mix, resample, limit};

static uint32_t wholeFrames(uint32_t bytes, int buffer) { return bytes - bytes % buffers[buffer].frameBytes; }

/* Moves what the first buffer holds through the stages to standard output. False on failure. */
static int run(void) {
  for (int moved = 1; moved;) {
    moved = 0;
    for (int i = 0; i < STAGES; ++i) {
      const uint32_t offered = wholeFrames(buffers[i].bytes, i);
      uint32_t rest = offered, made = wholeFrames(BUFFER_BYTES - buffers[i + 1].bytes, i + 1);
      if (offered == 0 || made == 0) continue;
      if (stages[i](buffers[i].data, &rest, buffers[i + 1].data + buffers[i + 1].bytes, &made) != KES_OK) return 0;
      buffers[i + 1].bytes += made;
      buffers[i].bytes -= offered - rest;
      memmove(buffers[i].data, buffers[i].data + (offered - rest), buffers[i].bytes);
      if (rest != offered) moved = 1;
    }
    if (fwrite(buffers[STAGES].data, 1, buffers[STAGES].bytes, stdout) != buffers[STAGES].bytes) return 0;
    buffers[STAGES].bytes = 0;
  }
  return 1;
}

int main(void) {
  InitKesAudioBitConverterC(&toHeadroom);
  InitKesAudioChannelConverterInC(&mixer);
  InitKesAudioSrcInC(&resampler);
  InitKesAudioBitConverterC(&limiter);
  int fine = toHeadroom.Open(&toHeadroom, 48000, 6, KES_CONVERT_S24_TO_Q8_24) == KES_OK &&
             mixer.Open(&mixer, 6, 2, KES_PCM_Q8_24) == KES_OK &&
             resampler.Open(&resampler, 48000, 2, 44100, 2, KES_RESAMPLER_Q8_24) == KES_OK &&
             limiter.Open(&limiter, 44100, 2, KES_CONVERT_LIMITER) == KES_OK;

  size_t got = 1;
  while (fine && got > 0) {
    got = fread(buffers[0].data + buffers[0].bytes, 1, READ_BYTES, stdin);
    buffers[0].bytes += (uint32_t)got;
    fine = run();
  }
  if (fine) { /* silence brings what resampler and limiter still hold: 0.9 and 1.5 ms */
    if (buffers[0].bytes > 0) fprintf(stderr, "%u bytes at the end are no frame\n", buffers[0].bytes);
    buffers[0].bytes = LATENCY_FRAMES * buffers[0].frameBytes;
    memset(buffers[0].data, 0, buffers[0].bytes);
    fine = run();
  }

  toHeadroom.Close(&toHeadroom);
  mixer.Close(&mixer);
  resampler.Close(&resampler);
  limiter.Close(&limiter);
  return fine ? 0 : 1;
}
