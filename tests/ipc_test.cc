// Messaging through a real ipc-router, started by each test on a socket in a
// fresh directory and stopped with it (also when the test dies).

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db/ipc.h"
#include "ipc_frame.h"
#include "support/test_util.h"

extern "C" int ipc_c_round_trip(const char* name);  // ipc_c_api.c, compiled as C

namespace {

using Message = std::unique_ptr<ipc_message, decltype(&ipc_free)>;

// Runs ipc-router with `args`, stdout and stderr to `out`; returns the pid,
// or waits and returns the exit status when `wait`.
int RunRouter(const std::vector<std::string>& args, const std::string& out, bool wait) {
  std::vector<std::string> argv = db_test::ProgramCommand(IPC_ROUTER_PATH);
  argv.insert(argv.end(), args.begin(), args.end());
  int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  pid_t pid = db_test::StartProgram(argv, fd, fd);
  close(fd);
  int status = 0;
  if (!wait) return pid;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// How often `text` occurs in the file at `path`.
int Occurrences(const std::string& path, const std::string& text) {
  std::string log = db_test::ReadFile(path);
  int n = 0;
  for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; ++at) ++n;
  return n;
}

class IpcTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("IPC_ROUTER_SOCKET", sock_.c_str(), 1);
    Start();
  }
  // A clean stop, also under the sanitizers' leak check.
  void TearDown() override {
    if (router_ > 0) {
      EXPECT_EQ(Stop(SIGTERM), 0) << db_test::ReadFile(dir_.File("router.log"));
    }
  }
  void Start() {
    router_ = RunRouter({"--socket", sock_}, dir_.File("router.log"), false);
    int fd = -1;
    for (int i = 0; i < 1000 && (fd = Connect()) < 0; ++i) usleep(10000);
    close(fd);
  }
  int Stop(int sig) {
    int status = 0;
    kill(router_, sig);
    waitpid(router_, &status, 0);
    router_ = 0;
    return status;
  }
  int Connect() {
    sockaddr_un a = {};
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof(a.sun_path), "%s", sock_.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0) return fd;
    close(fd);
    return -1;
  }
  std::string Status() {
    std::filesystem::remove(dir_.File("status"));
    EXPECT_EQ(RunRouter({"--status"}, dir_.File("status"), true), 0);
    return db_test::ReadFile(dir_.File("status"));
  }
  int Count(const std::string& text) { return Occurrences(dir_.File("router.log"), text); }
  db_test::TempDir dir_;
  std::string sock_ = dir_.File("ipc.sock");
  pid_t router_ = 0;
};

Message Receive(ipc_endpoint* ep, int32_t timeout = 5000, std::vector<uint32_t> types = {}) {
  ipc_message* m = nullptr;
  ipc_receive(ep, types.data(), types.size(), timeout, &m);
  return Message(m, ipc_free);
}

// Runs `fn` in a child process; returns its pid.
pid_t Spawn(const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid == 0) _exit(fn());
  return pid;
}

