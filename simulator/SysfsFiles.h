#pragma once

#include <optional>
#include <string>

/// The files below /sys, as the functions that open, write and close files see them.
///
/// An attribute with a behaviour is opened as a small memory file that says in its name which
/// attribute it is, so that it is recognised whatever becomes of its descriptor: copied, inherited
/// by another program, closed in a child. What a program reads from it was made up when it was
/// opened. What a program writes is taken at the write or, where stdio wrote from its own buffer,
/// when the stream is flushed or closed, and refused there as the kernel would.
namespace simulator {

struct Behaviour;

/// A path below /sys, and the behaviour of the attribute that it names, if it has one.
struct SysfsPath {
  std::string full;
  std::string relative;  ///< to the behaviour's directory
  const Behaviour* behaviour = nullptr;
};

/// A name as an absolute path without detours; relative ones begin at an open directory or, for
/// AT_FDCWD, the working directory. Empty for a name that is null or empty.
std::string absolutePath(int directory, const char* name);

/// The simulator's view of an absolute path; nothing when it is outside /sys, which is none of the
/// simulator's business. Ends the process when it is the host's GPIO.
std::optional<SysfsPath> sysfsPath(const std::string& absolute);

/// The path of an open file of the host's own /sys, which a name has led to that does not show it,
/// a symbolic link for instance.
std::optional<SysfsPath> sysfsPathBehind(int fd);

/// Whether an absolute path leads to hardware by another door than /sys, which the instrument does
/// not have.
bool isHidden(const std::string& absolute);

/// Where umockdev keeps a file. Opened there, umockdev takes it for no device of its own and leaves
/// out the ioctl emulation, which has a thread that does not always keep up.
std::string treePath(const SysfsPath& path);

/// A descriptor for an attribute with a behaviour; -1 with errno when it cannot be opened.
int openAttribute(const SysfsPath& path, int flags);

/// Before a plain file below /sys is opened: whether the flags are for reading. Its attributes
/// are read-only, and nobody creates one.
bool mayOpenPlain(const SysfsPath& path, int flags);

void tracePlainRead(const SysfsPath& path, bool opened);

/// The attribute that a descriptor is open for writing on, if it is one with a behaviour.
std::optional<SysfsPath> writtenAttribute(int fd);

/// Takes a write; returns 0 or an errno value.
int store(const SysfsPath& path, const std::string& text);

/// Takes what stdio has written past the write function; returns 0 or an errno value.
int settle(int fd);

/// Looks for attributes that the program was started with, as a shell does it to redirect output.
void findInherited();

/// Settles every descriptor of the process; `flush` is called first if there is one to settle.
int settleAll(void (*flush)());

/// Makes up anew what reading an attribute from its start gives.
void refresh(int fd);

}  // namespace simulator
