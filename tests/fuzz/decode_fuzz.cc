// Stored LevelDB values, schema records, index list and key (split at 0x1E), decoded and read.

#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "fuzz_util.h"
#include "leveldb_api.h"
#include "leveldb_connector.h"
#include "serializer.h"

namespace {

using db::Attribute;

void Decode(const std::string& scalar, const std::string& repeated) {
  const db::Serializer serializer;
  const db::ScalarFields schema = {{"a", Attribute(db::kInteger)},
                                   {"b", Attribute(db::kString)},
                                   {"c", Attribute(db::kFloat)},
                                   {"d", Attribute(db::kBytes)}};
  db::ScalarFields fields = schema;
  serializer.DeserializeScalar(scalar, fields);
  db::ScalarFields filter = schema;
  filter["b"] = "x";
  db_fuzz::AllowConversionErrors([&] { serializer.ScalarIsPresent(filter, scalar); });
  db::ScalarFields wider = schema;
  wider.emplace("bb", Attribute(db::kString));
  std::string migrated = scalar;
  db_fuzz::AllowConversionErrors([&] { serializer.AddScalarField(migrated, "bb", wider); });
  // Type 4 is no kind: its elements are skipped.
  for (int type = 0; type <= 4; ++type) {
    std::pair<db::AttributeType, std::vector<Attribute>> field(static_cast<db::AttributeType>(type),
                                                               {Attribute(db::kInteger) = 1});
    std::string text = repeated;
    serializer.DeserializeComposite(text, field);
    db_fuzz::AllowConversionErrors([&] { serializer.AtLeastOneIsEqual(field, repeated); });
  }
}

void ReadBack(const std::string& path, const std::vector<std::string>& parts,
              std::vector<std::string>* keys) {
  db::LeveldbAPI api(path, "t");
  const db::LevelDbTable* table = api.table();
  if (table == nullptr || !table->is_created()) return;
  leveldb::DB* db = db::LevelDbConnector::GetInstance().LookupConnection(path);
  for (const auto& field : table->composite_schema()) {
    keys->push_back(db::LevelDbTable::BuildCompositeKey("t", 7, field.first));
    db->Put({}, keys->back(), parts[1]);
  }
  db::ScalarFields scalar = table->scalar_schema();
  db::CompositeFields composite = table->composite_schema();
  api.RetrieveRecord(7, &scalar, &composite);
  std::vector<uint32_t> ids;
  api.RetrieveRecords(&ids, {}, {});
  db::ScalarFields filter = table->scalar_schema();
  if (!filter.empty()) filter.begin()->second = Attribute(filter.begin()->second.type()) = 1;
  composite = table->composite_schema();
  for (auto& field : composite) field.second.second = {Attribute(field.second.first) = 1};
  api.RetrieveRecords(&ids, filter, composite);
  int size = 0;
  api.GetTableSize(&size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = db_fuzz::Scratch() + "/decode";
  static const auto keeper = std::make_unique<db::LeveldbAPI>(path, "keeper");
  std::vector<std::string> parts = db_fuzz::Split(data, size, '\x1e');
  parts.resize(6);
  Decode(parts[0], parts[1]);

  leveldb::DB* db = db::LevelDbConnector::GetInstance().LookupConnection(path);
  std::vector<std::string> keys = {"schema:t", "schema:repeated:t", "schema:t:idx", "t:7",
                                   "t:" + parts[5]};
  const std::string* values[] = {&parts[2], &parts[3], &parts[4], &parts[0], &parts[0]};
  leveldb::WriteBatch batch;
  for (size_t i = 0; i < std::size(values); ++i) batch.Put(keys[i], *values[i]);
  db->Write({}, &batch);
  db_fuzz::AllowConversionErrors([&] { ReadBack(path, parts, &keys); });
  batch.Clear();
  for (const std::string& key : keys) batch.Delete(key);
  db->Write({}, &batch);
  static int inputs = 0;
  if (++inputs % 256 == 0) db->CompactRange(nullptr, nullptr);
  return 0;
}
