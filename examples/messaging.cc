// Two daemons talking through the node's ipc-router: a parent ("client") and
// its child ("echo") find each other by name, exchange a request and a reply,
// and the parent learns of the child's exit through a watch.
//
// Needs a running router: `scripts/quickstart --messaging` starts one in a
// temporary directory and runs this program against it (IPC_ROUTER_SOCKET).

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "db/ipc.h"

namespace {

// Message types are the application's own.
enum : uint32_t { kEchoFound = 1, kRequest = 2, kReply = 3, kEchoGone = 4 };

int Echo() {
  ipc_endpoint* ep = ipc_open("echo");
  if (ep == nullptr) {
    perror("echo: ipc_open");
    return 1;
  }
  uint32_t want = kRequest;
  ipc_message* request = nullptr;
  if (ipc_receive(ep, &want, 1, 5000, &request) != 0) {
    perror("echo: ipc_receive");
    return 1;
  }
  std::string reply =
      "pong to " + std::string(static_cast<const char*>(request->data), request->size);
  int rc = ipc_send(ep, request->sender, kReply, reply.data(), static_cast<uint32_t>(reply.size()));
  ipc_free(request);
  ipc_close(ep);  // the client's watch fires
  return rc == 0 ? 0 : 1;
}

// Waits for one message of `type`, the way an event loop would: poll on
// ipc_fd, then take what is there with a time-out of 0.
ipc_message* Await(ipc_endpoint* ep, uint32_t type) {
  pollfd p = {ipc_fd(ep), POLLIN, 0};
  for (;;) {
    ipc_message* msg = nullptr;
    if (ipc_receive(ep, &type, 1, 0, &msg) == 0) return msg;
    if (errno != ETIMEDOUT || poll(&p, 1, 5000) <= 0) return nullptr;
  }
}

}  // namespace

int main() {
  ipc_endpoint* me = ipc_open("client");
  if (me == nullptr) {
    perror("ipc_open (is ipc-router running on $IPC_ROUTER_SOCKET?)");
    return 1;
  }
  printf("client: opened at address %u\n", ipc_self(me));
  ipc_find(me, "echo", kEchoFound);  // armed before "echo" exists

  fflush(stdout);  // or the child would print it again
  pid_t child = fork();
  if (child == 0) {
    ipc_close(me);  // the parent's endpoint, inherited: not ours to use
    return Echo();
  }

  ipc_message* found = Await(me, kEchoFound);
  if (found == nullptr) return 1;
  uint32_t echo = found->sender;
  ipc_free(found);
  printf("client: found \"echo\" at address %u\n", echo);
  ipc_watch(me, echo, kEchoGone);

  const char request[] = "ping";
  ipc_send(me, echo, kRequest, request, sizeof(request) - 1);
  ipc_message* reply = Await(me, kReply);
  if (reply == nullptr) return 1;
  printf("client: reply \"%.*s\"\n", static_cast<int>(reply->size),
         static_cast<const char*>(reply->data));
  ipc_free(reply);

  ipc_message* gone = Await(me, kEchoGone);
  if (gone == nullptr) return 1;
  printf("client: \"echo\" (address %u) has gone\n", gone->sender);
  ipc_free(gone);

  int status = 0;
  waitpid(child, &status, 0);
  ipc_close(me);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
