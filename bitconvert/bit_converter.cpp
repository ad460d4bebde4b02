// SPDX-License-Identifier: Apache-2.0
// The bit converter component: its record and states, in front of the platform's shifter and limiter.
#include "kesaudio/bit_converter.h"

#include "base/work_buffers.h"
#include "platform/limiter_lib.h"
#include "platform/log.h"
#include "platform/shifter_lib.h"

namespace {

using namespace kesaudio;
using Record = KesAudioBitConverterC;

constexpr char kTag[] = "KesAudioBitConverterc";  // of every log line

bool setUpLimiter(Record* handle, const char* operation) {
  Limiter_GetBufferSize(&handle->mInternalBufSize, &handle->mTempBufSize, KES_CONVERT_LIMITER);
  if (!allocateBuffer(&handle->mpInternalBuf, handle->mInternalBufSize)) {
    __android_log_print(KES_LOG_DEBUG, kTag, "%s() mpInternalBuf malloc failed\n", operation);
    return false;
  }
  if (!allocateBuffer(&handle->mpTempBuf, handle->mTempBufSize)) {
    __android_log_print(KES_LOG_DEBUG, kTag, "%s() mpTempBuf malloc failed\n", operation);
    return false;
  }
  handle->mLimiterParam.channels = handle->mChannels;
  handle->mLimiterParam.sampleRate = handle->mSampleRate;
  handle->mLimiterParam.reserved0 = 0;
  Limiter_Open(&handle->mpLimiter, handle->mpInternalBuf, &handle->mLimiterParam);
  return true;
}

uint32_t BitConvertionOpen(Record* handle, uint32_t sampleRate, uint32_t channels, ConvertType convertType) {
  if (handle->mState != KES_STATE_CLOSED) return KES_REFUSED;
  handle->mSampleRate = sampleRate;
  handle->mChannels = channels;
  handle->mConvertType = convertType;
  handle->mpLimiter = nullptr;  // the library may fail without storing an instance
  const bool limits = channels != 0 && sampleRate != 0 && convertType == KES_CONVERT_LIMITER;
  if (limits && !setUpLimiter(handle, __func__)) {
    freeBuffers(handle);
    return KES_REFUSED;
  }
  handle->mState = KES_STATE_OPEN;
  return KES_OK;
}

uint32_t BitConvertionClose(Record* handle) {
  freeBuffers(handle);
  handle->mState = KES_STATE_CLOSED;
  return KES_OK;
}

uint32_t BitConvertionSetParameter(Record* handle, int32_t paramID, uint32_t value) {
  __android_log_print(KES_LOG_DEBUG, kTag, "+%s(), paramID %d, param 0x%x\n", __func__, paramID, value);
  if (handle->mState == KES_STATE_OPEN) return KES_REFUSED;
  switch (paramID) {
    case KES_BIT_PARAM_CONVERT_TYPE:
      if (value > KES_CONVERT_NOTHING && value != KES_CONVERT_LIMITER && value != KES_CONVERT_RESERVED)
        return KES_BAD_PARAMETER;
      handle->mConvertType = value;
      return KES_OK;
    case KES_BIT_PARAM_SAMPLE_RATE: handle->mSampleRate = value; return KES_OK;
    case KES_BIT_PARAM_CHANNELS:
      if (value != 1 && value != 2) return KES_BAD_PARAMETER;
      handle->mChannels = value;
      return KES_OK;
    default: return KES_BAD_PARAMETER;
  }
}

// Stores nothing: the caller can read the record. Callers rely on the code of each ID.
uint32_t BitConvertionGetParameter(Record* /*handle*/, int32_t paramID, void* value) {
  __android_log_print(KES_LOG_DEBUG, kTag, "+%s(), paramID %d, param %p\n", __func__, paramID, value);
  return paramID == 1 || paramID == 2 || paramID == 4 ? KES_OK : KES_BAD_PARAMETER;
}

uint32_t BitConvertionReset(Record* handle) {
  if (handle->mState == KES_STATE_OPEN && handle->mConvertType >= KES_CONVERT_LIMITER && handle->mpLimiter)
    Limiter_Reset(handle->mpLimiter);
  return KES_OK;
}

uint32_t BitConvertionProcess(Record* handle, const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes) {
  if (handle->mState != KES_STATE_OPEN) return KES_REFUSED;
  if (handle->mConvertType == KES_CONVERT_LIMITER) {
    if (!handle->mpLimiter) return KES_REFUSED;
    Limiter_Process(handle->mpLimiter, handle->mpTempBuf, src, inBytes, dst, outBytes);
  } else if (handle->mConvertType < KES_CONVERT_NOTHING) {
    Shifter_Process(src, inBytes, dst, outBytes, handle->mConvertType);
  }
  return KES_OK;
}

}  // namespace

void InitKesAudioBitConverterC(KesAudioBitConverterC* handle) {
  *handle = {};
  handle->Open = BitConvertionOpen;
  handle->Close = BitConvertionClose;
  handle->SetParameter = BitConvertionSetParameter;
  handle->GetParameter = BitConvertionGetParameter;
  handle->Reset = BitConvertionReset;
  handle->Process = BitConvertionProcess;
  handle->mConvertType = KES_CONVERT_UNSET;
  handle->mState = KES_STATE_CLOSED;
}
