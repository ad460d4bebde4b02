// SPDX-License-Identifier: Apache-2.0
// Random operations of a component until the bytes are used up. COMPONENT is its test.
#include COMPONENT

namespace {

void play(Random& random) {
  RandomOperations operations(random);
  while (!random.usedUp()) operations.checkNext();
}

}  // namespace

#include "play.h"
