// A reply the reader cannot follow comes back as "not JSON", so that the caller
// retries, instead of escaping as an exception that ends the process.
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

TEST(JsonText, NestingTooDeepIsNotJsonAndModerateNestingIsRead) {
  Json::Value value;
  bool parsed = true;
  for (const std::string& text : {Nested("[", "]", 5000), Nested("{\"a\":", "}", 2000), std::string(100000, '[')}) {
    EXPECT_NO_THROW(parsed = mcd::ParseJson(text, value));
    EXPECT_FALSE(parsed);
  }
  ASSERT_TRUE(mcd::ParseJson("{\"result\": " + Nested("[", "]", 500) + "}", value));
  const Json::Value* inner = &value["result"];
  for (int i = 0; i < 500 && inner->isArray(); ++i) inner = &(*inner)[0];
  EXPECT_EQ(inner->asInt(), 1);
}

}  // namespace
