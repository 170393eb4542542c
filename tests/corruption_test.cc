// Damaged stored data read through the library and db-shell: every call ends in a code
// (negative with an "ERROR..." line) or a conversion exception that reading lets pass.

#include <filesystem>
#include <fstream>

#include "db/db_object.h"
#include "id_generator.h"
#include "leveldb_connector.h"
#include "support/leveldb_util.h"
#include "support/sqlite_util.h"
#include "support/test_util.h"

#ifndef DB_SHELL_PATH
#define DB_SHELL_PATH ""
#endif

namespace db_test {
namespace {

using db::Attribute;

std::unique_ptr<db::DbObject> Open(db::DbType type, const std::string& path) {
  auto object = std::make_unique<db::DbObject>(path, "recs", false, type);
  object->AppendScalarAttribute("num", Attribute(db::kInteger), db::kDefault);
  object->AppendScalarAttribute("name", Attribute(db::kString), db::kDefault);
  object->AppendScalarAttribute("ratio", Attribute(db::kFloat), db::kDefault);
  object->AppendScalarAttribute("raw", Attribute(db::kBytes), db::kHex);
  object->AppendCompositeAttribute("vals", Attribute(db::kInteger), db::kDefault);
  object->AppendCompositeAttribute("tags", Attribute(db::kString), db::kDefault);
  object->DeclareTableIndex("by_num", {"num"});
  return object;
}

void Fill(db::DbObject* object, int32_t n) {
  object->ClearObject();
  object->scalar_fields() = {{"num", Val(n * 10)},
                             {"name", Val("rec " + std::to_string(n))},
                             {"ratio", Val(static_cast<float>(n) / 2)},
                             {"raw", Val(std::vector<uint8_t>{static_cast<uint8_t>(n), 0, 0xFF})}};
  object->composite_fields()["vals"].second = {Val(n * 10 + 1), Val(n * 10 + 2)};
  object->composite_fields()["tags"].second = {Val("t" + std::to_string(n))};
}

using Damage = std::string (*)(const std::string&);
std::string Flip(const std::string& v) {
  std::string out = v;
  for (size_t i = 0; i < out.size(); i += 3) out[i] ^= 0x5A;
  return out;
}
std::string Truncate(const std::string& v) { return v.substr(0, v.size() / 2); }
std::string Foreign(const std::string&) { return std::string("\xFF\xFE\0,:9999999999,x:,", 19); }
const Damage kDamages[] = {Flip, Truncate, Foreign};

class CorruptionTest : public testing::TestWithParam<db::DbType> {
 protected:
  CorruptionTest() {
    // Records 1, 2 and 3, also when the tests share a process.
    db::IdGenerator::GetInstance().Reset();
    auto object = Open(type(), base_);
    EXPECT_EQ(object->CreateObjTables(), 0);
    for (int32_t n = 1; n <= 3; ++n) {
      Fill(object.get(), n);
      uint32_t id = 0;
      EXPECT_EQ(object->StoreObject(&id), 0);
    }
  }

  db::DbType type() const { return GetParam(); }
  bool leveldb() const { return type() == db::kLevelDb; }

  std::string Copy() {
    const std::string path = dir_.File("case" + std::to_string(++cases_));
    std::filesystem::copy(base_, path, std::filesystem::copy_options::recursive);
    return path;
  }

  // With `intact`, record 1 reads back after record 2 was read.
  void ExpectHandled(const std::string& path, bool intact) {
    std::unique_ptr<db::DbObject> object;
    auto check = [&](const char* what, auto call) {
      log_.Clear();
      try {
        const int rc = call();
        EXPECT_TRUE(rc >= 0 || rc == db::kNotFound || log_.Contains("ERROR") ||
                    !object->IsConnected())
            << what << " returned " << rc << " without an ERROR line";
      } catch (const std::invalid_argument&) {
      } catch (const std::out_of_range&) {
      }
    };
    check("open", [&] { return object = Open(type(), path), 0; });
    if (object != nullptr) {
      db::ScalarFields s;
      db::CompositeFields c;
      std::vector<uint32_t> ids;
      int size = 0;
      check("retrieve 2", [&] { return object->RetrieveObject(2, &s, &c); });
      if (intact) {
        ASSERT_EQ(object->RetrieveObject(1, &s, &c), 0);
        EXPECT_EQ(s.at("name"), Val(std::string("rec 1")));
        EXPECT_EQ(c.at("vals").second, (std::vector<Attribute>{Val(11), Val(12)}));
      }
      check("retrieve 3", [&] { return object->RetrieveObject(3, &s, &c); });
      check("all ids", [&] { return object->RetrieveObjects(&ids, {}, {}); });
      check("filter", [&] {
        return object->RetrieveObjects(&ids, {{"num", Val(20)}},
                                       {{"vals", {db::kInteger, {Val(21)}}}});
      });
      check("size", [&] { return object->GetObjTableSize(&size); });
      check("traverse", [&] { return object->TraverseObjects(nullptr); });
      check("update", [&] { return Fill(object.get(), 7), object->UpdateObject(2); });
      check("delete", [&] { return object->DeleteSingleObject(3); });
      uint32_t id = 0;
      check("store", [&] { return Fill(object.get(), 8), object->StoreObject(&id); });
    }
    object.reset();
    // Also when the schema could not be loaded: the database is closed again.
    EXPECT_TRUE(!leveldb() || !db::LevelDbConnector::GetInstance().LookupConnection(path));
    ExpectShellGoesOn(path);
  }

