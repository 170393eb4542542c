// The platform stand-ins: the zlog line, the middleware registration and the command shell.

#include <stdio.h>

#include "elem_cmd.h"
#include "qelmw.h"
#include "support/test_util.h"
#include "zlog.h"

namespace {

TEST(ZlogTest, LineFormatAndOutput) {
  EXPECT_EQ(db_test::CaptureStderr([] {
              // File and function are cut to their given lengths; a null category is "-".
              zlog(nullptr, "src/lib/x.cc-garbage", 12, "Init-garbage", 4, 5, 10, "hello");
              zlog(nullptr, nullptr, 3, nullptr, 3, 0, 12, nullptr);
            }),
            "- 10 src/lib/x.cc:5 Init: hello\n- 12 :0 : \n");
  db_test::TempDir dir;  // the stand-in alone: no library start-up, unlike LogCapture
  FILE* file = fopen(dir.File("log").c_str(), "w");
  ASSERT_NE(file, nullptr);
  zlog_set_output(file);
  zlog(nullptr, "f.cc", 4, "g", 1, 1, 12, "to the file");
  zlog_set_output(nullptr);  // Back to standard error.
  fclose(file);
  EXPECT_EQ(db_test::ReadFile(dir.File("log")), "- 12 f.cc:1 g: to the file\n");
  EXPECT_EQ(db_test::CaptureStderr([] { zlog(nullptr, "f.cc", 4, "g", 1, 2, 12, "x"); }),
            "- 12 f.cc:2 g: x\n");

  EXPECT_EQ(qelmw_trace_register_category("db_intf", nullptr), nullptr);
  qelmw_t* mw = qelmw_create("app");
  EXPECT_EQ(qelmw_trace_register_category("db_intf", mw), zlog_get_category("db_intf"));
  qelmw_destroy(mw);
}

int Record(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user) {
  auto* seen = static_cast<std::vector<std::string>*>(user);
  seen->assign(argv, argv + argc);
  seen->insert(seen->begin(), ElemCmdWebInterface(ctx) ? "web" : "cli");
  return 0;
}

// The longest registered command ending at a word boundary runs with the remaining words.
TEST(ElemCmdTest, LongestMatchingCommandRunsWithTheRemainingWords) {
  using Words = std::vector<std::string>;
  ELEM_CMD_GROUP_ST* group = ElemCmdGroupCreate("test");
  Words show, table, table_t;
  for (const auto& [command, seen] :
       {std::pair{"Show", &show}, {"Show Table T", &table_t}, {"Show Table", &table}})
    ASSERT_EQ(ElemCmdRegisterCommand(group, command, "h", "d", 0, 0, Record, seen), 0);
  EXPECT_EQ(ElemCmdRegisterCommand(group, "Show  Table", "h", "d", 0, 0, Record, &show), -1);
  const struct {
    const char* line;
    Words* seen;
    Words words;
  } cases[] = {{"Show Table T x y", &table_t, {"cli", "x", "y"}},
               {"  Show   Table\tT  ", &table_t, {"cli"}},
               {"Show Table Tx", &table, {"cli", "Tx"}},
               {"Show a \"b  c\" \"\" d\"e f\"", &show, {"cli", "a", "b  c", "", "de f"}},
               {"Show \"open quote", &show, {"cli", "open quote"}}};
  for (const auto& c : cases) {
    EXPECT_EQ(ElemCmdExecute(group, c.line, stdout), 0) << c.line;
    EXPECT_EQ(*c.seen, c.words) << c.line;
  }
  db_test::RunCommand(group, "Show", /*web=*/true);
  EXPECT_EQ(show, Words{"web"});
  for (const char* line : {"", "Sho", "Showx", "show", "Table T"})
    EXPECT_EQ(ElemCmdExecute(group, line, stdout), -1) << line;
  ElemCmdGroupDestroy(group);
}

}  // namespace
