// SPDX-License-Identifier: MIT
#include <pciaccess.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>

#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Ports.h"

namespace {

/// A register by its name: of the port itself, or of the switch that has the port.
struct Named {
  const char* name;
  bool ofSwitch;
  unsigned int offset;
  unsigned int width;   ///< bits
  bool clears = false;  ///< a bit that is written as 1 reads 0 then
};

constexpr Named named[] = {
    {"ids", false, 0x00, 32},
    {"class", false, 0x08, 32},
    {"buses", false, 0x18, 32},
    {"bridge-control", false, 0x3E, 16},
    {"device-control", false, 0x70, 16},
    {"device-status", false, 0x72, 16},
    {"link-capabilities", false, 0x74, 32},
    {"link-control", false, 0x78, 16},
    {"link-status", false, 0x7A, 16},
    {"uncorrectable-status", false, 0xFB8, 32, true},
    {"uncorrectable-mask", false, 0xFBC, 32},
    {"uncorrectable-severity", false, 0xFC0, 32},
    {"correctable-status", false, 0xFC4, 32, true},
    {"correctable-mask", false, 0xFC8, 32},
    {"port-links", true, 0x1F4, 32},
    {"loopback-master", true, 0x224, 32},
    {"quiet-transmit", true, 0x234, 32},
    {"prbs-diagnostic", true, 0x244, 32},
    {"prbs-enable", true, 0x25C, 32},
    {"analog-loopback-prbs-sync", true, 0xB84, 32},
    {"drive-level", true, 0xB98, 32},
    {"post-cursor", true, 0xBA8, 32},
};

constexpr unsigned int configSize = 4096;

PortOption target;
std::string wanted;
bool ofSwitch = false;
unsigned int width = 0;  // 0 for that of the register, 32 of an offset
std::uint32_t mask = ~0U;
std::optional<std::uint32_t> newValue;

std::string hexText(std::uint32_t number, unsigned int bits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*x", static_cast<int>(bits / 4), number);
  return text;
}

std::string names() {
  std::vector<std::string> all;
  for (const Named& row : named) {
    all.emplace_back(row.name);
  }
  return joined(all);
}

/// Takes a number, decimal or with 0x, up to 32 bits.
CLI::Validator number() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        char* end = nullptr;
        const int base = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? 16 : 10;
        const unsigned long long value = std::strtoull(text.c_str(), &end, base);
        const bool isNumber = !text.empty() && text[0] >= '0' && text[0] <= '9' && *end == '\0' &&
                              value <= 0xFFFFFFFF;
        if (!isNumber) {
          return "must be a number from 0 to 0xffffffff, not \"" + text + "\"";
        }
        text = std::to_string(value);
        return "";
      },
      "");
}

const Named* findNamed() {
  for (const Named& row : named) {
    if (wanted == row.name) {
      return &row;
    }
  }
  return nullptr;
}

/// The register that the command line means; throws for one that is none.
Named chosen() {
  if (const Named* const row = findNamed()) {
    if (ofSwitch || width != 0) {
      throw CLI::ValidationError("--switch and --width are for an offset, not for \"" + wanted +
                                 "\"");
    }
    return *row;
  }
  const unsigned int bits = width != 0 ? width : 32;
  std::string text = wanted;
  const std::string reason = number()(text);
  const unsigned long offset = reason.empty() ? std::stoul(text) : configSize;
  const unsigned int bytes = bits == 8 ? 1 : bits == 16 ? 2 : 4;
  if (offset + bytes > configSize || offset % bytes != 0) {
    throw CLI::ValidationError("REGISTER must be an offset of " + std::to_string(bits) +
                               " bits below 0x1000, or one of " + names());
  }
  const bool clears = bits == 32 && std::any_of(std::begin(named), std::end(named), [&](auto& row) {
                        return row.clears && row.offset == offset;
                      });
  return {"", ofSwitch, static_cast<unsigned int>(offset), bits, clears};
}

void addOptions(CLI::App& app) {
  target.addTo(app);
  app.add_option("REGISTER", wanted, "an offset such as 0x78, or a name: " + names())
      ->required()
      ->option_text(" ");
  app.add_flag("--switch", ofSwitch, "a register of the switch that has the port")
      ->disable_flag_override();
  app.add_option("--width", width, "bits at an offset: 8, 16 or 32, unless given")
      ->check(CLI::IsMember({8, 16, 32}).description(""))
      ->option_text("N");
  app.add_option("--mask", mask, "the bits that are shown and set; all unless given")
      ->transform(number())
      ->option_text("BITS");
  app.add_option("--set", newValue, "write this value first, into the bits of the mask")
      ->transform(number())
      ->option_text("VALUE");
}

