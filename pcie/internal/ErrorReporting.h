// SPDX-License-Identifier: MIT
#pragma once

struct pci_device;

/// Enables error reporting on the root port and clears its latched error status.
void enableRootErrorReporting(pci_device* root);

/// Clears the root port's latched root, correctable and uncorrectable error status.
void clearRootErrorStatus(pci_device* root);

/// Enables error reporting on a port of a switch and clears its latched error status.
void enableBridgeErrorReporting(pci_device* bridge);

/// Clears the latched error status of a port of a switch.
void clearBridgeErrorStatus(pci_device* bridge);
