// Token options, SetAuthConfiguration and single token refreshes. Every test
// runs in its own process, so the process-wide refresh spacing starts afresh
// and no test here makes more than one provider call.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

#include "json/json_object.h"
#include "tests/protocol/auth_test_support.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

const char kCalled[] = "[PROTOCOL  ] Refresh token called";
const char kWaiting[] = "[PROTOCOL  ] Refresh token is working on another thread. Wait for finish.";
const char kWaitDone[] = "[PROTOCOL  ] Refresh token on another thread was done.";
const char kSuccess[] = "[PROTOCOL  ] Refresh token success.";
const char kFailed[] = "[PROTOCOL  ] Refresh token failed.";
const char kRaised[] = "[PROTOCOL  ] Refresh token raises exception.";

std::string DoneWith(AERROR code) {
  return std::string("[PROTOCOL  ] Refresh token done with ") + GetAERRORA(code);
}

class TokenOption : public ::testing::Test {
 protected:
  SafeManager manager;
  AuthProtocol proto{&manager};
};

TEST_F(TokenOption, RefreshTokenFillsExistingResults) {
  proto.auth_document = "{\"results\":{}}";
  EXPECT_EQ(proto.SetOpt("refresh_token", "abc"), SUCCESS);
  EXPECT_EQ(proto.auth_document, "{\"results\":{\"refresh_token\":\"abc\"}}");
  EXPECT_TRUE(manager.Writes().empty());
  EXPECT_TRUE(manager.Reads().empty());
}

TEST_F(TokenOption, AccessTokenReplacesValueAndKeepsTheRest) {
  proto.auth_document = "{\"other\":2,\"results\":{\"access_token\":\"old\",\"x\":1}}";
  EXPECT_EQ(proto.SetOpt("access_token", "new"), SUCCESS);
  EXPECT_EQ(proto.auth_document, "{\"other\":2,\"results\":{\"access_token\":\"new\",\"x\":1}}");
}

TEST_F(TokenOption, WithoutResultsNothingChanges) {
  for (const char* doc : {"{}", "{\"other\":{\"access_token\":\"x\"}}", "[1]", "\"s\""}) {
    proto.auth_document = doc;
    EXPECT_EQ(proto.SetOpt("refresh_token", "abc"), SUCCESS);
    EXPECT_EQ(proto.auth_document, doc);
  }
}

TEST_F(TokenOption, EmptyDocumentIsLeftEmpty) {
  proto.auth_document.clear();
  EXPECT_EQ(proto.SetOpt("access_token", "abc"), SUCCESS);
  EXPECT_EQ(proto.auth_document, "");
}

TEST_F(TokenOption, MalformedDocumentIsLeftAlone) {
  proto.auth_document = "{\"results\":{";
  EXPECT_EQ(proto.SetOpt("access_token", "abc"), SUCCESS);
  EXPECT_EQ(proto.auth_document, "{\"results\":{");
}

TEST_F(TokenOption, ResultsThatIsNotAnObjectIsLeftAlone) {
  proto.auth_document = "{\"results\":\"text\"}";
  EXPECT_EQ(proto.SetOpt("access_token", "abc"), SUCCESS);
  EXPECT_EQ(proto.auth_document, "{\"results\":\"text\"}");
}

TEST_F(TokenOption, MemberNameIsSpelledAsTheCallerSpelledIt) {
  proto.auth_document = "{\"results\":{}}";
  EXPECT_EQ(proto.SetOpt("Access_Token", "a"), SUCCESS);
  EXPECT_EQ(proto.SetOpt("REFRESH_TOKEN", "r"), SUCCESS);
  EXPECT_EQ(proto.auth_document, "{\"results\":{\"Access_Token\":\"a\",\"REFRESH_TOKEN\":\"r\"}}");
}

TEST_F(TokenOption, NullValueChangesNothing) {
  proto.auth_document = "{\"results\":{}}";
  EXPECT_EQ(proto.SetOpt("access_token", nullptr), SUCCESS);
  EXPECT_EQ(proto.auth_document, "{\"results\":{}}");
}

TEST_F(TokenOption, ValueIsAJsonStringNotParsed) {
  proto.auth_document = "{\"results\":{}}";
  EXPECT_EQ(proto.SetOpt("access_token", "{\"x\":1}"), SUCCESS);
  EXPECT_EQ(proto.auth_document, "{\"results\":{\"access_token\":\"{\\\"x\\\":1}\"}}");
}

