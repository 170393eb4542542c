// End-to-end tests of the db-shell program: databases written through the
// library on both backends, the shell run as a separate process, its standard
// output, standard error and exit status compared.

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <leveldb/db.h>
#include <leveldb/iterator.h>
#include <sqlite3.h>

#include "db/db_object.h"
#include "elem_cmd.h"
#include "support/test_util.h"

// The build passes the program's path; without db-shell (tools not built)
// every test is skipped.
#ifndef DB_SHELL_PATH
#define DB_SHELL_PATH ""
#endif

namespace {

using db::Attribute;
using db::DbObject;
using db::DbType;

struct ShellRun {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs db-shell with `args`, standard input from `input` (a file written
// for the purpose; empty text gives an empty input).
ShellRun RunShell(const std::vector<std::string>& args, const std::string& input = std::string()) {
  db_test::TempDir io;
  const std::string in_path = io.File("in");
  const std::string out_path = io.File("out");
  const std::string err_path = io.File("err");
  {
    std::ofstream in(in_path, std::ios::binary);
    in << input;
  }
  std::vector<std::string> words = {DB_SHELL_PATH};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int in = open(in_path.c_str(), O_RDONLY);
    int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || out < 0 || err < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  ShellRun run;
  int wait_status = 0;
  if (pid > 0 && waitpid(pid, &wait_status, 0) == pid && WIFEXITED(wait_status)) {
    run.status = WEXITSTATUS(wait_status);
  }
  run.out = db_test::ReadFile(out_path);
  run.err = db_test::ReadFile(err_path);
  return run;
}

Attribute Int(int32_t v) {
  Attribute a(db::kInteger);
  a = v;
  return a;
}

Attribute Text(const std::string& v) {
  Attribute a(db::kString);
  a = v;
  return a;
}

Attribute Real(float v) {
  Attribute a(db::kFloat);
  a = v;
  return a;
}

Attribute Bytes(const std::vector<uint8_t>& v) {
  Attribute a(db::kBytes);
  a = v;
  return a;
}

// The expected `tables` output of the database that WriteDatabase writes.
const char kTablesText[] =
    "links\n"
    "  cost  integer\n"
    "  peer  string\n"
    "ports\n"
    "  mac    bytes\n"
    "  name   string\n"
    "  ratio  float\n"
    "  speed  integer\n"
    "  vlans  integer, repeated\n";

bool HaveShell() { return std::string(DB_SHELL_PATH) != ""; }

class DbShellTest : public testing::TestWithParam<DbType> {
 protected:
  void SetUp() override {
    if (!HaveShell()) GTEST_SKIP() << "db-shell is not built";
  }

  bool sqlite() const { return GetParam() == db::kSqlite; }
  std::string DatabasePath() const { return sqlite() ? dir_.File("net.sqlite") : dir_.File("net"); }
  std::string Option() const { return sqlite() ? "--sqlite" : "--leveldb"; }
  std::vector<std::string> Args(const std::vector<std::string>& commands) const {
    std::vector<std::string> args = {Option(), DatabasePath()};
    for (const auto& command : commands) {
      args.push_back("-c");
      args.push_back(command);
    }
    return args;
  }

  static void DeclarePorts(DbObject* ports) {
    ports->AppendScalarAttribute("name", Attribute(db::kString), db::kDefault);
    ports->AppendScalarAttribute("speed", Attribute(db::kInteger), db::kDefault);
    ports->AppendScalarAttribute("ratio", Attribute(db::kFloat), db::kDefault);
    ports->AppendScalarAttribute("mac", Attribute(db::kBytes), db::kDefault);
    ports->AppendCompositeAttribute("vlans", Attribute(db::kInteger), db::kDefault);
  }

  static void DeclareLinks(DbObject* links) {
    links->AppendScalarAttribute("peer", Attribute(db::kString), db::kDefault);
    links->AppendScalarAttribute("cost", Attribute(db::kInteger), db::kDefault);
  }

  // Writes tables ports (three records) and, unless `ports_only`, links (one
  // record) through the library. Every object is gone when this returns, so
  // the database is free for the shell.
  void WriteDatabase(bool ports_only = false) {
    DbObject ports(DatabasePath(), "ports", false, GetParam());
    DeclarePorts(&ports);
    ASSERT_EQ(0, ports.CreateObjTables());
    struct Row {
      std::string name;
      int32_t speed;
      float ratio;
      std::vector<uint8_t> mac;
      std::vector<int32_t> vlans;
    };
    const std::vector<Row> rows = {
        {"eth0", 1000, 0.5f, {2, 0, 0, 0, 0, 1}, {10, 20}},
        {"eth 1", 10000, 1.25f, {2, 0, 0, 0, 0, 2}, {20}},
        {"eth2", 10000, 2.0f, {2, 0, 0, 0, 0, 3}, {}},
    };
    for (const Row& row : rows) {
      ports.scalar_fields()["name"] = Text(row.name);
      ports.scalar_fields()["speed"] = Int(row.speed);
      ports.scalar_fields()["ratio"] = Real(row.ratio);
      ports.scalar_fields()["mac"] = Bytes(row.mac);
      std::vector<Attribute>& vlans = ports.composite_fields()["vlans"].second;
      vlans.clear();
      for (int32_t vlan : row.vlans) vlans.push_back(Int(vlan));
      uint32_t id = 0;
      ASSERT_EQ(0, ports.StoreObject(&id));
      port_ids_.push_back(id);
    }
    if (ports_only) return;

    DbObject links(DatabasePath(), "links", false, GetParam());
    DeclareLinks(&links);
    ASSERT_EQ(0, links.CreateObjTables());
    links.scalar_fields()["peer"] = Text("core-1");
    links.scalar_fields()["cost"] = Int(7);
    uint32_t id = 0;
    ASSERT_EQ(0, links.StoreObject(&id));
  }

  // What `commands` print on the library's own command group, with objects
  // declared as the test wrote them: the output that db-shell must reproduce
  // from the stored schema alone. The objects are gone when this returns.
  std::string LibraryOutput(const std::vector<std::string>& commands) const {
    DbObject ports(DatabasePath(), "ports", false, GetParam());
    DeclarePorts(&ports);
    DbObject links(DatabasePath(), "links", false, GetParam());
    DeclareLinks(&links);
    ELEM_CMD_GROUP_ST* group = ElemCmdGroupCreate("reference");
    ports.InstallDebugCmd(group);
    links.InstallDebugCmd(group);
    std::string text;
    FILE* out = tmpfile();
    EXPECT_NE(nullptr, out);
    if (out == nullptr) return text;
    for (const std::string& command : commands) {
      EXPECT_EQ(0, ElemCmdExecute(group, command.c_str(), out)) << command;
    }
    ElemCmdGroupDestroy(group);
    fflush(out);
    rewind(out);
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, out)) > 0;) text.append(buffer, n);
    fclose(out);
    return text;
  }

