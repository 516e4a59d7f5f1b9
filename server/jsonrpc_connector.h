// The daemon's link to the controller's local configuration and data server, and the
// owner of one meter's item, archive and time-stamp files.
#pragma once

#include <json/json.h>

#include <list>
#include <map>
#include <mutex>
#include <string>

#include "server/param_value.h"

typedef std::map<std::string, std::string> ParamMap;

struct PortConfig {
  ParamMap portParams;          // members of "port_params"
  std::list<ParamMap> drivers;  // one map per meter on the port
};

class CJSONRPCConnector {
 public:
  CJSONRPCConnector(const std::string& meterId, int defaultSystem);
  virtual ~CJSONRPCConnector();

  // --- JSON-RPC transport and configuration ---
  bool ExecJSONRPCFunc(const std::string& method, const Json::Value& params, Json::Value& reply);
  // Retries every 5 seconds until a reply was received and parsed; returns true.
  bool SendParameters(const std::string& request, Json::Value& reply);
  std::list<PortConfig> GetInitParameters1();
  std::list<PortConfig> GetInitParameters2();
  bool SetSystems(const Json::Value& systems);
  // What the two configuration exchanges make of a parsed reply (the first also
  // registers the reply's systems).
  std::list<PortConfig> ParseConfigReply1(const Json::Value& reply);
  static std::list<PortConfig> ParseConfigReply2(const Json::Value& reply);

  // --- value publishing ---
  bool SendAllCurrentValues(const ParamValueList& list);
  bool SendParameters_right(const ParamValueList& list);
  bool SendParameters2(const ParamValueList& list);

  // --- item, archive and time-stamp files ---
  std::string GetItemsDir(int i);
  std::string GetArchiveDir(int i, bool temporary);
  bool WriteItems(const ParamValueList& list);
  // Files one block: appends the lines and makes them durable, then raises the bound
  // (write-and-rename, durable). False when the block could not be filed: its lines are
  // then taken back and the bound is left unchanged.
  bool WriteArchive(const ParamValueList& list, int archiveType, bool temporary);
  // Brings the archive files and the bounds of this meter into agreement after a kill
  // or a power loss, and removes temporary files that a dead process left in the item
  // and storage trees. Done by the first archive call of the process, and again when
  // the storage directory is another one (mounted late or remounted).
  void ReconcileArchives();
  void SetConnectionState(bool connected);
  bool WriteMaxTimestamp(int archiveType, long t);
  long ReadMaxTimestamp(int archiveType);
  void WriteVKT7Timestamp();
  void WriteVKT9Timestamp();
  long ReadVKT7Timestamp();
  long ReadVKT9Timestamp();
  bool CheckForceUpdate();

  static void CreateExtPauseFile();
  static void RemoveExtPauseFile();

  // --- accessors ---
  const std::string& GetMeterId() const { return meterId; }
  const std::string& GetVolatileDir() const { return volatileDir; }
  const std::string& GetStorageDir() const { return storageDir; }
  const std::string& GetForceUpdateFile() const { return forceUpdateFile; }
  int GetDefaultSystem() const { return defaultSystem; }
  int GetRequestId() const { return requestId; }

 private:
  static void JsonObjectToMap(ParamMap& out, const Json::Value& object);
  // Reconciles when the storage directory has not been reconciled in this process yet.
  void EnsureReconciled();
  void ReconcileLocked();
  void ReconcileBound(int archiveType);
  // Files an item: replaces dir + name with text (see mcd::fs::ReplaceFile) and sets its
  // times to fileTime, or to now when fileTime is null. When the file still is the one
  // this connector wrote last with the same text, only its times are set.
  bool WriteItemFile(const std::string& dir, const std::string& name, const std::string& text, const time_t* fileTime,
                     int sys);

  // The item files written by this connector: text, the file's identity and the time
  // set on it, so that an unchanged value does not make a new file every cycle.
  struct WrittenItem {
    std::string text;
    unsigned long long device = 0;
    unsigned long long inode = 0;
    long long time = 0;
  };
  std::map<std::string, WrittenItem> writtenItems;

  std::mutex reconcileMutex;
  bool reconciled = false;
  unsigned long long reconciledDevice = 0;
  unsigned long long reconciledInode = 0;

  int32_t requestId;
  std::string meterId;
  std::string volatileDir;
  std::string storageDir;
  std::string forceUpdateFile;
  std::map<int, std::string> archiveDirs;
  std::map<int, std::string> itemDirs;
  int32_t defaultSystem;
};
