#include "leveldb_connector.h"

#include <map>
#include <string>

#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/options.h>
#include <leveldb/status.h>

#include "logger.h"

namespace db {

namespace {

// About 1% false positives: a Get of an absent key, such as the existence
// check before every store, skips the table files that cannot hold it.
constexpr int kBloomBitsPerKey = 10;

// One policy for every handle, never destroyed: handles still open at process
// exit keep using it.
const leveldb::FilterPolicy* BloomFilterPolicy() {
  static const leveldb::FilterPolicy* const policy =
      leveldb::NewBloomFilterPolicy(kBloomBitsPerKey);
  return policy;
}

}  // namespace

LevelDbConnector& LevelDbConnector::GetInstance() {
  // Never destroyed: an object held in a static releases its handle after
  // every function-local static of the library is gone. Handles still open
  // at exit are left open.
  static LevelDbConnector* const instance = new LevelDbConnector();
  return *instance;
}

leveldb::DB* LevelDbConnector::AcquireConnection(const std::string& path) {
  auto it = connections_.find(path);
  if (it != connections_.end()) {
    // Shared as it is: a second user never reopens with options of its own.
    ++it->second.count;
    return it->second.handle;
  }
  leveldb::Options options;
  options.create_if_missing = true;
  options.filter_policy = BloomFilterPolicy();
  leveldb::DB* handle = nullptr;
  leveldb::Status status = leveldb::DB::Open(options, path, &handle);
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Open status='%s'", status.ToString().c_str());
    return nullptr;
  }
  connections_.emplace(path, Connection{handle, 1});
  return handle;
}

bool LevelDbConnector::ReleaseConnection(const std::string& path) {
  auto it = connections_.find(path);
  // Nothing cached: a surplus release is harmless.
  if (it == connections_.end()) return true;
  if (--it->second.count != 0) return false;
  delete it->second.handle;
  connections_.erase(it);
  return true;
}

leveldb::DB* LevelDbConnector::LookupConnection(const std::string& path) const {
  auto it = connections_.find(path);
  return it == connections_.end() ? nullptr : it->second.handle;
}

const LevelDbConnector::Connection* LevelDbConnector::Find(const std::string& path) const {
  auto it = connections_.find(path);
  return it == connections_.end() ? nullptr : &it->second;
}

}  // namespace db