class AuthConfiguration : public ::testing::Test {
 protected:
  void SetUp() override { proto.pid = "pid-7"; }
  SafeManager manager;
  AuthProtocol proto{&manager};
};

TEST_F(AuthConfiguration, EmptyStoredValueReturnsDocumentUnchanged) {
  JsonObject doc("{\"a\":1}");
  EXPECT_EQ(proto.SetAuthConfiguration(doc, "access_token"), "{\"a\":1}");
  EXPECT_EQ(doc.ToText(), "{\"a\":1}");
  const auto reads = manager.Reads();
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].section, "pid-7");
  EXPECT_EQ(reads[0].key, "access_token");
  EXPECT_EQ(reads[0].capacity, 1024);
}

TEST_F(AuthConfiguration, StoredValueWithoutResultsAddsResults) {
  manager.stored_value = "v";
  JsonObject doc("{\"other\":1}");
  EXPECT_EQ(proto.SetAuthConfiguration(doc, "access_token"),
            "{\"other\":1,\"results\":{\"access_token\":\"v\"}}");
  EXPECT_EQ(doc.ToText(), "{\"other\":1,\"results\":{\"access_token\":\"v\"}}");
}

TEST_F(AuthConfiguration, StoredValueReplacesMemberOfResults) {
  manager.stored_value = "fresh";
  JsonObject doc("{\"results\":{\"access_token\":\"old\",\"refresh_token\":\"r\"}}");
  EXPECT_EQ(proto.SetAuthConfiguration(doc, "access_token"),
            "{\"results\":{\"access_token\":\"fresh\",\"refresh_token\":\"r\"}}");
}

TEST_F(AuthConfiguration, AnyKeyIsAccepted) {
  manager.stored_value = "x";
  JsonObject doc("{\"results\":{}}");
  EXPECT_EQ(proto.SetAuthConfiguration(doc, "custom"), "{\"results\":{\"custom\":\"x\"}}");
  EXPECT_EQ(manager.Reads().at(0).key, "custom");
}

TEST_F(AuthConfiguration, ValueTooLongForTheBufferIsNotStored) {
  manager.stored_value = std::string(1024, 'q');  // needs 1025 bytes with the NUL
  JsonObject doc("{}");
  EXPECT_EQ(proto.SetAuthConfiguration(doc, "access_token"), "{}");
}

TEST_F(AuthConfiguration, UnterminatedBufferIsReadSafely) {
  manager.fill_without_terminator = true;
  JsonObject doc("{}");
  const std::string text = proto.SetAuthConfiguration(doc, "access_token");
  EXPECT_EQ(text, "{\"results\":{\"access_token\":\"" + std::string(1024, 'z') + "\"}}");
}

TEST_F(AuthConfiguration, ReadsTheManagerEvenWithALocalConfiguration) {
  RecordingLocalConfiguration local;
  ASSERT_EQ(proto.SetLocalConfiguration(&local), SUCCESS);
  manager.stored_value = "v";
  JsonObject doc("{}");
  EXPECT_EQ(proto.SetAuthConfiguration(doc, "refresh_token"),
            "{\"results\":{\"refresh_token\":\"v\"}}");
  EXPECT_EQ(manager.Reads().size(), 1u);
  EXPECT_TRUE(local.reads.empty());
}

// Refreshes: one provider call per test (see the file comment).
class Refresh : public ::testing::Test {
 protected:
  void SetUp() override {
    proto.pid = "pid-1";
    proto.refresher = &provider;
    proto.auth_hook = &hook;
    proto.auth_document = "{\"results\":{\"access_token\":\"old\",\"refresh_token\":\"r0\"}}";
  }
  void Answer(std::string text) {
    provider.answer = [text](SuperProtocol*, const std::string&) {
      return ScriptedProvider::Text(text);
    };
  }

  SafeLog log;
  ScopedLogger bound{&log};
  SafeManager manager;
  ScriptedProvider provider;
  RecordingHook hook;
  AuthProtocol proto{&manager};
};

TEST_F(Refresh, SuccessReplacesDocumentAndReleasesProviderText) {
  const std::string old_document = proto.auth_document;
  Answer("{\"results\":{\"access_token\":\"new\"}}");
  const auto start = Clock::now();
  EXPECT_EQ(proto._RefreshAuth(), RETRY);
  // The first refresh of a process does not wait for the spacing.
  EXPECT_LT(Clock::now() - start, seconds(1));
  EXPECT_EQ(proto.auth_document, "{\"results\":{\"access_token\":\"new\"}}");
  const auto calls = provider.Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].protocol, &proto);
  EXPECT_EQ(calls[0].document, old_document);
  EXPECT_EQ(provider.Freed(), provider.HandedOut());
  EXPECT_EQ(provider.Freed().size(), 1u);
  EXPECT_TRUE(manager.Writes().empty());
  EXPECT_TRUE(hook.Seen().empty());
}

