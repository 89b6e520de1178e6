#include "bist/Sections.h"
#include "board/BoardId.h"
#include "sysfs/SysfsUtil.h"

namespace {

constexpr const char* strapLines[] = {"135", "171", "170", "169", "168", "167"};

// BoardId takes a strap line that cannot be read for a low one; only the line itself tells.
std::vector<std::string> unreadableStraps() {
  std::vector<std::string> lines;
  SysfsUtil sysfs;
  for (const char* line : strapLines) {
    bool success = false;
    sysfs.readGpioValue(line, &success);
    if (!success) {
      lines.push_back(line);
    }
  }
  return lines;
}

std::string kind(const BoardId& board) {
  if (board.isTuvak()) {
    return "TUVAK MMB";
  }
  if (board.isQuindara()) {
    return "QUINDARA MMB";
  }
  if (board.isMMB()) {
    return "MMB";
  }
  return board.isCXB() ? "CXB" : "SPB";
}

Json prototype(const BoardId& board) {
  if (board.isProtoZero()) {
    return 0;
  }
  if (board.isProtoOne()) {
    return 1;
  }
  if (board.isProtoTwo()) {
    return 2;
  }
  return nullptr;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : ", ") + word;
  }
  return text;
}

const char* connection(bool connected) { return connected ? "connected" : "not connected"; }

}  // namespace

Section boardSection() {
  const BoardId board;
  const std::vector<std::string> unreadable = unreadableStraps();
  const bool pmb = board.isPMBConnected();
  const bool imb = board.isIMBConnected();
  const Json proto = prototype(board);
  Section section{"board", "Board"};
  section.lines = {
      {"identity", std::to_string(board.id) + " (" + board.idBitString + ")"},
      {"description", board.idDescription, passIf(board.isBoardIdKnown())},
      {"strap lines", unreadable.empty() ? "all readable" : "cannot be read: " + joined(unreadable),
       passIf(unreadable.empty())},
      {"kind", kind(board)},
      {"prototype", proto.is_null() ? "no" : proto.dump()},
      {"PMB", connection(pmb)},
      {"IMB", connection(imb)},
  };
  section.data = {
      {"id", board.id},
      {"bits", board.idBitString},
      {"description", board.idDescription},
      {"kind", kind(board)},
      {"known", board.isBoardIdKnown()},
      {"prototype", proto},
      {"pmbConnected", pmb},
      {"imbConnected", imb},
      {"unreadableStraps", unreadable},
  };
  return section;
}
