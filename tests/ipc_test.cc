// Messaging through ipc-routers each test starts (nodes linked over 127.0.0.1) and stops.

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <regex>

#include "db/ipc.h"
#include "ipc_frame.h"
#include "support/test_util.h"

extern "C" int ipc_c_round_trip(const char* name);  // ipc_c_api.c, compiled as C

namespace {

using Message = std::unique_ptr<ipc_message, decltype(&ipc_free)>;
constexpr int kBeatMs = 200;  // of linked routers; every link time limit derives from it
constexpr uint32_t kFound = 0xf00d;

Message Receive(ipc_endpoint* ep, int32_t timeout = 5000, std::vector<uint32_t> types = {}) {
  ipc_message* m = nullptr;
  ipc_receive(ep, types.data(), types.size(), timeout, &m);
  return Message(m, ipc_free);
}

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

// Runs ipc-router, output to `out`; returns its pid, or its exit status when `wait`.
int RunRouter(const std::vector<std::string>& args, const std::string& out, bool wait) {
  std::vector<std::string> argv = db_test::ProgramCommand(IPC_ROUTER_PATH);
  argv.insert(argv.end(), args.begin(), args.end());
  int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  pid_t pid = db_test::StartProgram(argv, fd, fd);
  close(fd);
  return wait ? Join(pid) : pid;
}

// The routers of a test, by node name: "" is a node without links; any other
// node listens for links on 127.0.0.1 and dials its peers.
class IpcTest : public testing::Test {
 protected:
  // A clean stop, also under the sanitizers' leak check.
  void TearDown() override {
    for (const auto& [node, pid] : std::map<std::string, pid_t>(pids_)) {
      kill(pid, SIGCONT);
      EXPECT_EQ(Stop(node, SIGTERM), 0) << Log(node);
    }
  }
  // Starts `node`'s router dialling `peers` (node -> port); returns its link port.
  int Start(const std::string& node = "", const std::map<std::string, int>& peers = {}) {
    std::vector<std::string> args = {"--socket", Sock(node), "--heartbeat-ms",
                                     std::to_string(kBeatMs)};
    if (!node.empty()) args.insert(args.end(), {"--node", node, "--listen", "127.0.0.1:0"});
    for (const auto& [peer, at] : peers) {
      args.insert(args.end(), {"--link", peer + "=127.0.0.1:" + std::to_string(at)});
    }
    setenv("IPC_ROUTER_SOCKET", Sock(node).c_str(), 1);
    pids_[node] = RunRouter(args, dir_.File(node + "router.log"), false);
    std::string log, key = "links on 127.0.0.1:";
    for (int i = 0; i < 3000 && (log = Log(node)).find("serving") == log.npos; ++i) usleep(10000);
    return log.find(key) == log.npos ? 0 : atoi(log.c_str() + log.find(key) + key.size());
  }
  int Stop(const std::string& node, int sig) {
    kill(pids_[node], sig);
    int status = Join(pids_[node]);
    pids_.erase(node);
    return status;
  }
  std::string Sock(const std::string& node) { return dir_.File(node + "ipc.sock"); }
  std::string Log(const std::string& node) {
    return db_test::ReadFile(dir_.File(node + "router.log"));
  }
  int Count(const std::string& text, const std::string& node = "") {
    std::string log = Log(node);
    int n = 0;
    for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; ++at) ++n;
    return n;
  }
  ipc_endpoint* Open(const std::string& node, const char* name) {
    setenv("IPC_ROUTER_SOCKET", Sock(node).c_str(), 1);
    return ipc_open(name);
  }
  std::string Status(const std::string& node = "") {
    EXPECT_EQ(RunRouter({"--socket", Sock(node), "--status"}, dir_.File("status"), true), 0);
    return db_test::ReadFile(dir_.File("status"));
  }
  // The address of `name` found from `ep`, or 0.
  uint32_t Find(ipc_endpoint* ep, const std::string& name) {
    ipc_find(ep, name.c_str(), kFound);
    Message m = Receive(ep, 20000, {kFound});
    return m ? m->sender : 0;
  }
  db_test::TempDir dir_;
  std::map<std::string, pid_t> pids_;
};