TEST_F(Refresh, SuccessLogsAtLevelOne) {
  Answer("{}");
  ASSERT_EQ(proto._RefreshAuth(), RETRY);
  const auto lines = log.Lines();
  std::vector<std::string> texts;
  for (const auto& line : lines) {
    EXPECT_EQ(line.level, 1);
    texts.push_back(line.text);
  }
  EXPECT_EQ(texts, (std::vector<std::string>{kCalled, kSuccess, DoneWith(RETRY)}));
}

TEST_F(Refresh, NullResultFailsAndKeepsDocument) {
  const std::string old_document = proto.auth_document;
  provider.answer = [](SuperProtocol*, const std::string&) { return ScriptedProvider::Null(); };
  EXPECT_EQ(proto._RefreshAuth(), FAILED);
  EXPECT_EQ(proto.auth_document, old_document);
  EXPECT_TRUE(provider.Freed().empty());
  EXPECT_EQ(log.Texts(), (std::vector<std::string>{kCalled, kFailed, DoneWith(FAILED)}));
  for (const auto& line : log.Lines())
    EXPECT_EQ(line.level, 1);
}

TEST_F(Refresh, ThrowingProviderFails) {
  const std::string old_document = proto.auth_document;
  provider.answer = [](SuperProtocol*, const std::string&) -> ScriptedProvider::Answer {
    throw std::runtime_error("network down");
  };
  EXPECT_EQ(proto._RefreshAuth(), FAILED);
  EXPECT_EQ(proto.auth_document, old_document);
  EXPECT_EQ(log.Texts(), (std::vector<std::string>{kCalled, kRaised, DoneWith(FAILED)}));
}

TEST_F(Refresh, ProviderThrowingANonStandardValueFails) {
  provider.answer = [](SuperProtocol*, const std::string&) -> ScriptedProvider::Answer {
    throw 42;
  };
  EXPECT_EQ(proto._RefreshAuth(), FAILED);
  EXPECT_EQ(log.Texts(), (std::vector<std::string>{kCalled, kRaised, DoneWith(FAILED)}));
}

TEST_F(Refresh, MissingProviderFailsLikeAThrowingOne) {
  proto.refresher = nullptr;
  EXPECT_EQ(proto._RefreshAuth(), FAILED);
  EXPECT_EQ(log.Texts(), (std::vector<std::string>{kCalled, kRaised, DoneWith(FAILED)}));
}

TEST_F(Refresh, LockIsReleasedAfterARefresh) {
  Answer("{}");
  ASSERT_EQ(proto._RefreshAuth(), RETRY);
  bool free = false;
  std::thread probe([&] {
    free = proto.refresh_lock.try_lock();
    if (free) proto.refresh_lock.unlock();
  });
  probe.join();
  EXPECT_TRUE(free);
}

TEST(RefreshWithoutLogger, NothingIsLoggedAndRefreshWorks) {
  SafeManager manager;
  ScriptedProvider provider;
  provider.answer = [](SuperProtocol*, const std::string&) {
    return ScriptedProvider::Text("{\"results\":{}}");
  };
  AuthProtocol proto(&manager);
  proto.refresher = &provider;
  ASSERT_EQ(logger.load(), nullptr);
  EXPECT_EQ(proto._RefreshAuth(), RETRY);
  EXPECT_EQ(proto.auth_document, "{\"results\":{}}");
}

TEST_F(Refresh, AccessTokenIsWrittenToTheStore) {
  Answer("{\"results\":{\"access_token\":\"tok\",\"refresh_token\":\"ref\"}}");
  EXPECT_EQ(proto.RefreshAuthAccessToken(), RETRY);
  const auto writes = manager.Writes();
  ASSERT_EQ(writes.size(), 1u);
  EXPECT_EQ(writes[0].section, "pid-1");
  EXPECT_FALSE(writes[0].null_key);
  EXPECT_EQ(writes[0].key, "access_token");
  EXPECT_EQ(writes[0].value, "tok");
  EXPECT_TRUE(writes[0].flag);
}

