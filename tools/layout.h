// SPDX-License-Identifier: Apache-2.0
// Channel layouts: their names, their masks (kesaudio/types.h; WAV has the same numbers), and the channel maps of
// libsndfile. A mask of 0 stands for an unknown layout. The channels of a frame come in the order of the mask's bits;
// further channels have no position.
#ifndef KESCONVERT_LAYOUT_H
#define KESCONVERT_LAYOUT_H

#include <kesaudio/types.h>

#include <string>
#include <vector>

namespace kesconvert {

inline constexpr ChannelMask kLayout5Point1Side = 0x60F;

// The layout of a name ("5.1") or of a hexadecimal mask ("0x3F"). "none" is the unknown layout. Fails for anything
// else.
ChannelMask parseLayout(const std::string& text);

// "mono, stereo, ..."
std::string layoutNames();

// "5.1 (FL FR FC LFE BL BR, 0x3F)"
std::string describe(ChannelMask layout);

// The number of channels that the layout places.
unsigned positions(ChannelMask layout);

// The layout of a frame's first channels.
ChannelMask firstPositions(ChannelMask layout, unsigned channels);

// The usual layout of a channel count: mono, stereo, 3.0, quad, 5.0, 5.1, 6.1, 7.1.
ChannelMask standardLayout(unsigned channels);

// The layout of a FLAC, Vorbis or Opus file by its channel count; and the place of each of its channels in a Vorbis
// or Opus frame, a digit each (empty: in the order of the layout).
ChannelMask flacLayout(unsigned channels);
const char* vorbisOrder(unsigned channels);

// A map whose positions are not in mask order, or come twice, is an unknown layout.
ChannelMask layoutOfChannelMap(const std::vector<int>& map);
std::vector<int> channelMapOfLayout(ChannelMask layout);

}  // namespace kesconvert

#endif
