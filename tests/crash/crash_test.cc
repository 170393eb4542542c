// A writer acknowledges each call that returned 0 on a pipe and is killed at random; every
// acknowledged write must then be there exactly, untorn, with no id collision.
// DB_INTF_CRASH_KILLS (default 50) and DB_INTF_CRASH_SEED tune a run.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <filesystem>
#include <random>
#include <tuple>

#include "db/db_object.h"
#include "support/leveldb_util.h"
#include "support/sqlite_util.h"
#include "support/test_util.h"
#include "zlog.h"

namespace db_test {
namespace {

using db::Attribute;

// The sequence numbers that wrote a record's scalars and its two repeated fields.
constexpr int64_t kNone = -1, kGarbled = -2;
using State = std::tuple<int64_t, int64_t, int64_t>;
const State kAbsent{kNone, kNone, kNone};

db::ScalarFields Scalars(int64_t seq) {
  const auto n = static_cast<int32_t>(seq);
  std::vector<uint8_t> blob = {static_cast<uint8_t>(n), 0x00, 0xFF, 0xFE, 0x27};
  blob.resize(static_cast<size_t>(2 + n % 6), static_cast<uint8_t>(n >> 8));
  return {{"seq", Val(n)},
          {"name", Val("n'" + std::to_string(n) + ",;--" + std::string(n % 37, 'x'))},
          {"blob", Val(blob)},
          {"ratio", Val(static_cast<float>(n % 1000) / 4)}};
}

// Repeated field 0 ("vals", integers) or 1 ("tags", strings).
std::vector<Attribute> Elements(int field, int64_t seq) {
  std::vector<Attribute> v;
  for (int64_t i = 0; i <= (field == 0 ? seq % 4 : seq / 3 % 3); ++i) {
    v.push_back(field == 0 ? Val(static_cast<int32_t>(seq * 10 + i))
                           : Val("t" + std::to_string(seq) + "-" + std::to_string(i)));
  }
  return v;
}

std::unique_ptr<db::DbObject> Open(const std::string& kind, const std::string& path) {
  auto object = std::make_unique<db::DbObject>(path, "crash", false,
                                               kind == "leveldb" ? db::kLevelDb : db::kSqlite);
  for (const auto& [name, value] : Scalars(0))
    object->AppendScalarAttribute(name, Attribute(value.type()), db::kDefault);
  object->AppendCompositeAttribute("vals", Attribute(db::kInteger), db::kDefault);
  object->AppendCompositeAttribute("tags", Attribute(db::kString), db::kDefault);
  return object;
}

// The writer: "R" once open, "B seq op id" before each call, "A seq op id rc" after success,
// "F ..." else.
int Write(const std::string& kind, const std::string& path, int64_t seq) {
  zlog_set_output(fopen("/dev/null", "w"));
  auto object = Open(kind, path);
  std::vector<uint32_t> live;
  if (object->RetrieveObjects(&live, {}, {}) != 0) return 3;
  auto say = [](const std::string& line) {  // one write per line: a line there was said
    if (write(1, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(4);
  };
  say("R\n");
  for (;; ++seq) {
    const size_t n = live.size();
    const size_t at = static_cast<size_t>(seq * 2654435761u % std::max<size_t>(n, 1));
    const int64_t r = seq % 10;
    const char op = n < 20 || (n < 300 && r < 4) ? 'S' : (n < 300 && r < 7) ? 'U' : 'D';
    uint32_t id = op == 'S' ? 0 : live[at];
    const std::string call = std::to_string(seq) + " " + op + " ";
    say("B " + call + std::to_string(id) + "\n");
    int rc;
    if (op == 'D') {
      rc = object->DeleteSingleObject(id);
    } else {
      object->scalar_fields() = Scalars(seq);
      object->composite_fields()["vals"].second = Elements(0, seq);
      object->composite_fields()["tags"].second = Elements(1, seq);
      rc = op == 'S' ? object->StoreObject(&id) : object->UpdateObject(id);
    }
    say((rc == 0 ? "A " : "F ") + call + std::to_string(id) + " " + std::to_string(rc) + "\n");
    if (rc != 0) return 3;
    if (op == 'S') live.push_back(id);
    if (op != 'D') continue;
    live[at] = live.back();
    live.pop_back();
  }
}

int64_t SeqOf(int field, const std::vector<Attribute>& elements) {
  const std::vector<Attribute> set = SetOnly(elements);
  if (set.empty()) return kNone;
  const int64_t seq =
      field == 0 ? set[0].Get<int32_t>() / 10 : std::atoll(set[0].Get<std::string>().c_str() + 1);
  return set == Elements(field, seq) ? seq : kGarbled;
}

State Observe(const db::DbObject& object, uint32_t id) {
  db::ScalarFields s;
  db::CompositeFields c;
  try {
    const int rc = object.RetrieveObject(id, &s, &c);
    if (rc == db::kNotFound) return kAbsent;
    const int64_t seq = rc == 0 ? s.at("seq").Get<int32_t>() : kGarbled;
    return {rc == 0 && s == Scalars(seq) ? seq : kGarbled, SeqOf(0, c["vals"].second),
            SeqOf(1, c["tags"].second)};
  } catch (const std::exception&) {
    return {kGarbled, kGarbled, kGarbled};
  }
}

// Every loss, tear, id collision or writer failure is a test failure where it is seen.
class Probe {
 public:
  Probe(const std::string& kind, uint32_t seed) : kind_(kind), rng_(seed) {
    EXPECT_EQ(Open(kind_, path_)->CreateObjTables(), 0);
  }

  void Kill() {
    std::vector<std::string> args = ProgramCommand(std::filesystem::read_symlink("/proc/self/exe"));
    args.insert(args.end(), {"write", kind_, path_, std::to_string(next_seq_)});
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETPIPE_SZ, 1 << 20);  // the writer is not held up by the pipe meanwhile
    const pid_t pid = StartProgram(args, fds[1], 2);
    close(fds[1]);
    // One kill in eight during start-up (recovery), the others while writing.
    const bool early = rng_() % 8 == 0;
    std::string text;
    while (!early && text.find("R\n") == std::string::npos && ReadSome(fds[0], &text)) continue;
    const int range_ms = early ? 20 : kind_ == "leveldb" ? 40 : 300;
    usleep(static_cast<useconds_t>(rng_() % (1000 * range_ms)));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    while (ReadSome(fds[0], &text)) continue;
    close(fds[0]);
    EXPECT_TRUE(WIFSIGNALED(status)) << kind_ << ": the writer ended before the kill";
    ++kills_;
    Account(text);
    Check();
    Orphans();
  }
  int kills_ = 0;
  int64_t acked_ = 0;

 private:
  static bool ReadSome(int fd, std::string* text) {
    char buffer[65536];
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n > 0) text->append(buffer, static_cast<size_t>(n));
    return n > 0;
  }

  void Account(const std::string& text) {
    pending_ = {};
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
      char kind = 0, op = 0;
      int64_t seq = 0;
      uint32_t id = 0;
      if (!(std::istringstream(line) >> kind >> seq >> op >> id)) continue;
      next_seq_ = std::max(next_seq_, seq + 1);
      pending_ = {kind == 'B' ? op : '\0', seq, id};
      EXPECT_NE(kind, 'F') << "writer: " << line;
      if (kind != 'A') continue;
      ++acked_;
      EXPECT_FALSE(op == 'S' && model_.count(id) != 0)
          << "store of " << seq << " got id " << id << ", which holds a record";
      if (op == 'D') model_.erase(id);
      if (op != 'D') model_[id] = {seq, seq, seq};
    }
  }