TEST_F(Refresh, HookSeesTheDocumentBeforeTokensAreRead) {
  Answer("{\"results\":{\"access_token\":\"tok\"}}");
  hook.on_document = [](JsonObject& doc) {
    doc["results"]["access_token"] = std::string("hooked");
  };
  EXPECT_EQ(proto.RefreshAuthAccessToken(), RETRY);
  EXPECT_EQ(hook.Seen(), (std::vector<std::string>{"{\"results\":{\"access_token\":\"tok\"}}"}));
  ASSERT_EQ(manager.Writes().size(), 1u);
  EXPECT_EQ(manager.Writes()[0].value, "hooked");
  // The hook edits a parsed copy: the stored document is the provider's text.
  EXPECT_EQ(proto.auth_document, "{\"results\":{\"access_token\":\"tok\"}}");
}

TEST_F(Refresh, NoHookIsFine) {
  proto.auth_hook = nullptr;
  Answer("{\"results\":{\"access_token\":\"tok\"}}");
  EXPECT_EQ(proto.RefreshAuthAccessToken(), RETRY);
  EXPECT_EQ(manager.Writes().size(), 1u);
}

TEST_F(Refresh, FailedRefreshWritesNothing) {
  provider.answer = [](SuperProtocol*, const std::string&) { return ScriptedProvider::Null(); };
  EXPECT_EQ(proto.RefreshAuthAccessToken(), FAILED);
  EXPECT_TRUE(manager.Writes().empty());
  EXPECT_TRUE(hook.Seen().empty());
}

TEST_F(Refresh, MissingAccessTokenWritesNothing) {
  Answer("{\"results\":{\"refresh_token\":\"ref\"}}");
  EXPECT_EQ(proto.RefreshAuthAccessToken(), RETRY);
  EXPECT_TRUE(manager.Writes().empty());
  EXPECT_EQ(hook.Seen().size(), 1u);
}

TEST_F(Refresh, UnparsableNewDocumentStillReturnsRetry) {
  Answer("this is not json");
  EXPECT_EQ(proto.RefreshAuthAccessToken(), RETRY);
  EXPECT_EQ(proto.auth_document, "this is not json");
  EXPECT_TRUE(manager.Writes().empty());
  EXPECT_TRUE(hook.Seen().empty());
}

TEST_F(Refresh, ThrowingHookStillReturnsRetry) {
  Answer("{\"results\":{\"access_token\":\"tok\"}}");
  hook.on_document = [](JsonObject&) { throw std::logic_error("rejected"); };
  EXPECT_EQ(proto.RefreshAuthAccessToken(), RETRY);
  EXPECT_TRUE(manager.Writes().empty());
}

TEST_F(Refresh, ThrowingStoreStillReturnsRetry) {
  Answer("{\"results\":{\"access_token\":\"tok\"}}");
  manager.throw_on_write = true;
  EXPECT_EQ(proto.RefreshAuthAccessToken(), RETRY);
  EXPECT_EQ(manager.Writes().size(), 1u);
}

TEST_F(Refresh, WritesBypassTheLocalConfiguration) {
  RecordingLocalConfiguration local;
  ASSERT_EQ(proto.SetLocalConfiguration(&local), SUCCESS);
  Answer("{\"results\":{\"access_token\":\"tok\"}}");
  EXPECT_EQ(proto.RefreshAuthAccessToken(), RETRY);
  EXPECT_EQ(manager.Writes().size(), 1u);
  EXPECT_TRUE(local.writes.empty());
}

TEST_F(Refresh, BothTokensWrittenAsOneObjectWithANullKey) {
  Answer("{\"results\":{\"access_token\":\"a\",\"refresh_token\":\"r\",\"x\":1}}");
  EXPECT_EQ(proto.RefreshAuthAcessRefreshToken(), RETRY);
  const auto writes = manager.Writes();
  ASSERT_EQ(writes.size(), 1u);
  EXPECT_EQ(writes[0].section, "pid-1");
  EXPECT_TRUE(writes[0].null_key);
  EXPECT_EQ(writes[0].value, "{\"access_token\":\"a\",\"refresh_token\":\"r\"}");
  EXPECT_TRUE(writes[0].flag);
}

TEST_F(Refresh, OnlyAccessTokenWrittenWithANullKey) {
  Answer("{\"results\":{\"access_token\":\"a\"}}");
  EXPECT_EQ(proto.RefreshAuthAcessRefreshToken(), RETRY);
  const auto writes = manager.Writes();
  ASSERT_EQ(writes.size(), 1u);
  EXPECT_TRUE(writes[0].null_key);
  EXPECT_EQ(writes[0].value, "{\"access_token\":\"a\"}");
}

