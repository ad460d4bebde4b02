// SPDX-License-Identifier: Apache-2.0
// A host library by the round of its test that takes any stream, cut anyhow. ENGINE is that test.
#include ENGINE

#include "play.h"
