// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>

#include <thread>

#include "board/BoardId.h"
#include "tests/Support.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

std::string straps(int id) {
  std::string bits;
  for (int mask = 32; mask != 0; mask /= 2) {
    bits += (id & mask) != 0 ? '1' : '0';
  }
  return bits;
}

std::string board(int id) { return "[board]\nstraps=" + straps(id) + "\n"; }

TEST(BoardIdentity, EveryIdHasItsDescription) {
  const std::map<int, std::string> named = {{0, "DORVELLE MMB SINGLE GIG-E"},
                                            {1, "DORVELLE MMB DUAL GIG-E"},
                                            {2, "DORVELLE MMB SINGLE GIG-E PDH FULL"},
                                            {3, "DORVELLE MMB DUAL GIG-E W/MFI"},
                                            {4, "DORVELLE MMB SINGLE GIG-E PDH FULL W/MFI"},
                                            {5, "HALCYRA MMB DUAL GIG-E"},
                                            {6, "HALCYRA MMB SINGLE GIG-E PDH FULL"},
                                            {7, "HALCYRA MMB DUAL GIG-E W/MFI"},
                                            {8, "HALCYRA MMB SINGLE GIG-E PDH FULL W/MFI"},
                                            {9, "QUINDARA MMB SGL GIG-E NO PDH EXCEPT E1/T1 PRI"},
                                            {10, "QUINDARA MMB SGL GIG-E ONLY NO PDH"},
                                            {16, "CORVANE CXB DUAL 100G"},
                                            {32, "TALVERO PROTO-0 SPB"},
                                            {33, "TALVERO PROTO-1 SPB"},
                                            {34, "TALVERO PROTO-2 SPB"},
                                            {48, "TUVAK MMB DUAL 10GE FULL PDH W/POE,1PPS"}};
  const char* const unknown[] = {"UNKNOWN MMB", "UNKNOWN CXB", "UNKNOWN SPB", "UNKNOWN TUVAK MMB"};
  for (int id = 0; id < 64; ++id) {
    const Instrument instrument(board(id));
    const BoardId identity;
    EXPECT_EQ(identity.id, id);
    EXPECT_EQ(identity.idBitString, straps(id));
    EXPECT_EQ(identity.idDescription, named.count(id) != 0 ? named.at(id) : unknown[id / 16]);
    EXPECT_EQ(identity.getIdDescription(), identity.idDescription);
    EXPECT_EQ(identity.isBoardIdKnown(), named.count(id) != 0) << id;
    EXPECT_EQ(identity.isMMB(), id < 16 || id >= 48) << id;
    EXPECT_EQ(identity.isQuindara(), id == 9 || id == 10) << id;
    EXPECT_EQ(identity.isTuvak(), id >= 48) << id;
    EXPECT_EQ(identity.isCXB(), id >= 16 && id < 32) << id;
    EXPECT_EQ(identity.isSPB(), id >= 32 && id < 48) << id;
    EXPECT_EQ(identity.isProtoZero(), id == 32) << id;
    EXPECT_EQ(identity.isProtoOne(), id == 33) << id;
    EXPECT_EQ(identity.isProtoTwo(), id == 34) << id;
  }
}

TEST(BoardIdentity, ReadsTheStrapsOnceInTheirOrder) {
  Instrument instrument(board(63));
  const BoardId identity;
  std::vector<std::string> exported;
  for (const std::string& line : instrument.takeTrace()) {
    if (line.find("export") != std::string::npos) {
      exported.push_back(line.substr(line.find('"')));
    }
  }
  EXPECT_THAT(exported,
              ElementsAre("\"167\"", "\"168\"", "\"169\"", "\"170\"", "\"171\"", "\"135\""));
  EXPECT_TRUE(identity.isTuvak());
  EXPECT_THAT(instrument.takeTrace(), IsEmpty()) << "asking touches no line";
}

TEST(BoardIdentity, AnUnreadableStrapCountsAsLow) {
  const Instrument instrument(board(63) + "[gpio]\n168=missing\n169=no-direction\n135=no-value\n");
  EXPECT_EQ(BoardId().idBitString, "011001");
}

