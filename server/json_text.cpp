#include "server/json_text.h"

#include <exception>

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
  // The reader throws instead of answering false when arrays or objects nest deeper
  // than it is willing to follow; such a reply is as unreadable as any other.
  try {
    return reader.parse(text, value, true);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace mcd

#pragma GCC diagnostic pop
