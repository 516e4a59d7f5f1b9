// The JSON text forms the server link uses: the compact one-line writer for requests
// and the tolerant reader for replies.
#pragma once

#include <json/json.h>

#include <string>

namespace mcd {

// One line, no blanks, members in key order, terminated by a newline.
std::string WriteCompactJson(const Json::Value& value);
// Parses text into value (comments collected); false when it is not JSON or nests
// too deeply to be read. Never throws.
bool ParseJson(const std::string& text, Json::Value& value);

}  // namespace mcd
