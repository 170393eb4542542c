#include "elem_callbacks.h"

#include "db/db_object.h"
#include "elem_parser.h"
#include "id_generator.h"
#include "support/leveldb_util.h"
#include "support/sqlite_util.h"
#include "support/test_util.h"

namespace db {
namespace {

const std::string kRule(8 + 2 + 150, '-');
const std::string kInvalidArgs =
    "\nERROR! Invalid arguments.\nUsage: <cmd> start-id [num-entries]\n"
    "    where start-id and num-entries can be: NUM, all or *\n";
const std::string kNotAvailable = "\nERROR! Database not available.\n";
const std::string kDumping = "Dumping T information\n\nT Internal Information\n" + kRule + "\n";

// The callbacks answer 0 to the shell, also after printing an error.
template <ELEM_CMD_CALLBACK F>
int ReturnsZero(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user) {
  EXPECT_EQ(0, F(ctx, argc, argv, user));
  return 0;
}
const ELEM_CMD_CALLBACK kChecked[] = {ReturnsZero<ElemCallbacks::DumpObjectToElem>,
                                      ReturnsZero<ElemCallbacks::GetDbSizeToElem>,
                                      ReturnsZero<ElemCallbacks::RetrieveRecordObjectToElem>,
                                      ReturnsZero<ElemCallbacks::RetrieveRecordsObjectToElem>};

class ElemCallbacksTest : public ::testing::TestWithParam<DbType> {
 protected:
  ElemCallbacksTest() { IdGenerator::GetInstance().Reset(); }  // ids count from 1
  ~ElemCallbacksTest() override {
    ElemCmdGroupDestroy(group_);
    ElemCmdGroupDestroy(checked_);
  }

  // Table T's commands on group_ and, checking their results, on checked_.
  void MakeTable(bool create = true) {
    object_ = std::make_unique<DbObject>(dir_.File("db"), "T", false, GetParam());
    const std::tuple<const char*, AttributeType, PrintFormat, const char*> scalars[] = {
        {"name", kString, kDefault, "name"}, {"port", kInteger, kDefault, "Port"},
        {"hidden", kInteger, kDefault, ""},  {"lim", kBytes, kLimId, "Lim"},
        {"uns", kInteger, kUnsigned, "uns"}, {"txt", kString, PrintFormat(9), "txt"}};
    for (const auto& [name, type, format, shown] : scalars) {
      EXPECT_EQ(0, object_->AppendScalarAttribute(name, Attribute(type), format));
      object_->ChangeAttributeStreamableName(name, shown);
    }
    object_->AppendCompositeAttribute("vlans", Attribute(kInteger), kDefault);
    object_->AppendCompositeAttribute("tags", Attribute(kString), kDefault);
    object_->ChangeAttributeStreamableName("vlans", "Vlans");
    EXPECT_EQ(0, create ? object_->CreateObjTables() : 0);
    object_->InstallDebugCmd(group_);
    for (size_t i = 0; i < 4; ++i)
      ElemCmdRegisterCommand(checked_, ElemCmdCommandText(group_, i), "", "", 0, 0, kChecked[i],
                             object_.get());
  }

  // The interface id is eth 1/`port`, the unsigned field holds -`port`.
  uint32_t Store(const std::string& name, uint8_t port, const std::vector<int32_t>& vlans,
                 const std::vector<std::string>& tags = {}) {
    object_->ClearObject();
    ScalarFields& s = object_->scalar_fields();
    s["name"] = s["txt"] = name;
    s["port"] = int32_t{port};
    s["hidden"] = int32_t{5};
    s["lim"] = std::vector<uint8_t>{1, 1, 0, port};
    s["uns"] = -int32_t{port};
    for (int32_t v : vlans) object_->composite_fields()["vlans"].second.emplace_back() = v;
    for (const auto& t : tags) object_->composite_fields()["tags"].second.emplace_back() = t;
    uint32_t id = 0;
    EXPECT_EQ(0, object_->StoreObject(&id));
    return id;
  }

