// db-shell run as a separate process on databases written through the library.

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "db/db_object.h"
#include "elem_cmd.h"
#include "support/sqlite_util.h"

#ifndef DB_SHELL_PATH
#define DB_SHELL_PATH ""  // db-shell not built: every test is skipped
#endif

namespace {

using db::Attribute;
using db::DbObject;
using db_test::Val;

// Runs db-shell on `input` with a $TMPDIR of its own, which must be empty again afterwards.
db_test::ProgramRun RunShell(const std::vector<std::string>& args, const std::string& input = "") {
  db_test::TempDir tmp;
  std::vector<std::string> argv = {"env", "TMPDIR=" + tmp.path()};
  for (const auto& word : db_test::ProgramCommand(DB_SHELL_PATH)) argv.push_back(word);
  argv.insert(argv.end(), args.begin(), args.end());
  db_test::ProgramRun run = db_test::RunProgram(argv, input);
  EXPECT_TRUE(std::filesystem::is_empty(tmp.path())) << "the private copy is left behind";
  return run;
}

const char kTables[] =
    "links\n  cost  integer\n  peer  string\n"
    "ports\n  mac    bytes\n  name   string\n  ratio  float\n  speed  integer\n"
    "  vlans  integer, repeated\n";

class DbShellTest : public testing::TestWithParam<db::DbType> {
 protected:
  void SetUp() override {
    if (std::string(DB_SHELL_PATH).empty()) GTEST_SKIP() << "db-shell is not built";
  }
  bool sqlite() const { return GetParam() == db::kSqlite; }
  // Characters that mean something in an SQLite URI, which a read-only open must escape.
  std::string Path() const { return dir_.File(sqlite() ? "net?%23#.sqlite" : "net"); }
  std::vector<std::string> Args(const std::vector<std::string>& commands = {}) const {
    std::vector<std::string> args = {sqlite() ? "--sqlite" : "--leveldb", Path()};
    for (const auto& command : commands) args.insert(args.end(), {"-c", command});
    return args;
  }

  // Table ports or links, declared as the test writes them.
  std::unique_ptr<DbObject> Table(const std::string& name) const {
    auto table = std::make_unique<DbObject>(Path(), name, false, GetParam());
    const db::AttributeType ports[] = {db::kString, db::kInteger, db::kFloat, db::kBytes};
    const std::vector<std::string> fields = {name == "links" ? "peer" : "name",
                                             name == "links" ? "cost" : "speed", "ratio", "mac"};
    for (size_t i = 0; i < (name == "links" ? 2 : 4); ++i)
      table->AppendScalarAttribute(fields[i], Attribute(ports[i]), db::kDefault);
    if (name == "ports")
      table->AppendCompositeAttribute("vlans", Attribute(db::kInteger), db::kDefault);
    return table;
  }

  // Three ports and one link; the objects are gone when this returns.
  void WriteDatabase() {
    auto ports = Table("ports"), links = Table("links");
    ASSERT_EQ(0, ports->CreateObjTables() + links->CreateObjTables());
    const std::vector<std::vector<int32_t>> vlans = {{10, 20}, {20}, {}};
    uint32_t id = 0;
    for (uint8_t i = 0; i < 3; ++i) {
      ports->scalar_fields() = {
          {"name", Val(std::string(i == 1 ? "eth 1" : "eth" + std::to_string(i)))},
          {"speed", Val(i == 0 ? 1000 : 10000)},
          {"ratio", Val(0.5f + 0.75f * i)},
          {"mac", Val(std::vector<uint8_t>{2, 0, 0, 0, 0, uint8_t(i + 1)})}};
      ports->composite_fields()["vlans"].second.clear();
      for (int32_t vlan : vlans[i]) ports->composite_fields()["vlans"].second.push_back(Val(vlan));
      ASSERT_EQ(0, ports->StoreObject(&id));
    }
    links->scalar_fields() = {{"peer", Val(std::string("core-1"))}, {"cost", Val(7)}};
    ASSERT_EQ(0, links->StoreObject(&id));
  }