  // Every key and value of the database as another reader sees it: the
  // file's bytes for SQLite, the key space for LevelDB.
  std::string Snapshot() const {
    if (sqlite()) return db_test::ReadFile(DatabasePath());
    leveldb::DB* raw = nullptr;
    leveldb::Options options;
    leveldb::Status status = leveldb::DB::Open(options, DatabasePath(), &raw);
    EXPECT_TRUE(status.ok()) << status.ToString();
    std::unique_ptr<leveldb::DB> database(raw);
    std::string text;
    if (database == nullptr) return text;
    std::unique_ptr<leveldb::Iterator> it(database->NewIterator(leveldb::ReadOptions()));
    for (it->SeekToFirst(); it->Valid(); it->Next()) {
      text += it->key().ToString() + "=" + it->value().ToString() + "\n";
    }
    return text;
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
  std::vector<uint32_t> port_ids_;
};

TEST_P(DbShellTest, TablesListsEveryTableWithItsFieldsAndTypes) {
  WriteDatabase();
  ShellRun run = RunShell(Args({"tables"}));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(kTablesText, run.out);
}

TEST_P(DbShellTest, DebugCommandsPrintWhatTheLibraryPrints) {
  WriteDatabase();
  const std::vector<std::string> commands = {
      "Get Size ports",
      "Dump ports all",
      "Retrieve Record ports " + std::to_string(port_ids_[1]),
      "Retrieve Records ports -s speed=10000",
      "Retrieve Records ports -s speed=1000 -c vlans=[20]",
      "Dump links all",
  };
  ShellRun run = RunShell(Args(commands));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(LibraryOutput(commands), run.out);
  // And the output is about the data, not merely equal to another output.
  EXPECT_NE(std::string::npos, run.out.find("ports database size")) << run.out;
  EXPECT_NE(std::string::npos, run.out.find("eth_1")) << run.out;  // blanks shown as "_"
  EXPECT_NE(std::string::npos, run.out.find("10, 20")) << run.out;
  EXPECT_NE(std::string::npos, run.out.find("0x020000000001")) << run.out;  // bytes as hex
  EXPECT_NE(std::string::npos, run.out.find("1.25")) << run.out;
  EXPECT_NE(std::string::npos, run.out.find("core-1")) << run.out;
}

TEST_P(DbShellTest, StandardInputRunsLinesUntilQuit) {
  WriteDatabase();
  ShellRun run = RunShell({Option(), DatabasePath()},
                          "# a comment\n\nGet Size links\nDump ports all\nquit\nGet Size ports\n");
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(LibraryOutput({"Get Size links", "Dump ports all"}), run.out);
}

TEST_P(DbShellTest, UnknownCommandExitsOneAndTheOthersStillRun) {
  WriteDatabase();
  ShellRun run = RunShell(Args({"Frobnicate ports", "Get Size ports", "Get Size nosuchtable"}));
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.err.find("unknown command: Frobnicate ports")) << run.err;
  EXPECT_NE(std::string::npos, run.err.find("unknown command: Get Size nosuchtable")) << run.err;
  EXPECT_EQ(LibraryOutput({"Get Size ports"}), run.out);

