#include "server/json_text.h"

// The request bytes are those of jsoncpp's compact writer, and replies are read with its
// classic reader; both are marked deprecated in newer jsoncpp releases.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace mcd {

std::string WriteCompactJson(const Json::Value& value) {
  Json::FastWriter writer;
  return writer.write(value);
}

bool ParseJson(const std::string& text, Json::Value& value) {
  Json::Reader reader;
  return reader.parse(text, value, true);
}

}  // namespace mcd

#pragma GCC diagnostic pop
