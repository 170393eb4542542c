#include "elem_callbacks.h"

#include <stdio.h>
#include <stdlib.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db/db_object.h"
#include "elem_cmd.h"
#include "id_generator.h"
#include "limid.h"
#include "support/test_util.h"

namespace db {
namespace {

using Bytes = std::vector<uint8_t>;

const std::string kRule(8 + 2 + 150, '-');
const std::string kInvalidArgs =
    "\nERROR! Invalid arguments.\nUsage: <cmd> start-id [num-entries]\n"
    "    where start-id and num-entries can be: NUM, all or *\n";

struct Backend {
  DbType type;
  const char* db_file;
};

class ElemCallbacksTest : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override {
    // Each test counts ids from 1, also when the suite runs in one process.
    IdGenerator::GetInstance().set_last_id(0);
    IdGenerator::GetInstance().free_ids().clear();
    group_ = ElemCmdGroupCreate("db");
  }
  void TearDown() override {
    objects_.clear();
    ElemCmdGroupDestroy(group_);
  }

  // A table T with a string, an integer shown as "Port", a hidden integer and
  // a repeated integer shown as "Vlans"; installed on the group.
  DbObject& MakeTable(bool create = true) {
    auto object =
        std::make_unique<DbObject>(dir_.File(GetParam().db_file), "T", false, GetParam().type);
    EXPECT_EQ(0, object->AppendScalarAttribute("name", Attribute(kString), kDefault));
    EXPECT_EQ(0, object->AppendScalarAttribute("port", Attribute(kInteger), kDefault));
    EXPECT_EQ(0, object->AppendScalarAttribute("hidden", Attribute(kInteger), kDefault));
    EXPECT_EQ(0, object->AppendCompositeAttribute("vlans", Attribute(kInteger), kDefault));
    object->ChangeAttributeStreamableName("port", "Port");
    object->ChangeAttributeStreamableName("hidden", "");
    object->ChangeAttributeStreamableName("vlans", "Vlans");
    if (create) {
      EXPECT_EQ(0, object->CreateObjTables());
    }
    object->InstallDebugCmd(group_);
    objects_.push_back(std::move(object));
    return *objects_.back();
  }

  uint32_t Store(DbObject& object, const std::string& name, int32_t port,
                 const std::vector<int32_t>& vlans) {
    object.ClearObject();
    object.scalar_fields()["name"] = name;
    object.scalar_fields()["port"] = port;
    object.scalar_fields()["hidden"] = int32_t{5};
    auto& repeated = object.composite_fields()["vlans"].second;
    for (int32_t v : vlans) {
      Attribute a(kInteger);
      a = v;
      repeated.push_back(a);
    }
    uint32_t id = 0;
    EXPECT_EQ(0, object.StoreObject(&id));
    return id;
  }

  std::string Run(const std::string& line, bool web = false) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buffer, &size);
    int rc = web ? ElemCmdExecuteWeb(group_, line.c_str(), out)
                 : ElemCmdExecute(group_, line.c_str(), out);
    fclose(out);
    std::string text(buffer, size);
    free(buffer);
    EXPECT_EQ(0, rc) << line;
    return text;
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
  ELEM_CMD_GROUP_ST* group_ = nullptr;
  std::vector<std::unique_ptr<DbObject>> objects_;
};

// The ids of the records a record table shows, in order.
std::vector<uint32_t> ListedIds(const std::string& output) {
  std::vector<uint32_t> ids;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("Id ", 0) == 0) ids.push_back(static_cast<uint32_t>(std::stoul(line.substr(3))));
  }
  return ids;
}

// The value shown in the row of `display_name`.
std::string ShownValue(const std::string& output, const std::string& display_name) {
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(display_name + " ", 0) == 0) {
      return line.substr(line.find_first_not_of(' ', display_name.size()));
    }
  }
  return "";
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

TEST_P(ElemCallbacksTest, InstallsFourCommandsWithTheirTexts) {
  MakeTable();
  ASSERT_EQ(4u, ElemCmdCommandCount(group_));
  const char* const expected[4][3] = {
      {"Dump T", "Dump T", "Dump T Information"},
      {"Get Size T", "Get size from T", "Get size from T"},
      {"Retrieve Record T", "Retrieve record from T", "Retrieve record from T"},
      {"Retrieve Records T", "Retrieve records from T", "Retrieve records from T"},
  };
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_STREQ(expected[i][0], ElemCmdCommandText(group_, i));
    EXPECT_STREQ(expected[i][1], ElemCmdCommandHelp(group_, i));
    EXPECT_STREQ(expected[i][2], ElemCmdCommandDescription(group_, i));
    EXPECT_EQ(0, ElemCmdCommandAccessLevel(group_, i));
    EXPECT_EQ(5120u, ElemCmdCommandFlags(group_, i));
  }
}

