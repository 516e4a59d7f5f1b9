// Reading replies: a reply the reader cannot follow must come back as "not JSON", so
// that the caller retries, instead of escaping as an exception that ends the process.
#include <gtest/gtest.h>

#include <string>

#include "server/json_text.h"

namespace {

std::string Nested(const std::string& open, const std::string& close, int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += open;
  text += "1";
  for (int i = 0; i < depth; ++i) text += close;
  return text;
}

TEST(JsonText, NestingTooDeepToFollowIsNotJsonAndDoesNotThrow) {
  Json::Value value;
  bool parsed = true;
  EXPECT_NO_THROW(parsed = mcd::ParseJson(Nested("[", "]", 5000), value));
  EXPECT_FALSE(parsed);
  EXPECT_NO_THROW(parsed = mcd::ParseJson(Nested("{\"a\":", "}", 2000), value));
  EXPECT_FALSE(parsed);
  // an unterminated run of brackets, as a broken server might send
  EXPECT_NO_THROW(parsed = mcd::ParseJson(std::string(100000, '['), value));
  EXPECT_FALSE(parsed);
}

TEST(JsonText, ModeratelyNestedReplyIsStillRead) {
  Json::Value value;
  ASSERT_TRUE(mcd::ParseJson("{\"result\": " + Nested("[", "]", 500) + "}", value));
  const Json::Value* inner = &value["result"];
  for (int i = 0; i < 500; ++i) {
    ASSERT_TRUE(inner->isArray()) << "depth " << i;
    ASSERT_EQ(inner->size(), 1u);
    inner = &(*inner)[0];
  }
  EXPECT_EQ(inner->asInt(), 1);
}

}  // namespace
