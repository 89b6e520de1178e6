#pragma once

#include "tools/Report.h"

/// The subjects that talvero-bist reports on. Each function does its tests through the library's
/// public classes when it is called.

/// Identity of the board, its strap lines and the boards attached to it.
report::Section boardSection();
