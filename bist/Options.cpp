// SPDX-License-Identifier: MIT
#include "bist/Options.h"

#include "bist/Ports.h"

namespace {

std::vector<std::pair<std::string, PCIeDownstreamPorts>> portsByName() {
  std::vector<std::pair<std::string, PCIeDownstreamPorts>> names;
  for (unsigned int number = 0; number <= ShimPort5; ++number) {
    const auto port = static_cast<PCIeDownstreamPorts>(number);
    names.emplace_back(portName(port), port);
  }
  return names;
}

bool isOnShim(PCIeDownstreamPorts port) { return port == ShimPort1 || port == ShimPort5; }

}  // namespace

void PortOption::addTo(CLI::App& command) {
  command
      .add_option("PORT", port,
                  "0 to 5, or DownstreamPort1, DownstreamPort5, DownstreamPort7, DownstreamPort9, "
                  "ShimPort1, ShimPort5")
      ->required()
      ->transform(CLI::Transformer(portsByName(), CLI::ignore_case))
      ->check(CLI::Range(0, 5))
      ->option_text(" ");
  command
      .add_option("--module", shimModule,
                  "module, 0 to 3, whose shim switch has the port; needed for ports 4 and 5")
      ->check(CLI::Range(0, 3))
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

CLI::Option* addSeconds(CLI::App& command, unsigned int& seconds, const char* help) {
  return command.add_option("--seconds", seconds, help)
      ->check(CLI::Range(0, 86400))
      ->option_text("N");
}

CLI::CheckedTransformer onOff() {
  return CLI::CheckedTransformer(
      std::vector<std::pair<std::string, bool>>{{"on", true}, {"off", false}});
}
