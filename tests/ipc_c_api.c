/* The messaging interface used from C: one round trip to itself. */
#include <errno.h>
#include <string.h>

#include "db/ipc.h"

int ipc_c_round_trip(const char* name) {
  ipc_endpoint* ep = ipc_open(name);
  ipc_message* msg = NULL;
  uint32_t type = 9;
  int ok;
  if (ep == NULL) return errno;
  ok = ipc_send(ep, ipc_self(ep), type, "hello", 5) == 0 &&
       ipc_receive(ep, &type, 1, 5000, &msg) == 0 && msg->size == 5 &&
       memcmp(msg->data, "hello", 5) == 0 && msg->sender == ipc_self(ep);
  ipc_free(msg);
  ipc_close(ep);
  return ok ? 0 : -1;
}
