// SPDX-License-Identifier: Apache-2.0
// The kernels, or a host library, by the round of their test that takes any call or stream. ENGINE is that test.
#include ENGINE

#include "play.h"