  std::string Run(const std::string& line, bool web = false) {
    int rc = -1;
    std::string out = db_test::RunCommand(checked_, line, web, &rc);
    EXPECT_EQ(0, rc) << line;
    return out;
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
  ELEM_CMD_GROUP_ST* group_ = ElemCmdGroupCreate("db");
  ELEM_CMD_GROUP_ST* checked_ = ElemCmdGroupCreate("checked");
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

std::string IdsTable(const std::vector<uint32_t>& ids) {
  const std::string rule(10 + 2 + 8, '-');
  std::string text = "T ids\n" + rule + "\nEntry Num.  Entry Id\n" + rule + "\n";
  for (size_t i = 0; i < ids.size(); ++i) {
    std::string num = std::to_string(i + 1);
    text += num + std::string(12 - num.size(), ' ') + std::to_string(ids[i]) + "\n";
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
  // the trailing blank of the last separator. Only interface names and
  // default-format texts show their blanks as "_".
  ASSERT_EQ(1u, Store("a b", 80, {10, 20}, {"", "x", ""}));
  Store("b", 2, {});
  Store(std::string(155, 'x'), 3, {});  // cells beyond the widest column of 150 wrap
  EXPECT_THAT(Run("Retrieve Record T 3"),
              testing::HasSubstr("\ntxt       " + std::string(150, 'x') + "\n          xxxxx\n"));
  EXPECT_EQ(
      "Retrieving T information\n\nT internal Information\n" + kRule +
          "\nId        1\n          Content\nLim       eth_1/80\nname      a_b\nPort      80\n"
          "txt       a b\nuns       4294967216\ntags      , x,\nVlans     10, 20\n" +
          kRule + "\n",
      Run("Retrieve Record T 1"));
  EXPECT_EQ("Getting Database size from T\n\nT database size\n--------\n3\n--------\n",
            Run("Get Size T"));
  for (const char* line :
       {"Dump T all", "Get Size T", "Retrieve Record T 2", "Retrieve Records T -s Port=2"})
    EXPECT_EQ(Run(line), db_test::RunCommand(group_, line)) << line;
  for (const char* arg : {"x", "-1", "1x", "4294967296", "2147483648", "all 3z"})
    EXPECT_EQ(kInvalidArgs, Run(std::string("Retrieve Record T ") + arg)) << arg;
  const std::pair<const char*, std::string> cases[] = {
      {"Retrieve Record T all", "\nERROR! Invalid id=-1\n"},
      {"Retrieve Record T 0", "\nERROR! Invalid id=0\n"},
      {"Retrieve Record T 2147483647", "\nERROR! Entry not found.\n"},
      {"Dump T", "Usage: Dump T <id>\n"},
      {"Retrieve Records T", "Usage: Retrieve Records T <id>\n"}};
  for (const auto& [line, expected] : cases) EXPECT_EQ(expected, Run(line)) << line;
  EXPECT_EQ("Dump: 2 variable arguments\n", Run("Dump T", true));
}

TEST_P(ElemCallbacksTest, DumpSelectsByRangeAndRetrieveRecordsByFilter) {
  MakeTable();
  for (uint8_t i = 1; i <= 7; ++i) Store("n", i, {20, i});
  IdGenerator::GetInstance().set_last_id(9999);
  ASSERT_EQ(10000u, Store("n", 8, {}));
  ASSERT_EQ(0, object_->DeleteSingleObject(6));
  // Ranges beyond 4096 ids scan the stored ids instead of probing each.
  const std::pair<const char*, const char*> cases[] = {{"Dump T all", "1 2 3 4 5 7 10000"},
                                                       {"Dump T 5 all", "1 2 3 4 5 7 10000"},
                                                       {"Dump T * 3", "1 2 3"},
                                                       {"Dump T 5 3", "5 7"},
                                                       {"Dump T 3 100000", "3 4 5 7 10000"},
                                                       {"Dump T 5 0", ""},
                                                       {"Dump T 5000 5000", ""},
                                                       {"Dump T 5001 5000", "10000"}};
  for (const auto& [line, ids] : cases) {
    const std::string output = Run(line);
    EXPECT_EQ(ids, Rows(output, "Id")) << line;
    EXPECT_EQ(0u, output.rfind(kDumping, 0)) << line;
  }
  EXPECT_EQ(kDumping + kRule + "\n", Run("Dump T 5"));  // a start id alone dumps nothing
  // Shown values typed back match. Unknown options and names are skipped, so are repeated fields
  // after -s and single ones after -c; the groups after -c may be parted by ';', ',' and blanks.
  const std::pair<const char*, std::vector<uint32_t>> filters[] = {
      {"-s Port=2", {2}},
      {"-s Port=(unset),", {1, 2, 3, 4, 5, 7, 10000}},
      {"-s Port=99", {}},
      {"-x -s Nosuch=1,Vlans=5,name=n -c \"Other=[1] ;Vlans=[3], Port=[4]\"", {3}},
      {"-s Lim=eth_1/2", {2}},
      {"-s uns=4294967294", {2}}};
  EXPECT_EQ("src/lib/elem_parser.cc:414:ParseCmdParam(): ERROR! Invalid opt 63, optarg (null)\n",
            db_test::CaptureStderr([&] {
              for (const auto& [args, ids] : filters)
                EXPECT_EQ(IdsTable(ids), Run(std::string("Retrieve Records T ") + args)) << args;
            }));
  ScalarFields scalar;
  CompositeFields composite;
  EXPECT_EQ("src/lib/elem_parser.cc:398:ParseCmdParam(): ERROR! Invalid argv\n",
            db_test::CaptureStderr(
                [&] { ElemParser::ParseCmdParam(1, nullptr, *object_, scalar, composite); }));
  // A repeated-field condition alone is not supported by the backends.
  EXPECT_EQ(kNotAvailable, Run("Retrieve Records T -c Vlans=[20]"));
}

// A stored value that does not convert is one error line, never an exception into the C shell.
TEST_P(ElemCallbacksTest, MissingTablesAndUnconvertibleValuesGiveOneErrorLine) {
  MakeTable(false);
  // Up to 4096 ids are probed one by one: a missing table shows none.
  EXPECT_EQ(kDumping + kRule + "\n", Run("Dump T 1 4096"));
  for (const char* line :
       {"Get Size T", "Dump T all", "Dump T 1 4097", "Retrieve Records T -s Port=1"})
    EXPECT_EQ(kNotAvailable, Run(line)) << line;
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

INSTANTIATE_TEST_SUITE_P(Backends, ElemCallbacksTest, ::testing::Values(kSqlite, kLevelDb),
                         db_test::BackendName);

}  // namespace
}  // namespace db
