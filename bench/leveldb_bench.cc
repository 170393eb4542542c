// LevelDB backend: each DbObject operation beside raw LevelDB doing the same
// storage work on the same database handle, with the library's keys ("T:id",
// "F:T:id") and value format.
//
// Names: LevelDb/<Operation>/Lib is the library, LevelDb/<Operation>/Raw the
// raw pair. The raw side writes values encoded once up front, so the ratio
// includes the library's encoding and decoding as well as its checks.

#include <leveldb/db.h>
#include <leveldb/iterator.h>
#include <leveldb/write_batch.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_util.h"
#include "leveldb_connector.h"

namespace db_bench {
namespace {

// Records stored up front for the read, update and query pairs.
constexpr uint32_t kPreloaded = 1000;
// Records stored per refill of the delete pairs.
constexpr uint32_t kDeleteBatch = 2000;

constexpr char kLibTable[] = "lib";
constexpr char kRawTable[] = "raw";

// Encodes texts in the library's value format: the count, then ","+length
// of each text, then ","+text of each text.
std::string EncodeValue(const std::vector<std::string>& texts) {
  std::string lengths;
  std::string values;
  for (const std::string& text : texts) {
    lengths += ',';
    lengths += std::to_string(text.size());
    values += ',';
    values += text;
  }
  return std::to_string(texts.size()) + lengths + values;
}

std::string ScalarValue(uint32_t n) {
  const RecordValues v = MakeRecordValues(n);
  return EncodeValue({std::string(v.blob.begin(), v.blob.end()), v.mac, v.name,
                      std::to_string(v.port), v.ratio_text});
}

std::string VlanValue(uint32_t n) {
  const RecordValues v = MakeRecordValues(n);
  std::vector<std::string> texts;
  for (int32_t vlan : v.vlans) texts.push_back(std::to_string(vlan));
  return EncodeValue(texts);
}

std::string ScalarKey(const std::string& table, uint32_t id) {
  return table + ":" + std::to_string(id);
}

std::string VlanKey(const std::string& table, uint32_t id) {
  return std::string(kVlanField) + ":" + table + ":" + std::to_string(id);
}

// One LevelDB database holding the library's tables and the raw keys.
struct LevelDbSetup {
  ScratchDir dir;
  std::string path;
  leveldb::DB* db = nullptr;
  std::unique_ptr<db::DbObject> lib;  // table "lib", index on "port"
  std::vector<uint32_t> lib_ids;      // ids of the preloaded library records
  std::vector<std::string> scalar_values;
  std::vector<std::string> vlan_values;

  LevelDbSetup() {
    InitLibraryQuietly();
    path = dir.File("db");
    lib = std::make_unique<db::DbObject>(path, kLibTable, false, db::kLevelDb);
    DeclareRecordSchema(lib.get());
    lib->DeclareTableIndex("by_port", {kPortField});
    if (lib->CreateObjTables() != db::kOk) std::abort();
    db = db::LevelDbConnector::GetInstance().LookupConnection(path);
    if (db == nullptr) std::abort();
    leveldb::WriteBatch raw;
    for (uint32_t n = 0; n < kPreloaded; ++n) {
      FillRecord(lib.get(), n);
      uint32_t id = 0;
      if (lib->StoreObject(&id) != db::kOk) std::abort();
      lib_ids.push_back(id);
      scalar_values.push_back(ScalarValue(n));
      vlan_values.push_back(VlanValue(n));
      // The raw records use the numbers 1..kPreloaded as ids.
      raw.Put(ScalarKey(kRawTable, n + 1), scalar_values.back());
      raw.Put(VlanKey(kRawTable, n + 1), vlan_values.back());
    }
    if (!db->Write(leveldb::WriteOptions(), &raw).ok()) std::abort();
  }

