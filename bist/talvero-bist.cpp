// talvero-bist: tests an instrument through the library and reports what it found.

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bist/LibraryOutput.h"
#include "bist/Report.h"
#include "bist/Sections.h"
#include "board/BoardId.h"
#include "sysfs/SysfsUtil.h"

namespace {

using Commands = std::vector<std::function<Section()>>;

enum ExitStatus { pass = 0, fail = 1, usageOrNoHardware = 2 };

// Any line will do; a BoardId exports this one as well.
bool instrumentIsHere() { return SysfsUtil().exportGpio("167"); }

int execute(const Commands& commands, bool json, const std::string& traceFile) {
  errno = 0;
  if (!instrumentIsHere()) {
    std::cerr << "talvero-bist: no instrument here: /sys/class/gpio/export cannot be opened ("
              << std::strerror(errno)
              << "). On a workstation, run it on a simulated one: talvero-sim -- talvero-bist "
                 "report\n";
    return usageOrNoHardware;
  }
  LibraryOutput output(traceFile);
  std::vector<Section> sections;
  for (const auto& command : commands) {
    sections.push_back(command());
    sections.back().messages = output.takeMessages(sections.back().showTrace);
  }
  (json ? printJson : printText)(output.own(), sections);
  if (!output.own().flush()) {
    throw std::runtime_error("standard output cannot be written");
  }
  return passed(sections) ? pass : fail;
}

/// The arguments of all commands; each command uses its own.
struct Arguments {
  bool json = false;
  std::string traceFile;
  PortChoice choice;
  unsigned int seconds = 0;
  bool clear = false;
  unsigned int module = 0;
  int slot = 0;
  unsigned int level = 0;
  bool on = false;
  Commands commands;
};

std::vector<std::pair<std::string, PCIeDownstreamPorts>> portNamesAndNumbers() {
  std::vector<std::pair<std::string, PCIeDownstreamPorts>> names;
  for (unsigned int number = 0; number <= ShimPort5; ++number) {
    const auto port = static_cast<PCIeDownstreamPorts>(number);
    names.emplace_back(std::to_string(number), port);
    names.emplace_back(portName(port), port);
  }
  return names;
}

std::vector<std::pair<std::string, bool>> onOff() { return {{"on", true}, {"off", false}}; }

void addPort(CLI::App& command, Arguments& arguments) {
  command
      .add_option("PORT", arguments.choice.port,
                  "0 to 5, or DownstreamPort1, DownstreamPort5, DownstreamPort7, DownstreamPort9, "
                  "ShimPort1, ShimPort5")
      ->required()
      ->transform(CLI::Transformer(portNamesAndNumbers(), CLI::ignore_case))
      ->check(CLI::Range(0, 5))
      ->option_text(" ");
  command
      .add_option("--module", arguments.choice.shimModule,
                  "module, 0 to 3, whose shim switch has the port; needed for ports 4 and 5")
      ->check(CLI::Range(0, 3))
      ->option_text("MODULE");
}

void addSeconds(CLI::App& command, Arguments& arguments, const char* help) {
  command.add_option("--seconds", arguments.seconds, help)
      ->check(CLI::Range(0, 86400))
      ->option_text("N");
}

/// Makes a command out of a function that tests a port.
void onPort(CLI::App& command, Arguments& arguments, const std::function<Section()>& test) {
  command.callback([&command, &arguments, test] {
    if (arguments.choice.port >= ShimPort1 && command.count("--module") == 0) {
      throw CLI::ValidationError("ports 4 and 5 are on a module's shim switch: give --module");
    }
    arguments.commands = {test};
  });
}

void addLinkCommands(CLI::App& app, Arguments& arguments) {
  CLI::App& link = *app.add_subcommand("link", "say whether a PCIe port's link is up");
  addPort(link, arguments);
  addSeconds(link, arguments, "watch the link for so long, 0 to 86400");
  link.add_flag("--clear", arguments.clear, "clear latched errors first");
  onPort(link, arguments, [&arguments] {
    return linkSection(arguments.choice, arguments.seconds, arguments.clear);
  });

  CLI::App& errors = *app.add_subcommand("errors", "name the errors that a PCIe port latches");
  addPort(errors, arguments);
  addSeconds(errors, arguments, "collect them for so long, 0 to 86400");
  onPort(errors, arguments,
         [&arguments] { return errorsSection(arguments.choice, arguments.seconds); });

  CLI::App& prbs = *app.add_subcommand("prbs", "run the PRBS loopback test on a PCIe port");
  addPort(prbs, arguments);
  addSeconds(prbs, arguments, "how long, 0 to 86400");
  prbs.get_option("--seconds")->required();
  onPort(prbs, arguments,
         [&arguments] { return prbsSection(arguments.choice, arguments.seconds); });

  CLI::App& shim = *app.add_subcommand("shim", "find and set up the shim switch of a module");
  shim.add_option("MODULE", arguments.module, "0 to 3")
      ->required()
      ->check(CLI::Range(0, 3))
      ->option_text(" ");
  shim.callback(
      [&arguments] { arguments.commands = {[&] { return shimSection(arguments.module); }}; });
}

/// Only an SPB has a backplane and a PCIe switch.
Commands reportCommands(bool powerCycle) {
  if (!BoardId().isSPB()) {
    return {boardSection};
  }
  Commands commands = {boardSection, slotsSection, pcieSection};
  if (powerCycle) {
    commands.emplace_back(powerCycleSection);
  }
  return commands;
}

void addSlotCommands(CLI::App& app, Arguments& arguments) {
  app.add_subcommand("slots", "show presence, power and link of the six slots")
      ->callback([&arguments] { arguments.commands = {slotsSection}; });

  CLI::App& power = *app.add_subcommand("power", "turn the module in a slot on or off");
  power.add_option("SLOT", arguments.slot, "0 to 5")
      ->required()
      ->check(CLI::Range(0, 5))
      ->option_text(" ");
  power.add_option("STATE", arguments.on, "on or off")
      ->required()
      ->transform(CLI::CheckedTransformer(onOff()))
      ->option_text(" ");
  power.callback([&arguments] {
    arguments.commands = {[&] { return powerSection(arguments.slot, arguments.on); }};
  });

  CLI::App& topology = *app.add_subcommand("topology", "show the I2C buses of a module");
  topology.add_option("MODULE", arguments.module, "module number, which is its slot's")
      ->required()
      ->option_text(" ");
  topology.callback(
      [&arguments] { arguments.commands = {[&] { return topologySection(arguments.module); }}; });
}

void addTransmitterCommand(CLI::App& app, Arguments& arguments) {
  CLI::App& tx = *app.add_subcommand("tx", "change one transmitter setting of a PCIe port");
  addPort(tx, arguments);
  CLI::Option_group& settings = *tx.add_option_group("Setting", "exactly one of");
  settings.require_option(1);
  const struct {
    const char* name;
    const char* help;
    TransmitterSetting setting;
    bool isOnOff;
  } options[] = {
      {"--drive-level", "drive level", TransmitterSetting::driveLevel, false},
      {"--post-cursor", "post-cursor emphasis", TransmitterSetting::postCursor, false},
      {"--quiet", "quiet 5 GT/s transmit without loopback", TransmitterSetting::quiet, true},
      {"--analog-loopback", "external analog loopback", TransmitterSetting::analogLoopback, true}};
  for (const auto& option : options) {
    if (option.isOnOff) {
      settings.add_option(option.name, arguments.on, option.help)
          ->transform(CLI::CheckedTransformer(onOff()))
          ->option_text("on|off");
    } else {
      settings.add_option(option.name, arguments.level, option.help)
          ->check(CLI::Range(0, 15))
          ->option_text("0..15");
    }
  }
  onPort(tx, arguments, [&arguments, &settings, options] {
    for (const auto& option : options) {
      if (settings.count(option.name) > 0) {
        return transmitterSection(arguments.choice, option.setting,
                                  option.isOnOff ? arguments.on : arguments.level);
      }
    }
    return Section{};
  });
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "Tests the hardware of the instrument and reports what it found. On a workstation, run it\n"
      "on a simulated instrument: talvero-sim -- talvero-bist report",
      "talvero-bist");
  app.footer(
      "Exit status: 0 everything passed, 1 something failed, 2 wrong call or no instrument.\n");
  app.set_version_flag("--version", TALVERO_VERSION);
  app.require_subcommand(1);
  app.fallthrough();

  Arguments arguments;
  app.add_flag("--json", arguments.json, "print one JSON object instead of text");
  app.add_option("--trace", arguments.traceFile, "write the library's register trace to this file")
      ->option_text("FILE");
  CLI::App& report = *app.add_subcommand("report", "test everything and report it");
  bool powerCycle = false;
  report.add_flag("--power-cycle", powerCycle,
                  "also turn each module off and on; modules that were off stay off");
  report.callback([&] { arguments.commands = reportCommands(powerCycle); });
  app.add_subcommand("board", "say which board this is and which boards are attached to it")
      ->callback([&] { arguments.commands = {boardSection}; });
  addSlotCommands(app, arguments);
  addLinkCommands(app, arguments);
  addTransmitterCommand(app, arguments);
  try {
    app.parse(argc, argv);
    return execute(arguments.commands, arguments.json, arguments.traceFile);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? pass : usageOrNoHardware;
  } catch (const std::exception& error) {
    std::cerr << "talvero-bist: " << error.what() << "\n";
    return usageOrNoHardware;
  }
}
