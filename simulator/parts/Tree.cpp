// SPDX-License-Identifier: MIT
#include "simulator/parts/Tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "simulator/shared/Trace.h"

namespace simulator {

namespace {

namespace fs = std::filesystem;

bool isIn(const Tree& tree, const Tree::value_type& file) {
  const auto found = tree.find(file.first);
  return found != tree.end() && found->second == file.second;
}

/// Whether the tree has the path or something below it.
bool reaches(const Tree& tree, const std::string& path) {
  const auto below = tree.lower_bound(path + "/");
  return tree.count(path) != 0 ||
         (below != tree.end() && below->first.compare(0, path.size() + 1, path + "/") == 0);
}

/// The directory that a file is in.
std::string directoryOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

/// Throws where the path of a directory leads through a file of the tree: by a link it would be
/// somewhere else, outside the root directory even.
void requireDirectories(const Tree& tree) {
  std::string known;
  for (const auto& [path, file] : tree) {
    const std::string directory = directoryOf(path);
    for (std::string above = directory; directory != known && !above.empty();
         above = directoryOf(above)) {
      const auto found = tree.find(above);
      if (found != tree.end() && !S_ISDIR(found->second.mode)) {
        throw std::runtime_error(above + ": is no directory that a bus can be in");
      }
    }
    known = directory;
  }
}

/// Removes a file and the directories that it leaves empty.
void remove(const std::string& root, std::string path, const Tree& after) {
  std::error_code error;
  do {
    fs::remove(root + path);
    path.erase(path.rfind('/'));
  } while (!path.empty() && !reaches(after, path) && fs::is_empty(root + path, error));
}

void createRegular(const std::string& path, const TreeFile& file) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, file.mode & 07777);
  const bool written = ::write(fd, file.content.data(), file.content.size()) ==
                       static_cast<ssize_t>(file.content.size());
  // Whatever the umask of the process that makes the change.
  if (fd < 0 || !written || fchmod(fd, file.mode & 07777) != 0 || ::close(fd) != 0) {
    throw fs::filesystem_error("cannot be written", path,
                               std::error_code(errno, std::generic_category()));
  }
}

void create(const std::string& path, const TreeFile& file) {
  if (S_ISLNK(file.mode)) {
    fs::create_symlink(file.content, path);
  } else if (S_ISDIR(file.mode)) {
    fs::create_directories(path);
  } else {
    createRegular(path, file);
  }
}

}  // namespace

void addFile(Tree& tree, const std::string& path, const std::string& content, mode_t mode) {
  tree[path] = {content, S_IFREG | mode};
}

void addDirectory(Tree& tree, const std::string& path) { tree[path] = {"", S_IFDIR | 0755}; }

void addLink(Tree& tree, const std::string& path, const std::string& target) {
  const fs::path directory = fs::path(path).parent_path();
  tree[path] = {fs::path(target).lexically_relative(directory).string(), S_IFLNK | 0777};
}

void changeFiles(const std::string& root, const Tree& before, const Tree& after) {
  requireDirectories(after);
  const Nested nested;
  for (auto file = before.rbegin(); file != before.rend(); ++file) {
    if (!isIn(after, *file)) {
      remove(root, file->first, after);
    }
  }
  std::string directory;  // known to be there
  for (const auto& [path, file] : after) {
    if (!isIn(before, {path, file})) {
      const std::string parent = directoryOf(path);
      if (parent != directory) {
        fs::create_directories(root + parent);
        directory = parent;
      }
      create(root + path, file);
    }
  }
}

}  // namespace simulator
