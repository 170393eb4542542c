#include "elem_callbacks.h"

#include "db/db_object.h"
#include "elem_cmd.h"
#include "id_generator.h"
#include "support/leveldb_util.h"
#include "support/sqlite_util.h"
#include "support/test_util.h"

namespace db {
namespace {

using Bytes = std::vector<uint8_t>;

const std::string kRule(8 + 2 + 150, '-');
const std::string kInvalidArgs =
    "\nERROR! Invalid arguments.\nUsage: <cmd> start-id [num-entries]\n"
    "    where start-id and num-entries can be: NUM, all or *\n";
const std::string kNotAvailable = "\nERROR! Database not available.\n";

class ElemCallbacksTest : public ::testing::TestWithParam<DbType> {
 protected:
  ElemCallbacksTest() { IdGenerator::GetInstance().Reset(); }  // ids count from 1
  ~ElemCallbacksTest() override {
    object_.reset();
    ElemCmdGroupDestroy(group_);
  }

  // Table T (some fields renamed or hidden), its commands installed on the group.
  DbObject& MakeTable(bool create = true) {
    object_ = std::make_unique<DbObject>(dir_.File("db"), "T", false, GetParam());
    object_->AppendScalarAttribute("name", Attribute(kString), kDefault);
    object_->AppendScalarAttribute("port", Attribute(kInteger), kDefault);
    object_->AppendScalarAttribute("hidden", Attribute(kInteger), kDefault);
    object_->AppendCompositeAttribute("vlans", Attribute(kInteger), kDefault);
    object_->AppendCompositeAttribute("tags", Attribute(kString), kDefault);
    object_->ChangeAttributeStreamableName("port", "Port");
    object_->ChangeAttributeStreamableName("hidden", "");
    object_->ChangeAttributeStreamableName("vlans", "Vlans");
    EXPECT_EQ(0, create ? object_->CreateObjTables() : 0);
    object_->InstallDebugCmd(group_);
    return *object_;
  }

  uint32_t Store(const std::string& name, int32_t port, const std::vector<int32_t>& vlans,
                 const std::vector<std::string>& tags = {}) {
    object_->ClearObject();
    object_->scalar_fields()["name"] = name;
    object_->scalar_fields()["port"] = port;
    object_->scalar_fields()["hidden"] = int32_t{5};
    for (int32_t v : vlans) object_->composite_fields()["vlans"].second.emplace_back() = v;
    for (const auto& t : tags) object_->composite_fields()["tags"].second.emplace_back() = t;
    uint32_t id = 0;
    EXPECT_EQ(0, object_->StoreObject(&id));
    return id;
  }

