// SPDX-License-Identifier: MIT
#pragma once

#include <map>
#include <optional>
#include <utility>
#include <vector>

/// Where among the transmitter settings of a port errors come about.

/// A drive level and a post-cursor emphasis.
using Settings = std::pair<int, int>;
constexpr int lastSetting = 15;  // they begin with 0

/// Good settings beside one, in a direction.
struct Margin {
  int steps;
  bool isTested;  ///< the sweep has the next setting at all
  bool isOpen;    ///< the sweep ends before bad ones come, and before the settings do
};

/// Errors by settings, which are those of a sweep: all that two ranges combine.
class SettingsMap {
 public:
  /// @param errors  none for settings whose errors could not be counted
  void add(Settings settings, std::optional<unsigned int> errors) { counts[settings] = errors; }

  bool has(Settings settings) const { return counts.count(settings) != 0; }
  bool isGood(Settings settings) const;

  /// The most good settings that lead to each other, by single steps of one setting. Of regions of
  /// a size, it is the one nearest to the present settings.
  std::vector<Settings> region(Settings present) const;

  /// The settings of a region that are farthest from any bad ones and from those beyond the last.
  /// Where the sweep ends before the settings do, nothing is known to be bad. Of several, it is the
  /// ones nearest to the present settings.
  Settings centre(const std::vector<Settings>& region, Settings present) const;

  /// Whether settings of the region are at an end of the sweep where settings go on.
  bool isOpen(const std::vector<Settings>& region) const;

  /// @param step  one step of one of the settings
  Margin margin(Settings from, Settings step) const;

 private:
  std::vector<Settings> around(Settings start) const;

  /// Bad settings, and those beyond the last ones.
  std::vector<Settings> notGood() const;

  std::map<Settings, std::optional<unsigned int>> counts;
};
