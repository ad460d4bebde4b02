// SPDX-License-Identifier: Apache-2.0
// A host library, by its test with random streams. ENGINE is that test.
#include ENGINE

#include "play.h"