  std::string Run(const std::string& line, bool web = false) {
    int rc = -1;
    std::string out = db_test::RunCommand(group_, line, web, &rc);
    EXPECT_EQ(0, rc) << line;
    return out;
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
  ELEM_CMD_GROUP_ST* group_ = ElemCmdGroupCreate("db");
  std::unique_ptr<DbObject> object_;
};

// The values of the rows that start with `name`, joined by blanks.
std::string Rows(const std::string& output, const std::string& name) {
  std::string values;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(name + " ", 0) != 0) continue;
    values += (values.empty() ? "" : " ") + line.substr(line.find_first_not_of(' ', name.size()));
  }
  return values;
}

std::string IdsTable(const std::string& table, const std::vector<uint32_t>& ids) {
  const std::string rule(10 + 2 + 8, '-');
  std::string text = table + " ids\n" + rule + "\nEntry Num.  Entry Id\n" + rule + "\n";
  for (size_t i = 0; i < ids.size(); ++i) {
    std::string num = std::to_string(i + 1);
    num.resize(12, ' ');
    text += num + std::to_string(ids[i]) + "\n";
  }
  return text + rule + "\n";
}

TEST_P(ElemCallbacksTest, CommandTextsRecordAndSizeOutputsAndErrorTexts) {
  MakeTable();
  ASSERT_EQ(4u, ElemCmdCommandCount(group_));
  const std::string commands[4] = {
      "Dump T|Dump T|Dump T Information", "Get Size T|Get size from T|Get size from T",
      "Retrieve Record T|Retrieve record from T|Retrieve record from T",
      "Retrieve Records T|Retrieve records from T|Retrieve records from T"};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(commands[i], std::string(ElemCmdCommandText(group_, i)) + "|" +
                               ElemCmdCommandHelp(group_, i) + "|" +
                               ElemCmdCommandDescription(group_, i));
    EXPECT_EQ(0, ElemCmdCommandAccessLevel(group_, i));
    EXPECT_EQ(5120u, ElemCmdCommandFlags(group_, i));
  }
  // Repeated values are joined even where one shows empty; the table trims
  // the trailing blank of the last separator.
  ASSERT_EQ(1u, Store("a b", 80, {10, 20}, {"", "x", ""}));
  Store("b", 2, {});
  EXPECT_EQ("Retrieving T information\n\nT internal Information\n" + kRule +
                "\nId        1\n          Content\nname      a_b\nPort      80\n"
                "tags      , x,\nVlans     10, 20\n" +
                kRule + "\n",
            Run("Retrieve Record T 1"));
  EXPECT_EQ("Getting Database size from T\n\nT database size\n--------\n2\n--------\n",
            Run("Get Size T"));
  const std::pair<const char*, std::string> cases[] = {
      {"Retrieve Record T all", "\nERROR! Invalid id=-1\n"},
      {"Retrieve Record T *", "\nERROR! Invalid id=-1\n"},
      {"Retrieve Record T 0", "\nERROR! Invalid id=0\n"},
      {"Retrieve Record T 99", "\nERROR! Entry not found.\n"},
      {"Retrieve Record T x", kInvalidArgs},
      {"Retrieve Record T -1", kInvalidArgs},
      {"Retrieve Record T 4294967296", kInvalidArgs},
      {"Retrieve Record T 2147483648", kInvalidArgs},
      {"Retrieve Record T 2147483647", "\nERROR! Entry not found.\n"},
      {"Retrieve Record T 1x", kInvalidArgs},
      {"Dump T all 3z", kInvalidArgs},
      {"Retrieve Record T", "Usage: Retrieve Record T <id>\n"},
      {"Dump T", "Usage: Dump T <id>\n"},
      {"Retrieve Records T", "Usage: Retrieve Records T <id>\n"}};
  for (const auto& [line, expected] : cases) EXPECT_EQ(expected, Run(line)) << line;
  EXPECT_EQ("Dump: 2 variable arguments\n", Run("Dump T", true));
}

TEST_P(ElemCallbacksTest, DumpSelectsByStartAndCount) {
  DbObject& object = MakeTable();
  for (int i = 1; i <= 7; ++i) Store("n", i, {});
  IdGenerator::GetInstance().set_last_id(9999);
  ASSERT_EQ(10000u, Store("n", 8, {}));
  ASSERT_EQ(0, object.DeleteSingleObject(6));
  // Ranges beyond 4096 ids scan the stored ids instead of probing each.
  const std::pair<const char*, const char*> cases[] = {{"Dump T all", "1 2 3 4 5 7 10000"},
                                                       {"Dump T * 3", "1 2 3"},
                                                       {"Dump T * 2", "1 2"},
                                                       {"Dump T 5 3", "5 7"},
                                                       {"Dump T 3 100000", "3 4 5 7 10000"},
                                                       {"Dump T 5 0", ""},
                                                       {"Dump T 100 2", ""},
                                                       {"Dump T 5000 5000", ""},
                                                       {"Dump T 5001 5000", "10000"}};
  for (const auto& [line, ids] : cases) {
    const std::string output = Run(line);
    EXPECT_EQ(ids, Rows(output, "Id")) << line;
    EXPECT_EQ(0u, output.rfind("Dumping T information\n\nT Internal Information\n", 0)) << line;
  }
  // A start id alone dumps nothing.
  EXPECT_EQ("Dumping T information\n\nT Internal Information\n" + kRule + "\n" + kRule + "\n",
            Run("Dump T 5"));
}

