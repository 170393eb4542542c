// Messaging between the daemons of a node. A daemon opens an endpoint under a
// name, finds other endpoints by name, is told when one goes away, and sends
// and receives typed messages. Endpoints talk through the node's ipc-router,
// reached on the Unix socket $IPC_ROUTER_SOCKET (default
// "/run/ipc-router.sock").
//
// Every call returns 0 (or a value) on success and -1 with errno set on
// failure:
//   ENOENT, ECONNREFUSED  no router listens on the socket (ipc_open)
//   EADDRINUSE            the name is taken on the node (ipc_open)
//   EINVAL                null endpoint, bad name or bad argument
//   EMSGSIZE              a message larger than IPC_MAX_SIZE (nothing is sent)
//   ETIMEDOUT             nothing arrived in time (ipc_receive)
//   ECONNRESET            the router went away; the endpoint stays unusable
//                         except for messages already received, and must be
//                         closed
//
// Threads: the library creates none and takes no lock. One endpoint is used
// from one thread at a time; several endpoints in one process are independent.

#ifndef DB_INTF_INCLUDE_DB_IPC_H_
#define DB_INTF_INCLUDE_DB_IPC_H_

#include <stddef.h>
#include <stdint.h>

#include "db/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Largest payload of one message, in bytes.
#define IPC_MAX_SIZE 65536u
// Longest endpoint name, in bytes.
#define IPC_MAX_NAME 63u

// An open endpoint (opaque).
typedef struct ipc_endpoint ipc_endpoint;

// A received message. `data` holds `size` bytes (null when `size` is 0) and
// stays valid until ipc_free, also after the endpoint is closed. `sender` is
// set by the router: a client cannot claim another address.
typedef struct ipc_message {
  uint32_t type;     // the sender's message type
  uint32_t sender;   // address of the sending endpoint
  uint32_t size;     // payload bytes
  const void* data;  // the payload
} ipc_message;

// Opens an endpoint named `name`: 1 to IPC_MAX_NAME printable ASCII bytes
// without blanks or "/", unique on the node. Returns null with errno on
// failure.
DB_INTF_EXPORT ipc_endpoint* ipc_open(const char* name);

// Closes the endpoint and frees it; messages not yet received are lost.
// Watches on its address fire. Returns 0, or -1 (EINVAL) for null.
DB_INTF_EXPORT int ipc_close(ipc_endpoint* ep);

// A descriptor for poll/epoll loops, owned by the endpoint. It is readable
// while a message may be waiting: bytes from the router are pending, or the
// endpoint holds received messages that no ipc_receive has taken yet (also
// those passed over by a type filter). When it is readable, call ipc_receive
// with a time-out of 0 until it fails with ETIMEDOUT. Never read from it.
// Returns -1 (EINVAL) for null.
DB_INTF_EXPORT int ipc_fd(const ipc_endpoint* ep);

// The endpoint's address: never 0, unique among the endpoints alive on the
// node and not given again before about 2^32 further endpoints have opened.
// Returns 0 for null.
DB_INTF_EXPORT uint32_t ipc_self(const ipc_endpoint* ep);

// Asks for one notice when an endpoint called `name` exists (at once when it
// already does): a message of `type`, no payload, whose sender is that
// endpoint. "NODE/name" names an endpoint of a linked node.
DB_INTF_EXPORT int ipc_find(ipc_endpoint* ep, const char* name, uint32_t type);

// Watches `addr`: when it goes away (closed, its process died, its node's link
// was lost) one message of `type`, no payload, arrives whose sender is `addr`;
// at once when it is already gone. Returns a watch id > 0, unique on this
// endpoint. A watch fires exactly once.
DB_INTF_EXPORT int32_t ipc_watch(ipc_endpoint* ep, uint32_t addr, uint32_t type);

// Cancels a watch: its notice will not be received, even when the router had
// already sent it. -1 (EINVAL) when `watch` is not an armed watch of this
// endpoint (never made, already received, or already cancelled).
DB_INTF_EXPORT int ipc_unwatch(ipc_endpoint* ep, int32_t watch);

// Sends `size` bytes of `data` as a message of `type` to address `to`.
// Returns once the whole message is handed to the router; blocks while the
// router holds back this endpoint because a receiver is not reading
// (back-pressure), taking in arriving messages meanwhile. A message to an
// address that is gone is dropped by the router.
DB_INTF_EXPORT int ipc_send(ipc_endpoint* ep, uint32_t to, uint32_t type, const void* data,
                            uint32_t size);

// Takes the oldest waiting message whose type is one of `types[0..count)`
// (any type when `count` is 0), waiting up to `timeout_ms` milliseconds (-1
// for ever, 0 not at all) on a monotonic clock; signals do not shorten the
// wait. Messages passed over stay queued in order. On success `*out` must be
// given to ipc_free.
DB_INTF_EXPORT int ipc_receive(ipc_endpoint* ep, const uint32_t* types, size_t count,
                               int32_t timeout_ms, ipc_message** out);

// Frees a message from ipc_receive; null is ignored.
DB_INTF_EXPORT void ipc_free(ipc_message* msg);

#ifdef __cplusplus
}
#endif

#endif  // DB_INTF_INCLUDE_DB_IPC_H_
