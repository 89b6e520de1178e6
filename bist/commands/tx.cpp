// SPDX-License-Identifier: MIT
#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Ports.h"
#include "bist/Undo.h"

namespace {

/// A setting's option and name, and what makes it: one operation or the other.
struct Setting {
  const char* option;
  const char* help;
  const char* name;
  bool (PCIeDiagnostics::*setOnOff)(PCIeDownstreamPorts port, bool enable);
  bool (PCIeDiagnostics::*setLevel)(PCIeDownstreamPorts port, int index, unsigned int value);
  Field field;  ///< of the port's switch, that is changed
};

constexpr Setting settings[] = {
    {"--drive-level", "drive level", "drive level", nullptr, &PCIeDiagnostics::setDriveLevel,
     driveLevelField},
    {"--post-cursor", "post-cursor emphasis", "post-cursor", nullptr,
     &PCIeDiagnostics::setPostCursorEmphasis, postCursorField},
    {"--quiet",
     "quiet 5 GT/s transmit without loopback",
     "quiet transmit",
     &PCIeDiagnostics::setTo5GQuietTransmitWithoutLoopback,
     nullptr,
     {0x234, ~0U}},
    {"--analog-loopback",
     "external analog loopback",
     "analog loopback",
     &PCIeDiagnostics::setPCIeExternalAnalogLoopback,
     nullptr,
     {0xB84, 0xFFFF}},
};

PortOption target;
const Setting* chosen = nullptr;  ///< the one that the command line names
unsigned int level = 0;
bool on = false;

void addOptions(CLI::App& app) {
  target.addTo(app);
  CLI::Option_group& group = *app.add_option_group("Setting", "exactly one of");
  group.require_option(1);
  for (const Setting& setting : settings) {
    CLI::Option& option = setting.setOnOff != nullptr
                              ? *group.add_option(setting.option, on, setting.help)
                                     ->transform(onOff())
                                     ->option_text("on|off")
                              : *group.add_option(setting.option, level, setting.help)
                                     ->check(wholeNumber(15))
                                     ->option_text("0..15");
    option.each([&setting](const std::string&) { chosen = &setting; });
  }
}

/// Whether the chosen setting takes effect.
bool set(PCIeDiagnostics& diagnostics) {
  if (chosen->setOnOff != nullptr) {
    return (diagnostics.*chosen->setOnOff)(target.port, on);
  }
  return (diagnostics.*chosen->setLevel)(target.port, 0, level) &&
         diagnostics.getDevicePortBits(target.port, chosen->field.offset, chosen->field.mask, 0) ==
             level;
}

void run(Report& report) {
  Section section{"tx", "Transmitter of " + target.title()};
  section.about = target.subject();
  PCIeDiagnostics diagnostics;
  report.takeMessages({});
  target.reach(diagnostics);
  const std::string wanted = chosen->setOnOff == nullptr ? std::to_string(level)
                             : on                        ? "on"
                                                         : "off";
  std::string text = "port not found";
  bool ok = false;
  if (diagnostics.downstreamPorts[target.port] != nullptr) {
    report.willSwitch(undoOfFields(diagnostics, target.port, target.slot(), {chosen->field}));
    ok = set(diagnostics);
    text = wanted + (ok ? "" : ", but it does not read back");
  }
  Line line{chosen->name, text, passIf(ok)};
  line.test = target.test(std::string("tx") + (chosen->option + 1));
  line.figures = {{"value", wanted}, {"readsBack", ok}};
  section.lines.push_back(line);
  section.data = {{"port", static_cast<int>(target.port)},
                  {"name", portName(target.port)},
                  {"slot", target.slot()},
                  {"setting", chosen->name},
                  {"value", wanted},
                  {"ok", ok}};
  report.add(section);
}

}  // namespace

const Command txCommand = {"tx", "change one transmitter setting of a PCIe port", Needs::spb,
                           addOptions, run};
