// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

/// What this process and its instrument hold now: see `holdings` in Holdings.cpp.
std::vector<long> heldNow();

// Bare calls of libpciaccess: it keeps a list of devices for each initialisation, and in that of a
// device what its bridge is once that was asked for.
void initialise();
void initialiseAndAsk();

/// What a call keeps for good, bytes.
long keptBy(void (*call)());

/// What is held now beyond `before` and what is known to be kept, one text each.
std::vector<std::string> grownSince(const std::vector<long>& before, long knownBytes);
