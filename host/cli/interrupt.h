// Ctrl-C: the first stops the running transfer through its handle (the
// plug-in polls it between chunks) and makes the command end with status
// 130; a second ends the process at once, for a plug-in that does not poll.
#pragma once

#include "protocol/contract.h"

namespace plughost {

void InstallInterruptHandler();
bool Interrupted();

// Publishes a transfer's handle to the Ctrl-C handler while it runs.
class TransferScope {
 public:
  explicit TransferScope(_FS_HANDLE* handle);
  ~TransferScope();
  TransferScope(const TransferScope&) = delete;
  TransferScope& operator=(const TransferScope&) = delete;
};

}  // namespace plughost
