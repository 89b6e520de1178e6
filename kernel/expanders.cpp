// SPDX-License-Identifier: MIT
// What the instrument's expanders and the power supplies behind them do: in a guest, memories stand
// for the chips. With "reset" they get the values of a reset, before any driver has seen them, over
// the bare bus. Without, runs until it is ended: the input registers show the levels of the pins.
// An expander has its power-enable line at 0 and its sequence-done line at 1, which follows, low
// when done, a tenth of a second later.

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int expanderAddress = 0x41;
constexpr int multiplexerAddress = 0x70;  // on the board; that of a module is the next
constexpr char boardBus[] = "/dev/i2c-2";
constexpr int none = -1;

struct Expander {
  const char* bus;    ///< once the multiplexers' drivers run
  int channel;        ///< of the board's multiplexer
  int moduleChannel;  ///< of the module's multiplexer behind it, or none
};

constexpr Expander expanders[] = {
    {"/dev/i2c-10", 0, none},
    {"/dev/i2c-30", 1, 2},
    {"/dev/i2c-32", 2, 2},
    {"/dev/i2c-13", 7, none},
};

enum Register : std::uint8_t { input, output, polarity, configuration };

constexpr std::uint8_t afterReset[] = {0x00, 0xFF, 0x00, 0xFF};  // by Register

constexpr std::uint8_t powerEnable = 0x01;
constexpr std::uint8_t sequenceDone = 0x02;
constexpr milliseconds sequenceTime{100};
constexpr milliseconds period{5};

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

/// A device on a bus, or behind the multiplexers of a bus.
class Device {
 public:
  Device(const char* bus, int address) : file(open(bus, O_RDWR)) {
    if (file < 0 || ioctl(file, I2C_SLAVE_FORCE, address) < 0) {
      fail(bus);
    }
  }

  /// A multiplexer has one register, without a number.
  void select(int channel) const {
    transfer(I2C_SMBUS_WRITE, static_cast<std::uint8_t>(1 << channel), I2C_SMBUS_BYTE, nullptr);
  }

  std::uint8_t read(Register chosen) const {
    i2c_smbus_data data{};
    transfer(I2C_SMBUS_READ, chosen, I2C_SMBUS_BYTE_DATA, &data);
    return data.byte;
  }

  void write(Register chosen, std::uint8_t value) const {
    i2c_smbus_data data{};
    data.byte = value;
    transfer(I2C_SMBUS_WRITE, chosen, I2C_SMBUS_BYTE_DATA, &data);
  }

 private:
  void transfer(std::uint8_t direction, std::uint8_t command, std::uint32_t size,
                i2c_smbus_data* data) const {
    i2c_smbus_ioctl_data request{direction, command, size, data};
    if (ioctl(file, I2C_SMBUS, &request) < 0) {
      fail("an expander or multiplexer");
    }
  }

  int file;
};

void reset() {
  const Device board(boardBus, multiplexerAddress);
  const Device module(boardBus, multiplexerAddress + 1);
  const Device chip(boardBus, expanderAddress);
  for (const Expander& expander : expanders) {
    board.select(expander.channel);
    if (expander.moduleChannel != none) {
      module.select(expander.moduleChannel);
    }
    for (const Register number : {input, output, polarity, configuration}) {
      chip.write(number, afterReset[number]);
    }
  }
}

/// An expander and the supply behind it.
class Supply {
 public:
  explicit Supply(const char* bus) : chip(bus, expanderAddress) {}

  void show() {
    const std::uint8_t levels = pins();
    if (levels != shown) {
      chip.write(input, levels);
      shown = levels;
    }
  }

 private:
  /// The levels that the chip drives, and those that the supply does.
  std::uint8_t pins() {
    const auto driven = static_cast<std::uint8_t>(chip.read(output) & ~chip.read(configuration));
    if (((driven & powerEnable) != 0) != enabled) {
      enabled = !enabled;
      switched = Clock::now();
    }
    const bool on = Clock::now() - switched < sequenceTime ? !enabled : enabled;
    return static_cast<std::uint8_t>(driven | (on ? 0 : sequenceDone));
  }

  Device chip;
  bool enabled = false;
  Clock::time_point switched = {};
  std::uint8_t shown = afterReset[input];
};

}  // namespace

int main(int count, char* arguments[]) {
  if (count > 1 && std::string(arguments[1]) == "reset") {
    reset();
    return 0;
  }
  std::vector<Supply> supplies;
  for (const Expander& expander : expanders) {
    supplies.emplace_back(expander.bus);
  }
  while (true) {
    for (Supply& supply : supplies) {
      supply.show();
    }
    std::this_thread::sleep_for(period);
  }
}