int Join(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(IpcTest, NamesAndArguments) {
  ipc_endpoint* a = ipc_open(std::string(63, 'a').c_str());
  ASSERT_NE(a, nullptr);
  EXPECT_NE(ipc_self(a), 0u);
  std::pair<std::string, int> cases[] = {{"", EINVAL},      {std::string(64, 'a'), EINVAL},
                                         {"a b", EINVAL},   {"a/b", EINVAL},
                                         {"x\x7f", EINVAL}, {std::string(63, 'a'), EADDRINUSE}};
  for (const auto& c : cases) {
    errno = 0;
    EXPECT_EQ(ipc_open(c.first.c_str()), nullptr) << c.first;
    EXPECT_EQ(errno, c.second) << c.first;
  }
  EXPECT_EQ(Count("refused connection"), 1);
  char big[IPC_MAX_SIZE + 1] = {};
  EXPECT_EQ(ipc_send(a, 1, 0, big, IPC_MAX_SIZE + 1), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  ipc_message* m;
  std::function<int()> calls[] = {[] { return ipc_close(nullptr); },
                                  [] { return ipc_fd(nullptr); },
                                  [] { return ipc_find(nullptr, "x", 1); },
                                  [&] { return ipc_find(a, "a/b/c", 1); },
                                  [&] { return ipc_watch(a, 0, 1); },
                                  [&] { return ipc_unwatch(a, 7); },
                                  [&] { return ipc_send(a, 0, 0, "", 0); },
                                  [&] { return ipc_receive(a, nullptr, 1, 0, &m); },
                                  [&] { return ipc_receive(a, nullptr, 0, -2, &m); }};
  for (size_t i = 0; i < std::size(calls); ++i) {
    errno = 0;
    EXPECT_EQ(calls[i](), -1) << i;
    EXPECT_EQ(errno, EINVAL) << i;
  }
  EXPECT_EQ(ipc_self(nullptr), 0u);
  ipc_close(a);
  EXPECT_EQ(ipc_c_round_trip("c-client"), 0);
  Stop(SIGTERM);
  EXPECT_EQ(ipc_open("late"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(IpcTest, FindBeforeAndAfterOpenAndTimeOut) {
  ipc_endpoint* a = ipc_open("a");
  ASSERT_EQ(ipc_find(a, "b", 10), 0);
  ipc_endpoint* b = ipc_open("b");
  ASSERT_EQ(ipc_find(a, "b", 11), 0);
  for (uint32_t type : {10u, 11u}) {
    Message m = Receive(a);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->type, type);
    EXPECT_EQ(m->sender, ipc_self(b));
    EXPECT_EQ(m->size, 0u);
  }
  ASSERT_EQ(ipc_find(a, "never", 12), 0);
  ASSERT_EQ(ipc_find(a, "NODE/never", 12), 0);
  auto start = std::chrono::steady_clock::now();
  // A signal in the middle of the wait does not shorten it.
  struct sigaction sa = {};
  sa.sa_handler = [](int) {};
  sigaction(SIGALRM, &sa, nullptr);  // no SA_RESTART: poll returns EINTR
  alarm(1);
  EXPECT_FALSE(Receive(a, 1500));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  std::string status = Status();
  EXPECT_NE(status.find("endpoints 2"), std::string::npos) << status;
  EXPECT_NE(status.find("finds 2"), std::string::npos) << status;
  EXPECT_NE(status.find(" " + std::to_string(getpid()) + " "), std::string::npos) << status;
  ipc_close(a);
  ipc_close(b);
}

TEST_F(IpcTest, WatchFiresExactlyOnce) {
  ipc_endpoint* w = ipc_open("watcher");
  enum Ending { kClose, kKill, kAlreadyGone, kUnwatch, kUnwatchQueued, kUnwatchInFlight };
  uint32_t peer = 0;
  for (int ending = kClose; ending <= kUnwatchInFlight; ++ending) {
    ipc_endpoint* p = ipc_open("peer");
    peer = ipc_self(p);
    pid_t child = 0;
    if (ending == kKill) {  // the peer's socket then lives only in a process that dies
      child = Spawn([] { return pause(); });
      ipc_close(p);
    }
    if (ending == kAlreadyGone) {
      ipc_close(p);
      Status();  // the router has seen it go
    }
    int32_t id = ipc_watch(w, peer, 40 + ending);
    ASSERT_GT(id, 0);
    // kUnwatch: while armed in the router.
    ASSERT_EQ(ending == kUnwatch ? ipc_unwatch(w, id) : 0, 0);
    if (ending == kKill) {
      kill(child, SIGKILL);
      Join(child);
    } else if (ending != kAlreadyGone) {
      ipc_close(p);
    }
    if (ending >= kUnwatchQueued) {
      Status();                                               // the router has fired it,
      if (ending == kUnwatchQueued) Receive(w, 0, {0xffff});  // and we have read it
      EXPECT_EQ(ipc_unwatch(w, id), 0);
    }
    bool fires = ending < kUnwatch;
    Message m = Receive(w, fires ? 5000 : 200);
    ASSERT_EQ(static_cast<bool>(m), fires) << ending;
    if (fires) {
      EXPECT_EQ(m->type, 40u + ending);
      EXPECT_EQ(m->sender, peer);
      EXPECT_EQ(ipc_unwatch(w, id), -1);
    }
    EXPECT_FALSE(Receive(w, 100)) << ending;  // once only
  }
  // A message to an address that is gone is dropped; its sender goes on.
  EXPECT_EQ(ipc_send(w, peer, 1, "x", 1), 0);
  EXPECT_EQ(ipc_send(w, ipc_self(w), 2, "", 0), 0);
  Message m = Receive(w);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->type, 2u);
  EXPECT_NE(Status().find("routed 1 dropped 1"), std::string::npos);
  ipc_close(w);
}

// Size of message `seq` of every sender: mostly small, one in 32 up to the
// limit. A message of 12 bytes or more carries `seq` in its first and last
// bytes.
uint32_t SizeOf(uint32_t seq) {
  uint32_t r = seq * 2654435761u;
  r ^= r >> 13;
  return r % 32 == 0 ? (r >> 5) % (IPC_MAX_SIZE + 1) : (r >> 5) % 300;
}

// Sends messages 0 to n - 1 of type 1 to `to`.
bool SendSequence(ipc_endpoint* ep, uint32_t to, uint32_t n) {
  std::vector<uint8_t> buf(IPC_MAX_SIZE);
  for (uint32_t seq = 0; seq < n; ++seq) {
    uint32_t size = SizeOf(seq);
    if (size >= 12) memcpy(&buf[4], &seq, 4), memcpy(&buf[size - 4], &seq, 4);
    if (ipc_send(ep, to, 1, buf.data(), size) != 0) return false;
  }
  return true;
}

// True when `m` is message `seq` of a sequence, whole.
bool IsMessage(const Message& m, uint32_t seq) {
  const uint8_t* p = static_cast<const uint8_t*>(m ? m->data : nullptr);
  return m && m->type == 1 && m->size == SizeOf(seq) &&
         (m->size < 12 || (memcmp(p + 4, &seq, 4) == 0 && memcmp(p + m->size - 4, &seq, 4) == 0));
}

TEST_F(IpcTest, ManySendersArriveWholeOnceInOrder) {
  constexpr uint32_t kSenders = 4, kEach = 25000;
  ipc_endpoint* r = ipc_open("receiver");
  uint32_t to = ipc_self(r);
  std::vector<pid_t> children;
  for (uint32_t s = 0; s < kSenders; ++s) {
    children.push_back(Spawn([&] {
      ipc_endpoint* ep = ipc_open(("sender" + std::to_string(s)).c_str());
      return SendSequence(ep, to, kEach) && ipc_close(ep) == 0 ? 0 : 1;
    }));
  }
  std::map<uint32_t, uint32_t> next;  // sender address -> next seq
  for (uint32_t n = 0; n < kSenders * kEach; ++n) {
    Message m = Receive(r);
    ASSERT_TRUE(m) << n;
    ASSERT_TRUE(IsMessage(m, next[m->sender]++)) << n;
  }
  for (pid_t c : children) EXPECT_EQ(Join(c), 0);
  EXPECT_FALSE(Receive(r, 0));
  ipc_close(r);
}

TEST_F(IpcTest, TypeFilterKeepsOthersQueuedAndFdSignals) {
  ipc_endpoint* a = ipc_open("a");
  ipc_endpoint* b = ipc_open("b");
  pollfd p = {ipc_fd(a), POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 0), 0);
  for (uint32_t i = 0; i < 6; ++i) ASSERT_EQ(ipc_send(b, ipc_self(a), i % 2, &i, 4), 0);
  EXPECT_EQ(poll(&p, 1, 5000), 1);
  for (uint32_t want : {1u, 3u, 5u, 0u, 2u, 4u}) {
    Message m = Receive(a, 5000, {want % 2});
    ASSERT_TRUE(m);
    EXPECT_EQ(*static_cast<const uint32_t*>(m->data), want);
    EXPECT_EQ(m->sender, ipc_self(b));
    EXPECT_EQ(poll(&p, 1, 0), want == 4u ? 0 : 1) << want;  // readable while any is queued
  }
  ipc_close(a);
  ipc_close(b);
}

TEST_F(IpcTest, BackPressureHoldsOnlyTheSenderAndNeverDeadlocks) {
  constexpr int kCount = 200;  // 12.5 MiB each way: far more than the router and sockets hold
  ipc_endpoint* slow = ipc_open("slow");
  ipc_endpoint* other = ipc_open("other");
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  // Sends kCount numbered messages (then writes to `sent`), then takes kCount
  // and checks their order.
  auto exchange = [](ipc_endpoint* self, uint32_t to, int sent) {
    std::vector<uint8_t> buf(IPC_MAX_SIZE);
    for (int i = 0; i < kCount; ++i) {
      buf[0] = static_cast<uint8_t>(i);
      if (ipc_send(self, to, 2, buf.data(), IPC_MAX_SIZE) != 0) return false;
    }
    if (sent >= 0 && write(sent, "x", 1) != 1) return false;
    for (int i = 0; i < kCount; ++i) {
      Message m = Receive(self);
      if (!m || static_cast<const uint8_t*>(m->data)[0] != static_cast<uint8_t>(i)) return false;
    }
    return true;
  };
  pid_t fast = Spawn([&] {
    ipc_endpoint* ep = ipc_open("fast");
    uint32_t self = ipc_self(ep);
    return write(fds[1], &self, 4) == 4 && exchange(ep, ipc_self(slow), fds[1]) ? 0 : 1;
  });
  uint32_t to = 0;
  ASSERT_EQ(read(fds[0], &to, 4), 4);
  // While "slow" reads nothing, "fast" is held back and others are served.
  usleep(300000);
  for (uint32_t i = 0; i < 100; ++i) {
    ASSERT_EQ(ipc_send(other, ipc_self(other), 3, &i, 4), 0);
    ASSERT_TRUE(Receive(other));
  }
  pollfd p = {fds[0], POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 0), 0) << "the sender was not held back";
  // Now both send to each other before receiving: no deadlock, nothing lost.
  EXPECT_TRUE(exchange(slow, to, -1));
  EXPECT_EQ(Join(fast), 0);
  ipc_close(slow);
  ipc_close(other);
}

// Writes raw bytes as a client would, bypassing the library.
std::string Frame(uint8_t command, uint32_t to, uint32_t from, const std::string& payload) {
  db::ipc::FrameHeader h{command, static_cast<uint32_t>(payload.size()), 0, from, to, 0};
  std::string out;
  db::ipc::AppendFrame(h, payload.data(), &out);
  return out;
}

TEST_F(IpcTest, BadClientsAreDroppedAndCannotForgeTheSender) {
  ipc_endpoint* r = ipc_open("r");
  auto open = [](const char* name) { return Frame(db::ipc::kOpen, 0, 0, name); };
  std::string huge = Frame(db::ipc::kSend, ipc_self(r), 0, "");
  huge.replace(4, 4, "\xff\xff\xff\xff");
  const std::string bad[] = {
      "garbage, not a frame",
      open("r1") + huge,  // a length of 4 GiB
      open("r2") + Frame(db::ipc::kSend, ipc_self(r), 0, std::string(100, 'x')).substr(0, 60),
      open("r3") + Frame(99, 0, 0, ""),  // unknown command
      Frame(db::ipc::kSend, ipc_self(r), 0, "before open"),
  };
  for (const std::string& bytes : bad) {
    int fd = Connect();
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
    close(fd);
  }
  // A raw client claiming another sender is corrected by the router.
  int fd = Connect();
  std::string forged =
      Frame(db::ipc::kOpen, 0, 0, "forger") + Frame(db::ipc::kSend, ipc_self(r), 12345, "forged");
  ASSERT_EQ(write(fd, forged.data(), forged.size()), static_cast<ssize_t>(forged.size()));
  Message m = Receive(r);
  ASSERT_TRUE(m);
  EXPECT_EQ(ipc_find(r, "forger", 1), 0);
  Message found = Receive(r);
  ASSERT_TRUE(found);
  EXPECT_EQ(m->sender, found->sender);
  close(fd);
  // Everyone else is still served, and each bad client cost one log line.
  ipc_endpoint* s = ipc_open("s");
  ASSERT_EQ(ipc_send(s, ipc_self(r), 7, "ok", 2), 0);
  EXPECT_TRUE(Receive(r));
  for (int i = 0; i < 500 && Count("dropped connection") < 5; ++i) usleep(10000);
  EXPECT_EQ(Count("dropped connection"), 5);
  ipc_close(r);
  ipc_close(s);
}

TEST_F(IpcTest, RouterGoneMakesCallsFailWithConnReset) {
  ipc_endpoint* a = ipc_open("a");
  Stop(SIGKILL);
  signal(SIGPIPE, SIG_DFL);  // the library must not raise it
  EXPECT_FALSE(Receive(a, -1));
  EXPECT_EQ(errno, ECONNRESET);
  for (int rc : {ipc_send(a, 1, 1, "x", 1), ipc_find(a, "b", 1), ipc_watch(a, 5, 1)}) {
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(errno, ECONNRESET);
  }
  pollfd p = {ipc_fd(a), POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 0), 1);  // the loop is woken to learn of it
  ipc_close(a);
}