// Cases that hold alike on one node and across a link: Near and Far open on nodes A
// and B (one node when not linked); Remote and Back name far and near across.
class IpcBothTest : public IpcTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override { GetParam() ? Start("A", {{"B", Start("B")}}) : Start(); }
  ipc_endpoint* Near(const char* name) { return Open(GetParam() ? "A" : "", name); }
  ipc_endpoint* Far(const char* name) { return Open(GetParam() ? "B" : "", name); }
  std::string Remote(const std::string& name) { return (GetParam() ? "B/" : "") + name; }
  std::string Back(const std::string& name) { return (GetParam() ? "A/" : "") + name; }
};
INSTANTIATE_TEST_SUITE_P(Ipc, IpcBothTest, testing::Bool());

// The errno of a call that failed (returned -1 or null), 0 when it did not.
int Err(int rc) { return rc == -1 ? errno : 0; }
int Err(const void* p) { return p == nullptr ? errno : 0; }

TEST_F(IpcTest, CallsWatchesTimeOutsAndRouterGone) {
  Start();
  ipc_endpoint* w = ipc_open(std::string(63, 'w').c_str());
  ASSERT_NE(ipc_self(w), 0u);
  ipc_message* m;
  static char big[IPC_MAX_SIZE + 1];
  EXPECT_THAT(
      (std::vector<int>{
          Err(ipc_open("")), Err(ipc_open(std::string(64, 'a').c_str())), Err(ipc_open("a b")),
          Err(ipc_open("a/b")), Err(ipc_open("x\x7f")), Err(ipc_close(nullptr)),
          Err(ipc_fd(nullptr)), Err(ipc_find(nullptr, "x", 1)), Err(ipc_find(w, "a/b/c", 1)),
          Err(ipc_watch(w, 0, 1)), Err(ipc_unwatch(w, 7)), Err(ipc_send(w, 0, 0, "", 0)),
          Err(ipc_receive(w, nullptr, 1, 0, &m)), Err(ipc_receive(w, nullptr, 0, -2, &m))}),
      testing::Each(EINVAL));
  EXPECT_EQ(Err(ipc_open(std::string(63, 'w').c_str())), EADDRINUSE);
  EXPECT_EQ(Err(ipc_send(w, 1, 0, big, IPC_MAX_SIZE + 1)), EMSGSIZE);
  EXPECT_EQ(Count("refused connection"), 1);
  EXPECT_EQ(Count("name \"" + std::string(63, 'w') + "\" is taken"), 1);
  EXPECT_EQ(ipc_self(nullptr), 0u);
  // A watch fires exactly once however its endpoint ends, and never once unwatched.
  enum Ending { kClose, kKill, kAlreadyGone, kUnwatch, kUnwatchQueued, kUnwatchInFlight };
  uint32_t peer = 0;
  std::set<int32_t> ids;  // never reused while the last ones are armed or just fired
  for (int ending = kClose; ending <= kUnwatchInFlight; ++ending) {
    ipc_endpoint* p = ipc_open("peer");
    peer = ipc_self(p);
    // kKill: the peer's socket then lives only in a process that dies.
    pid_t child = ending == kKill ? Spawn([] { return pause(); }) : 0;
    if (ending == kKill || ending == kAlreadyGone) ipc_close(p);
    if (ending == kAlreadyGone) Status();  // the router has seen it go
    int32_t id = ipc_watch(w, peer, 40 + ending);
    EXPECT_TRUE(id > 0 && ids.insert(id).second) << id;
    ASSERT_EQ(ending == kUnwatch ? ipc_unwatch(w, id) : 0, 0);  // while armed in the router
    if (ending == kKill) kill(child, SIGKILL);                  // reaped or not, its socket closes
    if (ending != kKill && ending != kAlreadyGone) ipc_close(p);
    if (ending >= kUnwatchQueued) {
      Status();                                               // the router has fired it,
      if (ending == kUnwatchQueued) Receive(w, 0, {0xffff});  // and we have read it
      EXPECT_EQ(ipc_unwatch(w, id), 0);
    }
    bool fires = ending < kUnwatch;
    Message fired = Receive(w, fires ? 5000 : 200);
    ASSERT_EQ(static_cast<bool>(fired), fires) << ending;
    EXPECT_TRUE(!fires || (fired->type == 40u + ending && fired->sender == peer &&
                           fired->size == 0 && ipc_unwatch(w, id) == -1))
        << ending;
    EXPECT_FALSE(Receive(w, 100)) << ending;  // once only
  }
  // A message to an address that is gone is dropped; its sender goes on.
  EXPECT_EQ(ipc_send(w, peer, 1, "x", 1), 0);
  EXPECT_EQ(ipc_send(w, ipc_self(w), 3, "", 0) + ipc_send(w, ipc_self(w), 2, "", 0), 0);
  EXPECT_TRUE(Receive(w, 5000, {2}) && !Receive(w, 0, {1}));
  EXPECT_EQ(Err(ipc_unwatch(w, 0)), EINVAL);  // the queued 3 is no watch's notice
  EXPECT_TRUE(Receive(w, 0, {3}));
  // A find that is never answered times out, a signal during the wait notwithstanding.
  const std::string longest = std::string(63, 'N') + "/" + std::string(63, 'n');
  ASSERT_EQ(ipc_find(w, "never", 12) + ipc_find(w, longest.c_str(), 12), 0);
  auto start = std::chrono::steady_clock::now();
  signal(SIGALRM, [](int) {});  // poll then fails with EINTR, restarting or not
  alarm(1);
  EXPECT_EQ(Err(ipc_receive(w, nullptr, 0, 1500, &m)), ETIMEDOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  std::regex status("endpoints 1\n[\\s\\S]* " + std::to_string(getpid()) +
                    " [\\s\\S]*watches 0\n[\\s\\S]*finds 2\n[\\s\\S]*routed 2 dropped 1\n");
  EXPECT_TRUE(std::regex_search(Status(), status)) << Status();
  EXPECT_EQ(ipc_c_round_trip("c-client"), 0);
  // The router goes away: calls fail with ECONNRESET, raising no SIGPIPE, also
  // a send held back by a receiver that does not read.
  ipc_endpoint* sink = ipc_open("sink");
  pid_t held = Spawn([&] {
    ipc_endpoint* ep = ipc_open("held");
    while (ipc_send(ep, ipc_self(sink), 1, big, IPC_MAX_SIZE) == 0) continue;
    return errno == ECONNRESET ? 0 : 1;
  });
  usleep(300000);
  Stop("", SIGKILL);
  signal(SIGPIPE, SIG_DFL);
  errno = EAGAIN;  // the first call sets errno itself
  EXPECT_THAT(
      (std::vector<int>{Err(ipc_receive(w, nullptr, 0, 1000, &m)),
                        Err(ipc_receive(w, nullptr, 0, -1, &m)), Err(ipc_send(w, 1, 1, "x", 1)),
                        Err(ipc_find(w, "b", 1)), Err(ipc_watch(w, 5, 1))}),
      testing::Each(ECONNRESET));
  pollfd p = {ipc_fd(w), POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 0), 1);  // the loop is woken to learn of it
  for (ipc_endpoint* ep : {w, sink}) ipc_close(ep);
  EXPECT_EQ(Join(held), 0);
  EXPECT_EQ(Err(ipc_open("late")), ECONNREFUSED);  // a stale socket file,
  Start();                                         // which a new router takes over
  EXPECT_EQ(Count("taking over stale socket"), 1);
  EXPECT_EQ(Stop("", SIGTERM), 0);  // and removes when it stops
  EXPECT_EQ(Err(ipc_open("late")), ENOENT);
  unsetenv("IPC_ROUTER_SOCKET");  // the default socket, where no router runs here
  EXPECT_TRUE(std::filesystem::exists("/run/ipc-router.sock") || Err(ipc_open("x")) == ENOENT);
}

