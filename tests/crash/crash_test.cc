// Process-crash probe. A writer process stores, updates and deletes records
// whose contents are a function of a sequence number and acknowledges every
// call that returned 0 on an unbuffered pipe; the test kills it with SIGKILL at
// random moments and, after each kill, reopens the database and checks that
// every acknowledged write is there exactly, that no record is torn, and that
// the writer's next ids did not collide with stored ones.
//
// The shared in-memory SQLite database is left out: it dies with the process
// that holds it, so nothing of it can survive a crash to be checked.
//
//   crash_test                          50 kills per backend
//   DB_INTF_CRASH_KILLS=200 crash_test  a longer run
//   DB_INTF_CRASH_SEED=n                repeats a run (the seed is printed)
//   crash_test write KIND DB SEQ        the writer (started by the test)

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db/db_object.h"
#include "support/leveldb_util.h"
#include "support/test_util.h"
#include "zlog.h"

namespace db_test {
namespace {

using db::Attribute;
using Clock = std::chrono::steady_clock;

constexpr char kTable[] = "crash";
constexpr int64_t kAbsent = -1;   // no record, or a repeated field without elements
constexpr int64_t kGarbled = -2;  // a part that no sequence number wrote

// ---- The records: every part a function of the sequence number.

db::ScalarFields Scalars(int64_t seq) {
  const auto n = static_cast<int32_t>(seq);
  std::vector<uint8_t> blob = {static_cast<uint8_t>(n), 0x00, 0xFF, 0xFE, 0x27};
  blob.resize(static_cast<size_t>(2 + n % 6), static_cast<uint8_t>(n >> 8));
  return {{"seq", Set(n)},
          {"name", Set("n'" + std::to_string(n) + ",;--" + std::string(n % 37, 'x'))},
          {"blob", Set(blob)},
          {"ratio", Set(static_cast<float>(n % 1000) / 4.0f)}};
}

std::vector<Attribute> Vals(int64_t seq) {
  std::vector<Attribute> v;
  for (int32_t i = 0; i <= seq % 4; ++i) v.push_back(Set(static_cast<int32_t>(seq * 10 + i)));
  return v;
}

std::vector<Attribute> Tags(int64_t seq) {
  std::vector<Attribute> v;
  for (int64_t i = 0; i <= seq / 3 % 3; ++i) {
    v.push_back(Set("t" + std::to_string(seq) + "-" + std::to_string(i)));
  }
  return v;
}

void Declare(db::DbObject* object) {
  for (const auto& [name, value] : Scalars(0)) {
    object->AppendScalarAttribute(name, Attribute(value.type()), db::kDefault);
  }
  object->AppendCompositeAttribute("vals", Attribute(db::kInteger), db::kDefault);
  object->AppendCompositeAttribute("tags", Attribute(db::kString), db::kDefault);
}

db::DbType TypeOf(const std::string& kind) {
  return kind == "leveldb" ? db::kLevelDb : db::kSqlite;
}

// ---- The writer.

void Say(const std::string& line) {
  // One write per line, straight to the pipe: a line that is there was said.
  if (write(1, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(4);
}

int Write(const std::string& kind, const std::string& path, int64_t seq) {
  zlog_set_output(fopen("/dev/null", "w"));
  db::DbObject object(path, kTable, false, TypeOf(kind));
  Declare(&object);
  std::vector<uint32_t> live;
  if (object.RetrieveObjects(&live, {}, {}) != 0) return 3;
  Say("R\n");
  for (;; ++seq) {
    const size_t n = live.size();
    const int64_t r = seq % 10;
    const char op = n < 20 || (n < 300 && r < 4) ? 'S' : (n < 300 && r < 7) ? 'U' : 'D';
    const size_t at =
        n == 0 ? 0 : static_cast<size_t>(static_cast<uint64_t>(seq) * 2654435761u % n);
    uint32_t id = op == 'S' ? 0 : live[at];
    Say("B " + std::to_string(seq) + " " + op + " " + std::to_string(id) + "\n");
    int rc;
    if (op == 'D') {
      rc = object.DeleteSingleObject(id);
    } else {
      object.ClearObject();
      object.scalar_fields() = Scalars(seq);
      object.composite_fields()["vals"].second = Vals(seq);
      object.composite_fields()["tags"].second = Tags(seq);
      rc = op == 'S' ? object.StoreObject(&id) : object.UpdateObject(id);
    }
    const char kind_of_line = rc == 0 ? 'A' : 'F';
    Say(std::string(1, kind_of_line) + " " + std::to_string(seq) + " " + op + " " +
        std::to_string(id) + " " + std::to_string(rc) + "\n");
    if (rc != 0) return 3;
    if (op == 'S') live.push_back(id);
    if (op == 'D') {
      live[at] = live.back();
      live.pop_back();
    }
  }
}

// ---- The checker.

// The sequence number that wrote each part of a record.
struct State {
  int64_t main = kAbsent, vals = kAbsent, tags = kAbsent;
  bool operator==(const State& o) const {
    return main == o.main && vals == o.vals && tags == o.tags;
  }
  bool whole() const { return main >= 0 && vals == main && tags == main; }
};

// The sequence number whose elements `elements` are, from the first one.
int64_t SeqOf(const std::vector<Attribute>& elements, bool tags) {
  std::vector<Attribute> set;
  for (const Attribute& a : elements) {
    if (a.is_set()) set.push_back(a);
  }
  if (set.empty()) return kAbsent;
  const int64_t seq =
      tags ? std::atoll(set[0].Get<std::string>().c_str() + 1) : set[0].Get<int32_t>() / 10;
  return set == (tags ? Tags(seq) : Vals(seq)) ? seq : kGarbled;
}

State Observe(const db::DbObject& object, uint32_t id) {
  db::ScalarFields scalar;
  db::CompositeFields composite;
  State s;
  try {
    const int rc = object.RetrieveObject(id, &scalar, &composite);
    if (rc == db::kNotFound) return s;
    if (rc != 0) return {kGarbled, kGarbled, kGarbled};
    const int64_t seq = scalar.at("seq").Get<int32_t>();
    s.main = scalar == Scalars(seq) ? seq : kGarbled;
    s.vals = SeqOf(composite["vals"].second, false);
    s.tags = SeqOf(composite["tags"].second, true);
  } catch (const std::exception&) {
    s = {kGarbled, kGarbled, kGarbled};
  }
  return s;
}

struct Counts {
  int kills = 0;
  int64_t acked = 0;
  int lost = 0, torn = 0, window = 0, collisions = 0, writer_errors = 0, reopen_failures = 0;
};

// The call that was under way when the writer died.
struct Pending {
  char op = 0;
  int64_t seq = 0;
  uint32_t id = 0;
};

class Probe {
 public:
  Probe(const std::string& kind, uint32_t seed) : kind_(kind), rng_(seed) {
    path_ = dir_.File(kind == "leveldb" ? "ldb" : "crash.db");
    db::DbObject object(path_, kTable, false, TypeOf(kind));
    Declare(&object);
    EXPECT_EQ(object.CreateObjTables(), 0);
  }

  void Kill() {
    std::vector<std::string> args = ProgramCommand(Self());
    args.insert(args.end(), {"write", kind_, path_, std::to_string(next_seq_)});
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = StartProgram(args, fds[1], 2);
    close(fds[1]);
    // Mostly while writing; one kill in eight during start-up and recovery.
    const bool early = rng_() % 8 == 0;
    const auto delay = std::chrono::microseconds(rng_() % (early ? 20000 : MaxDelayUs()));
    std::optional<Clock::time_point> deadline;
    if (early) deadline = Clock::now() + delay;
    std::string text;
    const auto give_up = Clock::now() + std::chrono::seconds(30);
    bool eof = false;
    while (!eof && Clock::now() < (deadline ? *deadline : give_up)) {
      pollfd p{fds[0], POLLIN, 0};
      const auto left = (deadline ? *deadline : give_up) - Clock::now();
      poll(&p, 1, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count()));
      if (p.revents != 0) eof = !ReadSome(fds[0], &text);
      if (!deadline && text.find("R\n") != std::string::npos) deadline = Clock::now() + delay;
    }
    kill(pid, SIGKILL);
    while (ReadSome(fds[0], &text)) {
    }
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    if (eof) ++counts_.writer_errors;  // the writer ended before it was killed
    ++counts_.kills;
    Account(text);
    Check();
  }

  const Counts& counts() const { return counts_; }

 private:
  static std::string Self() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    return std::string(path, n > 0 ? static_cast<size_t>(n) : 0);
  }

  // A SQLite file record costs several journal syncs, a LevelDB one none:
  // the writer gets about as many calls done either way.
  int MaxDelayUs() const {
    const char* ms = getenv("DB_INTF_CRASH_MAX_MS");
    return 1000 * (ms != nullptr ? std::max(1, atoi(ms)) : kind_ == "leveldb" ? 40 : 300);
  }

  // False at the end of the pipe.
  static bool ReadSome(int fd, std::string* text) {
    char buffer[65536];
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n > 0) text->append(buffer, static_cast<size_t>(n));
    return n > 0;
  }

