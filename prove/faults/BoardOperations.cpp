// SPDX-License-Identifier: MIT
#include <memory>

#include "board/BoardId.h"
#include "prove/faults/FaultSweep.h"

namespace {

std::string text(bool result) { return result ? "true" : "false"; }

}  // namespace

std::vector<Operation> boardOperations() {
  return {
      {"BoardId", "34 100010 TALVERO PROTO-2 SPB", "[0-9]+ [01]{6} [A-Z].*", 0,
       [] {
         return [] {
           const BoardId board;
           return std::to_string(board.id) + " " + board.idBitString + " " + board.idDescription;
         };
       }},
      {"BoardId::isPMBConnected",
       "false",
       "true|false",
       0,
       [] {
         const auto board = std::make_shared<BoardId>();
         board->id = 32;
         return [board] { return text(board->isPMBConnected()); };
       },
       {"udev_new|udev_enumerate_new", "false"}},
      {"BoardId::isIMBConnected", "true", "true|false", 0,
       [] {
         const auto board = std::make_shared<BoardId>();
         return [board] { return text(board->isIMBConnected()); };
       }},
  };
}