TEST_F(Refresh, OnlyRefreshTokenWrittenWithANullKey) {
  Answer("{\"results\":{\"refresh_token\":\"r\"}}");
  EXPECT_EQ(proto.RefreshAuthAcessRefreshToken(), RETRY);
  const auto writes = manager.Writes();
  ASSERT_EQ(writes.size(), 1u);
  EXPECT_TRUE(writes[0].null_key);
  EXPECT_EQ(writes[0].value, "{\"refresh_token\":\"r\"}");
}

TEST_F(Refresh, NoTokensNoWrite) {
  Answer("{\"results\":{}}");
  EXPECT_EQ(proto.RefreshAuthAcessRefreshToken(), RETRY);
  EXPECT_TRUE(manager.Writes().empty());
}

TEST_F(Refresh, RefreshTokenVariantHonoursHookAndFailures) {
  Answer("{\"results\":{\"access_token\":\"a\"}}");
  hook.on_document = [](JsonObject& doc) { doc["results"]["refresh_token"] = std::string("h"); };
  EXPECT_EQ(proto.RefreshAuthAcessRefreshToken(), RETRY);
  ASSERT_EQ(manager.Writes().size(), 1u);
  EXPECT_EQ(manager.Writes()[0].value, "{\"access_token\":\"a\",\"refresh_token\":\"h\"}");
}

TEST_F(Refresh, RefreshTokenVariantFailureWritesNothing) {
  provider.answer = [](SuperProtocol*, const std::string&) { return ScriptedProvider::Null(); };
  EXPECT_EQ(proto.RefreshAuthAcessRefreshToken(), FAILED);
  EXPECT_TRUE(manager.Writes().empty());
}

TEST_F(Refresh, RefreshTokenVariantUnparsableDocumentReturnsRetry) {
  Answer("{broken");
  EXPECT_EQ(proto.RefreshAuthAcessRefreshToken(), RETRY);
  EXPECT_TRUE(manager.Writes().empty());
}

// Two callers at once: the provider runs once, until the second caller is
// known to be waiting for the lock.
TEST_F(Refresh, ConcurrentCallersShareOneRefresh) {
  std::promise<void> entered;
  provider.answer = [&](SuperProtocol*, const std::string&) {
    entered.set_value();
    EXPECT_TRUE(log.WaitFor(kWaiting, seconds(20)));
    return ScriptedProvider::Text("{\"results\":{\"access_token\":\"shared\"}}");
  };
  AERROR first = SUCCESS;
  AERROR second = SUCCESS;
  std::thread a([&] { first = proto.RefreshAuthAccessToken(); });
  entered.get_future().wait();
  std::thread b([&] { second = proto.RefreshAuthAccessToken(); });
  a.join();
  b.join();

  EXPECT_EQ(provider.Calls().size(), 1u);
  EXPECT_EQ(first, RETRY);
  EXPECT_EQ(second, RETRY);
  // The waiter still reads the new document and writes its token.
  const auto writes = manager.Writes();
  ASSERT_EQ(writes.size(), 2u);
  for (const auto& w : writes) {
    EXPECT_EQ(w.section, "pid-1");
    EXPECT_EQ(w.key, "access_token");
    EXPECT_EQ(w.value, "shared");
    EXPECT_TRUE(w.flag);
  }
  const auto texts = log.Texts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), kCalled), 2);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), kWaiting), 1);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), kWaitDone), 1);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), kSuccess), 1);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), DoneWith(RETRY)), 1);
}

// The waiter reports RETRY whatever the refreshing thread's outcome was.
TEST_F(Refresh, WaiterReturnsRetryEvenWhenTheRefreshFailed) {
  std::promise<void> entered;
  provider.answer = [&](SuperProtocol*, const std::string&) {
    entered.set_value();
    EXPECT_TRUE(log.WaitFor(kWaiting, seconds(20)));
    return ScriptedProvider::Null();
  };
  AERROR first = SUCCESS;
  AERROR second = SUCCESS;
  std::thread a([&] { first = proto._RefreshAuth(); });
  entered.get_future().wait();
  std::thread b([&] { second = proto._RefreshAuth(); });
  a.join();
  b.join();
  EXPECT_EQ(provider.Calls().size(), 1u);
  EXPECT_EQ(first, FAILED);
  EXPECT_EQ(second, RETRY);
}

}  // namespace