long ProcValue(pid_t pid, const char* key) {
  std::string text = db_test::ReadFile("/proc/" + std::to_string(pid) + "/status");
  size_t at = text.find(key);
  return at == std::string::npos ? -1 : atol(text.c_str() + at + strlen(key) + 1);
}

TEST_F(IpcTest, ThousandEndpointsLeaveTheRouterFlat) {
  ipc_endpoint* anchor = ipc_open("anchor");
  auto cycle = [&] {
    for (int i = 0; i < 1000; ++i) {
      ipc_endpoint* ep = ipc_open(("ep" + std::to_string(i % 7)).c_str());
      ASSERT_NE(ep, nullptr);
      ipc_watch(ep, ipc_self(anchor), 1);
      ipc_close(ep);
    }
    std::string status = Status();  // all closes seen, their watches gone
    ASSERT_NE(status.find("endpoints 1\n"), std::string::npos) << status;
    ASSERT_NE(status.find("watches 0\n"), std::string::npos) << status;
  };
  auto fds = [&] {
    return std::distance(
        std::filesystem::directory_iterator("/proc/" + std::to_string(router_) + "/fd"),
        std::filesystem::directory_iterator());
  };
  cycle();
  cycle();  // warmed up: the allocator holds what it will keep
  [[maybe_unused]] long rss = ProcValue(router_, "VmRSS:");
  auto open_fds = fds();
  cycle();
  cycle();
  EXPECT_EQ(fds(), open_fds);
#ifndef __SANITIZE_ADDRESS__  // the sanitizer's quarantine grows on purpose
  EXPECT_LT(ProcValue(router_, "VmRSS:") - rss, 256) << "KiB";
#endif
  // Out of descriptors, the router refuses newcomers and serves the others.
  rlimit low = {static_cast<rlim_t>(open_fds + 4), static_cast<rlim_t>(open_fds + 4)};
  ASSERT_EQ(prlimit(router_, RLIMIT_NOFILE, &low, nullptr), 0);
  std::vector<ipc_endpoint*> eps;
  while (eps.size() < 20 &&
         (eps.push_back(ipc_open(std::to_string(eps.size()).c_str())), eps.back())) {
  }
  EXPECT_EQ(eps.back(), nullptr);
  EXPECT_EQ(Count("out of file descriptors"), 1);
  EXPECT_EQ(ipc_send(eps[0], ipc_self(anchor), 1, "", 0), 0);
  EXPECT_TRUE(Receive(anchor));
  for (ipc_endpoint* ep : eps) ipc_close(ep);
  ipc_close(anchor);
}