std::uint32_t maskOf(const Named& place) {
  return place.width == 32 ? ~0U : (1U << place.width) - 1;
}

/// Throws for bits or a value that the register has no room for.
void requireRoom(const Named& place) {
  const std::uint32_t beyond = ~maskOf(place);
  const bool isGiven = mask != ~0U;
  if (mask == 0 || (isGiven && (mask & beyond) != 0) || (newValue && (*newValue & beyond) != 0)) {
    throw CLI::ValidationError("--mask and --set must be of " + std::to_string(place.width) +
                               " bits, and the mask not 0");
  }
}

/// Reads the register; an errno value or 0.
int read(pci_device* device, const Named& place, std::uint32_t& value) {
  std::uint8_t byte = 0;
  std::uint16_t half = 0;
  const int error = place.width == 8    ? pci_device_cfg_read_u8(device, &byte, place.offset)
                    : place.width == 16 ? pci_device_cfg_read_u16(device, &half, place.offset)
                                        : pci_device_cfg_read_u32(device, &value, place.offset);
  value = place.width == 8 ? byte : place.width == 16 ? half : value;
  return error;
}

int write(pci_device* device, const Named& place, std::uint32_t value) {
  return place.width == 8
             ? pci_device_cfg_write_u8(device, static_cast<std::uint8_t>(value), place.offset)
         : place.width == 16
             ? pci_device_cfg_write_u16(device, static_cast<std::uint16_t>(value), place.offset)
             : pci_device_cfg_write_u32(device, value, place.offset);
}

/// Reads the register and, if that is asked for, writes it; what has become of that.
Line access(pci_device* device, const Named& place, Json& data) {
  const std::uint32_t bits = mask & maskOf(place);
  std::uint32_t before = 0;
  Line line{"value", "", Verdict::fail};
  int error = read(device, place, before);
  std::uint32_t after = before;
  if (error == 0 && newValue) {
    const std::uint32_t others = place.clears ? 0 : before & ~bits;
    error = write(device, place, others | (*newValue & bits));
    error = error == 0 ? read(device, place, after) : error;
  }
  if (error != 0) {
    line.text = std::string("cannot be accessed: ") + std::strerror(error);
    return line;
  }
  data["value"] = hexText(after & bits, place.width);
  line.text = hexText(after & bits, place.width);
  const std::uint32_t wrong =
      !newValue ? 0 : (place.clears ? after & *newValue : after ^ *newValue) & bits;
  line.verdict = passIf(wrong == 0);
  if (newValue) {
    data["before"] = hexText(before & bits, place.width);
    line.text += ", before " + hexText(before & bits, place.width) +
                 (line.verdict == Verdict::pass ? "" : ": it does not read back");
  }
  return line;
}

void run(Report& report) {
  const Named place = chosen();
  requireRoom(place);
  PCIeDiagnostics diagnostics;
  report.takeMessages({});
  target.reach(diagnostics);
  pci_device* const upstream = target.port == ShimPort1 || target.port == ShimPort5
                                   ? diagnostics.shimUpstreamPort
                                   : diagnostics.switchUpstreamPort;
  pci_device* const port = diagnostics.downstreamPorts[target.port];
  Section section{"register", (place.ofSwitch ? "Register of the switch of " : "Register of ") +
                                  target.title()};
  section.about = target.subject();
  section.data = {{"port", static_cast<int>(target.port)},
                  {"name", *place.name == '\0' ? Json(nullptr) : Json(place.name)},
                  {"ofSwitch", place.ofSwitch},
                  {"offset", hexText(place.offset, 12)},
                  {"width", place.width}};
  section.lines.push_back({"offset", hexText(place.offset, 12)});
  Line line{"value", "port not found", Verdict::fail};
  if (port != nullptr && upstream != nullptr) {
    line = access(place.ofSwitch ? upstream : port, place, section.data);
  }
  line.test = target.test("register");
  section.lines.push_back(line);
  report.add(section);
}

}  // namespace

const Command registerCommand = {"register",
                                 "read or write a register of a PCIe port or its switch",
                                 Needs::spb, addOptions, run};
