// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

/// Names of all entries of a directory, "." and ".." included, in directory order; empty when it
/// cannot be opened.
std::vector<std::string> listDirectory(const std::string& path);

/// Whether an entry's name equals `name`, or only contains it.
enum class NameMatch { exact, substring };

/// `path`, "/" and the first entry that matches; empty when there is none.
std::string findEntry(const std::string& path, const std::string& name, NameMatch match);