  // The call under way may be undone or done; on SQLite also between its main and side commits.
  void Check() {
    auto object = Open(kind_, path_);
    std::vector<uint32_t> ids;
    ASSERT_TRUE(object->IsConnected() && object->RetrieveObjects(&ids, {}, {}) == 0)
        << kind_ << ": the database does not reopen after kill " << kills_;
    std::set<uint32_t> seen(ids.begin(), ids.end());
    for (const auto& entry : model_) seen.insert(entry.first);
    const auto [op, n, target_id] = pending_;
    for (uint32_t id : seen) {
      const State now = Observe(*object, id);
      const auto known = model_.find(id);
      const State before = known != model_.end() ? known->second : kAbsent;
      const bool target = (op == 'S' && known == model_.end() && std::get<0>(now) == n) ||
                          (op != 'S' && op != '\0' && id == target_id);
      std::vector<State> done = {before}, windows;
      if (target) done.push_back(op == 'D' ? kAbsent : State{n, n, n});
      if (target && kind_ != "leveldb") {
        if (op == 'D') windows.push_back({std::get<0>(before), kNone, kNone});
        if (op != 'D') windows.push_back({n, kNone, kNone});
        if (op == 'U') windows.push_back({n, std::get<1>(before), std::get<2>(before)});
      }
      auto in = [&now](const std::vector<State>& v) {
        return std::find(v.begin(), v.end(), now) != v.end();
      };
      const auto [main, vals, tags] = now;
      EXPECT_TRUE(in(done) || in(windows))
          << kind_ << " kill " << kills_ << ": id " << id << " holds " << main << "/" << vals << "/"
          << tags << ", expected " << std::get<0>(before);
      if (now == kAbsent) model_.erase(id);  // later kills are measured against what is there
      if (now != kAbsent) model_[id] = now;
    }
  }

