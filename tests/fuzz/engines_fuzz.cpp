// SPDX-License-Identifier: Apache-2.0
// The kernels or a host library, by their test with random calls or streams. ENGINE is that test.
#include ENGINE

#include "play.h"
