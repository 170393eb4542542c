// Messaging through ipc-router beside the physical limit: a raw Unix
// socketpair between two processes doing the same exchange; across a link
// between two routers on loopback ("Ipc/Link..."), beside a raw TCP connection
// on loopback. Every endpoint is a process of its own. Times are wall-clock
// (the work spans processes), the median of several runs. Writes Google
// Benchmark's JSON (--benchmark_out=) so that bench/report.py pairs
// "Ipc/<op>/Lib" with "Ipc/<op>/Raw".
//
//   ipc_bench [--benchmark_min_time=T] [--benchmark_out=FILE] [--router=PATH]

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "db/ipc.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Reads (or writes, when `out`) exactly `size` bytes.
bool Exactly(int fd, char* p, size_t size, bool out) {
  while (size > 0) {
    ssize_t n = out ? write(fd, p, size) : read(fd, p, size);
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool WriteAll(int fd, const void* data, size_t size) {
  return Exactly(fd, const_cast<char*>(static_cast<const char*>(data)), size, true);
}

bool ReadAll(int fd, void* data, size_t size) {
  return Exactly(fd, static_cast<char*>(data), size, false);
}

// Two ends of a TCP connection on loopback, without Nagle's delay.
void TcpPair(int sv[2]) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in at = {};
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(at);
  if (bind(listener, reinterpret_cast<sockaddr*>(&at), len) != 0 || listen(listener, 1) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&at), &len) != 0) {
    abort();
  }
  sv[0] = socket(AF_INET, SOCK_STREAM, 0);
  if (connect(sv[0], reinterpret_cast<sockaddr*>(&at), len) != 0) abort();
  sv[1] = accept(listener, nullptr, nullptr);
  close(listener);
  int one = 1;
  for (int i = 0; i < 2; ++i) setsockopt(sv[i], IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

// A child process running `fn(fd)` on its end of a socketpair (a TCP
// connection when `tcp`); the parent keeps the other end in `fd`.
struct Child {
  explicit Child(const std::function<void(int)>& fn, bool tcp = false) {
    int sv[2];
    if (tcp) {
      TcpPair(sv);
    } else if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
      abort();
    }
    pid = fork();
    if (pid == 0) {
      close(sv[0]);
      fn(sv[1]);
      _exit(0);
    }
    close(sv[1]);
    fd = sv[0];
  }
  ~Child() {
    close(fd);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  pid_t pid;
  int fd;
};

ipc_message* Take(ipc_endpoint* ep) {
  ipc_message* m = nullptr;
  if (ipc_receive(ep, nullptr, 0, -1, &m) != 0) {
    perror("ipc_receive");
    abort();
  }
  return m;
}

// The routers of the benchmark: the node's own, and two linked nodes "A" and
// "B" on loopback, whose sockets `UseNode` selects for ipc_open.
std::string local_socket, node_socket[2];
std::vector<pid_t> router_pids;
pid_t node_b_router = 0;

void UseNode(int node) {
  setenv("IPC_ROUTER_SOCKET", node < 0 ? local_socket.c_str() : node_socket[node].c_str(), 1);
}

// The address of "NODE/name" as found from `ep`.
uint32_t FindAddress(ipc_endpoint* ep, const char* name) {
  const uint32_t found = 0xf0;
  ipc_message* m = nullptr;
  if (ipc_find(ep, name, found) != 0 || ipc_receive(ep, &found, 1, 60000, &m) != 0) abort();
  uint32_t address = m->sender;
  ipc_free(m);
  return address;
}

// Seconds for `n` round trips of `size` bytes (over TCP when `tcp`).
double RawRoundTrip(int n, uint32_t size, bool tcp) {
  Child echo(
      [&](int fd) {
        std::vector<char> buf(size);
        while (ReadAll(fd, buf.data(), size) && WriteAll(fd, buf.data(), size)) {
        }
      },
      tcp);
  std::vector<char> buf(size);
  auto start = Clock::now();
  for (int i = 0; i < n; ++i) {
    if (!WriteAll(echo.fd, buf.data(), size) || !ReadAll(echo.fd, buf.data(), size)) abort();
  }
  return SecondsSince(start);
}

// Through the node's router, or from node A to an echo on node B when `link`.
double IpcRoundTrip(int n, uint32_t size, bool link) {
  Child echo([&](int fd) {
    UseNode(link ? 1 : -1);
    ipc_endpoint* ep = ipc_open("bench-echo");
    uint32_t self = ipc_self(ep);
    if (!WriteAll(fd, &self, sizeof(self))) return;
    for (;;) {
      ipc_message* m = Take(ep);
      ipc_send(ep, m->sender, m->type, m->data, m->size);
      ipc_free(m);
    }
  });
  UseNode(link ? 0 : -1);
  ipc_endpoint* ep = ipc_open("bench-ping");
  uint32_t to = 0;
  if (ep == nullptr || !ReadAll(echo.fd, &to, sizeof(to))) abort();
  if (link) to = FindAddress(ep, "B/bench-echo");
  std::vector<char> buf(size);
  auto start = Clock::now();
  for (int i = 0; i < n; ++i) {
    ipc_send(ep, to, 1, buf.data(), size);
    ipc_free(Take(ep));
  }
  double seconds = SecondsSince(start);
  ipc_close(ep);
  return seconds;
}

// One-way: the child writes `n` messages as fast as it can, the parent takes
// them; timed from the go signal to the last one received.
double RawOneWay(int n, uint32_t size, bool tcp) {
  Child sender(
      [&](int fd) {
        std::vector<char> buf(size);
        char go;
        if (!ReadAll(fd, &go, 1)) return;
        for (int i = 0; i < n; ++i) WriteAll(fd, buf.data(), size);
      },
      tcp);
  std::vector<char> buf(256 * 1024);
  size_t left = static_cast<size_t>(n) * size;
  auto start = Clock::now();
  if (!WriteAll(sender.fd, "g", 1)) abort();
  while (left > 0) {
    ssize_t got = read(sender.fd, buf.data(), std::min(left, buf.size()));
    if (got <= 0) abort();
    left -= static_cast<size_t>(got);
  }
  return SecondsSince(start);
}

// From node B to node A when `link`.
double IpcOneWay(int n, uint32_t size, bool link) {
  UseNode(link ? 0 : -1);
  ipc_endpoint* ep = ipc_open("bench-sink");
  if (ep == nullptr) abort();
  uint32_t to = ipc_self(ep);
  Child sender([&](int fd) {
    ipc_close(ep);  // the parent's, inherited
    UseNode(link ? 1 : -1);
    ipc_endpoint* self = ipc_open("bench-source");
    if (link) to = FindAddress(self, "A/bench-sink");
    std::vector<char> buf(size);
    char go;
    if (!WriteAll(fd, "r", 1) || !ReadAll(fd, &go, 1)) return;
    for (int i = 0; i < n; ++i) ipc_send(self, to, 1, buf.data(), size);
    ipc_close(self);
  });
  char ready;
  if (!ReadAll(sender.fd, &ready, 1)) abort();
  auto start = Clock::now();
  if (!WriteAll(sender.fd, "g", 1)) abort();
  for (int i = 0; i < n; ++i) ipc_free(Take(ep));
  double seconds = SecondsSince(start);
  ipc_close(ep);
  return seconds;
}

// Seconds from SIGSTOP of node B's router to the notice of a watch on an
// endpoint of B at node A, `n` times in a row; the link comes back between.
// B is frozen right after A heard from it (the endpoint's announcement), so
// this is the bound: three heartbeat intervals of silence.
double StopToWatchNotice(int n) {
  UseNode(0);
  ipc_endpoint* ep = ipc_open("bench-watcher");
  Child victim([&](int fd) {
    UseNode(1);
    if (ipc_open("bench-victim") != nullptr && WriteAll(fd, "r", 1)) pause();
  });
  char ready;
  if (ep == nullptr || !ReadAll(victim.fd, &ready, 1)) abort();
  double total = 0;
  for (int i = 0; i < n; ++i) {
    ipc_watch(ep, FindAddress(ep, "B/bench-victim"), 9);
    auto start = Clock::now();
    kill(node_b_router, SIGSTOP);
    ipc_free(Take(ep));
    total += SecondsSince(start);
    kill(node_b_router, SIGCONT);
  }
  ipc_close(ep);
  return total;
}

// Seconds from SIGKILL of a peer's process to the watch notice, `n` times in
// a row.
double KillToWatchNotice(int n) {
  UseNode(-1);
  ipc_endpoint* ep = ipc_open("bench-watcher");
  double total = 0;
  for (int i = 0; i < n; ++i) {
    Child peer([&](int fd) {
      ipc_endpoint* self = ipc_open("bench-victim");
      uint32_t address = ipc_self(self);
      if (WriteAll(fd, &address, sizeof(address))) pause();
    });
    uint32_t address = 0;
    if (!ReadAll(peer.fd, &address, sizeof(address))) abort();
    ipc_watch(ep, address, 9);
    auto start = Clock::now();
    kill(peer.pid, SIGKILL);
    ipc_free(Take(ep));
    total += SecondsSince(start);
  }
  ipc_close(ep);
  return total;
}

// Starts ipc-router with `args`, standard error to `log`.
pid_t StartRouter(const std::string& router, std::vector<std::string> args,
                  const std::string& log) {
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    args.insert(args.begin(), router);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    execv(router.c_str(), argv.data());
    _exit(127);
  }
  router_pids.push_back(pid);
  return pid;
}

