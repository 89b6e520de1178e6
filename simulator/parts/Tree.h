// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

namespace simulator {

/// A file of the simulated /sys.
struct TreeFile {
  std::string content;  ///< of a symbolic link, where it leads; what attributes hold is not here
  mode_t mode;          ///< as stat shows it, with the kind of file

  bool operator==(const TreeFile& other) const {
    return content == other.content && mode == other.mode;
  }
};

/// Files by their absolute paths, such as /sys/class/gpio/export. Directories that hold something
/// go without saying.
using Tree = std::map<std::string, TreeFile>;

/// A file that everybody may read; `mode` is its permissions.
void addFile(Tree& tree, const std::string& path, const std::string& content, mode_t mode = 0444);

/// A directory of its own.
void addDirectory(Tree& tree, const std::string& path);

/// A symbolic link to another path of the tree.
void addLink(Tree& tree, const std::string& path, const std::string& target);

/// Makes the files below a root directory those of one tree after they were those of another.
/// Throws std::runtime_error, and has changed nothing, where the path of a file leads through
/// another one, and std::filesystem::filesystem_error if it cannot.
void changeFiles(const std::string& root, const Tree& before, const Tree& after);

}  // namespace simulator