TEST_F(IpcTest, RouterProgram) {
  EXPECT_EQ(RunRouter({"--help"}, dir_.File("help"), true), 0);
  EXPECT_NE(db_test::ReadFile(dir_.File("help")).find("--link PEER=HOST:PORT"), std::string::npos);
  const std::vector<std::string> wrong[] = {{"--link", "B=127.0.0.1:1"},
                                            {"--node", "a/b"},
                                            {"--node", "A", "--link", "A=127.0.0.1:1"},
                                            {"--node", "A", "--link", "B=1", "--link", "B=2"},
                                            {"--node", "A", "--heartbeat-ms", "0"}};
  for (const auto& args : wrong) EXPECT_EQ(RunRouter(args, dir_.File("wrong"), true), 2);
  for (const char* at : {"127.0.0.1", "127.0.0.1:65536"}) {
    EXPECT_EQ(RunRouter({"--socket", dir_.File("x.sock"), "--node", "A", "--listen", at},
                        dir_.File("wrong"), true),
              1);
  }
  struct stat st;
  ASSERT_EQ(stat(sock_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);
  // A second router refuses a live socket (the first one goes on serving), and
  // any path that is not a socket.
  EXPECT_EQ(RunRouter({"--socket", sock_}, dir_.File("second"), true), 1);
  EXPECT_EQ(RunRouter({"--socket", dir_.File("help")}, dir_.File("second"), true), 1);
  EXPECT_NE(db_test::ReadFile(dir_.File("help")).find("--socket PATH"), std::string::npos);
  ipc_endpoint* a = ipc_open("a");
  ASSERT_NE(a, nullptr);
  ipc_close(a);
  // SIGTERM stops it cleanly and removes the socket; a stale file is taken over.
  EXPECT_EQ(Stop(SIGTERM), 0);
  EXPECT_FALSE(std::filesystem::exists(sock_));
  Start();
  Stop(SIGKILL);
  ASSERT_TRUE(std::filesystem::exists(sock_));
  Start();  // serves again once it accepts
  EXPECT_EQ(Count("taking over stale socket"), 1);
}

// Routers of nodes linked over 127.0.0.1, each serving a socket of its own.
class LinkTest : public testing::Test {
 protected:
  static constexpr int kBeatMs = 200;
  static constexpr uint32_t kFound = 0xf00d;
  void TearDown() override {
    for (const auto& [node, pid] : pids_) {
      int status = 0;
      kill(pid, SIGCONT);
      kill(pid, SIGTERM);
      waitpid(pid, &status, 0);
      EXPECT_EQ(status, 0) << Log(node);
    }
  }
  // Starts the router of `node` listening on `port` (0: any) and dialling
  // `peers` (node -> port); returns the port it listens on.
  int Start(const std::string& node, int port, const std::map<std::string, int>& peers = {}) {
    std::vector<std::string> args = {"--socket",       Sock(node),
                                     "--node",         node,
                                     "--heartbeat-ms", std::to_string(kBeatMs),
                                     "--listen",       "127.0.0.1:" + std::to_string(port)};
    for (const auto& [peer, at] : peers) {
      args.insert(args.end(), {"--link", peer + "=127.0.0.1:" + std::to_string(at)});
    }
    size_t seen = Log(node).size();  // a restarted router appends
    pids_[node] = RunRouter(args, dir_.File(node + ".log"), false);
    std::string log, key = "links on 127.0.0.1:";
    for (int i = 0; i < 1000 && (log = Log(node).substr(seen)).find("serving") == log.npos; ++i) {
      usleep(10000);
    }
    return log.find(key) == log.npos ? 0 : atoi(log.c_str() + log.find(key) + key.size());
  }
  std::string Sock(const std::string& node) { return dir_.File(node + ".sock"); }
  std::string Log(const std::string& node) { return db_test::ReadFile(dir_.File(node + ".log")); }
  ipc_endpoint* Open(const std::string& node, const char* name) {
    setenv("IPC_ROUTER_SOCKET", Sock(node).c_str(), 1);
    return ipc_open(name);
  }
  // The local address of "NODE/name" found from `ep`, or 0.
  uint32_t Find(ipc_endpoint* ep, const char* name) {
    ipc_find(ep, name, kFound);
    Message m = Receive(ep, 20000, {kFound});
    return m ? m->sender : 0;
  }
  db_test::TempDir dir_;
  std::map<std::string, pid_t> pids_;
};

sockaddr_in Loopback(int port) {
  sockaddr_in at = {};
  at.sin_family = AF_INET;
  at.sin_port = htons(static_cast<uint16_t>(port));
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return at;
}

// Connects to `port`, writes `bytes` and reads until the peer hangs up: true
// when it does.
bool HungUp(int port, const std::string& bytes) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in to = Loopback(port);
  timeval limit = {20, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  ssize_t n = connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 0
                  ? send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL)
                  : -1;
  char buf[4096];
  while (n > 0) n = recv(fd, buf, sizeof(buf), 0);
  close(fd);
  return n == 0 || errno == ECONNRESET;
}

