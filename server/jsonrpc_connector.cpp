// The connector itself: construction, the JSON-RPC transport with its retry, and the
// configuration requests.
#include "server/jsonrpc_connector.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <set>

#include "app/clock.h"
#include "app/service_notify.h"
#include "drivers/base/driver_families.h"
#include "log/logger.h"
#include "server/file_util.h"
#include "server/http_client.h"
#include "server/json_text.h"
#include "server/paths.h"

namespace {

const unsigned kRetryWaitSeconds = 5;
// While the server answers but knows nothing of this meter, it is asked again this often:
// a meter commissioned on the server later is picked up without a restart.
const unsigned kUnknownMeterWaitSeconds = 60;
// Bytes of an answer printed on standard output and in the log; the rest is counted only.
const size_t kPrintedReplyBytes = 1024;

std::string Prefix(const std::string& text) {
  if (text.size() <= kPrintedReplyBytes) return text;
  return text.substr(0, kPrintedReplyBytes) + "... (" + std::to_string(text.size()) + " bytes)";
}

// Why a get_config answer holds no usable configuration of the meter, with the wait
// before the next attempt; an empty reason when it holds one.
std::string ConfigReplyFault(const Json::Value& reply, const std::string& meterId, unsigned& wait) {
  wait = kRetryWaitSeconds;
  if (!reply.isObject()) return "the answer is no JSON-RPC object";
  if (reply.isMember("error")) {
    const Json::Value& error = reply["error"];
    std::string text = "error";
    if (error.isObject()) {
      if (error.isMember("code") && error["code"].isConvertibleTo(Json::stringValue))
        text += " " + error["code"].asString();
      if (error.isMember("message") && error["message"].isString()) text += " " + error["message"].asString();
    }
    return text;
  }
  if (!reply.isMember("result")) return "no \"result\" in the answer";
  const Json::Value& result = reply["result"];
  if (!result.isObject() || result.empty()) {
    wait = kUnknownMeterWaitSeconds;
    return "no entry for heat meter " + meterId;
  }
  return "";
}

// Standard output lines are written with one call each so that lines of two threads
// never mix.
void PrintLine(const std::string& text) {
  std::string line = text + "\n";
  fwrite(line.data(), 1, line.size(), stdout);
  fflush(stdout);
}

// value[key] of an object, or an empty object when value has no such member or is no
// object at all: a missing or ill-shaped part of a reply reads as empty.
Json::Value MemberOrEmpty(const Json::Value& value, const char* key) {
  if (value.isObject() && value.isMember(key)) return value[key];
  return Json::Value(Json::objectValue);
}

const DriverFamily& FamilyOf(const ParamMap& driver) {
  auto it = driver.find("manufacturer");
  const DriverFamily* family = it == driver.end() ? nullptr : FindDriverFamily(it->second);
  return family ? *family : UnknownDriverFamily();
}

// The family's polling period, for a driver entry that names none.
const char* DefaultPeriod(const ParamMap& driver) { return FamilyOf(driver).default_period; }

// The VKT families (those with a connection hold-off) are polled at their own period
// whatever get_config2 says.
bool PeriodFixedByFamily(const ParamMap& driver) { return FamilyOf(driver).hold_off != DriverFamily::kNoHoldOff; }

}  // namespace

CJSONRPCConnector::CJSONRPCConnector(const std::string& meterId_, int defaultSystem_)
    : requestId(1),
      meterId(meterId_),
      volatileDir(mcd::paths::Tmp(meterId_ + "/")),
      storageDir(mcd::paths::Storage(meterId_ + "/")),
      forceUpdateFile(mcd::paths::Tmp(std::string(mcd::kForceUpdatePrefix) + meterId_)),
      defaultSystem(defaultSystem_) {
  mcd::fs::MakeDirs(volatileDir);
  mcd::fs::MakeDirs(storageDir);
}

CJSONRPCConnector::~CJSONRPCConnector() {}

bool CJSONRPCConnector::ExecJSONRPCFunc(const std::string& method, const Json::Value& params, Json::Value& reply) {
  Json::Value request(Json::objectValue);
  request["jsonrpc"] = "2.0";
  request["id"] = requestId++;
  request["method"] = method;
  if (!params.isNull()) request["params"] = params;

  std::string text = mcd::WriteCompactJson(request);
  PrintLine("CJSONRPCConnector::ExecJSONRPCFunc query is " + text);
  return SendParameters(text, reply);
}

