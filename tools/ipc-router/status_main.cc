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
    fputs(
        "Usage: ipc-status [--socket PATH]\n"
        "\n"
        "Shows the endpoints of the node's message router with their queued\n"
        "messages and bytes, the watches and finds outstanding, and counters.\n"
        "\n"
        "  --socket PATH  the router's Unix socket, else $IPC_ROUTER_SOCKET,\n"
        "                 else /run/ipc-router.sock\n"
        "  --help         this text\n",
        argc == 2 && strcmp(argv[1], "--help") == 0 ? stdout : stderr);
    return argc == 2 && strcmp(argv[1], "--help") == 0 ? 0 : 2;
  }
  return ipc_router::PrintStatus(path);
}
