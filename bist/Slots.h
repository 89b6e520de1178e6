// SPDX-License-Identifier: MIT
#pragma once

#include <functional>

#include "bist/Report.h"
#include "modules/BackplaneInterface.h"

constexpr int slotCount = 6;

std::string slotName(int slot);

/// The name of a test of a slot, such as "slot1.power-on".
std::string slotTest(int slot, const std::string& what);

/// Whether the slot has a power controller: its module's power expander answers.
bool hasExpander(int slot);

/// Switches the module in a slot on or off, with a word on the progress, and judges what it reads
/// afterwards.
Line switchSlot(Report& report, BackplaneInterface& backplane, int slot, bool on);

/// Runs a test that the modules' topology can keep from being made at all; the section says so
/// then.
void guarded(Section& section, const std::function<void()>& test);
