// SPDX-License-Identifier: MIT
#pragma once

namespace simulator {

/// Hides the host's hardware from this process, which has an instrument and one thread, and from
/// the programs that it starts: /sys and every other sysfs are empty directories, device nodes and
/// the like empty files without permissions. The instrument needs none of them.
///
/// Takes a mount namespace, and from a process without capabilities a user namespace too. Where
/// these are not allowed it changes nothing; what cannot be covered stays in sight.
void hideHostHardware();

}  // namespace simulator
