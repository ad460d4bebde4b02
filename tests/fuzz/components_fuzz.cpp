// SPDX-License-Identifier: Apache-2.0
// A component beside its model, through as many operations as the bytes are enough for. COMPONENT is its test.
#include COMPONENT

namespace {

void play(Random& random) {
  Player player(random);
  while (!random.usedUp()) player.play();
}

}  // namespace

#include "play.h"
