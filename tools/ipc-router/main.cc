// ipc-router: the node's message router for the messaging interface of
// libdb-intf (db/ipc.h). With --status it prints the operator view of a
// running router instead.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "router.h"

namespace {

// The manual page is generated from this text (help2man): a "Usage:" line,
// paragraphs separated by blank lines, options indented with their
// descriptions two blanks or more to the right.
constexpr const char* kUsage =
    "Usage: ipc-router [--socket PATH] [--node NAME [--listen HOST:PORT]\n"
    "                  [--link PEER=HOST:PORT]... [--heartbeat-ms N]] [--status]\n"
    "\n"
    "Routes messages between the endpoints of this node (db/ipc.h) and, with\n"
    "--node, between them and the endpoints of linked nodes, which are found as\n"
    "\"NODE/name\". Stops on SIGTERM or SIGINT and removes its socket file.\n"
    "\n"
    "  --socket PATH        the Unix socket to serve, else $IPC_ROUTER_SOCKET,\n"
    "                       else /run/ipc-router.sock (created with mode 0660)\n"
    "  --node NAME          this node's name in links (1 to 63 printable bytes,\n"
    "                       no blank or \"/\"); needed by the options below\n"
    "  --listen HOST:PORT   accept links from other nodes' routers over TCP on\n"
    "                       this address (\"[HOST]:PORT\" for IPv6; port 0 picks a\n"
    "                       free port; the address is logged at start)\n"
    "  --link PEER=HOST:PORT\n"
    "                       dial node PEER at this address and keep the link up,\n"
    "                       redialling with back-off from 100 ms to 5 s; may be\n"
    "                       given once per peer. Host names are resolved once, at\n"
    "                       start. Links are not authenticated: use them on the\n"
    "                       element's internal network only\n"
    "  --heartbeat-ms N     heartbeat interval of the links, 1 to 60000 (default\n"
    "                       500); a link silent for 3 intervals (the smaller of\n"
    "                       both sides') is down, and every watch on an endpoint\n"
    "                       of that node fires\n"
    "  --status             print the endpoints, watches, finds, links and\n"
    "                       counters of the router serving the socket, then exit\n"
    "  --help               this text\n"
    "\n"
    "A link is one TCP connection either router may dial; when both dial at once,\n"
    "the connection dialled by the node whose name sorts first is kept. A peer\n"
    "that sends a malformed or oversized frame, or claims a node name already\n"
    "linked or this router's own, is disconnected with one log line.\n";

// "--name VALUE" at argv[*i]: sets *value and steps over it.
bool Value(int argc, char** argv, int* i, const char* name, std::string* value) {
  if (strcmp(argv[*i], name) != 0 || *i + 1 >= argc) return false;
  *value = argv[++*i];
  return true;
}

int stop_pipe[2] = {-1, -1};

void OnStopSignal(int) {
  int saved = errno;
  char byte = 0;
  ssize_t n = write(stop_pipe[1], &byte, 1);
  (void)n;
  errno = saved;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path, link, heartbeat;
  ipc_router::LinkOptions links;
  bool status = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0) {
      fputs(kUsage, stdout);
      return 0;
    }
    const char* bad = nullptr;
    if (strcmp(argv[i], "--status") == 0) {
      status = true;
    } else if (Value(argc, argv, &i, "--socket", &path) ||
               Value(argc, argv, &i, "--listen", &links.listen)) {
    } else if (Value(argc, argv, &i, "--node", &links.node)) {
      if (!db::ipc::ValidName(links.node.data(), links.node.size())) bad = "bad node name";
    } else if (Value(argc, argv, &i, "--heartbeat-ms", &heartbeat)) {
      char* end = nullptr;
      unsigned long ms = strtoul(heartbeat.c_str(), &end, 10);
      if (heartbeat.empty() || *end != '\0' || ms < 1 || ms > 60000) bad = "bad interval";
      links.heartbeat_ms = static_cast<uint32_t>(ms);
    } else if (Value(argc, argv, &i, "--link", &link)) {
      size_t eq = link.find('=');
      std::string peer = link.substr(0, eq);
      bool taken = std::any_of(links.peers.begin(), links.peers.end(),
                               [&](const auto& p) { return p.first == peer; });
      if (eq == std::string::npos || !db::ipc::ValidName(peer.data(), peer.size()) || taken) {
        bad = "bad or repeated peer";
      }
      links.peers.emplace_back(peer, link.substr(eq + 1));
    } else {
      bad = "unknown argument";
    }
    if (bad != nullptr) {
      fprintf(stderr, "ipc-router: %s \"%s\"\n%s", bad, argv[i], kUsage);
      return 2;
    }
  }
  if (links.node.empty() && (!links.listen.empty() || !links.peers.empty())) {
    fprintf(stderr, "ipc-router: --listen and --link need --node\n%s", kUsage);
    return 2;
  }
  for (const auto& peer : links.peers) {
    if (peer.first == links.node) {
      fprintf(stderr, "ipc-router: --link to this node's own name \"%s\"\n", peer.first.c_str());
      return 2;
    }
  }
  if (path.empty()) {
    const char* env = getenv("IPC_ROUTER_SOCKET");
    path = env != nullptr && *env != '\0' ? env : "/run/ipc-router.sock";
  }
  if (status) return ipc_router::PrintStatus(path);

  // A self-pipe turns SIGTERM and SIGINT into an event of the poll loop.
  if (pipe2(stop_pipe, O_CLOEXEC | O_NONBLOCK) < 0) {
    perror("ipc-router: pipe");
    return 1;
  }
  struct sigaction sa = {};
  sa.sa_handler = OnStopSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);

  ipc_router::Router router(path, links);
  if (!router.Listen()) return 1;
  ipc_router::Log("serving %s", path.c_str());
  router.Run(stop_pipe[0]);
  ipc_router::Log("stopped");
  return 0;
}