std::string Hello(const std::string& node) {
  std::string frame = Frame(db::ipc::kHello, 0, 0, node);
  frame[23] = 100;  // heartbeat ms: the last byte of the big-endian arg
  return frame;
}

TEST_F(LinkTest, FindRequestReplyWatchAndBadPeers) {
  int silent = socket(AF_INET, SOCK_STREAM, 0);  // node E: accepts links, never answers
  sockaddr_in at = Loopback(0);
  socklen_t len = sizeof(at);
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&at), len) + listen(silent, 4), 0);
  getsockname(silent, reinterpret_cast<sockaddr*>(&at), &len);
  int port_b = Start("B", 0);
  ipc_endpoint* x = Open("B", "x");  // before the link is up
  int port_a = Start("A", 0, {{"B", port_b}, {"E", ntohs(at.sin_port)}});
  int dialled = accept(silent, nullptr, nullptr);
  // E dials while A's dial to E waits for an answer: A, first in order, keeps its own.
  EXPECT_TRUE(HungUp(port_a, Hello("E")));
  close(dialled);
  ipc_endpoint* a = Open("A", "a");
  uint32_t to_x = Find(a, "B/x");
  ASSERT_NE(to_x, 0u);
  ASSERT_EQ(ipc_find(a, "B/y", 2), 0);
  ipc_endpoint* y = Open("B", "y");
  uint32_t to_y = 0;
  ASSERT_EQ(ipc_watch(a, to_x, 3), 1);
  ASSERT_EQ(ipc_send(a, to_x, 10, "ping", 4), 0);
  Message request = Receive(x);
  ASSERT_TRUE(request && request->size == 4);
  ASSERT_EQ(ipc_send(x, request->sender, 11, request->data, 4), 0);  // back the way it came
  ipc_close(x);
  for (uint32_t type : {2u, 11u, 3u}) {  // y found, the reply, x gone: each once
    Message m = Receive(a, 20000);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->type, type);
    if (type == 2) to_y = m->sender;
    EXPECT_EQ(m->sender, type == 2 ? to_y : to_x);
    EXPECT_EQ(m->size, type == 11 ? 4u : 0u);
  }
  EXPECT_FALSE(Receive(a, 2 * kBeatMs));
  RunRouter({"--socket", Sock("A"), "--status"}, dir_.File("status"), true);
  std::string status = db_test::ReadFile(dir_.File("status"));
  EXPECT_NE(status.find("  B/y\n"), std::string::npos) << status;
  std::regex row("\n  B +up +[0-9]+ ms ago +1 +[0-9]+ +1 +[0-9]+  127.0.0.1:[0-9]+\n");
  EXPECT_TRUE(std::regex_search(status, row)) << status;
  // Peers that break the rules are dropped; the link to B goes on.
  std::string huge = Frame(db::ipc::kLinkMessage, 0, 0, "");
  huge.replace(4, 4, "\xff\xff\xff\xff");
  const std::string bad[] = {"garbage, not a frame", Hello("C") + huge, Hello("A"), Hello("B"),
                             Hello("D") + Frame(db::ipc::kLinkMessage, 1, 12345, "who?")};
  for (const std::string& bytes : bad) EXPECT_TRUE(HungUp(port_a, bytes)) << bytes;
  EXPECT_EQ(Occurrences(dir_.File("A.log"), "dropped link connection"), 4) << Log("A");
  EXPECT_EQ(Occurrences(dir_.File("A.log"), " down ("), 2) << Log("A");
  ASSERT_EQ(ipc_send(a, to_y, 1, "ok", 2), 0);
  EXPECT_TRUE(Receive(y));
  ipc_close(a);
  ipc_close(y);
  close(silent);
}

