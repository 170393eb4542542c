// LevelDB scaling: filtered retrieval through the secondary index and by a
// table scan, the table size, and opening a table (index rebuild and id
// resynchronisation) at 1k, 10k and 100k records; memory of the secondary
// index per record.
//
// Each record has a unique "name" (indexed) and a unique "mac" (not indexed),
// so both queries match one record whatever the table size.

#include <leveldb/db.h>
#include <leveldb/iterator.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_util.h"
#include "leveldb_connector.h"

namespace db_bench {
namespace {

constexpr char kTable[] = "scale";

// One database per size, filled by the library.
struct ScaledTable {
  ScratchDir dir;
  std::string path;
  std::unique_ptr<db::DbObject> object;
  uint32_t records = 0;
};

ScaledTable& Table(uint32_t records) {
  static std::map<uint32_t, std::unique_ptr<ScaledTable>> tables;
  std::unique_ptr<ScaledTable>& table = tables[records];
  if (table != nullptr) return *table;
  InitLibraryQuietly();
  table = std::make_unique<ScaledTable>();
  table->path = table->dir.File("db");
  table->records = records;
  table->object = std::make_unique<db::DbObject>(table->path, kTable, false, db::kLevelDb);
  DeclareRecordSchema(table->object.get());
  table->object->DeclareTableIndex("by_name", {kNameField});
  if (table->object->CreateObjTables() != db::kOk) std::abort();
  for (uint32_t n = 0; n < records; ++n) {
    FillRecord(table->object.get(), n);
    uint32_t id = 0;
    if (table->object->StoreObject(&id) != db::kOk) std::abort();
  }
  return *table;
}

void CheckRc(benchmark::State& state, int rc) {
  if (rc != db::kOk) state.SkipWithError(("library call failed, rc=" + std::to_string(rc)).c_str());
}

void BM_QueryIndexed(benchmark::State& state) {
  ScaledTable& table = Table(static_cast<uint32_t>(state.range(0)));
  const db::ScalarFields filter =
      OneFieldFilter(kNameField, MakeRecordValues(table.records / 2).name);
  const db::CompositeFields none;
  std::vector<uint32_t> ids;
  for (auto _ : state) CheckRc(state, table.object->RetrieveObjects(&ids, filter, none));
  state.counters["matches"] = static_cast<double>(ids.size());
}
BENCHMARK(BM_QueryIndexed)
    ->Name("Scaling/QueryIndexedField")
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);

void BM_QueryScan(benchmark::State& state) {
  ScaledTable& table = Table(static_cast<uint32_t>(state.range(0)));
  const db::ScalarFields filter =
      OneFieldFilter(kMacField, MakeRecordValues(table.records / 2).mac);
  const db::CompositeFields none;
  std::vector<uint32_t> ids;
  for (auto _ : state) CheckRc(state, table.object->RetrieveObjects(&ids, filter, none));
  state.counters["matches"] = static_cast<double>(ids.size());
}
BENCHMARK(BM_QueryScan)
    ->Name("Scaling/QueryOtherField")
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);

void BM_TableSize(benchmark::State& state) {
  ScaledTable& table = Table(static_cast<uint32_t>(state.range(0)));
  int32_t size = 0;
  for (auto _ : state) CheckRc(state, table.object->GetObjTableSize(&size));
  state.counters["size"] = size;
}
BENCHMARK(BM_TableSize)
    ->Name("Scaling/TableSize")
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);

// Opening the table: a second object on the same database (its handle stays
// open through the first) loads the schema records and rebuilds the index
// from every record; ResynchronizeDb then reads every id. The index memory is
// the heap growth across the constructor, divided by the record count.
void BM_Open_Lib(benchmark::State& state) {
  ScaledTable& table = Table(static_cast<uint32_t>(state.range(0)));
  double index_bytes = 0;
  for (auto _ : state) {
    const uint64_t before = AllocatedBytes();
    auto object = std::make_unique<db::DbObject>(table.path, kTable, false, db::kLevelDb);
    index_bytes = static_cast<double>(AllocatedBytes() - before);
    DeclareRecordSchema(object.get());
    CheckRc(state, object->ResynchronizeDb(false) > 0 ? db::kOk : db::kFailure);
  }
  state.counters["index_bytes_per_record"] = index_bytes / static_cast<double>(table.records);
}
BENCHMARK(BM_Open_Lib)
    ->Name("Scaling/Open/Lib")
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);

// The raw pair: one prefix scan over the same records reading every value.
void BM_Open_Raw(benchmark::State& state) {
  ScaledTable& table = Table(static_cast<uint32_t>(state.range(0)));
  leveldb::DB* db = db::LevelDbConnector::GetInstance().LookupConnection(table.path);
  const std::string prefix = std::string(kTable) + ":";
  uint64_t bytes = 0;
  for (auto _ : state) {
    bytes = 0;
    std::unique_ptr<leveldb::Iterator> it(db->NewIterator(leveldb::ReadOptions()));
    for (it->Seek(prefix); it->Valid() && it->key().starts_with(prefix); it->Next()) {
      bytes += it->value().ToString().size();
    }
    benchmark::DoNotOptimize(bytes);
  }
}
BENCHMARK(BM_Open_Raw)
    ->Name("Scaling/Open/Raw")
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace db_bench

BENCHMARK_MAIN();
