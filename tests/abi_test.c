/* SPDX-License-Identifier: Apache-2.0 */
/* Where every member of the records lies, which programs built against an earlier release rely on. */
#include <kesaudio/kesaudio.h>
#include <stddef.h>
#include <stdio.h>

typedef struct {
  const char* member;
  size_t offset, size, wantedOffset, wantedSize;
} Member;

#define RECORD(type, size) \
  { #type, 0, sizeof(type), 0, size }
#define AT(type, member, offset, size) \
  { #type "." #member, offsetof(type, member), sizeof(((type*)0)->member), offset, size }

#define CHANNEL(member, offset, size) AT(KesAudioChannelConverterInC, member, offset, size)
#define SRC(member, offset, size) AT(KesAudioSrcInC, member, offset, size)
#define BIT(member, offset, size) AT(KesAudioBitConverterC, member, offset, size)
#define SRC_PARAM(member, offset) AT(SrcParam, member, offset, 4)
#define LIMITER(member, offset) AT(LimiterParam, member, offset, 4)

static const Member members[] = {
    RECORD(KesAudioChannelConverterInC, 80),
    CHANNEL(SetParameter, 0, 8),
    CHANNEL(GetParameter, 8, 8),
    CHANNEL(Reset, 16, 8),
    CHANNEL(Open, 24, 8),
    CHANNEL(Close, 32, 8),
    CHANNEL(Process, 40, 8),
    CHANNEL(mState, 48, 4),
    CHANNEL(mInChannels, 52, 4),
    CHANNEL(mOutChannels, 56, 4),
    CHANNEL(mFormat, 60, 4),
    CHANNEL(mUpmixMode, 64, 4),
    CHANNEL(mChannelMask, 68, 4),
    CHANNEL(mChannelMaskValid, 72, 4),

    RECORD(KesAudioSrcInC, 136),
    SRC(SetParameter, 0, 8),
    SRC(GetParameter, 8, 8),
    SRC(Reset, 16, 8),
    SRC(Open, 24, 8),
    SRC(Close, 32, 8),
    SRC(Process, 40, 8),
    SRC(MultiChannel_Open, 48, 8),
    SRC(MultiChannel_ResetBuffer, 56, 8),
    SRC(MultiChannel_Process, 64, 8),
    SRC(mTempBufSize, 72, 4),
    SRC(mInternalBufSize, 76, 4),
    SRC(mpTempBuf, 80, 8),
    SRC(mpInternalBuf, 88, 8),
    SRC(mParam, 96, 20),
    SRC(mpResampler, 120, 8),
    SRC(mState, 128, 4),
    SRC(mFirstBlockDone, 132, 4),

    RECORD(SrcParam, 20),
    SRC_PARAM(inSampleRate, 0),
    SRC_PARAM(inChannels, 4),
    SRC_PARAM(outSampleRate, 8),
    SRC_PARAM(outChannels, 12),
    SRC_PARAM(format, 16),

    RECORD(KesAudioBitConverterC, 120),
    BIT(Open, 0, 8),
    BIT(Close, 8, 8),
    BIT(SetParameter, 16, 8),
    BIT(GetParameter, 24, 8),
    BIT(Reset, 32, 8),
    BIT(Process, 40, 8),
    BIT(mConvertType, 48, 4),
    BIT(mChannels, 52, 4),
    BIT(mSampleRate, 56, 4),
    BIT(mpTempBuf, 64, 8),
    BIT(mpInternalBuf, 72, 8),
    BIT(mTempBufSize, 80, 4),
    BIT(mInternalBufSize, 84, 4),
    BIT(mLimiterParam, 88, 16),
    BIT(mpLimiter, 104, 8),
    BIT(mState, 112, 4),

    RECORD(LimiterParam, 16),
    LIMITER(channels, 0),
    LIMITER(sampleRate, 4),
    LIMITER(reserved0, 8),
    LIMITER(reserved1, 12),
};

int main(void) {
  int moved = 0;
  for (const Member* m = members; m != members + sizeof members / sizeof *members; ++m) {
    if (m->offset == m->wantedOffset && m->size == m->wantedSize) continue;
    fprintf(stderr, "%s: %zu bytes at %zu, which was %zu at %zu\n", m->member, m->size, m->offset, m->wantedSize,
            m->wantedOffset);
    ++moved;
  }
  return moved != 0;
}
