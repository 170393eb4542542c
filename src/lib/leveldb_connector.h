// LevelDbConnector: the process-wide cache of open LevelDB databases. LevelDB
// allows one open handle per directory in a process, so every table naming a
// path shares one counted handle; the last release closes it.
//
// No lock: all LevelDB objects of a process are used from one thread at a time.

#ifndef DB_INTF_SRC_LIB_LEVELDB_CONNECTOR_H_
#define DB_INTF_SRC_LIB_LEVELDB_CONNECTOR_H_

#include <cstdint>
#include <map>
#include <string>

namespace leveldb {
class DB;
}

namespace db {

class LevelDbConnector {
 public:
  struct Connection {
    leveldb::DB* handle = nullptr;
    uint32_t count = 0;
  };

  // The process-wide instance, created on first use and never destroyed.
  static LevelDbConnector& GetInstance();

  // The handle for `path`, opened (create_if_missing) on first use; null when
  // the open fails ("ERROR: Open status='%s'"). Each non-null result counts.
  leveldb::DB* AcquireConnection(const std::string& path);
  // Gives back one use. True when the path is not (or no longer) cached.
  bool ReleaseConnection(const std::string& path);
  // The cached handle or null; never counts.
  leveldb::DB* LookupConnection(const std::string& path) const;
  // The entry for `path`, or null.
  const Connection* Find(const std::string& path) const;

 private:
  LevelDbConnector() = default;
  // Never called: the instance lives until the process ends.
  ~LevelDbConnector() = default;

  std::map<std::string, Connection> connections_;
};

}  // namespace db

#endif  // DB_INTF_SRC_LIB_LEVELDB_CONNECTOR_H_
