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

#include <string>

#include "router.h"

namespace {

// The manual page is generated from this text (help2man): a "Usage:" line,
// paragraphs separated by blank lines, options indented with their
// descriptions two blanks or more to the right.
constexpr const char* kUsage =
    "Usage: ipc-router [--socket PATH] [--status]\n"
    "\n"
    "Routes messages between the endpoints of this node (db/ipc.h).\n"
    "Stops on SIGTERM or SIGINT and removes its socket file.\n"
    "\n"
    "  --socket PATH  the Unix socket to serve, else $IPC_ROUTER_SOCKET,\n"
    "                 else /run/ipc-router.sock (created with mode 0660)\n"
    "  --status       print the endpoints, watches, finds and counters of the\n"
    "                 router serving the socket, then exit\n"
    "  --help         this text\n";

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
  std::string path;
  bool status = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0) {
      fputs(kUsage, stdout);
      return 0;
    }
    if (strcmp(argv[i], "--status") == 0) {
      status = true;
    } else if (strcmp(argv[i], "--socket") == 0 && i + 1 < argc) {
      path = argv[++i];
    } else {
      fprintf(stderr, "ipc-router: unknown argument \"%s\"\n%s", argv[i], kUsage);
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

  ipc_router::Router router(path);
  if (!router.Listen()) return 1;
  ipc_router::Log("serving %s", path.c_str());
  router.Run(stop_pipe[0]);
  ipc_router::Log("stopped");
  return 0;
}
