// SPDX-License-Identifier: MIT
#include "simulator/parts/Part.h"

namespace simulator {

Tree treeOf(const Hardware& hardware) {
  Tree tree;
  for (const Part* part : parts) {
    if (part->addFiles != nullptr) {
      part->addFiles(hardware, tree);
    }
  }
  return tree;
}

void settle(State& state) {
  for (const Part* part : parts) {
    if (part->settle != nullptr) {
      part->settle(state);
    }
  }
}

}  // namespace simulator