TEST(BoardIdentity, KindFollowsTheDescriptionAndPrototypeTheId) {
  const Instrument instrument(board(0));
  BoardId identity;
  identity.id = 0xFFFF;
  EXPECT_EQ(identity.getIdDescription(), "UNKNOWN TUVAK MMB") << "the table has 64 rows";
  const struct {
    const char* word;
    bool (BoardId::*asks)() const;
  } kinds[] = {{"MMB", &BoardId::isMMB},
               {"QUINDARA", &BoardId::isQuindara},
               {"TUVAK", &BoardId::isTuvak},
               {"CXB", &BoardId::isCXB},
               {"SPB", &BoardId::isSPB}};
  for (const int id : {9, 16, 32, 33, 34, 63, 32 + 64}) {
    identity.id = static_cast<std::uint16_t>(id);
    for (const char* word : {"MMB", "QUINDARA", "TUVAK", "CXB", "SPB", "UNKNOWN", "spb"}) {
      identity.idDescription = std::string("x") + word + "x";
      for (const auto& kind : kinds) {
        EXPECT_EQ((identity.*kind.asks)(), std::string(word) == kind.word) << id << word;
      }
      EXPECT_EQ(identity.isBoardIdKnown(), std::string(word) != "UNKNOWN") << id;
      EXPECT_EQ(identity.isProtoZero(), id == 32) << word;
      EXPECT_EQ(identity.isProtoOne(), id == 33) << word;
      EXPECT_EQ(identity.isProtoTwo(), id == 34) << word;
    }
  }
}

TEST(BoardIdentity, IsReadFromSeveralThreads) {
  const Instrument instrument(board(33));
  std::vector<std::thread> threads;
  std::atomic<int> right{0};
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&right] { right += BoardId().id == 33 ? 1 : 0; });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(right, 4);
}

/// A board whose straps are read, and out of the trace.
class Board : public Instrument {
 public:
  Board(int id, const std::string& description) : Instrument(board(id) + description) {
    takeTrace();
  }

  BoardId identity;
};

TEST(AttachedBoards, AreLookedForByDescriptionAndId) {
  const struct {
    std::uint16_t id;
    const char* description;
    bool pmb;
    bool imb;
  } cases[] = {{32, "SPB", true, false},  {33, "SPB", false, true},  {47, "SPB", false, true},
               {5, "SPB", false, true},   {32, "MMB", false, false}, {33, "MMB", false, false},
               {47, "MMB", false, false}, {5, "MMB", false, false}};
  Board board(0, "[i2c]\n0-0074=pmb\n[gpio]\n80=low\n");
  for (const auto& test : cases) {
    board.identity.id = test.id;
    board.identity.idDescription = test.description;
    EXPECT_EQ(board.identity.isPMBConnected(), test.pmb) << test.id << test.description;
    EXPECT_EQ(board.takeTrace().empty(), !test.pmb) << test.id << test.description;
    EXPECT_EQ(board.identity.isIMBConnected(), test.imb) << test.id << test.description;
    EXPECT_EQ(board.takeTrace().empty(), !test.imb) << test.id << test.description;
  }
}

TEST(AttachedBoards, APmbIsADeviceAt0x74OnBus0) {
  const std::vector<std::string> listing = {"udev_new",
                                            "udev_enumerate_new",
                                            "udev_enumerate_add_match_subsystem i2c",
                                            "udev_enumerate_scan_devices",
                                            "udev_enumerate_unref",
                                            "udev_unref"};
  const struct {
    const char* devices;
    bool connected;
    std::vector<std::string> trace;
  } cases[] = {
      {"0-0074=pmb", true, listing},
      {"0-0050=eeprom\n0-0074=pmb\n1-0010=x", true, listing},
      {"", false, listing},
      {"0-0075=x\n1-0074=x\n10-0074=x", false, listing},
      {"0-0074=pmb\n[faults]\nudev-context=on", false, {"udev_new: ENOMEM"}},
      {"0-0074=pmb\n[faults]\nudev-enumeration=on",
       false,
       {"udev_new", "udev_enumerate_new: ENOMEM", "udev_unref"}},
  };
  for (const auto& test : cases) {
    Board board(32, std::string("[i2c]\n") + test.devices);
    EXPECT_EQ(board.identity.isPMBConnected(), test.connected) << test.devices;
    EXPECT_EQ(board.takeTrace(), test.trace) << test.devices;
  }
}

TEST(AttachedBoards, AnImbPullsLine80Low) {
  const std::map<std::string, bool> cases = {
      {"80=low", true}, {"80=high", false}, {"80=missing", true}, {"80=no-value", true}};
  for (const auto& [line, connected] : cases) {
    Board board(33, "[gpio]\n" + line);
    EXPECT_EQ(board.identity.isIMBConnected(), connected) << line;
    EXPECT_THAT(board.takeTrace().front(), StartsWith("write /sys/class/gpio/export \"80\""));
  }
}

}  // namespace