bool CJSONRPCConnector::SendParameters(const std::string& request, Json::Value& reply) {
  for (;;) {
    std::string response;
    {
      // A stop or reload ends the retries; the caller gets no reply.
      if (mcd::InterruptRequested()) return false;
      // Main's set-up waiting for the server is progress as far as the service watchdog
      // is concerned: a restart would not bring the server back.
      if (getpid() == static_cast<pid_t>(syscall(SYS_gettid))) mcd::service::Watchdog();
      mcd::HttpClient client(mcd::paths::ServerUrl());
      int rc = client.Send(request);
      if (rc != 0 && client.TooLarge()) {
        LOG_ERR("CJSONRPCConnector::SendParameters - %s answered over %zu bytes, refused! retry!!! wait 5 sec",
                mcd::paths::ServerUrl().c_str(), mcd::HttpClient::kMaxReplyBytes);
        mcd::Sleep(kRetryWaitSeconds);
        continue;
      }
      if (rc != 0) {
        LOG_ERR("CJSONRPCConnector::SendParameters - Error while sending data! retry!!! wait 5 sec. Error code - %d (%s)",
                rc, mcd::paths::ServerUrl().c_str());
        mcd::Sleep(kRetryWaitSeconds);
        continue;
      }
      if (client.Recv(response) == -1) {
        LOG_ERR("CJSONRPCConnector::SendParameters - Error while receiving data! retry!!! wait 5 sec (%s)",
                mcd::paths::ServerUrl().c_str());
        mcd::Sleep(kRetryWaitSeconds);
        continue;
      }
    }
    PrintLine("result JSONRPC" + Prefix(response));
    if (!mcd::ParseJson(response, reply)) {
      LOG_ERR("CJSONRPCConnector::SendParameters - Error while parsing data! retry!!! wait 5 sec (%s)",
              mcd::paths::ServerUrl().c_str());
      LOG_ERR("Response String - %s", Prefix(response).c_str());
      mcd::Sleep(kRetryWaitSeconds);
      continue;
    }
    return true;
  }
}

void CJSONRPCConnector::JsonObjectToMap(ParamMap& out, const Json::Value& object) {
  if (!object.isObject()) return;
  for (auto it = object.begin(); it != object.end(); ++it) {
    const Json::Value& value = *it;
    if (value.isObject()) continue;
    // Arrays have no text form; they are skipped like nested objects.
    if (!value.isConvertibleTo(Json::stringValue)) continue;
    out[it.name()] = value.asString();
  }
}

std::list<PortConfig> CJSONRPCConnector::GetInitParameters1() {
  Json::Value params(Json::objectValue);
  params["heat_meter"] = meterId;
  for (;;) {
    Json::Value reply;
    if (!ExecJSONRPCFunc("get_config", params, reply)) {
      if (!mcd::InterruptRequested()) LOG_ERR("CJSONRPCConnector::GetInitParameters1 - Error while receiving data!");
      return {};
    }
    unsigned wait = 0;
    const std::string fault = ConfigReplyFault(reply, meterId, wait);
    if (fault.empty()) return ParseConfigReply1(reply);
    // An answer without this meter's configuration is a failed attempt like no answer.
    LOG_ERR("CJSONRPCConnector::GetInitParameters1 - retry in %u sec: %s: %s", wait, mcd::paths::ServerUrl().c_str(),
            fault.c_str());
    mcd::Sleep(wait);
    if (mcd::InterruptRequested()) return {};
  }
}

std::list<PortConfig> CJSONRPCConnector::ParseConfigReply1(const Json::Value& reply) {
  std::list<PortConfig> ports;
  Json::Value result = MemberOrEmpty(reply, "result");
  PortConfig port;
  JsonObjectToMap(port.portParams, MemberOrEmpty(result, "port_params"));
  ParamMap driver;
  JsonObjectToMap(driver, result);
  if (driver.find("period_current") == driver.end()) driver["period_current"] = DefaultPeriod(driver);
  port.drivers.push_back(driver);
  ports.push_back(port);

  SetSystems(MemberOrEmpty(result, "systems"));
  return ports;
}

std::list<PortConfig> CJSONRPCConnector::GetInitParameters2() {
  std::list<PortConfig> ports;
  Json::Value reply;
  if (!ExecJSONRPCFunc("get_config2", Json::Value(), reply)) {
    LOG_ERR("CJSONRPCConnector::GetInitParameters2 - Error while receiving data!");
    return ports;
  }
  return ParseConfigReply2(reply);
}

std::list<PortConfig> CJSONRPCConnector::ParseConfigReply2(const Json::Value& reply) {
  std::list<PortConfig> ports;
  Json::Value result = MemberOrEmpty(reply, "result");
  if (!result.isArray() && !result.isObject()) return ports;
  for (const Json::Value& entry : result) {
    PortConfig port;
    JsonObjectToMap(port.portParams, MemberOrEmpty(entry, "port_params"));
    Json::Value drivers = MemberOrEmpty(entry, "drivers");
    if (drivers.isArray() || drivers.isObject()) {
      for (const Json::Value& element : drivers) {
        ParamMap driver;
        JsonObjectToMap(driver, element);
        if (driver.find("period_current") == driver.end()) driver["period_current"] = "20";
        // Here a configured period of a VKT meter is overridden as well.
        if (PeriodFixedByFamily(driver)) driver["period_current"] = DefaultPeriod(driver);
        port.drivers.push_back(driver);
      }
    }
    ports.push_back(port);
  }
  return ports;
}

bool CJSONRPCConnector::SetSystems(const Json::Value& systems) {
  std::set<int> present;
  if (systems.isObject()) {
    for (auto it = systems.begin(); it != systems.end(); ++it) {
      const Json::Value& value = *it;
      if (!value.isConvertibleTo(Json::stringValue) || value.asString().empty()) continue;
      // The system digit is the eighth character of the key ("system_1"); a key without
      // a digit there names no system.
      std::string key = it.name();
      if (key.size() < 8 || !isdigit(static_cast<unsigned char>(key[7]))) continue;
      int n = key[7] - '0';
      if (n - 1 < defaultSystem) defaultSystem = n - 1;
      present.insert(n);
    }
  }
  for (int n : present) {
    int i = n != 0 ? n - 1 : 0;
    GetItemsDir(i);
    GetArchiveDir(i, false);
  }
  return true;
}
