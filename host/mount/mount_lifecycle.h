// The life of one mount: set-up, mounting, daemonizing, signals, the
// uploads of open files at the end, and the unmount.
#pragma once

#include <string>

#include "host/core/errors.h"
#include "host/mount/mount.h"
#include "host/mount/mount_support.h"

namespace plughost {

// Prints "plughost COMMAND: TEXT" on stderr.
void Complain(const std::string& command, const std::string& text);

// The owner and modes the options ask for. Throws UsageError.
Ownership OwnershipOf(const MountOptions& options);

// Mounts and serves until unmounted or signalled; the exit status. Throws
// UsageError and the core's errors for the caller to report.
int Serve(const MountOptions& options);

}  // namespace plughost
