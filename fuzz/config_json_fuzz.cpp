// The configuration server's reply, as text: parsed as the transport parses it, then
// turned into port and meter parameters by both configuration exchanges.
#include <json/json.h>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // Json::Reader, as the transport uses

#include <string>

#include "fuzz_support.h"
#include "server/jsonrpc_connector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  mcdfuzz::UsePrivateRoot();
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value reply;
  Json::Reader reader;
  if (!reader.parse(text, reply, true)) return 0;
  static CJSONRPCConnector client("fuzz", 0);
  client.ParseConfigReply1(reply);
  CJSONRPCConnector::ParseConfigReply2(reply);
  return 0;
}
