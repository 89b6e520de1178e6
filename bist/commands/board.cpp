// SPDX-License-Identifier: MIT
#include "bist/Command.h"
#include "bist/Machine.h"
#include "bist/Platform.h"
#include "bist/Tests.h"
#include "board/BoardId.h"

namespace {

std::string kind(const BoardId& board) {
  return board.isTuvak()      ? "TUVAK MMB"
         : board.isQuindara() ? "QUINDARA MMB"
         : board.isMMB()      ? "MMB"
         : board.isCXB()      ? "CXB"
                              : "SPB";
}

Json prototype(const BoardId& board) {
  return board.isProtoZero()  ? Json(0)
         : board.isProtoOne() ? Json(1)
         : board.isProtoTwo() ? Json(2)
                              : Json(nullptr);
}

const char* connection(bool connected) { return connected ? "connected" : "not connected"; }

void run(Report& report) {
  const BoardId board;
  const std::vector<std::string>& unreadable = unreadableStraps();
  const bool pmb = board.isPMBConnected();
  const bool imb = board.isIMBConnected();
  const Json proto = prototype(board);
  report.add(
      {"board",
       "Board",
       {{"identity", std::to_string(board.id) + " (" + board.idBitString + ")"},
        {"description", board.idDescription,
         unreadable.empty() ? passIf(board.isBoardIdKnown()) : Verdict::none, "", "board.known"},
        {"strap lines",
         unreadable.empty() ? "all readable" : "cannot be read: " + joined(unreadable),
         passIf(unreadable.empty()), "", "board.straps"},
        {"kind", kind(board)},
        {"prototype", proto.is_null() ? "no" : proto.dump()},
        {"PMB", connection(pmb)},
        {"IMB", connection(imb)}},
       {{"id", board.id},
        {"bits", board.idBitString},
        {"description", board.idDescription},
        {"kind", kind(board)},
        {"known", board.isBoardIdKnown()},
        {"prototype", proto},
        {"pmbConnected", pmb},
        {"imbConnected", imb},
        {"unreadableStraps", unreadable}}});
}

/// The report says as well by which platform library the tests are made.
void test(Report& report, const Choice& /*choice*/) {
  run(report);
  const std::vector<std::string> libraries = platformLibraries();
  report.add({"platform", "Platform", {{"library", joined(libraries)}}, libraries});
}

}  // namespace

extern const Test boardTest = {"board",
                               "number and straps of the board",
                               {{"board.known"}, {"board.straps"}},
                               Needs::instrument,
                               false,
                               test,
                               nullptr};

const Command boardCommand = {"board",
                              "say which board this is and which boards are attached to it",
                              Needs::instrument, noOptions, run};
