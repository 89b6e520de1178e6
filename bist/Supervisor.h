// SPDX-License-Identifier: MIT
#pragma once

#include <functional>

#include "bist/LibraryOutput.h"
#include "bist/Session.h"

/// Does `work` in a process of its own, which tells this one its events through a pipe. The waits
/// of the library cannot be cut short, a process can: a signal (SIGINT, SIGTERM, SIGHUP), or that
/// nobody reads the standard output any more, kills it at once, and what it has switched is undone
/// here, by objects of this process's own. Another signal ends this process as well, but for those
/// that come along with the first one, within half a second.
///
/// Requires that this process has one thread.
///
/// @param progress  is shown each second; may be null
/// @return the signal that ended the run; 0 for none
/// Throws what the work has thrown as std::runtime_error, also when its process ends without a
/// word.
int supervise(Session& session, LibraryOutput& libraryOutput, ProgressOutput* progress,
              const std::function<void(const Events&)>& work);

/// Undoes all that is switched, the last first, and says on standard error what could not be.
void undoAll(Session& session, LibraryOutput& libraryOutput);