TEST_P(ElemCallbacksTest, RetrieveRecordsListsTheIdsThatMatch) {
  MakeTable();
  Store("a", 80, {10, 20});
  Store("b", 81, {20});
  Store("c", 80, {30});
  const std::pair<const char*, std::vector<uint32_t>> cases[] = {
      {"-s Port=80", {1, 3}},
      {"-s Port=80,name=c,Unknown=1", {3}},
      {"-s Port=(unset),", {1, 2, 3}},
      {"-s Port=80 -c Vlans=[20]", {1}},
      {"-s Port=80 -c Vlans=[30,20]", {1, 3}},
      {"-s Port=99", {}},
      {"-sPort=81", {2}}};  // one argument
  for (const auto& [args, ids] : cases) {
    EXPECT_EQ(IdsTable("T", ids), Run(std::string("Retrieve Records T ") + args)) << args;
  }
  // A repeated-field condition alone is not supported by the backends.
  EXPECT_EQ(kNotAvailable, Run("Retrieve Records T -c Vlans=[20]"));
}

// A missing table is not available; a stored value that does not convert
// becomes one error line, never an exception into the C shell.
TEST_P(ElemCallbacksTest, MissingTablesAndUnconvertibleValuesGiveOneErrorLine) {
  MakeTable(false);
  for (const char* line : {"Get Size T", "Dump T all", "Retrieve Records T -s Port=1"}) {
    EXPECT_EQ(kNotAvailable, Run(line)) << line;
  }
  ASSERT_EQ(0, object_->CreateObjTables());
  Store("a", 1, {});
  Store("b", 2, {});
  const std::string failed = "\nERROR! Could not read the table: ";
  if (GetParam() == kSqlite) {  // converted when a record is read
    db_test::RawDb(dir_.File("db")).Query("UPDATE T SET port='x' WHERE ID=2;");
    EXPECT_EQ(failed + "stoi\n", Run("Retrieve Record T 2"));
    const std::string dumped = Run("Dump T all");
    EXPECT_EQ("1", Rows(dumped, "Id"));
    EXPECT_THAT(dumped, testing::EndsWith(kRule + "\n" + failed + "id=2: stoi\n"));
  } else {  // converted when a filter meets the value
    db_test::PutRaw(dir_.File("db"), "T:2", "x,");
    EXPECT_EQ(failed + "stoi\n", Run("Retrieve Records T -s Port=2"));
  }
}

// Interface names show their blank as "_"; shown values typed back match.
TEST_P(ElemCallbacksTest, ShownValuesTypedBackFindTheRecord) {
  object_ = std::make_unique<DbObject>(dir_.File("db"), "F", false, GetParam());
  ASSERT_EQ(0, object_->AppendScalarAttribute("lim", Attribute(kBytes), kLimId));
  ASSERT_EQ(0, object_->AppendScalarAttribute("uns", Attribute(kInteger), kUnsigned));
  ASSERT_EQ(0, object_->CreateObjTables());
  object_->InstallDebugCmd(group_);
  for (uint8_t port : {3, 4}) {
    object_->scalar_fields()["lim"] = Bytes{1, 1, 0, port};  // eth 1/port
    object_->scalar_fields()["uns"] = int32_t{port == 3 ? -1 : 7};
    uint32_t id = 0;
    ASSERT_EQ(0, object_->StoreObject(&id));
  }
  const std::string shown = Run("Retrieve Record F 1");
  EXPECT_EQ("eth_1/3 4294967295", Rows(shown, "lim") + " " + Rows(shown, "uns"));
  for (const char* filter : {"lim=eth_1/3", "uns=4294967295"})
    EXPECT_EQ(IdsTable("F", {1}), Run(std::string("Retrieve Records F -s ") + filter));
}

INSTANTIATE_TEST_SUITE_P(Backends, ElemCallbacksTest, ::testing::Values(kSqlite, kLevelDb),
                         db_test::BackendName);

}  // namespace
}  // namespace db
