// SPDX-License-Identifier: MIT
#include "bist/SettingsMap.h"

#include <algorithm>
#include <limits>
#include <set>
#include <tuple>

namespace {

constexpr Settings steps[] = {{-1, 0}, {1, 0}, {0, -1}, {0, 1}};

int square(int number) { return number * number; }

/// The square of how far settings are from each other.
int distance(Settings one, Settings other) {
  return square(one.first - other.first) + square(one.second - other.second);
}

int distance(const std::vector<Settings>& region, Settings from) {
  int least = std::numeric_limits<int>::max();
  for (const Settings& settings : region) {
    least = std::min(least, distance(settings, from));
  }
  return least;
}

/// Whether there are such settings.
bool exist(Settings settings) {
  return std::min(settings.first, settings.second) >= 0 &&
         std::max(settings.first, settings.second) <= lastSetting;
}

Settings operator+(Settings settings, Settings step) {
  return {settings.first + step.first, settings.second + step.second};
}

}  // namespace

bool SettingsMap::isGood(Settings settings) const {
  const auto found = counts.find(settings);
  return found != counts.end() && found->second == 0U;
}

std::vector<Settings> SettingsMap::around(Settings start) const {
  std::vector<Settings> region = {start};
  std::set<Settings> seen = {start};
  for (std::size_t index = 0; index < region.size(); ++index) {
    for (const Settings& step : steps) {
      const Settings next = region[index] + step;
      if (isGood(next) && seen.insert(next).second) {
        region.push_back(next);
      }
    }
  }
  return region;
}

std::vector<Settings> SettingsMap::region(Settings present) const {
  std::vector<Settings> best;
  std::set<Settings> seen;
  for (const auto& [settings, errors] : counts) {
    if (errors != 0U || seen.count(settings) != 0) {
      continue;
    }
    std::vector<Settings> next = around(settings);
    seen.insert(next.begin(), next.end());
    if (next.size() > best.size() ||
        (next.size() == best.size() && distance(next, present) < distance(best, present))) {
      best = std::move(next);
    }
  }
  return best;
}

std::vector<Settings> SettingsMap::notGood() const {
  std::vector<Settings> settings;
  for (const auto& [tested, errors] : counts) {
    if (errors != 0U) {
      settings.push_back(tested);
    }
    for (const Settings& step : steps) {
      if (!exist(tested + step)) {
        settings.push_back(tested + step);
      }
    }
  }
  return settings;
}

Settings SettingsMap::centre(const std::vector<Settings>& region, Settings present) const {
  const std::vector<Settings> bad = notGood();
  const auto rank = [&](Settings settings) {
    return std::tuple(-distance(bad, settings), distance(settings, present), settings);
  };
  auto best = rank(region.front());
  for (const Settings& settings : region) {
    best = std::min(best, rank(settings));
  }
  return std::get<Settings>(best);
}

bool SettingsMap::isOpen(const std::vector<Settings>& region) const {
  return std::any_of(region.begin(), region.end(), [this](Settings settings) {
    return std::any_of(std::begin(steps), std::end(steps), [&](Settings step) {
      return exist(settings + step) && !has(settings + step);
    });
  });
}

Margin SettingsMap::margin(Settings from, Settings step) const {
  Margin margin{0, has(from + step), false};
  Settings next = from + step;
  for (; isGood(next); next = next + step) {
    ++margin.steps;
  }
  margin.isOpen = exist(next) && !has(next);
  return margin;
}
