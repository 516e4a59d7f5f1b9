// The configuration server's reply, as text: read the way the server link reads every
// reply, then turned into port and meter parameters by both configuration exchanges.
#include <json/json.h>

#include <string>

#include "fuzz_support.h"
#include "server/json_text.h"
#include "server/jsonrpc_connector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  mcdfuzz::UsePrivateRoot();
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value reply;
  if (!mcd::ParseJson(text, reply)) return 0;
  static CJSONRPCConnector client("fuzz", 0);
  client.ParseConfigReply1(reply);
  CJSONRPCConnector::ParseConfigReply2(reply);
  return 0;
}