// Waits until `log` holds `text`; returns what follows it.
std::string AwaitLog(const std::string& log, const std::string& text) {
  for (int i = 0; i < 1000; ++i, usleep(10000)) {
    FILE* f = fopen(log.c_str(), "r");
    char buf[4096] = {};
    size_t got = f != nullptr ? fread(buf, 1, sizeof(buf) - 1, f) : 0;
    if (f != nullptr) fclose(f);
    const char* at = strstr(buf, text.c_str());
    if (got > 0 && at != nullptr) return at + text.size();
  }
  fprintf(stderr, "ipc_bench: no \"%s\" in %s\n", text.c_str(), log.c_str());
  abort();
}

// CPU seconds used so far by this process, its reaped children and the
// router: the work behind a measurement, which a busy machine does not
// stretch the way it stretches wall-clock time.
double CpuSeconds() {
  rusage self, children;
  getrusage(RUSAGE_SELF, &self);
  getrusage(RUSAGE_CHILDREN, &children);
  auto sec = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  double total =
      sec(self.ru_utime) + sec(self.ru_stime) + sec(children.ru_utime) + sec(children.ru_stime);
  for (pid_t pid : router_pids) {
    FILE* f = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
    unsigned long utime = 0, stime = 0;  // fields 14 and 15, after the ")" of the name
    if (f != nullptr && fscanf(f, "%*[^)]) %*c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %lu %lu",
                               &utime, &stime) == 2) {
      total += static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
    }
    if (f != nullptr) fclose(f);
  }
  return total;
}