// A frame as a client or a peer router would write it, bypassing the library.
std::string Frame(uint8_t command, uint32_t to, uint32_t from, const std::string& payload,
                  uint32_t arg = 0) {
  db::ipc::FrameHeader h{command, static_cast<uint32_t>(payload.size()), 0, from, to, arg};
  std::string out;
  db::ipc::AppendFrame(h, payload.data(), &out);
  return out;
}

TEST(IpcFrameTest, PrefixesAreRefusedAtTheFirstBadByte) {
  db::ipc::FrameHeader h;
  std::string find = Frame(db::ipc::kFind, 0, 0, std::string(2 * IPC_MAX_NAME + 1, 'n'));
  const auto* bytes = reinterpret_cast<const uint8_t*>(find.data());
  EXPECT_EQ(db::ipc::ParseFrame(bytes, find.size(), &h), db::ipc::ParseResult::kFrame);
  EXPECT_EQ(db::ipc::ParseFrame(bytes, find.size() - 1, &h), db::ipc::ParseResult::kNeedMore);
  for (size_t i = 0; i < 4; ++i) {  // version, command, two zero bytes
    const char kept = find[i];
    find[i] = i == 1 ? 99 : 2;
    EXPECT_EQ(db::ipc::ParseFrame(bytes, i + 1, &h), db::ipc::ParseResult::kMalformed) << i;
    find[i] = kept;
  }
}