  ShellRun piped = RunShell({Option(), DatabasePath()}, "Get Size ports\nget size ports\n");
  EXPECT_EQ(1, piped.status);
  EXPECT_EQ(LibraryOutput({"Get Size ports"}), piped.out);
}

TEST_P(DbShellTest, FilterGroupWithoutFieldNameIsRefused) {
  // The filter parser would never return on such a group.
  WriteDatabase();
  ShellRun run = RunShell(Args({"Retrieve Records ports -s speed=1000 -c =[1]",
                                "Retrieve Records ports -s speed=1000 -c=[1]", "Get Size ports"}));
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.err.find("refused")) << run.err;
  EXPECT_EQ(LibraryOutput({"Get Size ports"}), run.out);
}

TEST_P(DbShellTest, HelpListsEveryCommand) {
  WriteDatabase();
  ShellRun run = RunShell(Args({"help"}));
  EXPECT_EQ(0, run.status) << run.err;
  for (const char* text :
       {"Dump ports start-id [num-entries]", "Get Size ports", "Retrieve Record ports id",
        "Retrieve Records ports [-s", "Dump links", "Get Size links", "Retrieve Record links",
        "Retrieve Records links", "help", "tables", "quit"}) {
    EXPECT_NE(std::string::npos, run.out.find(text)) << text << "\n" << run.out;
  }
}

TEST_P(DbShellTest, DatabaseIsUnchangedByTheShell) {
  WriteDatabase();
  const std::string before = Snapshot();
  ASSERT_FALSE(before.empty());
  ShellRun run = RunShell(
      Args({"tables", "help", "Get Size ports", "Dump ports all", "Dump ports 1 2",
            "Retrieve Record ports " + std::to_string(port_ids_[0]), "Retrieve Record ports 999",
            "Retrieve Records ports -s speed=10000", "Dump links all"}));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(before, Snapshot());
  if (sqlite()) {
    EXPECT_FALSE(std::filesystem::exists(DatabasePath() + "-journal"));
  }
}

