#include "host/cli/interrupt.h"

#include <unistd.h>

#include <atomic>
#include <csignal>

namespace plughost {

namespace {

// The handler only stores to lock-free atomics.
std::atomic<int> g_interrupts{0};
std::atomic<int> g_signal{0};
std::atomic<_FS_HANDLE*> g_transfer{nullptr};
static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<_FS_HANDLE*>::is_always_lock_free);

extern "C" void OnInterrupt(int signal) {
  int first = 0;
  g_signal.compare_exchange_strong(first, signal);
  if (g_interrupts.fetch_add(1) > 0) _exit(128 + g_signal.load());
  if (_FS_HANDLE* handle = g_transfer.load()) handle->state.store(FS_HANDLE_STOP);
}

}  // namespace

void InstallInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  // SIGTERM (kill, a service manager) stops a transfer the same way: the
  // target keeps its old or its complete new content.
  sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() {
  return g_interrupts.load() > 0;
}

int CancelledStatus() {
  int signal = g_signal.load();
  return 128 + (signal != 0 ? signal : SIGINT);
}

TransferScope::TransferScope(_FS_HANDLE* handle) {
  g_transfer.store(handle);
  if (Interrupted()) handle->state.store(FS_HANDLE_STOP);
}

TransferScope::~TransferScope() {
  g_transfer.store(nullptr);
}

}  // namespace plughost
