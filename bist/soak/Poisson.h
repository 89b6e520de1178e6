// SPDX-License-Identifier: MIT
#pragma once

/// Bounds of the number of events that is to be expected, where so many have been counted: exact,
/// for events that come independently of each other.
struct Bounds {
  double lower;
  double upper;
};

/// Two-sided, at 95 % confidence. Where none have been counted, the upper bound is one-sided: 3.0.
Bounds poissonBounds(double events);