// A send held back when the router turns bad (garbage, or a frame no router sends a client)
// fails: none reported done arrived short.
TEST_F(IpcTest, SendCutShortByABadRouterFails) {
  setenv("IPC_ROUTER_SOCKET", Sock("").c_str(), 1);
  sockaddr_un a = {AF_UNIX, {}};
  snprintf(a.sun_path, sizeof(a.sun_path), "%s", Sock("").c_str());
  int fake = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(fake, reinterpret_cast<sockaddr*>(&a), sizeof(a)) + listen(fake, 1), 0);
  for (const std::string& bad : {std::string("garbage"), Frame(db::ipc::kFind, 0, 0, "x")}) {
    pid_t client = Spawn([] {
      static char big[IPC_MAX_SIZE];
      ipc_endpoint* ep = ipc_open("c");
      int sent = 0;
      while (ipc_send(ep, 1, 1, big, IPC_MAX_SIZE) == 0) ++sent;
      return sent;
    });
    int fd = accept(fake, nullptr, nullptr);
    std::string reply = Frame(db::ipc::kOpenReply, 5, 0, ""), bytes(1 << 20, 0);
    ASSERT_EQ(write(fd, reply.data(), reply.size()), ssize_t(reply.size()));
    const size_t frame = db::ipc::kFrameHeaderSize + IPC_MAX_SIZE;
    const size_t open = Frame(db::ipc::kOpen, 0, 0, "c").size();
    int queued = 0;  // the client is past its open and held back
    for (int i = 0; i < 3000 && size_t(queued) < open + 2 * frame; ++i) {
      ioctl(fd, FIONREAD, &queued);
      usleep(1000);
    }
    ASSERT_EQ(write(fd, bad.data(), bad.size()), ssize_t(bad.size()));
    size_t got = 0;  // bounded: a client that took the frame would send on
    for (ssize_t n; got < 100 * frame && (n = read(fd, bytes.data(), bytes.size())) > 0;)
      got += size_t(n);
    close(fd);
    const size_t sent = Join(client);
    EXPECT_GE(sent, 2u);
    EXPECT_GE(got, open + sent * frame);
    EXPECT_LT(got, 100 * frame);
  }
  close(fake);
}

