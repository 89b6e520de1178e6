// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <optional>
#include <string>

#include "simulator/preload/Paths.h"

/// Open attributes. The functions that open, write and close files call these, and these call the
/// parts of the instrument.
///
/// An attribute is opened as a small memory file that says in its name which attribute it is, so
/// that it is recognised whatever becomes of its descriptor: copied, inherited by another program,
/// closed in a child. What a program reads from it was made up when it was opened. What a program
/// writes is taken at the write or, where stdio wrote from its own buffer, when the stream is
/// flushed or closed, and refused there as the kernel would.
namespace simulator {

/// A descriptor for an attribute of a part; -1 with errno when it cannot be opened.
int openAttribute(const SysfsPath& path, int flags);

/// Whether the descriptor is a file below /sys, an attribute or another.
bool isBelowSys(int fd);

/// Whether the descriptor is an attribute that is open for writing.
bool isWritableAttribute(int fd);

/// Writes to such an attribute, which takes all or nothing, as write does; nothing for any other
/// descriptor.
/// An offset counts for one that holds bytes: negative for where the descriptor is.
std::optional<ssize_t> writeAttribute(int fd, const iovec* texts, int count, off_t offset = -1);

/// Takes what stdio has written to a descriptor past the write function; returns 0 or an errno
/// value.
int takeWritten(int fd);

/// The same for every descriptor of the process; `flush` is called first if there is one to take
/// from.
int takeAllWritten(void (*flush)());

/// Makes up anew what reading an attribute from its start gives or, of one that holds bytes, from
/// anywhere. Returns 0 or the errno value with which it fails.
int readAnew(int fd, bool fromStart);

/// Lets the next read from a descriptor fail, or not for 0.
void failNextRead(int fd, int error);

/// The errno value with which a read fails that comes now; 0 if it does not.
int takeReadError(int fd);

/// Traces the reading of a file below /sys: what it gives, if that is text, or its error.
void traceReading(const SysfsPath& path, const std::string& content, int error);

/// A descriptor whose reading fails with EIO: nobody has memory at the very beginning.
int openUnreadable(int flags);

/// Looks for attributes that the program was started with, as a shell does it to redirect output.
void findInheritedAttributes();

}  // namespace simulator