  // Takes in what the writer said: acknowledged calls and the one under way.
  void Account(const std::string& text) {
    pending_ = Pending();
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      if (lines.eof()) break;  // cut off by the kill: never said
      char kind = 0, op = 0;
      int64_t seq = 0;
      uint32_t id = 0;
      std::istringstream in(line);
      if (!(in >> kind) || kind == 'R') continue;
      in >> seq >> op >> id;
      next_seq_ = std::max(next_seq_, seq + 1);
      if (kind == 'B') {
        pending_ = {op, seq, id};
        continue;
      }
      pending_ = Pending();
      if (kind == 'F') {
        ++counts_.writer_errors;
        if (op == 'S') ++counts_.collisions;
        ADD_FAILURE() << "writer: " << line;
        continue;
      }
      ++counts_.acked;
      if (op == 'S' && model_.count(id) != 0) {
        ++counts_.collisions;
        ADD_FAILURE() << "store of seq " << seq << " got id " << id << ", which holds a record";
      }
      if (op == 'D') {
        model_.erase(id);
      } else {
        model_[id] = {seq, seq, seq};
      }
    }
  }

  // Compares the database with the model; the call under way may have
  // finished, not started, or (SQLite) stopped between its commits.
  void Check() {
    CheckRecords();
    counts_.torn += Orphans();
  }

