// Ctrl-C and SIGTERM: the first stops the running transfer through its
// handle (the plug-in polls it between chunks) and makes the command end
// with status 128 + the signal's number (130 for Ctrl-C, 143 for SIGTERM); a
// second ends the process at once, for a plug-in that does not poll.
#pragma once

#include "protocol/contract.h"

namespace plughost {

void InstallInterruptHandler();
bool Interrupted();
// The exit status of a cancelled command: 130 (Ctrl-C) or 143 (SIGTERM).
int CancelledStatus();

// Publishes a transfer's handle to the Ctrl-C handler while it runs.
class TransferScope {
 public:
  explicit TransferScope(_FS_HANDLE* handle);
  ~TransferScope();
  TransferScope(const TransferScope&) = delete;
  TransferScope& operator=(const TransferScope&) = delete;
};

}  // namespace plughost
