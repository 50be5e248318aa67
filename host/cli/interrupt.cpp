#include "host/cli/interrupt.h"

#include <unistd.h>

#include <atomic>
#include <csignal>

namespace plughost {

namespace {

constexpr int kExitCancelled = 130;

// The handler only stores to lock-free atomics.
std::atomic<int> g_interrupts{0};
std::atomic<_FS_HANDLE*> g_transfer{nullptr};
static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<_FS_HANDLE*>::is_always_lock_free);

extern "C" void OnInterrupt(int) {
  if (g_interrupts.fetch_add(1) > 0) _exit(kExitCancelled);
  if (_FS_HANDLE* handle = g_transfer.load()) handle->state.store(FS_HANDLE_STOP);
}

}  // namespace

void InstallInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
}

bool Interrupted() {
  return g_interrupts.load() > 0;
}

TransferScope::TransferScope(_FS_HANDLE* handle) {
  g_transfer.store(handle);
  if (Interrupted()) handle->state.store(FS_HANDLE_STOP);
}

TransferScope::~TransferScope() {
  g_transfer.store(nullptr);
}

}  // namespace plughost
