#include "protocol/super_protocol.h"

#include <gtest/gtest.h>

#include "protocol/log.h"
#include "protocol/plugin.h"
#include "tests/protocol/test_protocol.h"

namespace {

TEST(SuperProtocol, FreshObjectHoldsNothing) {
  RecordingManager manager;
  TestProtocol protocol(&manager);
  EXPECT_EQ(protocol.manager, &manager);
  EXPECT_EQ(protocol.local_config, nullptr);
  EXPECT_EQ(protocol.GetPID(), "");
  EXPECT_EQ(protocol.auth_hook, nullptr);
  EXPECT_EQ(protocol.refresher, nullptr);
  EXPECT_EQ(protocol.auth_document, "");
  EXPECT_EQ(protocol.speed_limit, 0);

  TestProtocol without_manager;
  EXPECT_EQ(without_manager.manager, nullptr);
  EXPECT_EQ(without_manager.GetPID(), "");
}

TEST(SuperProtocol, SpeedLimitOptionIsCaseInsensitiveAndTakesAtoll) {
  TestProtocol protocol;
  EXPECT_EQ(protocol.SetOpt("SpeedLimit", "1048576"), SUCCESS);
  EXPECT_EQ(protocol.speed_limit, 1048576);
  EXPECT_EQ(protocol.SetOpt("speedlimit", "abc"), SUCCESS);
  EXPECT_EQ(protocol.speed_limit, 0);
  EXPECT_EQ(protocol.SetOpt("SPEEDLIMIT", "-5"), SUCCESS);
  EXPECT_EQ(protocol.speed_limit, -5);
  EXPECT_EQ(protocol.SetOpt("speedlimit", "12kb"), SUCCESS);
  EXPECT_EQ(protocol.speed_limit, 12);
}

TEST(SuperProtocol, UnknownOptionSucceedsAndChangesNothing) {
  TestProtocol protocol;
  protocol.SetOpt("speedlimit", "7");
  EXPECT_EQ(protocol.SetOpt("no_such_option", "x"), SUCCESS);
  EXPECT_EQ(protocol.SetOpt("pid", "abc"), SUCCESS);  // the base keeps no pid option
  EXPECT_EQ(protocol.speed_limit, 7);
  EXPECT_EQ(protocol.GetPID(), "");
  EXPECT_EQ(protocol.auth_document, "");
}

TEST(SuperProtocol, SetLocalConfigurationRejectsNullAndKeepsTheOldOne) {
  TestProtocol protocol;
  RecordingLocalConfiguration first;
  RecordingLocalConfiguration second;
  EXPECT_EQ(protocol.SetLocalConfiguration(nullptr), ACCESS_DENIED);
  EXPECT_EQ(protocol.local_config, nullptr);
  EXPECT_EQ(protocol.SetLocalConfiguration(&first), SUCCESS);
  EXPECT_EQ(protocol.SetLocalConfiguration(nullptr), ACCESS_DENIED);
  EXPECT_EQ(protocol.local_config, &first);
  EXPECT_EQ(protocol.SetLocalConfiguration(&second), SUCCESS);
  EXPECT_EQ(protocol.local_config, &second);
}

TEST(SuperProtocol, ReadConfigurationGoesToTheLocalConfigurationWithoutSection) {
  RecordingManager manager;
  RecordingLocalConfiguration local;
  local.result = FILE_NOT_FOUND;
  TestProtocol protocol(&manager);
  protocol.SetLocalConfiguration(&local);
  char buffer[16];
  int size = sizeof buffer;
  EXPECT_EQ(protocol.ReadConfiguration("sec", "key", buffer, &size), FILE_NOT_FOUND);
  ASSERT_EQ(local.reads.size(), 1u);
  EXPECT_EQ(local.reads[0].key, "key");
  EXPECT_EQ(local.reads[0].capacity, 16);
  EXPECT_TRUE(manager.reads.empty());
}

TEST(SuperProtocol, ReadConfigurationGoesToTheManagerWithAllArguments) {
  RecordingManager manager;
  manager.stored_value = "value";
  TestProtocol protocol(&manager);
  char buffer[16];
  int size = sizeof buffer;
  EXPECT_EQ(protocol.ReadConfiguration("sec", "key", buffer, &size), SUCCESS);
  ASSERT_EQ(manager.reads.size(), 1u);
  EXPECT_EQ(manager.reads[0].section, "sec");
  EXPECT_EQ(manager.reads[0].key, "key");
  EXPECT_EQ(manager.reads[0].capacity, 16);
  EXPECT_STREQ(buffer, "value");
  EXPECT_EQ(size, 5);
}

TEST(SuperProtocol, WriteConfigurationDropsSectionAndFlagForTheLocalConfiguration) {
  RecordingManager manager;
  RecordingLocalConfiguration local;
  TestProtocol protocol(&manager);
  protocol.SetLocalConfiguration(&local);
  EXPECT_EQ(protocol.WriteConfiguration("sec", "key", "value", true), SUCCESS);
  EXPECT_EQ(protocol.WriteConfiguration(nullptr, "k2", "v2", false), SUCCESS);
  ASSERT_EQ(local.writes.size(), 2u);
  EXPECT_EQ(local.writes[0].key, "key");
  EXPECT_EQ(local.writes[0].value, "value");
  EXPECT_EQ(local.writes[1].key, "k2");
  EXPECT_TRUE(manager.writes.empty());
}

TEST(SuperProtocol, WriteConfigurationPassesEverythingToTheManager) {
  RecordingManager manager;
  manager.write_result = SAVE_FAILED;
  TestProtocol protocol(&manager);
  EXPECT_EQ(protocol.WriteConfiguration("sec", "key", "value", true), SAVE_FAILED);
  ASSERT_EQ(manager.writes.size(), 1u);
  EXPECT_EQ(manager.writes[0].section, "sec");
  EXPECT_EQ(manager.writes[0].key, "key");
  EXPECT_EQ(manager.writes[0].value, "value");
  EXPECT_TRUE(manager.writes[0].flag);
}

TEST(Logging, NullLoggerDoesNothingAndReadsNoArgument) {
  // A pointer that would crash if it were ever formatted.
  const char* poison = reinterpret_cast<const char*>(0x1);
  __LOG__A(nullptr, LOGLEVEL_INFO, "%s %s %d", poison, poison, 3);
  SUCCEED();
}

TEST(Logging, HandsFormatAndArgumentsToWriteLog) {
  RecordingLog log;
  __LOG__A(&log, LOGLEVEL_INFO, "[PROTOCOL  ] Upload %s/%s", "/docs", "a.txt");
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].level, LOGLEVEL_INFO);
  EXPECT_EQ(log.lines[0].format, "[PROTOCOL  ] Upload %s/%s");
  EXPECT_EQ(log.lines[0].text, "[PROTOCOL  ] Upload /docs/a.txt");
}

TEST(Logging, BindAndUnbindSetTheProcessWideLogger) {
  RecordingLog log;
  EXPECT_EQ(CurrentLogger(), nullptr);
  EXPECT_FALSE(BindLogger(nullptr));
  EXPECT_EQ(CurrentLogger(), nullptr);
  EXPECT_TRUE(BindLogger(&log));
  EXPECT_EQ(CurrentLogger(), &log);
  __LOG__A(CurrentLogger(), LOGLEVEL_WARNING, "line %d", 1);
  UnbindLogger();
  EXPECT_EQ(CurrentLogger(), nullptr);
  __LOG__A(CurrentLogger(), LOGLEVEL_WARNING, "dropped %d", 2);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].text, "line 1");
}

}  // namespace
