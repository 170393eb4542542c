#include "elem_cmd.h"

#include <stdio.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// What a callback saw, for the assertions.
struct Seen {
  int calls = 0;
  std::vector<std::string> args;
  bool argv_terminated = false;
  int web = -1;
};

int Record(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user) {
  auto* seen = static_cast<Seen*>(user);
  ++seen->calls;
  seen->args.assign(argv, argv + argc);
  seen->argv_terminated = argv[argc] == nullptr;
  seen->web = ElemCmdWebInterface(ctx);
  return 0;
}

class ElemCmdTest : public ::testing::Test {
 protected:
  void SetUp() override { group_ = ElemCmdGroupCreate("test"); }
  void TearDown() override { ElemCmdGroupDestroy(group_); }

  // Runs `line` and returns what the command printed; `*rc` gets the result.
  std::string Run(const std::string& line, int* rc = nullptr, bool web = false) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buffer, &size);
    int result = web ? ElemCmdExecuteWeb(group_, line.c_str(), out)
                     : ElemCmdExecute(group_, line.c_str(), out);
    fclose(out);
    std::string text(buffer, size);
    free(buffer);
    if (rc != nullptr) *rc = result;
    return text;
  }

  ELEM_CMD_GROUP_ST* group_ = nullptr;
};

TEST_F(ElemCmdTest, LongestMatchingCommandRunsWithTheRemainingWords) {
  Seen show, show_table, show_table_t;
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "Show", "h", "d", 0, 0, Record, &show));
  ASSERT_EQ(0,
            ElemCmdRegisterCommand(group_, "Show Table T", "h", "d", 0, 0, Record, &show_table_t));
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "Show Table", "h", "d", 0, 0, Record, &show_table));

  struct Case {
    const char* line;
    Seen* expected;
    std::vector<std::string> args;
  };
  const std::vector<Case> cases = {
      {"Show Table T x y", &show_table_t, {"x", "y"}},
      {"  Show   Table\tT  ", &show_table_t, {}},
      {"Show Table Tx", &show_table, {"Tx"}},
      {"Show Tablex", &show, {"Tablex"}},
      {"Show \"Table T\" 1", &show, {"Table T", "1"}},
      {"Show a \"b  c\" \"\" d\"e f\"", &show, {"a", "b  c", "", "de f"}},
      {"Show \"open quote", &show, {"open quote"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    Seen before = *c.expected;
    int rc = -2;
    Run(c.line, &rc);
    EXPECT_EQ(0, rc);
    EXPECT_EQ(before.calls + 1, c.expected->calls);
    EXPECT_EQ(c.args, c.expected->args);
    EXPECT_TRUE(c.expected->argv_terminated);
    EXPECT_EQ(0, c.expected->web);
  }
  EXPECT_EQ(4, show.calls);
  EXPECT_EQ(1, show_table.calls);
  EXPECT_EQ(2, show_table_t.calls);
}

TEST_F(ElemCmdTest, LineWithoutRegisteredCommandIsRefused) {
  Seen seen;
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "Get Size T", "", "", 0, 0, Record, &seen));
  for (const char* line : {"", "   ", "Get", "Get Size", "Get SizeT", "get size T", "Size T"}) {
    int rc = 0;
    EXPECT_EQ("", Run(line, &rc)) << line;
    EXPECT_EQ(-1, rc) << line;
  }
  EXPECT_EQ(0, seen.calls);
  FILE* out = tmpfile();
  EXPECT_EQ(-1, ElemCmdExecute(nullptr, "Get Size T", out));
  EXPECT_EQ(-1, ElemCmdExecute(group_, nullptr, out));
  EXPECT_EQ(-1, ElemCmdExecute(group_, "Get Size T", nullptr));
  fclose(out);
  EXPECT_EQ(0, seen.calls);
}

TEST_F(ElemCmdTest, RegistrationKeepsTextsFlagsAndOrder) {
  Seen seen;
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "Dump  T", "Dump T", "Dump T Information", 3, 5120,
                                      Record, &seen));
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "Get Size T", nullptr, nullptr, 0, 7, Record, &seen));
  EXPECT_EQ(-1, ElemCmdRegisterCommand(group_, "Dump T", "other", "", 0, 0, Record, &seen));
  EXPECT_EQ(-1, ElemCmdRegisterCommand(group_, "  ", "", "", 0, 0, Record, &seen));
  EXPECT_EQ(-1, ElemCmdRegisterCommand(group_, nullptr, "", "", 0, 0, Record, &seen));
  EXPECT_EQ(-1, ElemCmdRegisterCommand(group_, "X", "", "", 0, 0, nullptr, &seen));
  EXPECT_EQ(-1, ElemCmdRegisterCommand(nullptr, "X", "", "", 0, 0, Record, &seen));

  ASSERT_EQ(2u, ElemCmdCommandCount(group_));
  EXPECT_STREQ("Dump T", ElemCmdCommandText(group_, 0));
  EXPECT_STREQ("Dump T", ElemCmdCommandHelp(group_, 0));
  EXPECT_STREQ("Dump T Information", ElemCmdCommandDescription(group_, 0));
  EXPECT_EQ(3, ElemCmdCommandAccessLevel(group_, 0));
  EXPECT_EQ(5120u, ElemCmdCommandFlags(group_, 0));
  EXPECT_STREQ("Get Size T", ElemCmdCommandText(group_, 1));
  EXPECT_STREQ("", ElemCmdCommandHelp(group_, 1));
  EXPECT_EQ(7u, ElemCmdCommandFlags(group_, 1));
  EXPECT_EQ(nullptr, ElemCmdCommandText(group_, 2));
  EXPECT_EQ(0u, ElemCmdCommandCount(nullptr));
  EXPECT_STREQ("test", ElemCmdGroupName(group_));
}