  void CheckRecords() {
    db::DbObject object(path_, kTable, false, TypeOf(kind_));
    Declare(&object);
    std::vector<uint32_t> ids;
    if (!object.IsConnected() || object.RetrieveObjects(&ids, {}, {}) != 0) {
      ++counts_.reopen_failures;
      ADD_FAILURE() << kind_ << ": the database does not reopen after kill " << counts_.kills;
      return;
    }
    std::set<uint32_t> seen(ids.begin(), ids.end());
    for (const auto& [id, state] : model_) seen.insert(id);
    if (pending_.op == 'U' || pending_.op == 'D') seen.insert(pending_.id);
    for (uint32_t id : seen) {
      const State now = Observe(object, id);
      const auto known = model_.find(id);
      const State before = known != model_.end() ? known->second : State();
      const int64_t n = pending_.seq;
      const bool target = (pending_.op == 'S' && known == model_.end() && now.main == n) ||
                          ((pending_.op == 'U' || pending_.op == 'D') && id == pending_.id);
      std::vector<State> finished = {before};
      std::vector<State> windows;
      if (target) {
        finished.push_back(pending_.op == 'D' ? State() : State{n, n, n});
        // The SQLite record writes commit the main row and the repeated rows
        // separately; these are the states between those commits.
        if (kind_ != "leveldb" && pending_.op == 'D')
          windows.push_back({before.main, kAbsent, kAbsent});
        if (kind_ != "leveldb" && pending_.op != 'D') windows.push_back({n, kAbsent, kAbsent});
        if (kind_ != "leveldb" && pending_.op == 'U')
          windows.push_back({n, before.vals, before.tags});
      }
      auto in = [&now](const std::vector<State>& states) {
        return std::find(states.begin(), states.end(), now) != states.end();
      };
      if (!in(finished) && in(windows)) ++counts_.window;
      if (!in(finished) && !in(windows)) {
        const bool lost = now.main == kAbsent || now.whole();
        ++(lost ? counts_.lost : counts_.torn);
        ADD_FAILURE() << kind_ << " kill " << counts_.kills << ": id " << id << " holds {"
                      << now.main << "," << now.vals << "," << now.tags << "}, expected {"
                      << before.main << "," << before.vals << "," << before.tags << "}";
      }
      // What is there now is what later kills are measured against.
      if (now.main == kAbsent) {
        model_.erase(id);
      } else {
        model_[id] = now;
      }
    }
  }

