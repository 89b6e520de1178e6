// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "bist/output/Output.h"
#include "bist/output/Xml.h"

/// The page's drawings, as SVG within it. Their colours are classes of the page's style.

/// The class of a verdict: "pass", "fail", "skipped", "not-tested" or "none".
std::string classOf(const std::string& verdict);

/// The name of the place on the page where the result of a test is.
std::string anchorOf(const std::string& test);

/// A number as a person writes it.
std::string numberText(double number);

/// Board, PCIe path and slots, and the I2C buses that the results name, coloured by verdict; each
/// part leads to its results. Nothing where no part of the instrument has been looked at.
void drawInstrument(Xml& xml, const Record& record);

/// What a section's data has of these:
///
///   "series": [{"name", "x", "y", "points": [[x, y], ...]}, ...]   a plot for each pair of axes
///   "map": {"rows", "columns", "rowValues", "columnValues", "counts": [[...], ...],
///           "centre": [row, column] or null}                       coloured by counts
void drawPlots(Xml& xml, const Json& data);