TEST_P(DbShellTest, TablesTheLibraryDidNotWriteAreLeftOut) {
  WriteDatabase();
  if (sqlite()) {
    sqlite3* handle = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(DatabasePath().c_str(), &handle));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(handle,
                                      "CREATE TABLE other(x TEXT);"
                                      "CREATE TABLE odd(ID INTEGER PRIMARY KEY, t DATETIME);",
                                      nullptr, nullptr, nullptr));
    sqlite3_close(handle);
  } else {
    leveldb::DB* raw = nullptr;
    ASSERT_TRUE(leveldb::DB::Open(leveldb::Options(), DatabasePath(), &raw).ok());
    std::unique_ptr<leveldb::DB> database(raw);
    ASSERT_TRUE(database->Put(leveldb::WriteOptions(), "schema:other", "x:notanumber,").ok());
    ASSERT_TRUE(database->Put(leveldb::WriteOptions(), "schema:odd", "x:9,").ok());
  }
  ShellRun run = RunShell(Args({"tables"}));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(kTablesText, run.out);
  EXPECT_NE(std::string::npos, run.err.find("table other")) << run.err;
  EXPECT_NE(std::string::npos, run.err.find("table odd")) << run.err;
}

TEST_P(DbShellTest, HelpOptionPrintsUsage) {
  ShellRun run = RunShell({"--help"});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(0u, run.out.rfind("Usage: db-shell (--sqlite FILE | --leveldb DIR)", 0)) << run.out;
  EXPECT_EQ("", run.err);
}

INSTANTIATE_TEST_SUITE_P(Backends, DbShellTest, testing::Values(db::kSqlite, db::kLevelDb),
                         [](const testing::TestParamInfo<DbType>& info) {
                           return info.param == db::kSqlite ? "Sqlite" : "LevelDb";
                         });

// ---- Databases that cannot be opened and wrong arguments: exit 2, one line.

struct OpenFailure {
  const char* name;
  std::vector<std::string> args;  // "@" + name stands for a path in the scratch directory
  const char* message;            // part of the line on standard error
};

TEST(DbShellOpenTest, CannotOpenOrWrongArgumentsExitsTwoWithOneLine) {
  if (!HaveShell()) GTEST_SKIP() << "db-shell is not built";
  db_test::TempDir dir;
  std::filesystem::create_directory(dir.File("empty"));
  { std::ofstream(dir.File("text.sqlite")) << "this is not a database\n"; }
  { std::ofstream(dir.File("plain")) << "x"; }
  const std::vector<OpenFailure> cases = {
      {"missing SQLite file", {"--sqlite", "@missing.sqlite"}, "No such file"},
      {"missing LevelDB directory", {"--leveldb", "@missing"}, "No such file"},
      {"directory without database", {"--leveldb", "@empty"}, "not a LevelDB database"},
      {"file as LevelDB directory", {"--leveldb", "@plain"}, "not a directory"},
      {"text file as SQLite", {"--sqlite", "@text.sqlite"}, "not a SQLite database"},
      {"directory as SQLite", {"--sqlite", "@empty"}, "is a directory"},
      {"no arguments", {}, "give one of --sqlite FILE and --leveldb DIR"},
      {"option without value", {"--sqlite"}, "needs a value"},
      {"both backends", {"--sqlite", "@text.sqlite", "--leveldb", "@empty"}, "exactly one"},
      {"unknown option", {"--sqlite", "@text.sqlite", "--bogus"}, "unknown option --bogus"},
      {"stray argument", {"--leveldb", "@empty", "stray"}, "unexpected argument stray"},
      {"-c without command", {"--leveldb", "@empty", "-c"}, "needs a value"},
  };
  const std::string text_before = db_test::ReadFile(dir.File("text.sqlite"));
  for (const OpenFailure& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> args;
    for (const std::string& arg : c.args)
      args.push_back(arg[0] == '@' ? dir.File(arg.substr(1)) : arg);
    ShellRun run = RunShell(args);
    EXPECT_EQ(2, run.status);
    EXPECT_EQ("", run.out);
    EXPECT_NE(std::string::npos, run.err.find(c.message)) << run.err;
    EXPECT_EQ(1, std::count(run.err.begin(), run.err.end(), '\n')) << run.err;
    EXPECT_EQ('\n', run.err.empty() ? '\0' : run.err.back());
  }
  // Nothing was created or touched on the way.
  EXPECT_FALSE(std::filesystem::exists(dir.File("missing.sqlite")));
  EXPECT_FALSE(std::filesystem::exists(dir.File("missing")));
  EXPECT_TRUE(std::filesystem::is_empty(dir.File("empty")));
  EXPECT_EQ(text_before, db_test::ReadFile(dir.File("text.sqlite")));
}