  // What `commands` print on the library's own command group.
  std::string LibraryOutput(const std::vector<std::string>& commands) const {
    auto ports = Table("ports"), links = Table("links");
    ELEM_CMD_GROUP_ST* group = ElemCmdGroupCreate("reference");
    ports->InstallDebugCmd(group);
    links->InstallDebugCmd(group);
    std::string out;
    for (const auto& command : commands) out += db_test::RunCommand(group, command);
    ElemCmdGroupDestroy(group);
    return out;
  }

  // Every file of the test's directory with its bytes and modification time (SQLite's shared
  // memory index aside, which readers write to).
  std::string Snapshot() const {
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_.path()))
      if (entry.is_regular_file() && entry.path().extension() != ".sqlite-shm")
        files.insert(entry.path());
    std::string text;
    for (const auto& file : files) {
      text += file.string() + " " +
              std::to_string(std::filesystem::last_write_time(file).time_since_epoch().count()) +
              "\n" + db_test::ReadFile(file) + "\n";
    }
    return text;
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
};

// A LevelDB database held open by a daemon (here this process, whose handle
// holds LevelDB's lock) is read from a private copy, recent writes included.
TEST_P(DbShellTest, CommandsPrintWhatTheLibraryPrintsChangeNothingAndSetTheExitStatus) {
  WriteDatabase();
  auto held = Table("ports");
  held->scalar_fields()["name"] = Val(std::string("late"));
  uint32_t late = 0;
  ASSERT_EQ(0, held->StoreObject(&late));
  const std::vector<std::string> commands = {"Get Size ports",
                                             "Retrieve Record ports " + std::to_string(late),
                                             "Dump ports all",
                                             "Retrieve Records ports -s speed=10000",
                                             "Retrieve Records ports -s speed=1000 -c vlans=[20]",
                                             "Retrieve Record ports 999",
                                             "Dump links all"};
  const std::string expected = LibraryOutput(commands);  // may rewrite LevelDB's files
  const std::string before = Snapshot();
  db_test::ProgramRun run = RunShell(Args(commands));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(expected, run.out);
  run = RunShell(Args({"tables", "help"}));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(0u, run.out.find(kTables)) << run.out;
  for (const char* text : {"Dump ports start-id [num-entries]", "Get Size links",
                           "Retrieve Record ports id", "Retrieve Records links [-s", "quit"}) {
    EXPECT_NE(std::string::npos, run.out.find(text)) << text;
  }
  EXPECT_EQ(before, Snapshot());
  // Row: -c commands, standard input, exit status, stderr part; the output is Get Size links'.
  using Case = std::tuple<std::vector<std::string>, const char*, int, const char*>;
  const std::string size = "Get Size links";
  const Case cases[] = {
      {{}, "# comment\n\nGet Size links\nquit\nGet Size ports\n", 0, ""},
      {{}, "Get Size links\nget size ports\n", 1, "unknown command: get size"},
      {{"Get Size nosuchtable", size}, "", 1, "command: Get Size n"},
      // The filter parser would never return on a group without a name.
      {{"Retrieve Records ports -s speed=1 -c =[1]", size}, "", 1, "refused"},
      {{"Retrieve Records ports -xc=[1]", size}, "", 1, "refused"},
  };
  for (const auto& [commands, input, status, err] : cases) {
    run = RunShell(Args(commands), input);
    EXPECT_EQ(status, run.status) << run.err;
    EXPECT_EQ(LibraryOutput({size}), run.out);
    EXPECT_NE(std::string::npos, run.err.find(err)) << run.err;
  }
}