TEST_F(LinkTest, BackPressureOrderAndIntegrityAcrossALink) {
  Start("A", 0, {{"B", Start("B", 0)}});
  ipc_endpoint* slow = Open("B", "slow");
  ipc_endpoint* quick_b = Open("B", "quick");
  ipc_endpoint* a = Open("A", "a");
  ipc_endpoint* quick_a = Open("A", "quick");
  uint32_t to_slow = Find(a, "B/slow"), to_quick = Find(quick_a, "B/quick");
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t bulk = Spawn([&] {  // far more than the window and all buffers hold
    ipc_endpoint* ep = Open("A", "bulk");
    std::vector<uint8_t> buf(IPC_MAX_SIZE);
    for (int i = 0; i < 200; ++i) {
      buf[0] = static_cast<uint8_t>(i);
      if (ipc_send(ep, to_slow, 1, buf.data(), IPC_MAX_SIZE) != 0) return 1;
    }
    return write(fds[1], "x", 1) == 1 ? 0 : 1;
  });
  usleep(300000);
  for (uint32_t i = 0; i < 100; ++i) {  // others talk across the same link meanwhile
    ASSERT_EQ(ipc_send(quick_a, to_quick, 2, &i, 4), 0);
    Message m = Receive(quick_b);
    ASSERT_TRUE(m);
    ASSERT_EQ(ipc_send(quick_b, m->sender, 2, &i, 4), 0);
    ASSERT_TRUE(Receive(quick_a));
  }
  pollfd p = {fds[0], POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 0), 0) << "the sender was not held back";
  for (int i = 0; i < 200; ++i) {
    Message m = Receive(slow);
    ASSERT_TRUE(m && m->size == IPC_MAX_SIZE);
    ASSERT_EQ(static_cast<const uint8_t*>(m->data)[0], static_cast<uint8_t>(i));
  }
  EXPECT_EQ(Join(bulk), 0);
  // Sequences both ways at once.
  constexpr uint32_t kEach = 50000;
  auto exchange = [](ipc_endpoint* ep, uint32_t to) {
    bool ok = SendSequence(ep, to, kEach);
    for (uint32_t seq = 0; ok && seq < kEach; ++seq) {
      Message m = Receive(ep, 20000, {1});
      ok = IsMessage(m, seq) && m->sender == to;
    }
    return ok;
  };
  pid_t far = Spawn([&] {
    ipc_endpoint* ep = Open("B", "far");
    return exchange(ep, Find(ep, "A/a")) ? 0 : 1;
  });
  EXPECT_TRUE(exchange(a, Find(a, "B/far")));
  EXPECT_EQ(Join(far), 0);
  for (ipc_endpoint* ep : {slow, quick_b, a, quick_a}) ipc_close(ep);
}

