#include "platform/logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace wdc {
namespace {

using testing::ElementsAre;

TEST(Logger, CaptureRecordsLevelTextAndSourceLocation) {
  log::CaptureLog capture;
  int line = __LINE__ + 1;
  log::error("[DROPBOX] GET ERROR: boom");
  auto entries = capture.entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].level, log::Level::kError);
  EXPECT_EQ(entries[0].message, "[DROPBOX] GET ERROR: boom");
  EXPECT_EQ(entries[0].file, "logger_test.cpp");
  EXPECT_EQ(entries[0].line, line);
  EXPECT_THAT(entries[0].function, testing::HasSubstr("TestBody"));
}

TEST(Logger, AsynchronousMessagesKeepTheirOrderAndLevels) {
  log::CaptureLog capture;
  log::warning("first", log::Delivery::kAsync);
  log::debug("second", log::Delivery::kAsync);
  log::verbose("third", log::Delivery::kAsync);
  log::info("fourth");
  auto entries = capture.entries();
  std::vector<std::string> texts;
  for (auto& e : entries) texts.push_back(e.message);
  // The synchronous line may overtake the asynchronous ones; their own order holds.
  auto asyncOnly = capture.messages(log::Level::kWarning);
  EXPECT_THAT(asyncOnly, ElementsAre("first"));
  EXPECT_THAT(capture.messages(log::Level::kDebug), ElementsAre("second"));
  EXPECT_THAT(capture.messages(log::Level::kVerbose), ElementsAre("third"));
  EXPECT_TRUE(capture.contains(log::Level::kInfo, "fourth"));
  EXPECT_FALSE(capture.contains(log::Level::kError, "fourth"));
  EXPECT_EQ(texts.size(), 4u);
}

TEST(Logger, LevelFiltersMoreVerboseMessages) {
  log::CaptureLog capture;
  log::setLevel(log::Level::kWarning);
  log::debug("dropped");
  log::info("dropped too", log::Delivery::kAsync);
  log::warning("kept");
  EXPECT_THAT(capture.messages(log::Level::kWarning), ElementsAre("kept"));
  EXPECT_EQ(capture.entries().size(), 1u);
}

TEST(Logger, CaptureRestoresTheLevel) {
  log::setLevel(log::Level::kInfo);
  { log::CaptureLog capture; }
  EXPECT_EQ(log::level(), log::Level::kInfo);
}

}  // namespace
}  // namespace wdc