TEST_F(IpcTest, BadClientsOutOfDescriptorsAndRouterProgram) {
  Start();
  ipc_endpoint* r = ipc_open("r");
  auto raw = [&](const std::string& bytes) {  // a client that writes `bytes`
    sockaddr_un a = {AF_UNIX, {}};
    snprintf(a.sun_path, sizeof(a.sun_path), "%s", Sock("").c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
    return fd;
  };
  auto open = [](const char* name) { return Frame(db::ipc::kOpen, 0, 0, name); };
  std::string huge = Frame(db::ipc::kSend, ipc_self(r), 0, "");
  huge.replace(4, 4, "\xff\xff\xff\xff");
  for (const std::string& bytes :
       {std::string("garbage, not a frame"),
        open("r1") + huge,  // a length of 4 GiB
        open("r2") + Frame(db::ipc::kSend, ipc_self(r), 0, std::string(100, 'x')).substr(0, 60),
        open("r3") + Frame(99, 0, 0, ""),  // unknown command
        open("bad name") + Frame(db::ipc::kSend, ipc_self(r), 0, "after refusal"),  // not read
        Frame(db::ipc::kSend, ipc_self(r), 0, "before open")}) {
    close(raw(bytes));
  }
  // A raw client claiming another sender is corrected by the router.
  int fd = raw(open("forger") + Frame(db::ipc::kSend, ipc_self(r), 12345, "forged"));
  Message m = Receive(r);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->sender, Find(r, "forger"));
  close(fd);
  // Each bad client cost one log line.
  for (int i = 0; i < 500 && Count("dropped connection") < 5; ++i) usleep(10000);
  EXPECT_EQ(Count("dropped connection"), 5);
  using It = std::filesystem::directory_iterator;
  const auto open_fds = std::distance(It("/proc/" + std::to_string(pids_[""]) + "/fd"), It());
  // Out of descriptors, the router refuses newcomers and serves the others.
  rlimit low = {static_cast<rlim_t>(open_fds + 4), static_cast<rlim_t>(open_fds + 4)};
  ASSERT_EQ(prlimit(pids_[""], RLIMIT_NOFILE, &low, nullptr), 0);
  std::vector<ipc_endpoint*> eps;
  do eps.push_back(ipc_open(std::to_string(eps.size()).c_str()));
  while (eps.size() < 20 && eps.back());
  EXPECT_EQ(eps.back(), nullptr);
  EXPECT_EQ(Count("out of file descriptors"), 1);
  EXPECT_EQ(ipc_send(eps[0], ipc_self(r), 1, "", 0), 0);
  EXPECT_TRUE(Receive(r));
  for (ipc_endpoint* ep : eps) ipc_close(ep);
  ipc_close(r);
  const std::string x = dir_.File("x.sock"), help = dir_.File("help");
  const std::pair<std::vector<std::string>, int> runs[] = {
      {{"--help"}, 0},
      {{"--node", "a/b"}, 2},
      {{"--socket", x, "--node", "A", "--listen", "127.0.0.1"}, 1},
      {{"--socket", Sock("")}, 1},  // a live router's: it goes on serving
      {{"--socket", help}, 1}};     // not a socket: left alone
  for (const auto& [args, status] : runs) {
    EXPECT_EQ(RunRouter(args, status == 0 ? help : dir_.File("wrong"), true), status)
        << args.back();
  }
  EXPECT_NE(db_test::ReadFile(help).find("--link PEER=HOST:PORT"), std::string::npos);
  EXPECT_EQ(std::filesystem::status(Sock("")).permissions(), std::filesystem::perms(0660));
  EXPECT_EQ(ipc_close(ipc_open("a")), 0);
}

// Message `seq` of every sender: mostly small, one in 32 up to the limit.
std::string Payload(uint32_t seq) {
  uint32_t r = seq * 2654435761u;
  r ^= r >> 13;
  return std::string(r % 32 == 0 ? (r >> 5) % (IPC_MAX_SIZE + 1) : (r >> 5) % 300, char(seq));
}

// Sends messages 0 to n - 1 of type 1 to `to`.
bool SendSequence(ipc_endpoint* ep, uint32_t to, uint32_t n) {
  for (uint32_t seq = 0; seq < n; ++seq) {
    std::string p = Payload(seq);
    if (ipc_send(ep, to, 1, p.data(), static_cast<uint32_t>(p.size())) != 0) return false;
  }
  return true;
}

bool IsMessage(const Message& m, uint32_t seq) {
  return m && m->type == 1 &&
         std::string(static_cast<const char*>(m->data), m->size) == Payload(seq);
}

