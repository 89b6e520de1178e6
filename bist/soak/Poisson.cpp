// SPDX-License-Identifier: MIT
#include "bist/soak/Poisson.h"

#include <cmath>

namespace {

/// The probability of exactly so many events.
double probability(double events, double expected) {
  return std::exp(events * std::log(expected) - expected - std::lgamma(events + 1));
}

/// The probability of so many events or more, where fewer are expected.
double orMore(double events, double expected) {
  double sum = 0;
  for (double term = probability(events, expected); term > sum * 1e-17; ++events) {
    sum += term;
    term *= expected / (events + 1);
  }
  return sum;
}

/// The probability of so many events or fewer, where more are expected.
double orFewer(double events, double expected) {
  double sum = 0;
  for (double term = probability(events, expected); events >= 0 && term > sum * 1e-17; --events) {
    sum += term;
    term *= events / expected;
  }
  return sum;
}

/// Where a function that falls or rises between the two has that value.
template <typename Function>
double solve(Function function, double value, double low, double high) {
  const bool rises = function(high) > value;
  for (int step = 0; step < 100; ++step) {
    const double middle = (low + high) / 2;
    ((function(middle) > value) == rises ? high : low) = middle;
  }
  return high;
}

}  // namespace

Bounds poissonBounds(double events) {
  if (events == 0) {
    return {0, -std::log(0.05)};
  }
  // So many are normally distributed, and adding their probabilities up takes long.
  constexpr double many = 1e6;
  if (events > many) {
    const double deviation = 1.96 * std::sqrt(events);
    return {events - deviation, events + deviation};
  }
  constexpr double tail = 0.025;
  const double far = events + 10 + 10 * std::sqrt(events);
  return {
      solve([events](double expected) { return orMore(events, expected); }, tail, 0, events),
      solve([events](double expected) { return orFewer(events, expected); }, tail, events, far)};
}