  void Orphans() {
    int orphans = 0;
    if (kind_ == "leveldb") {
      const KeyValues all = Dump(path_);
      for (const auto& entry : all) {
        const size_t at = entry.first.find(":crash:");
        orphans += at != std::string::npos && at > 0 && all.count(entry.first.substr(at + 1)) == 0;
      }
    } else {
      orphans = std::stoi(*RawDb(path_).Query(
          "SELECT COUNT(*) FROM (SELECT ID_crash FROM repeated_field_table_crash_vals UNION ALL "
          "SELECT ID_crash FROM repeated_field_table_crash_tags) "
          "WHERE ID_crash NOT IN (SELECT ID FROM crash);")[0][0]);
    }
    EXPECT_EQ(orphans, 0) << kind_ << ": repeated values without their record";
  }

  std::string kind_;
  std::mt19937 rng_;
  TempDir dir_;
  std::string path_ = dir_.File("db");
  int64_t next_seq_ = 1;
  std::map<uint32_t, State> model_;
  std::tuple<char, int64_t, uint32_t> pending_;
};

void KillRepeatedly(const char* kind) {
  zlog_set_output(fopen("/dev/null", "w"));
  const char* kills = getenv("DB_INTF_CRASH_KILLS");
  const char* seed_text = getenv("DB_INTF_CRASH_SEED");
  const auto seed =
      static_cast<uint32_t>(seed_text ? strtoul(seed_text, nullptr, 10) : std::random_device()());
  Probe probe(kind, seed);
  for (int i = 0; i < (kills ? atoi(kills) : 50) && !testing::Test::HasFatalFailure(); ++i)
    probe.Kill();
  printf("crash %s: seed=%" PRIu32 " kills=%d acknowledged=%" PRId64 "\n", kind, seed, probe.kills_,
         probe.acked_);
  EXPECT_GT(probe.acked_, probe.kills_) << "the writer hardly ran";
}

TEST(CrashTest, AcknowledgedLevelDbWritesSurviveKills) { KillRepeatedly("leveldb"); }
TEST(CrashTest, AcknowledgedSqliteWritesSurviveKills) { KillRepeatedly("sqlite"); }

}  // namespace
}  // namespace db_test

int main(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == "write")
    return db_test::Write(argv[2], argv[3], std::atoll(argv[4]));
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