TEST_F(LinkTest, LostLinkFiresWatchesOnceAndFindsStayArmed) {
  const int port_a = Start("A", 0);
  Start("B", 0, {{"A", port_a}});
  ipc_endpoint* w = Open("A", "w");
  std::vector<ipc_endpoint*> on_b = {Open("B", "x1"), Open("B", "x2")};
  for (int sig : {SIGSTOP, SIGKILL}) {
    uint32_t gone[2] = {Find(w, "B/x1"), Find(w, "B/x2")};
    ASSERT_GT(ipc_watch(w, gone[0], 1), 0);
    ASSERT_GT(ipc_watch(w, gone[1], 2), 0);
    kill(pids_["B"], sig);
    for (uint32_t type : {1u, 2u}) {
      Message m = Receive(w, 30 * kBeatMs, {type});  // bound: 3 beats, and a generous margin
      ASSERT_TRUE(m) << sig;
      EXPECT_EQ(m->sender, gone[type - 1]);
    }
    EXPECT_FALSE(Receive(w, 3 * kBeatMs, {1, 2}));  // once
    ASSERT_EQ(ipc_find(w, "B/x1", kFound), 0);      // armed while the link is down
    kill(pids_["B"], SIGCONT);
    if (sig == SIGKILL) {
      waitpid(pids_["B"], nullptr, 0);
      Start("B", 0, {{"A", port_a}});
      for (ipc_endpoint* ep : on_b) ipc_close(ep);
      on_b = {Open("B", "x1"), Open("B", "x2")};
    }
    Message found = Receive(w, 20000, {kFound});
    ASSERT_TRUE(found) << sig;
    EXPECT_NE(found->sender, gone[0]);
  }
  for (ipc_endpoint* ep : on_b) ipc_close(ep);
  ipc_close(w);
}

}  // namespace
