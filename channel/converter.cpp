// SPDX-License-Identifier: Apache-2.0
// The channel converter component: its record's state and parameters, in front of the entry points (entry.cpp).
#include "kesaudio/channel_converter.h"

#include "kesaudio/channel_entry.h"
#include "platform/log.h"

namespace {

using Record = KesAudioChannelConverterInC;

uint32_t ChannelConverterSetParameter(Record* handle, int32_t paramID, uint32_t value) {
  if (handle->mState == KES_STATE_OPEN) return KES_REFUSED;
  switch (paramID) {
    case KES_CHANNEL_PARAM_FORMAT: handle->mFormat = value; break;
    case KES_CHANNEL_PARAM_IN_CHANNELS: handle->mInChannels = value; break;
    case KES_CHANNEL_PARAM_OUT_CHANNELS: handle->mOutChannels = value; break;
    case KES_CHANNEL_PARAM_UPMIX_MODE: handle->mUpmixMode = value; break;
    case KES_CHANNEL_PARAM_MASK: handle->mChannelMask = value; break;
    case KES_CHANNEL_PARAM_MASK_VALID: handle->mChannelMaskValid = value; break;
  }
  return KES_OK;
}

// Stores nothing: the caller can read the record.
uint32_t ChannelConverterGetParameter(Record* /*handle*/, int32_t /*paramID*/, void* /*value*/) { return KES_OK; }

uint32_t ChannelConverterReset(Record* handle) {
  if (handle->mState != KES_STATE_OPEN) return KES_REFUSED;
  handle->mChannelMask = 0;
  handle->mChannelMaskValid = 0;
  return KES_OK;
}

uint32_t ChannelConverterOpen(Record* handle, uint32_t inChannels, uint32_t outChannels, PcmFormat format) {
  if (handle->mState != KES_STATE_CLOSED) return KES_REFUSED;
  if (inChannels > KES_CHANNEL_CONVERTER_MAX_CHANNELS || outChannels > KES_CHANNEL_CONVERTER_MAX_CHANNELS)
    return KES_REFUSED;
  handle->mInChannels = inChannels;
  handle->mOutChannels = outChannels;
  handle->mFormat = format;
  handle->mUpmixMode = 0;
  handle->mChannelMask = 0;
  handle->mChannelMaskValid = 1;
  handle->mState = KES_STATE_OPEN;
  return KES_OK;
}

uint32_t ChannelConverterClose(Record* handle) {
  if (handle->mState != KES_STATE_OPEN) return KES_REFUSED;
  handle->mState = KES_STATE_CLOSED;
  return KES_OK;
}

uint32_t ChannelConverterProcess(Record* handle, const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes) {
  if (handle->mState != KES_STATE_OPEN || !src || !dst || *inBytes == 0 || *outBytes == 0) return KES_REFUSED;

  const uint32_t in = handle->mInChannels;
  const uint32_t out = handle->mOutChannels;
  if (in > out) {
    if (handle->mChannelMaskValid != 1) handle->mChannelMask = KES_LAYOUT_UNKNOWN;
    Audio_Channel_Downmix(in, out, handle->mFormat, src, inBytes, dst, outBytes, handle->mChannelMask);
  } else if (in < out) {
    Audio_Channel_Upmix(in, out, handle->mFormat, src, inBytes, dst, outBytes, handle->mUpmixMode);
  }
  // Equal counts leave both byte counts alone: part of the contract.
  return KES_OK;
}

}  // namespace

void InitKesAudioChannelConverterInC(KesAudioChannelConverterInC* handle) {
  __android_log_print(KES_LOG_DEBUG, "KesAudioChannelConvertInC", "%s", "InitKesAudioChannelConverterInC");
  handle->mState = KES_STATE_CLOSED;
  handle->SetParameter = ChannelConverterSetParameter;
  handle->GetParameter = ChannelConverterGetParameter;
  handle->Reset = ChannelConverterReset;
  handle->Open = ChannelConverterOpen;
  handle->Close = ChannelConverterClose;
  handle->Process = ChannelConverterProcess;
}
