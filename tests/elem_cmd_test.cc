#include "elem_cmd.h"

#include "support/test_util.h"

namespace {

using db_test::RunCommand;

struct Seen {
  int calls = 0;
  int web = -1;
  std::vector<std::string> args;
};

int Record(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user) {
  auto* seen = static_cast<Seen*>(user);
  ++seen->calls;
  seen->args.assign(argv, argv + argc);
  seen->web = ElemCmdWebInterface(ctx);
  return 0;
}

class ElemCmdTest : public ::testing::Test {
 protected:
  ~ElemCmdTest() override { ElemCmdGroupDestroy(group_); }
  int Register(const char* command, ELEM_CMD_CALLBACK callback, void* user = nullptr) {
    return ElemCmdRegisterCommand(group_, command, "h", "d", 0, 0, callback, user);
  }
  ELEM_CMD_GROUP_ST* group_ = ElemCmdGroupCreate("test");
};

TEST_F(ElemCmdTest, LongestMatchingCommandRunsWithTheRemainingWords) {
  Seen show, table, table_t;
  ASSERT_EQ(0, Register("Show", Record, &show));
  ASSERT_EQ(0, Register("Show  Table T", Record, &table_t));  // blanks collapsed
  ASSERT_EQ(0, Register("Show Table", Record, &table));
  EXPECT_EQ(-1, Register("Show\tTable", Record));  // no duplicates
  const struct {
    const char* line;
    Seen* expected;
    std::vector<std::string> args;
  } cases[] = {{"Show Table T x y", &table_t, {"x", "y"}},
               {"  Show   Table\tT  ", &table_t, {}},
               {"Show Table Tx", &table, {"Tx"}},
               {"Show \"Table T\" 1", &show, {"Table T", "1"}},
               {"Show a \"b  c\" \"\" d\"e f\"", &show, {"a", "b  c", "", "de f"}},
               {"Show \"open quote", &show, {"open quote"}}};
  for (const auto& c : cases) {
    const int calls = c.expected->calls;
    EXPECT_EQ(0, ElemCmdExecute(group_, c.line, stdout)) << c.line;
    EXPECT_EQ(calls + 1, c.expected->calls) << c.line;
    EXPECT_EQ(c.args, c.expected->args) << c.line;
  }
  EXPECT_EQ(0, show.web);
  RunCommand(group_, "Show", /*web=*/true);
  EXPECT_EQ(1, show.web);
  for (const char* line : {"", "Sho", "show", "Table T"})  // no command starts these
    EXPECT_EQ(-1, ElemCmdExecute(group_, line, stdout)) << line;
  EXPECT_EQ(4, show.calls);
}

// The usual layouts are checked by the debug commands' outputs.
TEST_F(ElemCmdTest, LongCellsWrap) {
  // Columns never grow beyond the maximum of 5: longer cells wrap.
  Register("wrap", [](ELEM_CMD_CONTEXT_ST* ctx, int, char**, void*) {
    const uint32_t widths[] = {2, 2};
    ElemCmdStartTable(ctx, "W", 2, 0, widths, 1, 5);
    ElemCmdTableEntry(ctx, 0, "abcdefghijkl");
    return ElemCmdTableEntry(ctx, 1, "xy");
  });
  EXPECT_EQ("W\n---------\nabcde  xy\nfghij\nkl\n---------\n", RunCommand(group_, "wrap"));
}

}  // namespace
