// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

/// Which machine the program runs on: many that are no instrument have GPIO lines and PCI devices
/// of their own, which no test may touch.

/// The GPIO lines of the straps, bit 5's first.
constexpr const char* strapLines[] = {"135", "171", "170", "169", "168", "167"};

/// The GPIO lines that tell by slot whether a module is there, those of slots 0 and 5 for an IMB;
/// null for slot 4, which always has one.
constexpr const char* presenceLines[] = {"80", "127", "133", "134", nullptr, "80"};

/// The GPIO lines of the straps that cannot be read when it is asked first, bit 5's first. BoardId
/// takes those for low.
const std::vector<std::string>& unreadableStraps();

/// --spb-despite-straps, for the bring-up of a board whose straps are broken.
void addSpbOption(CLI::App& app);

/// Whether the board has slots and a PCIe switch: an SPB by its straps, or by the option.
bool isSpb();

/// Throws std::runtime_error, whose text is a sentence, without the rights to use GPIO lines, and
/// where none of the straps can be read.
void requireInstrument();

/// Throws std::runtime_error, whose text is a sentence, on a board that is no SPB.
///
/// @param command  what needs one
void requireSpb(const std::string& command);
