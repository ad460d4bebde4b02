/* SPDX-License-Identifier: Apache-2.0 */
/* Plays 5.1 at 48 kHz on a stereo device at 44.1 kHz, out of an audio callback. The callback has the form that AAudio
 * calls on Android; here a loop calls it, and the sound goes to standard output:
 *
 *   callback | aplay -f S16_LE -c 2 -r 44100
 *
 * Whatever allocates or logs happens before the first callback: Open, and the first block of the resampler, for which
 * it allocates memory unless the block is empty. From then on it only calculates. */
#include <kesaudio/kesaudio.h>
#include <stdio.h>
#include <string.h>

enum { IN_RATE = 48000, OUT_RATE = 44100, BLOCK_FRAMES = 96, READY_FRAMES = BLOCK_FRAMES + 2 };

typedef struct Player {
  KesAudioSrcInC resampler;
  const int16_t (*surround)[6]; /* the sound, over and over */
  uint32_t frames, at;
  int16_t mixed[BLOCK_FRAMES][2]; /* what the resampler takes, with what it left over in front */
  uint32_t mixedFrames;
  int16_t ready[READY_FRAMES][2]; /* what it made, and the callback has not yet played */
  uint32_t readyFrames, readyAt;
} Player;

static int openPlayer(Player* player, const int16_t (*surround)[6], uint32_t frames) {
  uint32_t none = 0, made = 0;
  memset(player, 0, sizeof *player);
  player->surround = surround;
  player->frames = frames;
  InitKesAudioSrcInC(&player->resampler);
  return player->resampler.Open(&player->resampler, IN_RATE, 2, OUT_RATE, 2, KES_RESAMPLER_S16) == KES_OK &&
         player->resampler.Process(&player->resampler, player->mixed, &none, player->ready, &made) == KES_OK;
}

/* Mixes the next block and resamples it. */
static int refill(Player* player) {
  uint32_t frames = BLOCK_FRAMES - player->mixedFrames;
  if (frames > player->frames - player->at) frames = player->frames - player->at;
  uint32_t inBytes = frames * 12, outBytes = frames * 4;
  Audio_Channel_Downmix(6, 2, KES_PCM_S16, player->surround[player->at], &inBytes, player->mixed[player->mixedFrames],
                        &outBytes, KES_LAYOUT_5POINT1);
  player->at = (player->at + frames) % player->frames;
  player->mixedFrames += frames;

  uint32_t left = player->mixedFrames * 4, made = sizeof player->ready;
  if (player->resampler.Process(&player->resampler, player->mixed, &left, player->ready, &made) != KES_OK) return 0;
  if (made == 0 && left == player->mixedFrames * 4) return 0; /* no endless loop in a callback */
  memmove(player->mixed, player->mixed[player->mixedFrames - left / 4], left);
  player->mixedFrames = left / 4;
  player->readyFrames = made / 4;
  player->readyAt = 0;
  return 1;
}

/* Fills audio with frames of stereo. Returns 0 to go on, 1 to stop, as AAudio wants it. */
static int onAudio(void* stream, void* user, void* audio, int32_t frames) {
  Player* const player = user;
  int16_t(*out)[2] = audio;
  (void)stream;
  while (frames > 0) {
    while (player->readyFrames == 0)
      if (!refill(player)) return 1;
    const uint32_t wanted = (uint32_t)frames, now = wanted < player->readyFrames ? wanted : player->readyFrames;
    memcpy(out, player->ready[player->readyAt], now * sizeof *out);
    out += now;
    frames -= (int32_t)now;
    player->readyAt += now;
    player->readyFrames -= now;
  }
  return 0;
}

static void closePlayer(Player* player) { player->resampler.Close(&player->resampler); }

int main(void) {
  static int16_t surround[IN_RATE][6], audio[192][2]; /* a second: a buzz in the centre, at the left, at the right */
  for (int i = 0; i < IN_RATE; ++i) surround[i][i < 16000 ? 2 : i < 32000 ? 0 : 1] = (int16_t)(i % 200 * 40 - 4000);
  static Player player;
  if (!openPlayer(&player, (const int16_t(*)[6])surround, IN_RATE)) return 1;
  for (uint32_t played = 0; played < 3 * OUT_RATE; played += 192) {
    if (onAudio(NULL, &player, audio, 192) != 0) break;
    fwrite(audio, sizeof *audio, 192, stdout);
  }
  closePlayer(&player);
  return 0;
}
