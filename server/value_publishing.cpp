// The three upload requests that push values to the server.
#include <cstdio>

#include "log/logger.h"
#include "server/json_text.h"
#include "server/jsonrpc_connector.h"
#include "server/param_names.h"

namespace {

// The error byte in lower-case hexadecimal without prefix or leading zeros.
std::string HexText(uint8_t byte) {
  char text[4];
  snprintf(text, sizeof(text), "%x", static_cast<unsigned>(byte));
  return text;
}

std::string DecimalText(uint8_t byte) { return std::to_string(static_cast<unsigned>(byte)); }

void PrintLine(const std::string& text) {
  std::string line = text + "\n";
  fwrite(line.data(), 1, line.size(), stdout);
  fflush(stdout);
}

}  // namespace

bool CJSONRPCConnector::SendAllCurrentValues(const ParamValueList& list) {
  Json::Value params;  // stays null, and is then left out, when nothing is known
  for (const ParamValue& pv : list) {
    const std::string* name = FindParamName(pv.kind, pv.paramId);
    if (!name) continue;
    Json::Value item(Json::objectValue);
    item["name"] = *name;
    item["value"] = pv.value;
    item["dim"] = pv.dim;
    item["quality"] = pv.quality;
    item["error"] = HexText(pv.error);
    item["sys"] = DecimalText(pv.sys);
    item["timestamp"] = pv.timestamp;
    params.append(item);
  }
  Json::Value reply;
  if (!ExecJSONRPCFunc("put_all_current_values", params, reply))
    LOG_ERR("CJSONRPCConnector::SendParameters - Error while sending data!");
  return true;
}

bool CJSONRPCConnector::SendParameters_right(const ParamValueList& list) {
  for (const ParamValue& pv : list) {
    const std::string* name = FindParamName(pv.kind, pv.paramId);
    if (!name) continue;
    Json::Value request(Json::objectValue);
    request["jsonrpc"] = "2.0";
    request["method"] = "put_current_value";
    Json::Value& params = request["params"];
    params["value_name"] = *name;
    params["value"] = pv.value;
    params["opc_quality"] = pv.quality;
    params["timestamp"] = pv.timestamp;
    request["id"] = requestId++;

    std::string text = mcd::WriteCompactJson(request);
    PrintLine("CJSONRPCConnector::SendParameters_right query is " + text);
    Json::Value reply;
    SendParameters(text, reply);
  }
  return true;
}

bool CJSONRPCConnector::SendParameters2(const ParamValueList& list) {
  // One id for every request of this call.
  const int32_t id = requestId++;
  for (const ParamValue& pv : list) {
    const std::string* name = FindParamName(pv.kind, pv.paramId);
    if (!name) continue;
    Json::Value request(Json::objectValue);
    request["jsonrpc"] = "2.0";
    request["id"] = id;
    request["method"] = "put_one_value";
    Json::Value& params = request["params"];
    params["value_name"] = *name;
    params["value"] = pv.value;
    params["dim"] = pv.dim;
    params["opc_quality"] = pv.quality;
    params["error"] = HexText(pv.error);
    params["sys"] = DecimalText(pv.sys);
    params["timestamp"] = pv.timestamp;

    std::string text = mcd::WriteCompactJson(request);
    PrintLine("CJSONRPCConnector::SendParameters2 query is " + text);
    Json::Value reply;
    SendParameters(text, reply);
  }
  return true;
}
