// SPDX-License-Identifier: MIT
// Bus numbers of bridges and what configuration spaces hold, as pcie/ reads them.
#include <memory>
#include <string>

#include "fuzz/Doors.h"
#include "pcie/PCIeDiagnostics.h"

namespace {

using Port = PCIeDownstreamPorts;

void checkResults(const PCIeDiagnostics& diagnostics, Port port,
                  const DiagnosticsResults& results) {
  require(results.prbsErrors <= 255 && results.rootLinkFault <= 1);
  require(diagnostics.rootPort != nullptr || (!results.rootLinkOk && results.rootLinkFault == 0));
  const bool resolved =
      port < std::size(diagnostics.downstreamPorts) && diagnostics.downstreamPorts[port] != nullptr;
  require(resolved || (!results.downstreamLinkUp && !results.prbsSync && results.prbsErrors == 0));
  diagnostics.DecodeUncorrectableStatus(results.portUncorrectableStatus);
  diagnostics.DecodeCorrectableStatus(results.portCorrectableStatus);
}

void callOne(PCIeDiagnostics& library, Input& input) {
  const unsigned int operation = input.number(18);
  const auto port = static_cast<Port>(input.number(7));
  const bool flag = input.take('1');
  switch (operation) {
    case 0:
      require(library.setupAdvancedErrorReportingOnRootSwitch() == 0);
      break;
    case 1:
      library.setupShimSwitch(input.number(5));
      require(!library.shimUpstreamFound ||
              (library.downstreamPorts[ShimPort1] && library.downstreamPorts[ShimPort5]));
      break;
    case 2:
      require(!library.DecodeUncorrectableStatus(input.word()).empty() &&
              !library.DecodeCorrectableStatus(input.word()).empty());
      break;
    case 3:
      library.getDevicePortBits(port, input.word(2), input.word(),
                                static_cast<unsigned char>(input.word(1)));
      break;
    case 4:
      library.setDevicePortBits(port, input.word(2), input.word(), input.word());
      break;
    case 5:
      library.clearDevicePortBits(port, input.word(2), input.word());
      break;
    case 6:
      library.testDevicePortBits(port, input.word(2), input.word());
      break;
    case 7:
      library.retrainLink(port);
      break;
    case 8:
      checkResults(library, port, library.getDiagnosticsResults(port, flag));
      break;
    case 9:
      library.clearDownstreamResults(port);
      require(library.wait_ms(input.word()) == 0);
      break;
    case 10:
      checkResults(library, port, library.checkLiveDownstreamPort(port, input.number(3), flag));
      break;
    case 11:
      library.isLinkUp(port);
      break;
    case 12:
      checkResults(library, port, library.testDownstreamPort(port, input.number(3)));
      break;
    case 13:
      library.setPostCursorEmphasis(port, static_cast<int>(input.number(1)), input.word());
      library.setDriveLevel(port, static_cast<int>(input.number(1)), input.word());
      break;
    case 14:
      library.setTo5GQuietTransmitWithoutLoopback(port, flag);
      break;
    case 15:
      library.setPCIeExternalAnalogLoopback(port, flag);
      break;
    case 16:
      library.setLoopbackMasterControl(port, flag);
      library.setPRBSMode(port, flag);
      break;
    case 17:
      library.setupPRBSLoopbackTest(port);
      library.tearDownPRBSLoopbackTest(port);
      break;
    default:
      library.configurePRBSDiagnosicRegister(port);
      library.checkForPRBSSync(port);
      require(library.readPRBSErrorCounter(port) <= 255);
  }
}

constexpr int mostCalls = 24;

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  beSilent();
  Input input(data, size);
  const Doors doors(input);
  PCIeDiagnostics library;
  for (int call = 0; call < mostCalls && !input.empty(); ++call) {
    callOne(library, input);
  }
  return 0;
}