// Prints what the test's `user` string says, through the output calls.
int Script(ELEM_CMD_CONTEXT_ST* ctx, int, char**, void* user) {
  const std::string which = static_cast<const char*>(user);
  if (which == "record") {
    const uint32_t widths[] = {4, 20};
    ElemCmdPrintf(ctx, "Dumping %s information\n\n", "T");
    ElemCmdStartTable(ctx, "T Internal Information", 2, 0, widths, 8, 30);
    ElemCmdTableEntry(ctx, 0, "Id");
    ElemCmdTableEntry(ctx, 1, "%d", 7);
    ElemCmdTableEntry(ctx, 1, "Content");
    ElemCmdTableEntry(ctx, 0, "%s", "a_long_display_name");
    ElemCmdTableEntry(ctx, 1, "%s", "v");
    ElemCmdEndTable(ctx);
  } else if (which == "heading") {
    ElemCmdStartTable(ctx, "T ids", 2, ELEM_CMD_TABLE_HEADING, nullptr, 4, 0);
    ElemCmdTableEntry(ctx, ELEM_CMD_NEXT_COLUMN, "Entry Num.");
    ElemCmdTableEntry(ctx, ELEM_CMD_NEXT_COLUMN, "Entry Id");
    ElemCmdTableEntry(ctx, ELEM_CMD_NEXT_COLUMN, "%d", 1);
    ElemCmdTableEntry(ctx, ELEM_CMD_NEXT_COLUMN, "%d", 12);
  } else if (which == "wrap") {
    const uint32_t widths[] = {2, 2};
    ElemCmdStartTable(ctx, "W", 2, 0, widths, 1, 5);
    ElemCmdTableEntry(ctx, 0, "abcdefghijkl");
    ElemCmdTableEntry(ctx, 1, "xy");
  } else if (which == "errors") {
    ElemCmdPrintf(ctx, "%d %d %d\n", ElemCmdTableEntry(ctx, 0, "x"), ElemCmdEndTable(ctx),
                  ElemCmdStartTable(ctx, "t", 0, 0, nullptr, 0, 0));
    ElemCmdStartTable(ctx, "t", 1, 0, nullptr, 8, 0);
    ElemCmdPrintf(ctx, "%d %d\n", ElemCmdTableEntry(ctx, 1, "x"), ElemCmdTableEntry(ctx, -2, "x"));
    ElemCmdEndTable(ctx);
  } else if (which == "usage") {
    if (ElemCmdWebInterface(ctx)) {
      ElemCmdGetVarArgs(ctx, "Dump", 2);
    } else {
      ElemCmdUsage(ctx, "<id>");
    }
  }
  return 0;
}

TEST_F(ElemCmdTest, TablesPrintAsAlignedColumnsUnderTheirTitle) {
  static char record[] = "record", heading[] = "heading", wrap[] = "wrap";
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "record", "", "", 0, 0, Script, record));
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "heading", "", "", 0, 0, Script, heading));
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "wrap", "", "", 0, 0, Script, wrap));

  // First column: the longest cell (19) beats the wanted 4; second column:
  // the wanted 20 is kept. Rules span both columns and the separator.
  const std::string rule(19 + 2 + 20, '-');
  EXPECT_EQ(
      "Dumping T information\n\n"
      "T Internal Information\n" +
          rule +
          "\n"
          "Id                   7\n"
          "                     Content\n"
          "a_long_display_name  v\n" +
          rule + "\n",
      Run("record"));

  // No wanted widths: the cells decide, but not below the minimum of 4; the
  // table left open by the callback is printed when the command returns.
  const std::string rule2(10 + 2 + 8, '-');
  EXPECT_EQ(
      "T ids\n" + rule2 + "\nEntry Num.  Entry Id\n" + rule2 + "\n1           12\n" + rule2 + "\n",
      Run("heading"));

  // Columns never grow beyond the maximum of 5: longer cells wrap.
  EXPECT_EQ("W\n---------\nabcde  xy\nfghij\nkl\n---------\n", Run("wrap"));
}

TEST_F(ElemCmdTest, TableCallsRefuseMisuse) {
  static char errors[] = "errors";
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "errors", "", "", 0, 0, Script, errors));
  EXPECT_EQ("-1 -1 -1\n-1 -1\nt\n--------\n--------\n", Run("errors"));
  EXPECT_EQ(-1, ElemCmdPrintf(nullptr, "x"));
  EXPECT_EQ(-1, ElemCmdUsage(nullptr, "x"));
  EXPECT_EQ(0, ElemCmdWebInterface(nullptr));
}

TEST_F(ElemCmdTest, UsageNamesTheCommandAndWebContextAsksForVarArgs) {
  static char usage[] = "usage";
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "Dump  T", "", "", 0, 0, Script, usage));
  EXPECT_EQ("Usage: Dump T <id>\n", Run("Dump T"));
  int rc = -2;
  EXPECT_EQ("Dump: 2 variable arguments\n", Run("Dump T", &rc, true));
  EXPECT_EQ(0, rc);

  Seen seen;
  ASSERT_EQ(0, ElemCmdRegisterCommand(group_, "web", "", "", 0, 0, Record, &seen));
  Run("web", nullptr, true);
  EXPECT_EQ(1, seen.web);
  Run("web");
  EXPECT_EQ(0, seen.web);
}

}  // namespace