  // Repeated-field rows or keys whose record is gone.
  int Orphans() {
    int orphans = 0;
    if (kind_ == "leveldb") {
      const KeyValues all = Dump(path_);
      for (const auto& [key, value] : all) {
        const size_t table = key.find(":crash:");
        if (table != std::string::npos && table > 0 &&
            all.count(std::string(kTable) + key.substr(table + 6)) == 0) {
          ++orphans;
        }
      }
    } else {
      sqlite3* db = nullptr;
      sqlite3_open(path_.c_str(), &db);
      for (const char* field : {"vals", "tags"}) {
        const std::string query = std::string("SELECT COUNT(*) FROM repeated_field_table_crash_") +
                                  field + " WHERE ID_crash NOT IN (SELECT ID FROM crash);";
        sqlite3_exec(
            db, query.c_str(),
            [](void* sum, int, char** v, char**) {
              *static_cast<int*>(sum) += atoi(v[0]);
              return 0;
            },
            &orphans, nullptr);
      }
      sqlite3_close(db);
    }
    EXPECT_EQ(orphans, 0) << kind_ << ": repeated values without their record";
    return orphans;
  }

  std::string kind_;
  std::mt19937 rng_;
  TempDir dir_;
  std::string path_;
  int64_t next_seq_ = 1;
  std::map<uint32_t, State> model_;
  Pending pending_;
  Counts counts_;
};

class CrashTest : public testing::TestWithParam<const char*> {};

TEST_P(CrashTest, AcknowledgedWritesSurviveKills) {
  zlog_set_output(fopen("/dev/null", "w"));
  const char* kills_env = getenv("DB_INTF_CRASH_KILLS");
  const char* seed_env = getenv("DB_INTF_CRASH_SEED");
  const int kills = kills_env != nullptr ? atoi(kills_env) : 50;
  const auto seed = static_cast<uint32_t>(seed_env != nullptr ? strtoul(seed_env, nullptr, 10)
                                                              : std::random_device()());
  Probe probe(GetParam(), seed);
  for (int i = 0; i < kills && !HasFatalFailure(); ++i) probe.Kill();
  const Counts& c = probe.counts();
  printf("crash %s: seed=%" PRIu32 " kills=%d acknowledged=%" PRId64
         " lost=%d torn=%d sqlite_window_hits=%d collisions=%d writer_errors=%d "
         "reopen_failures=%d\n",
         GetParam(), seed, c.kills, c.acked, c.lost, c.torn, c.window, c.collisions,
         c.writer_errors, c.reopen_failures);
  EXPECT_GT(c.acked, c.kills) << "the writer hardly ran";
  EXPECT_EQ(c.lost + c.torn + c.collisions + c.writer_errors + c.reopen_failures, 0);
}

INSTANTIATE_TEST_SUITE_P(Backends, CrashTest, testing::Values("leveldb", "sqlite"));

}  // namespace
}  // namespace db_test

int main(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == "write") {
    return db_test::Write(argv[2], argv[3], std::atoll(argv[4]));
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
