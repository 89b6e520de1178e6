// SPDX-License-Identifier: MIT
#include <memory>

#include "pcie/PCIeDiagnostics.h"
#include "prove/faults/FaultSweep.h"

namespace {

constexpr PCIeDownstreamPorts port = DownstreamPort9;

std::string text(bool result) { return result ? "true" : "false"; }

std::function<Call()> on(std::string (*call)(PCIeDiagnostics& diagnostics)) {
  return [call] {
    const auto diagnostics = std::make_shared<PCIeDiagnostics>();
    return [diagnostics, call] { return call(*diagnostics); };
  };
}

/// What a record says of the path, the link and PRBS.
std::string text(const DiagnosticsResults& results) {
  return text(results.rootLinkOk) + " " + text(results.downstreamLinkUp) + " " +
         std::to_string(results.portCorrectableStatus) + " " + text(results.prbsSync) + " " +
         std::to_string(results.prbsErrors);
}

const std::string anyRecord = "(true|false) (true|false) 0 (true|false) 0";

}  // namespace

std::vector<Operation> pcieOperations() {
  return {
      {"PCIeDiagnostics",
       "true true true",
       "(true|false) (true|false) (true|false)",
       0,
       [] {
         return [] {
           const PCIeDiagnostics diagnostics;
           return text(diagnostics.pciSystemReady) + " " + text(diagnostics.rootPortFound) + " " +
                  text(diagnostics.switchUpstreamFound);
         };
       },
       {"pci_system_init", "false false false"}},
      {"PCIeDiagnostics, whatever it has found", "true true 0 true 0 122", anyRecord + " (0|122)",
       630,
       [] {
         return [] {
           PCIeDiagnostics diagnostics;
           diagnostics.setupAdvancedErrorReportingOnRootSwitch();
           diagnostics.isLinkUp(port);
           return text(diagnostics.testDownstreamPort(port, 0)) + " " +
                  std::to_string(diagnostics.getDevicePortBits(port, 0, 0xFF00, 8) & 0x7A);
         };
       }},
      {"PCIeDiagnostics::setupAdvancedErrorReportingOnRootSwitch", "0", "0", 0,
       on([](PCIeDiagnostics& diagnostics) {
         return std::to_string(diagnostics.setupAdvancedErrorReportingOnRootSwitch());
       })},
      {"PCIeDiagnostics::DecodeUncorrectableStatus",
       "Data Link, Surprise Down, Poisoned DLP, Flow Control, Completion Timeout, Completion "
       "Abort, Unexpected Completion, Receiver Overflow, Malformed TLP, ECRC Error, Unsupported "
       "Request, ACS Violation",
       ".*ECRC Error.*|.*ECRC.*", 0, on([](PCIeDiagnostics& diagnostics) {
         return diagnostics.DecodeUncorrectableStatus(0xFFFFFFFF);
       })},
      {"PCIeDiagnostics::DecodeCorrectableStatus",
       "Rx Errors, Bad TLP, Bad DLLP, Replay Num, Replay Timeout, Advisory", ".*Bad TLP.*", 0,
       on([](PCIeDiagnostics& diagnostics) {
         return diagnostics.DecodeCorrectableStatus(0xFFFFFFFF);
       })},
      {"PCIeDiagnostics::getDevicePortBits", "122", "0|122", 0,
       on([](PCIeDiagnostics& diagnostics) {
         return std::to_string(diagnostics.getDevicePortBits(port, 0, 0xFF00, 8) & 0x7A);
       })},
      {"PCIeDiagnostics::setDevicePortBits", "5", "0|5", 0, on([](PCIeDiagnostics& diagnostics) {
         return std::to_string(diagnostics.setDevicePortBits(port, 0xB98, 5, ~0xFU));
       })},
      {"PCIeDiagnostics::clearDevicePortBits", "0", "0", 0, on([](PCIeDiagnostics& diagnostics) {
         return std::to_string(diagnostics.clearDevicePortBits(port, 0x25C, 0x0F000000));
       })},
      {"PCIeDiagnostics::testDevicePortBits", "true", "true|false", 0,
       on([](PCIeDiagnostics& diagnostics) {
         return text(diagnostics.testDevicePortBits(port, 0x1F4, 0xF00));
       })},
      {"PCIeDiagnostics::retrainLink", "", "", 0, on([](PCIeDiagnostics& diagnostics) {
         diagnostics.retrainLink(port);
         return std::string();
       })},
      {"PCIeDiagnostics::getDiagnosticsResults", "true true 0 false 0", anyRecord, 0,
       on([](PCIeDiagnostics& diagnostics) {
         return text(diagnostics.getDiagnosticsResults(port, true));
       })},
      {"PCIeDiagnostics::clearDownstreamResults", "", "", 0, on([](PCIeDiagnostics& diagnostics) {
         diagnostics.clearDownstreamResults(port);
         return std::string();
       })},
      {"PCIeDiagnostics::wait_ms", "0", "0", 300,
       on([](PCIeDiagnostics& diagnostics) { return std::to_string(diagnostics.wait_ms(300)); })},
      {"PCIeDiagnostics::checkLiveDownstreamPort", "true true 0 false 0", anyRecord, 110,
       on([](PCIeDiagnostics& diagnostics) {
         return text(diagnostics.checkLiveDownstreamPort(port, 0, true));
       })},
      {"PCIeDiagnostics::isLinkUp", "true", "true|false", 110,
       on([](PCIeDiagnostics& diagnostics) { return text(diagnostics.isLinkUp(port)); })},
      {"PCIeDiagnostics::testDownstreamPort", "true true 0 true 0", anyRecord, 520,
       on([](PCIeDiagnostics& diagnostics) {
         return text(diagnostics.testDownstreamPort(port, 0));
       })},
      {"PCIeDiagnostics::setupShimSwitch", "true", "true|false", 0,
       on([](PCIeDiagnostics& diagnostics) {
         diagnostics.setupShimSwitch(1);
         return text(diagnostics.shimUpstreamFound);
       })},
      {"PCIeDiagnostics::setPostCursorEmphasis", "true", "true", 0,
       on([](PCIeDiagnostics& diagnostics) {
         return text(diagnostics.setPostCursorEmphasis(port, 0, 3));
       })},
      {"PCIeDiagnostics::setDriveLevel", "true", "true", 0, on([](PCIeDiagnostics& diagnostics) {
         return text(diagnostics.setDriveLevel(port, 0, 3));
       })},
      {"PCIeDiagnostics::setTo5GQuietTransmitWithoutLoopback", "true", "true", 20,
       on([](PCIeDiagnostics& diagnostics) {
         return text(diagnostics.setTo5GQuietTransmitWithoutLoopback(port, true));
       })},
      {"PCIeDiagnostics::setPCIeExternalAnalogLoopback", "true", "true|false", 120,
       on([](PCIeDiagnostics& diagnostics) {
         return text(diagnostics.setPCIeExternalAnalogLoopback(port, true));
       })},
      {"PCIeDiagnostics::setLoopbackMasterControl", "true", "true|false", 10,
       on([](PCIeDiagnostics& diagnostics) {
         return text(diagnostics.setLoopbackMasterControl(port, true));
       })},
      {"PCIeDiagnostics::setPRBSMode", "", "", 0, on([](PCIeDiagnostics& diagnostics) {
         diagnostics.setPRBSMode(port, true);
         return std::string();
       })},
      {"PCIeDiagnostics::configurePRBSDiagnosicRegister", "", "", 0,
       on([](PCIeDiagnostics& diagnostics) {
         diagnostics.configurePRBSDiagnosicRegister(port);
         return std::string();
       })},
      {"PCIeDiagnostics::setupPRBSLoopbackTest", "", "", 10, on([](PCIeDiagnostics& diagnostics) {
         diagnostics.setupPRBSLoopbackTest(port);
         return std::string();
       })},
      {"PCIeDiagnostics::tearDownPRBSLoopbackTest", "", "", 10,
       on([](PCIeDiagnostics& diagnostics) {
         diagnostics.tearDownPRBSLoopbackTest(port);
         return std::string();
       })},
      {"PCIeDiagnostics::checkForPRBSSync", "false", "true|false", 0,
       on([](PCIeDiagnostics& diagnostics) { return text(diagnostics.checkForPRBSSync(port)); })},
      {"PCIeDiagnostics::readPRBSErrorCounter", "0", "0", 0, on([](PCIeDiagnostics& diagnostics) {
         return std::to_string(diagnostics.readPRBSErrorCounter(port));
       })},
  };
}