// Exit 2 with one line on standard error, nothing created or touched.
TEST(DbShellOpenTest, RefusedDatabasesAndArgumentsExitTwo) {
  if (std::string(DB_SHELL_PATH).empty()) GTEST_SKIP() << "db-shell is not built";
  db_test::TempDir dir;
  std::ofstream(dir.File("text.sqlite")) << "this is not a database\n";
  std::filesystem::create_directory(dir.File("bad"));
  std::ofstream(dir.File("bad/CURRENT")) << "MANIFEST-000009";
  const std::string e = dir.path(), t = dir.File("text.sqlite");
  const std::vector<std::pair<std::vector<std::string>, const char*>> cases = {
      {{"--sqlite", dir.File("missing.sqlite")}, "No such file"},
      {{"--leveldb", dir.File("missing")}, "No such file"},
      {{"--leveldb", e}, "not a LevelDB database"},
      {{"--leveldb", dir.File("bad")}, "CURRENT file does not end with newline"},
      {{"--sqlite", t}, "not a SQLite database"},
      {{}, "give one of --sqlite FILE and --leveldb DIR"},
      {{"--sqlite"}, "needs a value"},
      {{"--sqlite", t, "--leveldb", e}, "exactly one"},
      {{"--sqlite", t, "--bogus"}, "unknown option --bogus"},
      {{"--leveldb", e, "stray"}, "unexpected argument stray"},
  };
  for (const auto& [args, message] : cases) {
    db_test::ProgramRun run = RunShell(args);
    EXPECT_EQ(2, run.status) << message;
    EXPECT_EQ("", run.out);
    EXPECT_NE(std::string::npos, run.err.find(message)) << run.err;
    EXPECT_EQ(run.err.size() - 1, run.err.find('\n')) << run.err;  // one line
  }
  EXPECT_FALSE(std::filesystem::exists(dir.File("missing.sqlite")));
  db_test::ProgramRun help = RunShell({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0u, help.out.find("Usage: db-shell (--sqlite FILE | --leveldb DIR)")) << help.out;
  EXPECT_EQ("", help.err);
}

TEST_P(DbShellTest, TerminalCompletesCommandWordsAndRecallsHistory) {
  if (sqlite() || system("tmux -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "LevelDB with tmux";
  WriteDatabase();
  const std::string size = "db-shell> Get Size ports\n" + LibraryOutput({"Get Size ports"});
  // A tmux server of our own, so that no session of the user is touched.
  const std::string tmux = "env -u TMUX tmux -f /dev/null -L db-shell-" + std::to_string(getpid());
  auto send = [&](const std::string& args) { return system((tmux + " " + args).c_str()); };
  std::shared_ptr<void> server(nullptr, [&](void*) { send("kill-server"); });
  std::string shell;
  for (const auto& word : db_test::ProgramCommand(DB_SHELL_PATH)) shell += "'" + word + "' ";
  ASSERT_EQ(0,
            send("new-session -d -s shell -x 160 -y 50 \"" + shell + "--leveldb " + Path() + "\""));
  // Tab completes the command's words, then a table name; Up recalls the last command.
  for (const auto& [keys, expected] :
       std::vector<std::pair<std::string, std::string>>{{"", "db-shell>"},
                                                        {"'Get Si' Tab", "db-shell> Get Size"},
                                                        {"p Tab", "db-shell> Get Size ports"},
                                                        {"Enter", size + "db-shell>"},
                                                        {"Up", size + "db-shell> Get Size ports"},
                                                        {"Enter", size + size + "db-shell>"}}) {
    send("send-keys -t shell " + keys);
    std::string screen;  // polled until, without trailing blanks, it is `expected`
    for (int i = 0; i < 300 && screen != expected; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      send("capture-pane -p -t shell >" + dir_.File("screen"));
      screen = db_test::ReadFile(dir_.File("screen"));
      screen.erase(screen.find_last_not_of(" \n") + 1);
    }
    EXPECT_EQ(expected, screen);
  }
  send("send-keys -t shell quit Enter");
}

INSTANTIATE_TEST_SUITE_P(Backends, DbShellTest, testing::Values(db::kSqlite, db::kLevelDb),
                         db_test::BackendName);

}  // namespace