TEST_P(IpcBothTest, FindWatchOrderIntegrityAndBackPressure) {
  constexpr uint32_t kSenders = 4, kEach = 25000, kBack = 50000;
  ipc_endpoint* r = Far("r");
  pollfd rp = {ipc_fd(r), POLLIN, 0};
  EXPECT_EQ(poll(&rp, 1, 0), 0);
  ipc_endpoint* talker = Near("talker");
  uint32_t to_r = Find(talker, Remote("r")), to_quick = 0;
  ASSERT_EQ(ipc_find(talker, Remote("quick").c_str(), 2), 0);  // before it opens
  ipc_endpoint* quick = Far("quick");
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::vector<pid_t> children;
  for (uint32_t s = 0; s < kSenders; ++s) {
    children.push_back(Spawn([&] {  // sender 0 then takes kBack messages from r
      ipc_endpoint* ep = Near(("sender" + std::to_string(s)).c_str());
      bool ok = SendSequence(ep, to_r, kEach) && write(fds[1], "x", 1) == 1;
      for (uint32_t seq = 0; ok && s == 0 && seq < kBack; ++seq) {
        Message m = Receive(ep, 20000);
        ok = IsMessage(m, seq) && m->sender == to_r;
      }
      return ok && ipc_close(ep) == 0 ? 0 : 1;
    }));
  }
  // While r reads nothing its senders are held back, and others talk (replying to the sender).
  usleep(300000);
  Message found = Receive(talker, 20000, {2});
  ASSERT_TRUE(found && found->size == 0);
  to_quick = found->sender;
  ASSERT_EQ(ipc_send(talker, to_quick, 3, "q", 1), 0);
  EXPECT_TRUE(Receive(quick));
  pollfd p = {fds[0], POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 0), 0) << "the senders were not held back";
  // r sends to sender 0 before receiving, as it sends to r: no deadlock.
  // A type filter leaves the others queued in order; the fd is readable meanwhile.
  uint32_t to_sender0 = Find(r, Back("sender0"));
  EXPECT_EQ(poll(&rp, 1, 0), 1);
  ASSERT_TRUE(SendSequence(r, to_sender0, kBack));
  std::map<uint32_t, uint32_t> next;  // sender address -> next seq
  for (uint32_t n = 0; n < kSenders * kEach; ++n) {
    Message m = Receive(r, 20000);
    ASSERT_TRUE(IsMessage(m, next[m ? m->sender : 0]++)) << n;
  }
  for (pid_t c : children) EXPECT_EQ(Join(c), 0);
  EXPECT_FALSE(Receive(r, 0));
  EXPECT_EQ(poll(&rp, 1, 0), 0);
  // A watch fires once when its endpoint closes.
  ASSERT_EQ(ipc_watch(talker, to_quick, 5), 1);
  ipc_close(quick);
  Message gone = Receive(talker, 20000);
  ASSERT_TRUE(gone && gone->type == 5 && gone->sender == to_quick && gone->size == 0);
  EXPECT_FALSE(Receive(talker, 2 * kBeatMs));
  for (ipc_endpoint* ep : {r, talker}) ipc_close(ep);
}

// Writes `bytes` to 127.0.0.1:`port`: true when the peer then hangs up.
bool HungUp(int port, const std::string& bytes) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in to = {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
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

TEST_F(IpcTest, LinksCrossDropBadPeersAndAreSupervised) {
  auto hello = [](const char* node) { return Frame(db::ipc::kHello, 0, 0, node, kBeatMs); };
  int silent = socket(AF_INET, SOCK_STREAM, 0);  // node E: accepts links, never answers
  sockaddr_in at = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t len = sizeof(at);
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&at), len) + listen(silent, 4), 0);
  getsockname(silent, reinterpret_cast<sockaddr*>(&at), &len);
  const int port_a = Start("A", {{"E", ntohs(at.sin_port)}});
  int dialled = accept(silent, nullptr, nullptr);
  // E dials while A's dial to E waits for an answer: A, first in order, keeps its own.
  EXPECT_TRUE(HungUp(port_a, hello("E")));
  close(dialled);
  Start("B", {{"A", port_a}});
  ipc_endpoint* w = Open("A", "w");
  std::vector<ipc_endpoint*> on_b = {Open("B", "x1"), Open("B", "x2")};
  ASSERT_NE(Find(w, "B/x1"), 0u);
  std::string status = Status("A");
  std::regex row("  B/x1\n[\\s\\S]*\n  B +up +[0-9]+ ms ago( +[0-9]+){4}  127.0.0.1:[0-9]+\n");
  EXPECT_TRUE(std::regex_search(status, row)) << status;
  // Peers that break the rules are dropped; the link to B goes on.
  std::string huge = Frame(db::ipc::kLinkMessage, 0, 0, "");
  huge.replace(4, 4, "\xff\xff\xff\xff");
  const std::string bad[] = {"garbage, not a frame", hello("C") + huge, hello("A"), hello("B"),
                             hello("D") + Frame(db::ipc::kLinkMessage, 1, 12345, "who?")};
  for (const std::string& bytes : bad) EXPECT_TRUE(HungUp(port_a, bytes)) << bytes;
  EXPECT_EQ(Count("dropped link connection", "A"), 4) << Log("A");
  EXPECT_EQ(Count(" down (", "A"), 2) << Log("A");
  // B frozen, then killed: its watches fire once in bound, finds wait for the link.
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
      Start("B", {{"A", port_a}});
      for (ipc_endpoint* ep : on_b) ipc_close(ep);
      on_b = {Open("B", "x1"), Open("B", "x2")};
    }
    Message found = Receive(w, 20000, {kFound});
    ASSERT_TRUE(found) << sig;
    EXPECT_NE(found->sender, gone[0]);
  }
  for (ipc_endpoint* ep : on_b) ipc_close(ep);
  ipc_close(w);
  close(silent);
}

}  // namespace