  // A further library table of the same database, with the record schema.
  std::unique_ptr<db::DbObject> NewTable(const std::string& table) {
    auto object = std::make_unique<db::DbObject>(path, table, false, db::kLevelDb);
    DeclareRecordSchema(object.get());
    object->DeclareTableIndex("by_port", {kPortField});
    if (object->CreateObjTables() != db::kOk) std::abort();
    return object;
  }
};

LevelDbSetup& Setup() {
  // Destroyed at exit, which removes its directory.
  static LevelDbSetup setup;
  return setup;
}

// The store pair writes into a database of its own: the records it adds
// would otherwise grow the memtable that the read pairs search.
LevelDbSetup& StoreSetup() {
  static LevelDbSetup setup;
  return setup;
}

void CheckRc(benchmark::State& state, int rc) {
  if (rc != db::kOk) state.SkipWithError(("library call failed, rc=" + std::to_string(rc)).c_str());
}

// ---- StoreObject: existence Get, encoding, one WriteBatch, index update.

void BM_Store_Lib(benchmark::State& state) {
  static std::unique_ptr<db::DbObject> object = StoreSetup().NewTable("store_lib");
  FillRecord(object.get(), 7);
  for (auto _ : state) {
    uint32_t id = 0;
    CheckRc(state, object->StoreObject(&id));
  }
}
BENCHMARK(BM_Store_Lib)->Name("LevelDb/Store/Lib");

void BM_Store_Raw(benchmark::State& state) {
  LevelDbSetup& setup = StoreSetup();
  static uint32_t next_id = 0;
  const std::string scalar = ScalarValue(7);
  const std::string vlans = VlanValue(7);
  const leveldb::WriteOptions options;
  for (auto _ : state) {
    const uint32_t id = ++next_id;
    leveldb::WriteBatch batch;
    batch.Put(ScalarKey("store_raw", id), scalar);
    batch.Put(VlanKey("store_raw", id), vlans);
    if (!setup.db->Write(options, &batch).ok()) state.SkipWithError("write failed");
  }
}
BENCHMARK(BM_Store_Raw)->Name("LevelDb/Store/Raw");

// ---- What a required check costs on its own: the Get of a key that is not
// there, which StoreRecord makes before every store.

void BM_Cost_MissingGet(benchmark::State& state) {
  LevelDbSetup& setup = StoreSetup();
  const leveldb::ReadOptions options;
  std::string value;
  uint32_t id = 100000000;
  for (auto _ : state) {
    if (setup.db->Get(options, ScalarKey("store_lib", ++id), &value).ok()) {
      state.SkipWithError("unexpected key");
    }
  }
}
BENCHMARK(BM_Cost_MissingGet)->Name("LevelDb/Cost/ExistenceGet");

// ---- The Bloom filter: Gets once the data lives in table files, through the
// library's handle (Bloom filter, 10 bits per key) beside a database opened
// with LevelDB's defaults (no filter). Both hold the same kBloomRecords
// records, far beyond one memtable, fully compacted. Only even ids are
// stored, so an odd id is absent and its key sorts between stored ones, as
// the key of a new id does for the existence check before a store.

constexpr uint32_t kBloomRecords = 100000;

struct BloomSetup {
  ScratchDir dir;
  std::string library_path;
  leveldb::DB* library = nullptr;  // opened by the library's connector
  std::unique_ptr<leveldb::DB> plain;

  ~BloomSetup() { db::LevelDbConnector::GetInstance().ReleaseConnection(library_path); }