  // db-shell runs every command (or refuses the database) and ends without a sanitizer report.
  void ExpectShellGoesOn(const std::string& path) {
    if (std::string(DB_SHELL_PATH).empty()) return;
    std::vector<std::string> args = ProgramCommand(DB_SHELL_PATH);
    args.insert(args.end(), {leveldb() ? "--leveldb" : "--sqlite", path});
    for (const char* command :
         {"tables", "Dump recs all", "Retrieve Record recs 2",
          "Retrieve Records recs -s num=20 -c vals=[21]", "Get Size recs", "help"})
      args.insert(args.end(), {"-c", command});
    const ProgramRun run = RunProgram(args);
    EXPECT_TRUE(run.status == 0 || run.status == 1 || run.status == 2) << run.status << run.err;
    EXPECT_EQ(run.err.find("Sanitizer"), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("runtime error"), std::string::npos) << run.err;
    EXPECT_TRUE(run.status == 2 || run.out.find("Commands:") != std::string::npos)
        << "db-shell stopped early:\n"
        << run.out << run.err;
    // Each message one line, however damaged the record it quotes.
    EXPECT_TRUE(std::all_of(run.err.begin(), run.err.end(), [](char c) {
      return c == '\n' || (c >= 0x20 && c < 0x7F);
    })) << run.err;
  }

  LogCapture log_;
  TempDir dir_;
  std::string base_ = dir_.File("base");
  int cases_ = 0;
};

// LevelDB: each record kind and a key. SQLite: texts the columns do not hold, damaged bytes.
TEST_P(CorruptionTest, EveryRecordKindDamaged) {
  if (!leveldb()) {
    for (const char* statement :
         {"UPDATE recs SET num='x' WHERE ID=2", "UPDATE recs SET num='99999999999' WHERE ID=2",
          "UPDATE recs SET ratio='x', name=X'41FF', raw=X'00' WHERE ID=2",
          "UPDATE repeated_field_table_recs_vals SET vals='x' WHERE ID_recs=2",
          "UPDATE repeated_field_table_recs_tags SET tags=NULL WHERE ID_recs=2"}) {
      const std::string path = Copy();
      RawDb(path).Query(statement);
      SCOPED_TRACE(statement);
      ExpectHandled(path, true);
    }
  }
  for (Damage damage : kDamages) {
    if (!leveldb()) {
      const std::string path = Copy();
      const std::string file = ReadFile(path);
      // The first page holds the header and the schema; the rest the records.
      std::ofstream(path, std::ios::binary | std::ios::trunc)
          << (damage == Foreign ? damage(file) + file.substr(100)
                                : file.substr(0, 4096) + damage(file.substr(4096)));
      SCOPED_TRACE("file bytes");
      ExpectHandled(path, false);
      continue;
    }
    // Which keys leave record 1 readable; "key" damages the key of record 2.
    const std::pair<std::string, bool> targets[] = {
        {"recs:2", true},          {"vals:recs:2", true},
        {"schema:recs", false},    {"schema:repeated:recs", false},
        {"schema:recs:idx", true}, {"key", true}};
    for (const auto& [key, intact] : targets) {
      const std::string path = Copy();
      KeyValues records = Dump(path);
      if (key == "key") {
        records["recs:" + damage("2")] = records["recs:2"];
        records.erase("recs:2");
      } else {
        records[key] = damage(records.at(key));
      }
      std::filesystem::remove_all(path);
      Seed(path, records);
      SCOPED_TRACE(key + " damaged into '" + (key == "key" ? damage("2") : records[key]) + "'");
      ExpectHandled(path, intact);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Backends, CorruptionTest, testing::Values(db::kSqlite, db::kLevelDb),
                         BackendName);

}  // namespace
}  // namespace db_test
