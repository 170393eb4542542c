#include "support/leveldb_util.h"

#include <leveldb/db.h>

#include "leveldb_connector.h"

namespace db_test {

KeyValues Dump(const std::string& path) {
  KeyValues all;
  leveldb::DB* raw = nullptr;
  EXPECT_TRUE(leveldb::DB::Open(leveldb::Options(), path, &raw).ok());
  std::unique_ptr<leveldb::DB> db(raw);
  if (db == nullptr) return all;
  std::unique_ptr<leveldb::Iterator> it(db->NewIterator({}));
  for (it->SeekToFirst(); it->Valid(); it->Next())
    all[it->key().ToString()] = it->value().ToString();
  return all;
}

void Seed(const std::string& path, const KeyValues& records) {
  leveldb::Options options;
  options.create_if_missing = true;
  leveldb::DB* raw = nullptr;
  ASSERT_TRUE(leveldb::DB::Open(options, path, &raw).ok());
  std::unique_ptr<leveldb::DB> db(raw);
  for (const auto& [key, value] : records) EXPECT_TRUE(db->Put({}, key, value).ok());
}

void PutRaw(const std::string& path, const std::string& key, const std::string& value) {
  leveldb::DB* db = db::LevelDbConnector::GetInstance().LookupConnection(path);
  ASSERT_NE(db, nullptr);
  EXPECT_TRUE(db->Put({}, key, value).ok());
}

std::string GetRaw(const std::string& path, const std::string& key) {
  leveldb::DB* db = db::LevelDbConnector::GetInstance().LookupConnection(path);
  std::string value;
  return db != nullptr && db->Get({}, key, &value).ok() ? value : "(missing)";
}

}  // namespace db_test
