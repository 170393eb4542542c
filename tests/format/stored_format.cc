// Writes LevelDB and SQLite stores of every value kind and verifies them value and byte for byte;
// `exchange PEER...` lets a peer of another CPU verify ours and we verify its. Exits 0, 1 or 2.

#include <sys/wait.h>

#include <cstdint>

#include "db/db_object.h"
#include "support/leveldb_util.h"
#include "support/sqlite_util.h"
#include "support/test_util.h"

namespace {

using db::Attribute;
using db_test::Val;
using Bytes = std::vector<uint8_t>;
using namespace std::string_literals;

int failures = 0;

void Check(bool ok, const std::string& what) {
  if (!ok) failures++, fprintf(stderr, "stored-format: FAILED %s\n", what.c_str());
}

// Record 1 leaves two scalars unset and every repeated field empty.
using Record = std::pair<db::ScalarFields, db::CompositeFields>;

Record Make(Attribute mac, const std::string& name, Attribute ratio, int32_t speed,
            std::vector<Attribute> aliases, std::vector<Attribute> keys,
            std::vector<Attribute> vlans, std::vector<Attribute> weights) {
  return {{{"mac", mac}, {"name", Val(name)}, {"ratio", ratio}, {"speed", Val(speed)}},
          {{"aliases", {db::kString, aliases}},
           {"keys", {db::kBytes, keys}},
           {"vlans", {db::kInteger, vlans}},
           {"weights", {db::kFloat, weights}}}};
}

std::vector<Record> Records() {
  return {Make(Val(Bytes{0x00, 0xff, 0x80, 0x7f, 0x0a, 0x01}), "eth 1/3, 'up'", Val(-2.5f),
               INT32_MIN, {Val(std::string("a,b")), Val(std::string("x'y"))},
               {Val(Bytes{0xde, 0xad, 0xbe, 0xef}), Val(Bytes{0xff, 0x00})},
               {Val(10), Val(-1), Val(INT32_MAX)}, {Val(0.1f), Val(1e7f)}),
          Make(Attribute(db::kBytes), "eth0", Attribute(db::kFloat), 1000, {}, {}, {}, {}),
          Make(Val(Bytes{2, 0, 0, 0, 0, 1}), "lo", Val(1.5f), 0x01020304, {}, {}, {Val(20)}, {})};
}

std::string Path(const std::string& dir, db::DbType type) {
  return dir + (type == db::kLevelDb ? "/store" : "/store.sqlite");
}

std::unique_ptr<db::DbObject> Ports(const std::string& dir, db::DbType type) {
  auto ports = std::make_unique<db::DbObject>(Path(dir, type), "ports", false, type);
  const Record first = Records()[0];
  for (const auto& [name, value] : first.first)
    ports->AppendScalarAttribute(name, Attribute(value.type()), db::kDefault);
  for (const auto& [name, field] : first.second)
    ports->AppendCompositeAttribute(name, Attribute(field.first), db::kDefault);
  return ports;
}

void Write(const std::string& dir) {
  for (db::DbType type : {db::kLevelDb, db::kSqlite}) {
    auto ports = Ports(dir, type);
    Check(ports->CreateObjTables() == 0, "create tables");
    Check(ports->AddTableIndex("by_name", {"name", "speed"}) == 0, "add index");
    for (const Record& record : Records()) {
      ports->scalar_fields() = record.first;
      ports->composite_fields() = record.second;
      uint32_t id = 0;
      Check(ports->StoreObject(&id) == 0, "store");
    }
  }
}

// Column 0 of every row, read by sqlite3 itself; NULL as "NULL".
std::vector<std::string> RawSqlite(const std::string& path, const std::string& sql) {
  std::vector<std::string> rows;
  for (const db_test::Row& row : db_test::RawDb(path).Query(sql))
    rows.push_back(row.at(0).value_or("NULL"));
  return rows;
}

void CheckEqual(const std::vector<std::string>& got, const std::vector<std::string>& want,
                const std::string& what) {
  Check(got == want, what);
  for (size_t i = 0; i < got.size() && i < want.size(); ++i)
    if (got[i] != want[i])
      fprintf(stderr, "  [%zu] '%s' not '%s'\n", i, got[i].c_str(), want[i].c_str());
}

// The exact stored texts of record 0 (the first id stored) and of the schema.
void VerifyBytes(const std::string& dir) {
  const db_test::KeyValues all = db_test::Dump(Path(dir, db::kLevelDb));  // with leveldb itself
  std::vector<std::string> got;
  for (const char* key : {"schema:ports", "schema:repeated:ports", "schema:ports:idx", "ports:1",
                          "keys:ports:1", "vlans:ports:1", "weights:ports:1", "ports:3"})
    got.push_back(all.count(key) ? all.at(key) : "(missing)");
  CheckEqual(got,
             {"mac:3,name:1,ratio:2,speed:0,", "aliases:1,keys:3,vlans:0,weights:2,", "name,speed",
              "4,6,13,4,11,\x00\xff\x80\x7f\x0a\x01,eth 1/3, 'up',-2.5,-2147483648"s,
              "2,4,2,\xde\xad\xbe\xef,\xff\x00"s, "3,2,2,10,10,-1,2147483647", "2,3,5,0.1,1e+07",
              "4,6,2,3,8,\x02\x00\x00\x00\x00\x01,lo,1.5,16909060"s},
             "LevelDB stored bytes");
  // Bytes and strings are stored as escaped text: 0x00 as FF FE, 0xFF as FF FF.
  CheckEqual(RawSqlite(Path(dir, db::kSqlite),
                       "SELECT hex(mac) || '|' || name || '|' || ratio || '|' || speed FROM "
                       "ports "
                       "UNION ALL SELECT sql FROM sqlite_master WHERE name = 'by_name' "
                       "UNION ALL SELECT hex(keys) FROM repeated_field_table_ports_keys"),
             {"FFFEFFFF807F0A01|eth 1/3, 'up'|-2.5|-2147483648", "NULL",
              "02FFFEFFFEFFFEFFFE01|lo|1.5|16909060", "CREATE INDEX by_name ON ports (name,speed)",
              "DEADBEEF", "FFFFFFFE"},
             "SQLite stored bytes");
}

db::CompositeFields SetElements(db::CompositeFields fields) {
  for (auto& [name, field] : fields) field.second = db_test::SetOnly(field.second);
  return fields;
}

void Verify(const std::string& dir) {
  VerifyBytes(dir);
  const std::vector<Record> want = Records();
  for (db::DbType type : {db::kLevelDb, db::kSqlite}) {
    const std::string kind = type == db::kLevelDb ? "LevelDB " : "SQLite ";
    auto ports = Ports(dir, type);
    std::vector<uint32_t> ids;
    Check(ports->RetrieveObjects(&ids, {}, {}) == 0 && ids.size() == want.size(),
          kind + "record ids");
    std::sort(ids.begin(), ids.end());
    for (size_t i = 0; i < ids.size() && i < want.size(); ++i) {
      Record got;
      Check(ports->RetrieveObject(ids[i], &got.first, &got.second) == 0, kind + "retrieve");
      Check(got.first == want[i].first, kind + "scalars of record " + std::to_string(i));
      Check(SetElements(got.second) == want[i].second,
            kind + "repeated of record " + std::to_string(i));
    }
  }
}

bool Run(std::vector<std::string> command, const char* mode, const std::string& dir) {
  command.insert(command.end(), {mode, dir});
  int status = 0;
  return waitpid(db_test::StartProgram(command, 1, 2), &status, 0) > 0 && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  db_test::InitLibrary();
  if (mode == "write" && argc == 3) {
    Write(argv[2]);
  } else if (mode == "verify" && argc == 3) {
    Verify(argv[2]);
  } else if (mode == "exchange" && argc > 2) {
    const std::vector<std::string> peer(argv + 2, argv + argc);
    // Ids are allocated process-wide: this process writes before it reads.
    db_test::TempDir theirs, ours;
    Write(ours.path());
    Check(Run(peer, "verify", ours.path()), "peer verify");
    Check(Run(peer, "write", theirs.path()), "peer write");
    Verify(theirs.path());
  } else {
    fprintf(stderr, "usage: stored-format write DIR | verify DIR | exchange PEER-COMMAND...\n");
    return 2;
  }
  printf("stored-format %s: %s\n", mode.c_str(), failures == 0 ? "passed" : "FAILED");
  return failures == 0 ? 0 : 1;
}