// ---- LevelDB only: a database held by another process, and the terminal.

class DbShellLevelDbTest : public DbShellTest {};

TEST_P(DbShellLevelDbTest, DatabaseHeldByAnotherProcessExitsTwo) {
  WriteDatabase(true);
  leveldb::DB* raw = nullptr;
  ASSERT_TRUE(leveldb::DB::Open(leveldb::Options(), DatabasePath(), &raw).ok());
  std::unique_ptr<leveldb::DB> held(raw);
  ShellRun run = RunShell(Args({"Get Size ports"}));
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("", run.out);
  EXPECT_NE(std::string::npos, run.err.find("in use by another process")) << run.err;
  EXPECT_EQ(1, std::count(run.err.begin(), run.err.end(), '\n')) << run.err;
}

// A tmux server of its own, so that nothing of the user's sessions is touched.
class Tmux {
 public:
  Tmux() : socket_("db-shell-test-" + std::to_string(getpid())) {}
  ~Tmux() { Command("kill-server"); }
  int Command(const std::string& args) const {
    return system(
        ("env -u TMUX tmux -L " + socket_ + " -f /dev/null " + args + " >/dev/null 2>&1").c_str());
  }
  std::string Capture() const {
    std::string text;
    FILE* pipe = popen(
        ("env -u TMUX tmux -L " + socket_ + " capture-pane -p -t shell 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) return text;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, n);
    pclose(pipe);
    return text;
  }
  // Polls the screen until `done` holds for it; false when it never does.
  template <class Pred>
  bool WaitFor(Pred done, std::string* screen) const {
    for (int i = 0; i < 300; ++i) {
      *screen = Capture();
      if (done(*screen)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }

 private:
  std::string socket_;
};

std::string LastLine(const std::string& screen) {
  size_t end = screen.find_last_not_of(" \n");
  if (end == std::string::npos) return std::string();
  size_t start = screen.rfind('\n', end);
  start = start == std::string::npos ? 0 : start + 1;
  return screen.substr(start, end + 1 - start);
}

size_t Occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

TEST_P(DbShellLevelDbTest, TerminalCompletesCommandWordsAndRecallsHistory) {
  if (system("tmux -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "tmux is not installed";
  WriteDatabase(true);
  Tmux tmux;
  ASSERT_EQ(0, tmux.Command("new-session -d -s shell -x 160 -y 50 \"'" +
                            std::string(DB_SHELL_PATH) + "' --leveldb '" + DatabasePath() + "'\""));
  std::string screen;
  ASSERT_TRUE(
      tmux.WaitFor([](const std::string& s) { return LastLine(s) == "db-shell>"; }, &screen))
      << screen;

  // "Get Si" + Tab completes the word, a second Tab the table name.
  tmux.Command("send-keys -t shell 'Get Si' Tab");
  EXPECT_TRUE(tmux.WaitFor([](const std::string& s) { return LastLine(s) == "db-shell> Get Size"; },
                           &screen))
      << screen;
  tmux.Command("send-keys -t shell Tab");
  EXPECT_TRUE(tmux.WaitFor(
      [](const std::string& s) { return LastLine(s) == "db-shell> Get Size ports"; }, &screen))
      << screen;
  tmux.Command("send-keys -t shell Enter");
  EXPECT_TRUE(tmux.WaitFor(
      [](const std::string& s) {
        return Occurrences(s, "ports database size") == 1 && LastLine(s) == "db-shell>";
      },
      &screen))
      << screen;

  // Up recalls the previous command; Enter runs it again.
  tmux.Command("send-keys -t shell Up");
  EXPECT_TRUE(tmux.WaitFor(
      [](const std::string& s) { return LastLine(s) == "db-shell> Get Size ports"; }, &screen))
      << screen;
  tmux.Command("send-keys -t shell Enter");
  EXPECT_TRUE(tmux.WaitFor(
      [](const std::string& s) { return Occurrences(s, "ports database size") == 2; }, &screen))
      << screen;
  tmux.Command("send-keys -t shell quit Enter");
}

INSTANTIATE_TEST_SUITE_P(LevelDb, DbShellLevelDbTest, testing::Values(db::kLevelDb));

}  // namespace
