// SPDX-License-Identifier: Apache-2.0
// The resampler component: its record, states and parameters, and the library's buffers.
#include "kesaudio/resampler.h"

#include "base/work_buffers.h"
#include "resampler/variant.h"

namespace {

using namespace kesaudio;
using namespace kesaudio::resampler;
using Record = KesAudioSrcInC;

// ---- shared by the variants

bool prepareLibrary(Record* handle, const Variant& variant) {
  const int32_t result = variant.getBufferSize(&handle->mInternalBufSize, &handle->mTempBufSize, &handle->mParam);
  if (result < 0) {
    __android_log_print(KES_LOG_DEBUG, kTag, "Palix_GetBufferSize return err %d\n", result);
    return false;
  }
  if (!allocateBuffer(&handle->mpInternalBuf, handle->mInternalBufSize)) {
    __android_log_print(KES_LOG_DEBUG, kTag, "%s() mpInternalBuf malloc failed\n", variant.openName);
    return false;
  }
  if (!allocateBuffer(&handle->mpTempBuf, handle->mTempBufSize)) {
    __android_log_print(KES_LOG_DEBUG, kTag, "%s() mpTempBuf malloc failed\n", variant.openName);
    return false;
  }
  handle->mpResampler = nullptr;  // the library may fail without storing an instance
  variant.open(&handle->mpResampler, handle->mpInternalBuf, &handle->mParam);
  return true;
}

uint32_t open(Record* handle, const Variant& variant, const SrcParam& param) {
  handle->mParam = param;
  if (!prepareLibrary(handle, variant)) {
    freeBuffers(handle);
    return KES_REFUSED;
  }
  handle->mState = KES_STATE_OPEN;
  return KES_OK;
}

uint32_t reset(Record* handle, const Variant& variant) {
  __android_log_print(KES_LOG_DEBUG, kTag, "+%s()\n", variant.resetName);
  if (handle->mState != KES_STATE_OPEN) return KES_REFUSED;
  variant.reset(handle->mpResampler);
  __android_log_print(KES_LOG_DEBUG, kTag, "-%s()\n", variant.resetName);
  return KES_OK;
}

// The field that an even ID sets; null for any other ID.
uint32_t* fieldOf(SrcParam& param, int32_t paramID) {
  switch (paramID) {
    case KES_RESAMPLER_PARAM_FORMAT: return &param.format;
    case KES_RESAMPLER_PARAM_IN_RATE: return &param.inSampleRate;
    case KES_RESAMPLER_PARAM_OUT_RATE: return &param.outSampleRate;
    case KES_RESAMPLER_PARAM_IN_CHANNELS: return &param.inChannels;
    case KES_RESAMPLER_PARAM_OUT_CHANNELS: return &param.outChannels;
    default: return nullptr;
  }
}

// ---- the operations

uint32_t SrcSetParameter(Record* handle, int32_t paramID, uint32_t value) {
  __android_log_print(KES_LOG_DEBUG, kTag, "+%s(), paramID %d, param 0x%x\n", __func__, paramID, value);
  uint32_t* const field = fieldOf(handle->mParam, paramID);
  if (handle->mState == KES_STATE_OPEN) {
    if (paramID != KES_RESAMPLER_PARAM_OUT_RATE) return KES_REFUSED;
    *field = value;
    Palix_SetSamplingRate(handle->mpResampler, value);
  } else {
    if (!field || (paramID == KES_RESAMPLER_PARAM_FORMAT && value > KES_RESAMPLER_MAX_FORMAT))
      return KES_BAD_PARAMETER;
    *field = value;
  }
  __android_log_print(KES_LOG_DEBUG, kTag, "-%s()\n", __func__);
  return KES_OK;
}

uint32_t SrcGetParameter(Record* handle, int32_t paramID) {
  __android_log_print(KES_LOG_DEBUG, kTag, "+%s(), paramID %d\n", __func__, paramID);
  // Each field is read by the ID after its own. Unsigned: INT32_MIN - 1 would overflow.
  const uint32_t* const field = fieldOf(handle->mParam, static_cast<int32_t>(static_cast<uint32_t>(paramID) - 1));
  if (!field) return KES_BAD_PARAMETER;
  __android_log_print(KES_LOG_DEBUG, kTag, "-%s(), paramID %d, param 0x%x\n", __func__, paramID, *field);
  return KES_OK;
}

uint32_t SrcReset(Record* handle) { return reset(handle, kPlain); }

uint32_t SrcOpen(Record* handle, uint32_t inSampleRate, uint32_t inChannels, uint32_t outSampleRate,
                 uint32_t outChannels, ResamplerFormat format) {
  if (handle->mState != KES_STATE_CLOSED) return KES_REFUSED;
  return open(handle, kPlain, {inSampleRate, inChannels, outSampleRate, outChannels, format});
}

uint32_t SrcClose(Record* handle) {
  if (handle->mState != KES_STATE_OPEN) return KES_REFUSED;
  freeBuffers(handle);
  handle->mState = KES_STATE_CLOSED;
  return KES_OK;
}

uint32_t SrcProcess(Record* handle, const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes) {
  return process(handle, kPlain, src, inBytes, dst, outBytes);
}

uint32_t MultiChannel_Open(Record* handle, uint32_t inSampleRate, uint32_t inChannels, uint32_t outSampleRate,
                           uint32_t outChannels, ResamplerFormat format) {
  __android_log_print(KES_LOG_DEBUG, kTag, "+%s()\n", __func__);
  if (handle->mState != KES_STATE_CLOSED) return KES_REFUSED;
  if (inChannels != outChannels) {
    __android_log_print(KES_LOG_ERROR, kTag, "in ch %u != out ch %u", inChannels, outChannels);
    return KES_REFUSED;
  }
  const uint32_t code = open(handle, kMultiChannel, {inSampleRate, inChannels, outSampleRate, outChannels, format});
  if (code == KES_OK) __android_log_print(KES_LOG_DEBUG, kTag, "-%s()\n", __func__);
  return code;
}

uint32_t MultiChannel_ResetBuffer(Record* handle) { return reset(handle, kMultiChannel); }

uint32_t MultiChannel_Process(Record* handle, const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes) {
  return process(handle, kMultiChannel, src, inBytes, dst, outBytes);
}

}  // namespace

void InitKesAudioSrcInC(KesAudioSrcInC* handle) {
  __android_log_print(KES_LOG_DEBUG, kTag, "%s", __func__);
  *handle = {};
  handle->SetParameter = SrcSetParameter;
  handle->GetParameter = SrcGetParameter;
  handle->Reset = SrcReset;
  handle->Open = SrcOpen;
  handle->Close = SrcClose;
  handle->Process = SrcProcess;
  handle->MultiChannel_Open = MultiChannel_Open;
  handle->MultiChannel_ResetBuffer = MultiChannel_ResetBuffer;
  handle->MultiChannel_Process = MultiChannel_Process;
  handle->mState = KES_STATE_CLOSED;
}
