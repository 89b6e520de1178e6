// SPDX-License-Identifier: MIT
#include "bist/Options.h"

#include <algorithm>
#include <cctype>

namespace {

constexpr unsigned int longest = 86400;  // seconds, a day

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return text;
}

/// The ports as --help lists them.
std::string portList() {
  std::string text;
  for (unsigned int number = 0; number <= ShimPort5; ++number) {
    const auto port = static_cast<PCIeDownstreamPorts>(number);
    const int slot = slotOf(port);
    text += (text.empty() ? "" : ", ") + std::to_string(number) + " or " + portName(port) +
            (slot < 0 ? " (that of --module)" : " (slot " + std::to_string(slot) + ")");
  }
  return text;
}

/// Makes its number of a port's name.
CLI::Validator portNumber(PCIeDownstreamPorts last) {
  return CLI::Validator(
      [last](std::string& text) -> std::string {
        for (unsigned int number = 0; number <= static_cast<unsigned int>(last); ++number) {
          const std::string name = portName(static_cast<PCIeDownstreamPorts>(number));
          if (lowerCase(text) == lowerCase(name) || text == std::to_string(number)) {
            text = std::to_string(number);
            return "";
          }
        }
        return "must be " + portList() + ", not \"" + text + "\"";
      },
      "");
}

/// Takes the name of a test.
CLI::Validator testName() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        std::vector<std::string> names;
        for (const Test* const test : allTests) {
          names.emplace_back(test->name);
        }
        return std::find(names.begin(), names.end(), text) != names.end()
                   ? ""
                   : "\"" + text + "\" is no kind of test; there are " + joined(names);
      },
      "");
}

bool isOnShim(PCIeDownstreamPorts port) { return slotOf(port) < 0; }

}  // namespace

void PortOption::addTo(CLI::App& command, bool required) {
  command.add_option("PORT", port, portList())
      ->required(required)
      ->transform(portNumber(ShimPort5))
      ->option_text(" ");
  command
      .add_option("--module", shimModule,
                  "module, 0 to 3, whose shim switch has the port; needed for ports 4 and 5")
      ->check(wholeNumber(3))
      ->option_text("MODULE");
  command.callback([this, &command] {
    if (isOnShim(port) && command.count("--module") == 0) {
      throw CLI::ValidationError("ports 4 and 5 are on a module's shim switch: give --module");
    }
  });
}

void PortOption::reach(PCIeDiagnostics& diagnostics) const {
  if (isOnShim(port)) {
    diagnostics.setupShimSwitch(shimModule);
  }
}

DiagnosticsResults PortOption::watch(Report& report, PCIeDiagnostics& diagnostics,
                                     unsigned int seconds, bool clearErrors) const {
  reach(diagnostics);
  report.progress("watching " + title(), seconds);
  return diagnostics.checkLiveDownstreamPort(port, seconds, clearErrors);
}

int PortOption::slot() const {
  return isOnShim(port) ? static_cast<int>(shimModule) : slotOf(port);
}

std::string PortOption::title() const { return portTitle(port, slot()); }

void addChoice(CLI::App& command, Choice& choice) {
  command.add_option("--tests", choice.tests, "kinds of tests, separated by commas; see list")
      ->delimiter(',')
      ->check(testName())
      ->option_text("KIND,...");
  command.add_option("--slots", choice.slots, "these slots and their ports only, 0 to 5")
      ->delimiter(',')
      ->check(wholeNumber(5))
      ->option_text("SLOT,...");
  command.add_option("--ports", choice.ports, "these ports only")
      ->delimiter(',')
      ->transform(portNumber(DownstreamPort9))
      ->option_text("PORT,...");
  addSeconds(command, choice.seconds,
             "how long PRBS is tested on each port, 0 to 86400; 1 unless given");
  command
      .add_flag_callback(
          "--power-cycle", [&choice] { choice.added = {"power"}; },
          "also turn each module off and on; modules that were off stay off")
      ->disable_flag_override();
  command
      .add_option("--expect", choice.expectationFile,
                  "compare with what must be there, and judge by the limits in this file")
      ->option_text("FILE");
}

CLI::Option* addSeconds(CLI::App& command, unsigned int& seconds, const char* help) {
  return command.add_option("--seconds", seconds, help)
      ->check(wholeNumber(longest))
      ->option_text("N");
}

CLI::Validator wholeNumber(unsigned int largest) {
  return CLI::Validator(
      [largest](std::string& text) -> std::string {
        const bool digits = !text.empty() && text.size() <= 10 &&
                            text.find_first_not_of("0123456789") == std::string::npos;
        if (digits && std::stoull(text) <= largest) {
          return "";
        }
        return "must be a whole number from 0 to " + std::to_string(largest) + ", not \"" + text +
               "\"";
      },
      "");
}

void addRange(CLI::App& command, const char* option, Range& range, unsigned int largest,
              const char* help) {
  const auto take = [option, largest, &range](const std::string& text) {
    const std::size_t dash = std::min(text.find('-'), text.size());
    std::string first = text.substr(0, dash);
    std::string last = dash == text.size() ? first : text.substr(dash + 1);
    const CLI::Validator number = wholeNumber(largest);
    if (!number(first).empty() || !number(last).empty() || std::stoi(first) > std::stoi(last)) {
      throw CLI::ValidationError(option, "must be a range of 0 to " + std::to_string(largest) +
                                             " such as 4-11, or one of them, not \"" + text + "\"");
    }
    range = {std::stoi(first), std::stoi(last)};
  };
  command.add_option_function<std::string>(option, take, help)->option_text("A-B");
}

CLI::Validator onOff() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        if (text != "on" && text != "off") {
          return "must be \"on\" or \"off\", not \"" + text + "\"";
        }
        text = text == "on" ? "true" : "false";
        return "";
      },
      "");
}
