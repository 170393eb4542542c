// ipc-status: the operator view of the node's message router: endpoints with
// name, address, owner pid and queued messages and bytes; watches and finds
// outstanding; messages routed and dropped. Same as `ipc-router --status`.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "router.h"

int main(int argc, char** argv) {
  const char* env = getenv("IPC_ROUTER_SOCKET");
  std::string path = env != nullptr && *env != '\0' ? env : "/run/ipc-router.sock";
  if (argc == 3 && strcmp(argv[1], "--socket") == 0) {
    path = argv[2];
  } else if (argc != 1) {
    fputs("usage: ipc-status [--socket PATH]\n",
          argc == 2 && strcmp(argv[1], "--help") == 0 ? stdout : stderr);
    return argc == 2 && strcmp(argv[1], "--help") == 0 ? 0 : 2;
  }
  return ipc_router::PrintStatus(path);
}
