// SPDX-License-Identifier: MIT
#include <exception>
#include <limits>

#include "bist/Command.h"
#include "bist/Options.h"
#include "modules/ModuleI2CInfo.h"
#include "modules/Udev_PCA9536.h"

namespace {

unsigned int module = 0;

void addOptions(CLI::App& app) {
  app.add_option("MODULE", module, "module number, which is its slot's")
      ->required()
      ->check(wholeNumber(std::numeric_limits<unsigned int>::max()))
      ->option_text(" ");
}

std::string testName() { return "module" + std::to_string(module) + ".topology"; }

void run(Report& report) {
  Section section{"topology", "Module " + std::to_string(module)};
  section.data = {{"module", module}};
  try {
    const ModuleI2CInfo info(module);
    const std::string expander = Udev_PCA9536(module).GetPath();
    const auto line = [](const char* label, const std::string& bus) {
      return Line{label, bus.empty() ? "-" : bus};
    };
    section.lines = {{"device tree", info.topBus.empty() ? "does not describe it" : "describes it",
                      passIf(!info.topBus.empty()), "", testName()},
                     line("top bus", info.topBus),
                     line("system bus", info.systemBus),
                     line("solution bus", info.solutionBus),
                     {"2k4k", info.is2k4k ? "yes" : "no"},
                     line("expander", expander)};
    section.data.update({{"topBus", info.topBus},
                         {"systemBus", info.systemBus},
                         {"solutionBus", info.solutionBus},
                         {"is2k4k", info.is2k4k},
                         {"expander", expander}});
  } catch (const std::exception& error) {
    section.lines = {{"device tree", std::string("cannot be resolved: ") + error.what(),
                      Verdict::fail, "", testName()}};
    section.data["error"] = error.what();
  }
  report.add(section);
}

}  // namespace

const Command topologyCommand = {"topology", "show the I2C buses of a module", Needs::instrument,
                                 addOptions, run};
