#include "fuzz_util.h"

#include <stdlib.h>

#include <filesystem>

#include "db/init.h"
#include "qelmw.h"
#include "support/leveldb_util.h"
#include "zlog.h"

namespace db_fuzz {

const std::string& Scratch() {
  static const std::string dir = [] {
    // Held for the whole process, so that the leak check at exit does not report it.
    static qelmw_t* const middleware = qelmw_create("db-intf-fuzz");
    db::Init(middleware);
    zlog_set_output(Sink());
    static std::string path =
        std::filesystem::temp_directory_path().string() + "/db-intf-fuzz-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) abort();
    atexit([] { std::filesystem::remove_all(path); });
    return path;
  }();
  return dir;
}

FILE* Sink() {
  static FILE* sink = fopen("/dev/null", "w");
  return sink;
}

std::vector<std::string> Split(const uint8_t* data, size_t size, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : std::string(reinterpret_cast<const char*>(data), size))
    c == separator ? (void)parts.emplace_back() : parts.back().push_back(c);
  return parts;
}

std::unique_ptr<db::DbObject> PopulatedTable(db::DbType type, const std::string& path,
                                             const std::string& table) {
  Scratch();
  auto object = std::make_unique<db::DbObject>(path, table, false, type);
  const struct {
    const char* name;
    db::AttributeType type;
    db::PrintFormat format;
  } fields[] = {{"num", db::kInteger, db::kDefault},     {"hex", db::kInteger, db::kHex},
                {"uns", db::kInteger, db::kUnsigned},    {"name", db::kString, db::kDefault},
                {"ratio", db::kFloat, db::kDefault},     {"ip", db::kBytes, db::kIpAddress},
                {"alt", db::kBytes, db::kIpAddressAlt1}, {"pfx", db::kBytes, db::kIpPrefixLen},
                {"mac", db::kBytes, db::kMac},           {"smac", db::kString, db::kMac},
                {"lim", db::kBytes, db::kLimId},         {"raw", db::kBytes, db::kHex}};
  for (const auto& f : fields)
    object->AppendScalarAttribute(f.name, db::Attribute(f.type), f.format);
  object->AppendCompositeAttribute("vlans", db::Attribute(db::kInteger), db::kDefault);
  object->AppendCompositeAttribute("tags", db::Attribute(db::kString), db::kDefault);
  if (type == db::kLevelDb) object->DeclareTableIndex("by_num", {"num", "name"});
  object->CreateObjTables();
  using Bytes = std::vector<uint8_t>;
  for (uint8_t i = 1; i <= 5; ++i) {
    object->ClearObject();
    const std::string n = std::to_string(i);
    db::ScalarFields& s = object->scalar_fields();
    s["num"] = i * 10;
    s["hex"] = 0xA0 + i;
    s["uns"] = -int32_t{i};
    s["name"] = "port " + n;
    s["ratio"] = static_cast<float>(i) / 2;
    s["ip"] = Bytes{10, 0, 0, i};
    s["pfx"] = Bytes{10, 0, i, 0, 255, 255, 255, 0};
    s["alt"] = Bytes{0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, i};
    s["mac"] = Bytes{2, 0, 0x5e, 0, 0, i};
    s["smac"] = "aa:bb:cc:dd:ee:0" + n;
    s["lim"] = Bytes{1, 1, 0, i};
    s["raw"] = Bytes{0, 0xFF, i};
    object->composite_fields()["vlans"].second = {db_test::Int(i), db_test::Int(100 + i)};
    object->composite_fields()["tags"].second = {db_test::Val("t" + n)};
    uint32_t id = 0;
    object->StoreObject(&id);
  }
  return object;
}

void Require(bool ok, const char* what) {
  if (ok) return;
  fprintf(stderr, "property broken: %s\n", what);
  abort();
}

}  // namespace db_fuzz