  BloomSetup() {
    const LevelDbSetup& records = Setup();
    library = db::LevelDbConnector::GetInstance().AcquireConnection(dir.File("library"));
    leveldb::Options options;
    options.create_if_missing = true;
    leveldb::DB* raw = nullptr;
    if (library == nullptr || !leveldb::DB::Open(options, dir.File("plain"), &raw).ok()) {
      std::abort();
    }
    plain.reset(raw);
    library_path = dir.File("library");
    for (leveldb::DB* db : {library, plain.get()}) {
      for (uint32_t first = 0; first < kBloomRecords; first += kPreloaded) {
        leveldb::WriteBatch batch;
        for (uint32_t n = first; n < first + kPreloaded; ++n) {
          batch.Put(ScalarKey("big", 2 * n + 2), records.scalar_values[n % kPreloaded]);
          batch.Put(VlanKey("big", 2 * n + 2), records.vlan_values[n % kPreloaded]);
        }
        if (!db->Write(leveldb::WriteOptions(), &batch).ok()) std::abort();
      }
      db->CompactRange(nullptr, nullptr);
    }
  }
};

// Gets of absent (odd) or stored (even) ids on either database.
void BloomGets(benchmark::State& state, bool library, bool absent) {
  static BloomSetup setup;
  leveldb::DB* db = library ? setup.library : setup.plain.get();
  const leveldb::ReadOptions options;
  std::string value;
  uint32_t n = 0;
  for (auto _ : state) {
    const uint32_t id = 2 * (n++ % kBloomRecords) + (absent ? 1 : 2);
    if (db->Get(options, ScalarKey("big", id), &value).ok() == absent) {
      state.SkipWithError("unexpected Get result");
    }
  }
}
BENCHMARK_CAPTURE(BloomGets, absent_lib, true, true)->Name("LevelDb/AbsentGet/Lib");
BENCHMARK_CAPTURE(BloomGets, absent_plain, false, true)->Name("LevelDb/AbsentGet/NoFilter");
BENCHMARK_CAPTURE(BloomGets, stored_lib, true, false)->Name("LevelDb/StoredGet/Lib");
BENCHMARK_CAPTURE(BloomGets, stored_plain, false, false)->Name("LevelDb/StoredGet/NoFilter");

// ---- RetrieveObject: two Gets and decoding into the object's record.

void BM_Retrieve_Lib(benchmark::State& state) {
  LevelDbSetup& setup = Setup();
  db::ScalarFields scalar;
  db::CompositeFields composite;
  size_t i = 0;
  for (auto _ : state) {
    const uint32_t id = setup.lib_ids[i++ % setup.lib_ids.size()];
    CheckRc(state, setup.lib->RetrieveObject(id, &scalar, &composite));
  }
}
BENCHMARK(BM_Retrieve_Lib)->Name("LevelDb/Retrieve/Lib");

void BM_Retrieve_Raw(benchmark::State& state) {
  LevelDbSetup& setup = Setup();
  const leveldb::ReadOptions options;
  std::string scalar;
  std::string vlans;
  uint32_t i = 0;
  for (auto _ : state) {
    const uint32_t id = i++ % kPreloaded + 1;
    if (!setup.db->Get(options, ScalarKey(kRawTable, id), &scalar).ok() ||
        !setup.db->Get(options, VlanKey(kRawTable, id), &vlans).ok()) {
      state.SkipWithError("get failed");
    }
    benchmark::DoNotOptimize(scalar.data());
    benchmark::DoNotOptimize(vlans.data());
  }
}
BENCHMARK(BM_Retrieve_Raw)->Name("LevelDb/Retrieve/Raw");

// ---- UpdateObject: read of the old record (for the index), then one
// WriteBatch and the index update. Both sides rewrite records of their own
// table with the same record, so the index sees changed values on the first
// pass over the table and unchanged ones after it.

void BM_Update_Lib(benchmark::State& state) {
  static std::unique_ptr<db::DbObject> object = Setup().NewTable("upd_lib");
  static std::vector<uint32_t> ids;
  if (ids.empty()) {
    for (uint32_t n = 0; n < kPreloaded; ++n) {
      FillRecord(object.get(), n);
      uint32_t id = 0;
      if (object->StoreObject(&id) != db::kOk) std::abort();
      ids.push_back(id);
    }
  }
  FillRecord(object.get(), 7);
  size_t i = 0;
  for (auto _ : state) CheckRc(state, object->UpdateObject(ids[i++ % ids.size()]));
}
BENCHMARK(BM_Update_Lib)->Name("LevelDb/Update/Lib");

void BM_Update_Raw(benchmark::State& state) {
  LevelDbSetup& setup = Setup();
  const leveldb::WriteOptions options;
  const std::string scalar = ScalarValue(7);
  const std::string vlans = VlanValue(7);
  static bool preloaded = false;
  if (!preloaded) {
    preloaded = true;
    leveldb::WriteBatch refill;
    for (uint32_t n = 0; n < kPreloaded; ++n) {
      refill.Put(ScalarKey("upd_raw", n + 1), setup.scalar_values[n]);
      refill.Put(VlanKey("upd_raw", n + 1), setup.vlan_values[n]);
    }
    if (!setup.db->Write(options, &refill).ok()) std::abort();
  }
  uint32_t i = 0;
  for (auto _ : state) {
    const uint32_t id = i++ % kPreloaded + 1;
    leveldb::WriteBatch batch;
    batch.Put(ScalarKey("upd_raw", id), scalar);
    batch.Put(VlanKey("upd_raw", id), vlans);
    if (!setup.db->Write(options, &batch).ok()) state.SkipWithError("write failed");
  }
}
BENCHMARK(BM_Update_Raw)->Name("LevelDb/Update/Raw");

// ---- DeleteSingleObject: one WriteBatch deleting the record and its
// repeated-field keys, then the index update. Records are refilled outside
// the timed region.

void BM_Delete_Lib(benchmark::State& state) {
  static std::unique_ptr<db::DbObject> object = Setup().NewTable("del_lib");
  std::vector<uint32_t> ids;
  size_t next = 0;
  for (auto _ : state) {
    if (next == ids.size()) {
      state.PauseTiming();
      ids.clear();
      next = 0;
      for (uint32_t n = 0; n < kDeleteBatch; ++n) {
        FillRecord(object.get(), n);
        uint32_t id = 0;
        if (object->StoreObject(&id) != db::kOk) std::abort();
        ids.push_back(id);
      }
      state.ResumeTiming();
    }
    CheckRc(state, object->DeleteSingleObject(ids[next++]));
  }
}
BENCHMARK(BM_Delete_Lib)->Name("LevelDb/Delete/Lib");

void BM_Delete_Raw(benchmark::State& state) {
  LevelDbSetup& setup = Setup();
  const leveldb::WriteOptions options;
  uint32_t remaining = 0;
  uint32_t id = 0;
  for (auto _ : state) {
    if (remaining == 0) {
      state.PauseTiming();
      leveldb::WriteBatch refill;
      for (uint32_t n = 0; n < kDeleteBatch; ++n) {
        refill.Put(ScalarKey("del_raw", n + 1), setup.scalar_values[n % kPreloaded]);
        refill.Put(VlanKey("del_raw", n + 1), setup.vlan_values[n % kPreloaded]);
      }
      if (!setup.db->Write(options, &refill).ok()) std::abort();
      remaining = kDeleteBatch;
      id = 0;
      state.ResumeTiming();
    }
    ++id;
    --remaining;
    leveldb::WriteBatch batch;
    batch.Delete(ScalarKey("del_raw", id));
    batch.Delete(VlanKey("del_raw", id));
    if (!setup.db->Write(options, &batch).ok()) state.SkipWithError("write failed");
  }
}
BENCHMARK(BM_Delete_Raw)->Name("LevelDb/Delete/Raw");

// ---- RetrieveObjects on one field (1/kPortValues of the records match on
// "port"; one record matches on "name") against a raw prefix scan that
// decodes each value far enough to test the field.

// Whether field number `field` of an encoded value equals `wanted`.
bool RawFieldEquals(const std::string& value, size_t field, const std::string& wanted) {
  const char* p = value.c_str();
  char* end = nullptr;
  const uint64_t count = std::strtoull(p, &end, 10);
  if (field >= count) return false;
  uint64_t offset = 0;
  uint64_t length = 0;
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t size = std::strtoull(end + 1, &end, 10);
    if (i < field) offset += size + 1;
    if (i == field) length = size;
  }
  const size_t start = static_cast<size_t>(end - p) + 1 + offset;
  return length == wanted.size() && value.compare(start, length, wanted) == 0;
}

void RawScan(benchmark::State& state, size_t field, const std::string& wanted) {
  LevelDbSetup& setup = Setup();
  const std::string prefix = std::string(kRawTable) + ":";
  std::vector<uint32_t> ids;
  for (auto _ : state) {
    ids.clear();
    std::unique_ptr<leveldb::Iterator> it(setup.db->NewIterator(leveldb::ReadOptions()));
    for (it->Seek(prefix); it->Valid() && it->key().starts_with(prefix); it->Next()) {
      if (RawFieldEquals(it->value().ToString(), field, wanted)) {
        ids.push_back(static_cast<uint32_t>(
            std::strtoul(it->key().ToString().c_str() + prefix.size(), nullptr, 10)));
      }
    }
    benchmark::DoNotOptimize(ids.data());
  }
  state.counters["matches"] = static_cast<double>(ids.size());
}

void BM_QueryIndexed_Lib(benchmark::State& state) {
  LevelDbSetup& setup = Setup();
  const db::ScalarFields filter = OneFieldFilter(kPortField, 3);
  const db::CompositeFields none;
  std::vector<uint32_t> ids;
  for (auto _ : state) CheckRc(state, setup.lib->RetrieveObjects(&ids, filter, none));
  state.counters["matches"] = static_cast<double>(ids.size());
}
BENCHMARK(BM_QueryIndexed_Lib)->Name("LevelDb/QueryIndexedField/Lib");

void BM_QueryIndexed_Raw(benchmark::State& state) { RawScan(state, 3, "3"); }
BENCHMARK(BM_QueryIndexed_Raw)->Name("LevelDb/QueryIndexedField/Raw");

void BM_QueryScan_Lib(benchmark::State& state) {
  LevelDbSetup& setup = Setup();
  const db::ScalarFields filter = OneFieldFilter(kNameField, std::string("host-500"));
  const db::CompositeFields none;
  std::vector<uint32_t> ids;
  for (auto _ : state) CheckRc(state, setup.lib->RetrieveObjects(&ids, filter, none));
  state.counters["matches"] = static_cast<double>(ids.size());
}
BENCHMARK(BM_QueryScan_Lib)->Name("LevelDb/QueryOtherField/Lib");

void BM_QueryScan_Raw(benchmark::State& state) { RawScan(state, 2, "host-500"); }
BENCHMARK(BM_QueryScan_Raw)->Name("LevelDb/QueryOtherField/Raw");

}  // namespace
}  // namespace db_bench

BENCHMARK_MAIN();
