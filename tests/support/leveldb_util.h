#ifndef DB_INTF_TESTS_SUPPORT_LEVELDB_UTIL_H_
#define DB_INTF_TESTS_SUPPORT_LEVELDB_UTIL_H_

#include "support/test_util.h"

namespace db_test {

using KeyValues = std::map<std::string, std::string>;

// Every record under `path`, read with leveldb itself (the connector must
// have closed it); Seed writes records the same way.
KeyValues Dump(const std::string& path);
void Seed(const std::string& path, const KeyValues& records);
// One key through the connector's open handle; a missing key reads "(missing)".
void PutRaw(const std::string& path, const std::string& key, const std::string& value);
std::string GetRaw(const std::string& path, const std::string& key);

}  // namespace db_test

#endif  // DB_INTF_TESTS_SUPPORT_LEVELDB_UTIL_H_
