// SPDX-License-Identifier: MIT
#pragma once

/// What a process holds.
struct Usage {
  long bytes;
  long descriptors;
};

Usage usageNow();

// What is measured: an object, and what it cannot do without.
bool constructDiagnostics();
bool initialiseLibpciaccess();