struct Result {
  std::string name;
  double ns;      // wall-clock per operation, median
  double cpu_ns;  // CPU of every process per operation, median
};

// Medians per operation over `runs` runs of `fn(n)`.
Result Measure(const std::string& name, int runs, int n, const std::function<double(int)>& fn) {
  std::vector<double> ns, cpu;
  for (int r = 0; r < runs; ++r) {
    double cpu0 = CpuSeconds();
    ns.push_back(fn(n) * 1e9 / n);
    cpu.push_back((CpuSeconds() - cpu0) * 1e9 / n);
  }
  std::sort(ns.begin(), ns.end());
  std::sort(cpu.begin(), cpu.end());
  Result result = {name, ns[ns.size() / 2], cpu[cpu.size() / 2]};
  printf("%-28s %10.0f ns/op wall %10.0f ns/op CPU (median of %d runs of %d)\n", name.c_str(),
         result.ns, result.cpu_ns, runs, n);
  fflush(stdout);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  std::string out, router = IPC_ROUTER_PATH;
  double scale = 1;  // --benchmark_min_time=0.5 runs ten times what 0.05 does
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.rfind("--benchmark_out=", 0) == 0) out = arg.substr(16);
    if (arg.rfind("--router=", 0) == 0) router = arg.substr(9);
    if (arg.rfind("--benchmark_min_time=", 0) == 0) scale = std::max(0.2, atof(&arg[21]) / 0.05);
  }
  char dir[] = "/tmp/ipc-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  // The node's router; then B listening and A linking to it, with the
  // default heartbeat.
  const std::string d = dir;
  local_socket = d + "/ipc.sock";
  node_socket[0] = d + "/a.sock";
  node_socket[1] = d + "/b.sock";
  StartRouter(router, {"--socket", local_socket}, d + "/local.log");
  node_b_router = StartRouter(
      router, {"--socket", node_socket[1], "--node", "B", "--listen", "127.0.0.1:0"}, d + "/b.log");
  std::string port = std::to_string(atoi(AwaitLog(d + "/b.log", "links on 127.0.0.1:").c_str()));
  StartRouter(router, {"--socket", node_socket[0], "--node", "A", "--link", "B=127.0.0.1:" + port},
              d + "/a.log");
  AwaitLog(d + "/local.log", "serving");
  AwaitLog(d + "/a.log", "link B up");
  signal(SIGPIPE, SIG_IGN);

  auto n = [&](int base) { return std::max(1, static_cast<int>(base * scale)); };
  std::vector<Result> results;
  for (bool link : {false, true}) {
    const std::string kind = link ? "Ipc/Link" : "Ipc/";
    results.push_back(Measure(kind + "RoundTrip64/Raw", 5, n(5000),
                              [&](int k) { return RawRoundTrip(k, 64, link); }));
    results.push_back(Measure(kind + "RoundTrip64/Lib", 5, n(5000),
                              [&](int k) { return IpcRoundTrip(k, 64, link); }));
    for (uint32_t size : {64u, 4096u}) {
      const std::string op = kind + "OneWay" + std::to_string(size);
      results.push_back(Measure(op + "/Raw", 5, n(size == 64 ? 50000 : 10000),
                                [&](int k) { return RawOneWay(k, size, link); }));
      results.push_back(Measure(op + "/Lib", 5, n(size == 64 ? 50000 : 10000),
                                [&](int k) { return IpcOneWay(k, size, link); }));
    }
  }
  results.push_back(
      Measure("Ipc/Cost/KillToWatchNotice", std::max(5, n(21)), 1, KillToWatchNotice));
  results.push_back(Measure("Ipc/Cost/StopToWatchNotice", 5, 1, StopToWatchNotice));
  for (pid_t pid : router_pids) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
  for (const char* file : {"local.log", "a.log", "b.log"}) unlink((d + "/" + file).c_str());
  rmdir(dir);
  if (!out.empty()) {
    FILE* f = fopen(out.c_str(), "w");
    if (f == nullptr) return 1;
    fprintf(f, "{\"benchmarks\": [\n");
    // Wall-clock under the measurement's own name; CPU of all processes as
    // "Ipc/Cpu/...", paired the same way by bench/report.py.
    const char* sep = "";
    for (const Result& r : results) {
      for (bool cpu : {false, true}) {
        if (cpu && r.name.find("/Cost/") != std::string::npos) continue;  // fork and exit
        std::string name = cpu ? "Ipc/Cpu/" + r.name.substr(4) : r.name;
        fprintf(f,
                "%s  {\"name\": \"%s\", \"real_time\": %.1f, \"cpu_time\": %.1f, \"time_unit\": "
                "\"ns\"}",
                sep, name.c_str(), cpu ? r.cpu_ns : r.ns, cpu ? r.cpu_ns : r.ns);
        sep = ",\n";
      }
    }
    fprintf(f, "\n");
    fprintf(f, "]}\n");
    fclose(f);
  }
  return 0;
}