TEST_P(ElemCallbacksTest, RetrieveRecordShowsOneRecordWithDisplayNames) {
  DbObject& object = MakeTable();
  ASSERT_EQ(1u, Store(object, "a b", 80, {10, 20}));
  EXPECT_EQ(
      "Retrieving T information\n\n"
      "T internal Information\n" +
          kRule +
          "\n"
          "Id        1\n"
          "          Content\n"
          "name      a_b\n"
          "Port      80\n"
          "Vlans     10, 20\n" +
          kRule + "\n",
      Run("Retrieve Record T 1"));
}

TEST_P(ElemCallbacksTest, RetrieveRecordAnswersBadIdsWithTheirTexts) {
  DbObject& object = MakeTable();
  Store(object, "a", 1, {});
  const struct {
    const char* line;
    std::string expected;
  } cases[] = {
      {"Retrieve Record T all", "\nERROR! Invalid id=-1\n"},
      {"Retrieve Record T *", "\nERROR! Invalid id=-1\n"},
      {"Retrieve Record T 0", "\nERROR! Invalid id=0\n"},
      {"Retrieve Record T 99", "\nERROR! Entry not found.\n"},
      {"Retrieve Record T x", kInvalidArgs},
      {"Retrieve Record T 1 y", kInvalidArgs},
      {"Retrieve Record T -1", kInvalidArgs},
      {"Retrieve Record T 2147483648", kInvalidArgs},
      {"Retrieve Record T 4294967296", kInvalidArgs},
      {"Retrieve Record T 1x", kInvalidArgs},
      {"Retrieve Record T", "Usage: Retrieve Record T <id>\n"},
      {"Dump T", "Usage: Dump T <id>\n"},
      {"Dump T all 3z", kInvalidArgs},
      {"Retrieve Records T", "Usage: Retrieve Records T <id>\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.expected, Run(c.line)) << c.line;
  EXPECT_EQ("Dump: 2 variable arguments\n", Run("Dump T", true));
  EXPECT_EQ("Dump: 2 variable arguments\n", Run("Retrieve Record T", true));
}

TEST_P(ElemCallbacksTest, DumpSelectsByStartAndCount) {
  DbObject& object = MakeTable();
  for (int i = 1; i <= 7; ++i) Store(object, "n", i, {});
  ASSERT_EQ(0, object.DeleteSingleObject(6));
  const struct {
    const char* line;
    std::vector<uint32_t> ids;
  } cases[] = {
      {"Dump T all", {1, 2, 3, 4, 5, 7}},
      {"Dump T *", {1, 2, 3, 4, 5, 7}},
      {"Dump T all 3", {1, 2, 3}},
      {"Dump T * 2", {1, 2}},
      {"Dump T 5 3", {5, 7}},
      {"Dump T 2 all", {1, 2, 3, 4, 5, 7}},
      {"Dump T 3 100000", {3, 4, 5, 7}},
      {"Dump T 5", {}},
      {"Dump T 5 0", {}},
      {"Dump T 100 2", {}},
  };
  for (const auto& c : cases) {
    std::string output = Run(c.line);
    EXPECT_EQ(c.ids, ListedIds(output)) << c.line;
    EXPECT_EQ(0u, output.rfind("Dumping T information\n\nT Internal Information\n", 0)) << c.line;
  }
  EXPECT_EQ("Dumping T information\n\nT Internal Information\n" + kRule + "\n" + kRule + "\n",
            Run("Dump T 5"));
}

TEST_P(ElemCallbacksTest, GetSizeCountsRecords) {
  DbObject& object = MakeTable();
  Store(object, "a", 1, {});
  Store(object, "b", 2, {});
  EXPECT_EQ("Getting Database size from T\n\nT database size\n--------\n2\n--------\n",
            Run("Get Size T"));
}

TEST_P(ElemCallbacksTest, MissingTableIsNotAvailable) {
  MakeTable(false);
  EXPECT_EQ("\nERROR! Database not available.\n", Run("Get Size T"));
  EXPECT_EQ("\nERROR! Database not available.\n", Run("Dump T all"));
  EXPECT_EQ("\nERROR! Database not available.\n", Run("Retrieve Records T -s Port=1"));
}

TEST_P(ElemCallbacksTest, RetrieveRecordsListsTheIdsThatMatch) {
  DbObject& object = MakeTable();
  Store(object, "a", 80, {10, 20});
  Store(object, "b", 81, {20});
  Store(object, "c", 80, {30});
  const struct {
    const char* line;
    std::vector<uint32_t> ids;
  } cases[] = {
      {"Retrieve Records T -s Port=80", {1, 3}},
      {"Retrieve Records T -s Port=80,name=c", {3}},
      {"Retrieve Records T -s Port=80,Unknown=1", {1, 3}},
      {"Retrieve Records T -s Port=(unset),", {1, 2, 3}},
      {"Retrieve Records T -s Port=80 -c Vlans=[20]", {1}},
      {"Retrieve Records T -s Port=80 -c Vlans=[30,20]", {1, 3}},
      {"Retrieve Records T -s Port=99", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(IdsTable("T", c.ids), Run(c.line)) << c.line;
  // A repeated-field condition alone is not supported by the backends.
  EXPECT_EQ("\nERROR! Database not available.\n", Run("Retrieve Records T -c Vlans=[20]"));
}

TEST_P(ElemCallbacksTest, ShownValuesTypedBackFindTheRecord) {
  auto object =
      std::make_unique<DbObject>(dir_.File(GetParam().db_file), "F", false, GetParam().type);
  const struct {
    const char* field;
    PrintFormat format;
    AttributeType type;
  } fields[] = {
      {"hex", kHex, kBytes},       {"ip", kIpAddress, kBytes}, {"pfx", kIpPrefixLen, kBytes},
      {"mac", kMac, kBytes},       {"lim", kLimId, kBytes},    {"uns", kUnsigned, kInteger},
      {"text", kDefault, kString},
  };
  for (const auto& f : fields) {
    ASSERT_EQ(0, object->AppendScalarAttribute(f.field, Attribute(f.type), f.format));
  }
  ASSERT_EQ(0, object->CreateObjTables());
  object->InstallDebugCmd(group_);

  auto limid = [](const char* name) {
    uint32_t id = 0;
    EXPECT_EQ(0, limid_from_intfname(name, &id));
    Bytes bytes(4);
    std::memcpy(bytes.data(), &id, 4);
    return bytes;
  };
  const std::vector<AttributeValue> records[2] = {
      {Bytes{0x0a, 0xff}, Bytes{10, 0, 0, 1}, Bytes{10, 1, 0, 0, 255, 255, 0, 0},
       Bytes{0xaa, 0xbb, 0xcc, 1, 2, 3}, limid("eth 1/3"), int32_t{-1}, std::string("x")},
      {Bytes{0x0b}, Bytes{10, 0, 0, 2}, Bytes{10, 2, 0, 0, 255, 255, 0, 0},
       Bytes{0xaa, 0xbb, 0xcc, 1, 2, 4}, limid("lag 12"), int32_t{7}, std::string("y")},
  };
  uint32_t ids[2] = {0, 0};
  for (int r = 0; r < 2; ++r) {
    for (size_t i = 0; i < std::size(fields); ++i) {
      object->scalar_fields()[fields[i].field].set_value(records[r][i]);
    }
    ASSERT_EQ(0, object->StoreObject(&ids[r]));
  }

  const std::string shown = Run("Retrieve Record F " + std::to_string(ids[0]));
  EXPECT_EQ("eth_1/3", ShownValue(shown, "lim"));
  EXPECT_EQ("4294967295", ShownValue(shown, "uns"));
  for (const auto& f : fields) {
    const std::string value = ShownValue(shown, f.field);
    SCOPED_TRACE(std::string(f.field) + "=" + value);
    ASSERT_NE("", value);
    EXPECT_EQ(IdsTable("F", {ids[0]}),
              Run("Retrieve Records F -s " + std::string(f.field) + "=" + value));
  }
}

INSTANTIATE_TEST_SUITE_P(Backends, ElemCallbacksTest,
                         ::testing::Values(Backend{kSqlite, "t.db"}, Backend{kLevelDb, "ldb"}),
                         [](const ::testing::TestParamInfo<Backend>& info) {
                           return info.param.type == kSqlite ? std::string("Sqlite")
                                                             : std::string("LevelDb");
                         });

}  // namespace
}  // namespace db
