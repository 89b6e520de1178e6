// SPDX-License-Identifier: MIT
#include "bist/Undo.h"

#include <unistd.h>

#include "bist/Ports.h"
#include "bist/Slots.h"

namespace {

// PRBS of all ports, loopback master, and the port that the error counter counts for.
const std::vector<Field> prbsFields = {
    {0x25C, 0x0F000000}, {0x224, 0x00011101}, {0x244, 0x03000000}};

}  // namespace

Json undoOfFields(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, int shimModule,
                  const std::vector<Field>& fields) {
  Json values = Json::array();
  for (const Field& field : fields) {
    values.push_back({{"offset", field.offset},
                      {"mask", field.mask},
                      {"value", diagnostics.getDevicePortBits(port, field.offset, field.mask, 0)}});
  }
  return {{"kind", "fields"},
          {"port", static_cast<int>(port)},
          {"module", shimModule},
          {"values", values}};
}

Json undoOfPrbs(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, int shimModule) {
  return undoOfFields(diagnostics, port, shimModule, prbsFields);
}

Json undoOfPower(int slot, bool wasOn) {
  return {{"kind", "power"}, {"slot", slot}, {"on", wasOn}};
}

Json undoOfFile(const std::string& name) { return {{"kind", "file"}, {"name", name}}; }

void putBack(PCIeDiagnostics& diagnostics, const Json& fields) {
  const auto port = static_cast<PCIeDownstreamPorts>(fields["port"].get<int>());
  for (const Json& field : fields["values"]) {
    const unsigned int offset = field["offset"];
    const unsigned int mask = field["mask"];
    const unsigned int value = field["value"];
    if (diagnostics.getDevicePortBits(port, offset, mask, 0) != value) {
      diagnostics.setDevicePortBits(port, offset, value, ~mask);
    }
  }
}

void undo(const Json& switched) {
  if (switched["kind"] == "file") {
    ::unlink(switched["name"].get<std::string>().c_str());
    return;
  }
  if (switched["kind"] == "power") {
    const int slot = switched["slot"];
    BackplaneInterface backplane(slot);
    switched["on"] ? backplane.turnModuleOn(slot) : backplane.turnModuleOff(slot);
    return;
  }
  const auto port = static_cast<PCIeDownstreamPorts>(switched["port"].get<int>());
  PCIeDiagnostics diagnostics;
  if (slotOf(port) < 0) {
    diagnostics.setupShimSwitch(switched["module"]);
  }
  putBack(diagnostics, switched);
}

std::string wordsOf(const Json& switched) {
  if (switched["kind"] == "file") {
    return switched["name"].get<std::string>() + " there";
  }
  if (switched["kind"] == "power") {
    return slotName(switched["slot"]) + (switched["on"] ? " on" : " off");
  }
  return "settings of " + portName(static_cast<PCIeDownstreamPorts>(switched["port"].get<int>()));
}
