// Authentication document and token refresh.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>

#include "json/json_object.h"
#include "protocol/log.h"
#include "protocol/super_protocol.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kRefreshSpacing = std::chrono::nanoseconds(5000000000LL);
constexpr int kMaxFailures = 9;

}  // namespace

void SuperProtocol::SetTokenOption(const char* name, const char* value) {
  try {
    if (value == nullptr) return;
    JsonObject doc(auth_document.c_str(), static_cast<unsigned int>(auth_document.size()));
    // The option only edits an existing "results" object; it never creates one.
    if (doc.HasObject("/results")) {
      doc["results"][name] = std::string(value);
      auth_document = doc.ToText();
    }
  } catch (...) {
    // An empty or malformed document leaves everything as it was.
  }
}

std::string SuperProtocol::SetAuthConfiguration(JsonObject& doc, std::string key) {
  char buffer[1024] = {0};
  int size = static_cast<int>(sizeof buffer);
  if (manager != nullptr) manager->ReadConfiguration(pid.c_str(), key.c_str(), buffer, &size);
  // The store must fit the terminator; do not read past the buffer if it did not.
  const std::string stored(buffer, strnlen(buffer, sizeof buffer));
  if (stored.empty()) return doc.ToText();
  if (doc.HasObject("/results")) {
    doc["results"][key.c_str()] = stored;
  } else {
    JsonObject results = JsonObject::GetEmptyObject();
    results[key.c_str()] = stored;
    doc.Insert("results", results);
  }
  return doc.ToText();
}

AERROR SuperProtocol::_RefreshAuth() {
  // Process-wide and advisory: shared by every protocol object, and not
  // guarded by any lock.
  static std::atomic<std::int64_t> lastrefresh{0};  // steady_clock ticks
  static std::atomic<std::int32_t> seq_err{0};

  __LOG__A(CurrentLogger(), LOGLEVEL_WARNING, "[PROTOCOL  ] Refresh token called");
  if (!refresh_lock.try_lock()) {
    // Another thread is refreshing: wait for it and take its outcome as ours.
    __LOG__A(CurrentLogger(), LOGLEVEL_WARNING,
             "[PROTOCOL  ] Refresh token is working on another thread. Wait for finish.");
    refresh_lock.lock();
    __LOG__A(CurrentLogger(), LOGLEVEL_WARNING,
             "[PROTOCOL  ] Refresh token on another thread was done.");
    refresh_lock.unlock();
    return RETRY;
  }

  const auto since_last = [] {
    const Clock::time_point last{Clock::duration(lastrefresh.load(std::memory_order_relaxed))};
    return Clock::now() - last;
  };
  while (since_last() < kRefreshSpacing)
    std::this_thread::sleep_for(std::chrono::seconds(1));

  // After ten failures in a row the refresh gives up for good: the lock stays
  // held, so every later refresh of this object blocks.
  if (seq_err.load(std::memory_order_relaxed) > kMaxFailures) return FAILED;
  seq_err.fetch_add(1, std::memory_order_relaxed);

  AERROR result = FAILED;
  try {
    if (refresher == nullptr) throw FAILED;  // nothing can refresh: same as a throwing provider
    char* refreshed = refresher->Refresh(this, auth_document.c_str());
    if (refreshed != nullptr) {
      auth_document = refreshed;
      refresher->Free(refreshed);
      seq_err.store(0, std::memory_order_relaxed);
      __LOG__A(CurrentLogger(), LOGLEVEL_WARNING, "[PROTOCOL  ] Refresh token success.");
      result = RETRY;
    } else {
      __LOG__A(CurrentLogger(), LOGLEVEL_WARNING, "[PROTOCOL  ] Refresh token failed.");
    }
  } catch (...) {
    __LOG__A(CurrentLogger(), LOGLEVEL_WARNING, "[PROTOCOL  ] Refresh token raises exception.");
    result = FAILED;
  }
  lastrefresh.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
  refresh_lock.unlock();
  __LOG__A(CurrentLogger(), LOGLEVEL_WARNING, "[PROTOCOL  ] Refresh token done with %s",
           GetAERRORA(result));
  return result;
}

AERROR SuperProtocol::RefreshAuthAccessToken() {
  const AERROR r = _RefreshAuth();
  if (r != RETRY) return r;
  try {
    JsonObject doc(auth_document.c_str(), static_cast<unsigned int>(auth_document.size()));
    if (auth_hook != nullptr) auth_hook->OnAuthDocument(doc);
    if (doc.HasObject("/results/access_token") && manager != nullptr) {
      const std::string token = doc.GetObject("/results/access_token");
      manager->WriteConfiguration(pid.c_str(), "access_token", token.c_str(), true);
    }
  } catch (...) {
    // The new document is in place; failing to store it is not the caller's concern.
  }
  return r;
}

AERROR SuperProtocol::RefreshAuthAcessRefreshToken() {
  const AERROR r = _RefreshAuth();
  if (r != RETRY) return r;
  try {
    JsonObject doc(auth_document.c_str(), static_cast<unsigned int>(auth_document.size()));
    if (auth_hook != nullptr) auth_hook->OnAuthDocument(doc);
    JsonObject tokens = JsonObject::GetEmptyObject();
    bool found = false;
    if (doc.HasObject("/results/refresh_token")) {
      tokens["refresh_token"] = static_cast<std::string>(doc.GetObject("/results/refresh_token"));
      found = true;
    }
    if (doc.HasObject("/results/access_token")) {
      tokens["access_token"] = static_cast<std::string>(doc.GetObject("/results/access_token"));
      found = true;
    }
    // Unlike RefreshAuthAccessToken, the whole token object goes to the store
    // under a null key.
    if (found && manager != nullptr) {
      manager->WriteConfiguration(pid.c_str(), nullptr, tokens.ToText().c_str(), true);
    }
  } catch (...) {
  }
  return r;
}
