// The client side of the messaging transport: one Unix stream connection to
// the router per endpoint.
//
// Decisions:
// - No thread and no lock: everything happens inside the caller's calls.
// - While ipc_send waits for the socket to take more bytes, it also reads what
//   the router delivers into the endpoint's own queue. Two endpoints that send
//   to each other without receiving therefore never deadlock: the router can
//   always empty its queues towards them.
// - Because the endpoint may hold messages already read from the socket, the
//   socket itself cannot serve as ipc_fd. ipc_fd is an epoll descriptor over
//   the socket and an eventfd that is kept readable exactly while the local
//   queue is not empty (synchronised at the end of each call, so a message
//   read and returned within one call costs no eventfd system call).
// - The socket stays in blocking mode; every transfer passes MSG_DONTWAIT and
//   waits in poll() instead, on the monotonic clock, restarting after EINTR.
//   MSG_NOSIGNAL keeps a router that went away from raising SIGPIPE.

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <new>
#include <unordered_set>
#include <vector>

#include "db/ipc.h"
#include "ipc_frame.h"

namespace {

using db::ipc::FrameHeader;
using db::ipc::NowUs;
using db::ipc::ParseResult;

constexpr size_t kReadChunk = 128 * 1024;
constexpr const char* kDefaultSocket = "/run/ipc-router.sock";

// A queued message and its payload, in one allocation that ipc_free releases.
// `msg` comes first, so a pointer to it is a pointer to the block.
struct Block {
  ipc_message msg;
  int32_t watch;  // the watch whose notice this is, else 0
};
constexpr size_t kDataOffset = (sizeof(Block) + alignof(std::max_align_t) - 1) /
                               alignof(std::max_align_t) * alignof(std::max_align_t);

int Fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

struct ipc_endpoint {
  int sock = -1;
  int epoll = -1;
  int event = -1;
  uint32_t self = 0;
  bool broken = false;
  bool signalled = false;     // the eventfd is readable
  bool open_replied = false;  // kOpenReply seen; its status in open_status
  uint32_t open_status = 0;
  std::vector<uint8_t> in;  // bytes read from the socket, not yet parsed
  size_t in_len = 0;
  std::deque<Block*> queue;
  std::unordered_set<int32_t> watches;  // armed, notice not yet arrived
  int32_t next_watch = 1;

  ~ipc_endpoint() {
    for (Block* b : queue) free(b);
    for (int fd : {sock, epoll, event}) {
      if (fd >= 0) close(fd);
    }
  }
};

namespace {

int Broken(ipc_endpoint* ep) {
  ep->broken = true;
  return Fail(ECONNRESET);
}

// Turns one frame from the router into a queued message (or the open reply).
// False for a frame a router never sends to a client.
bool Deliver(ipc_endpoint* ep, const FrameHeader& h, const uint8_t* payload) {
  int32_t watch = 0;
  switch (h.command) {
    case db::ipc::kOpenReply:
      ep->open_replied = true;
      ep->open_status = h.arg;
      ep->self = h.to;
      return true;
    case db::ipc::kMessage:
      break;
    case db::ipc::kWatchFired:
      watch = static_cast<int32_t>(h.arg);
      // Unwatched after the router fired it: the caller no longer wants it.
      if (ep->watches.erase(watch) == 0) return true;
      break;
    default:
      return false;
  }
  Block* b = static_cast<Block*>(malloc(kDataOffset + h.size));
  if (b == nullptr) return false;
  b->msg.type = h.type;
  b->msg.sender = h.from;
  b->msg.size = h.size;
  b->msg.data = nullptr;
  b->watch = watch;
  if (h.size > 0) {
    uint8_t* data = reinterpret_cast<uint8_t*>(b) + kDataOffset;
    memcpy(data, payload, h.size);
    b->msg.data = data;
  }
  ep->queue.push_back(b);
  return true;
}

// Reads what the socket holds (waiting for something to arrive when `wait`)
// and queues the whole frames. Returns 0, or -1 (ECONNRESET) once the
// connection is broken.
int Pump(ipc_endpoint* ep, bool wait = false) {
  if (ep->broken) return Fail(ECONNRESET);
  if (ep->in.size() - ep->in_len < kReadChunk / 2) ep->in.resize(ep->in_len + kReadChunk);
  ssize_t n;
  do {
    n = recv(ep->sock, ep->in.data() + ep->in_len, ep->in.size() - ep->in_len,
             wait ? 0 : MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
  if (n <= 0) return Broken(ep);
  ep->in_len += static_cast<size_t>(n);
  size_t pos = 0;
  for (;;) {
    FrameHeader h;
    ParseResult r = db::ipc::ParseFrame(ep->in.data() + pos, ep->in_len - pos, &h);
    if (r == ParseResult::kMalformed) return Broken(ep);
    if (r == ParseResult::kNeedMore) break;
    if (!Deliver(ep, h, ep->in.data() + pos + db::ipc::kFrameHeaderSize)) return Broken(ep);
    pos += db::ipc::kFrameHeaderSize + h.size;
  }
  memmove(ep->in.data(), ep->in.data() + pos, ep->in_len - pos);
  ep->in_len -= pos;
  return 0;
}

// Keeps the eventfd readable exactly while the local queue holds messages.
void SyncSignal(ipc_endpoint* ep) {
  bool want = !ep->queue.empty();
  if (want == ep->signalled) return;
  uint64_t value = 1;
  ssize_t n =
      want ? write(ep->event, &value, sizeof(value)) : read(ep->event, &value, sizeof(value));
  if (n == static_cast<ssize_t>(sizeof(value))) ep->signalled = want;
}

// Waits for `events` on the socket until `deadline_us` (-1: for ever; a
// deadline already past still looks once). Returns 1 when ready, 0 at the
// deadline, -1 when poll fails.
int WaitSocket(ipc_endpoint* ep, short events, int64_t deadline_us, short* revents) {
  for (;;) {
    int timeout = -1;
    if (deadline_us >= 0) {
      int64_t left = std::max<int64_t>(deadline_us - NowUs(), 0);
      timeout = static_cast<int>(std::min<int64_t>((left + 999) / 1000, 1 << 30));
    }
    pollfd p = {ep->sock, events, 0};
    int n = poll(&p, 1, timeout);
    if (n > 0) {
      *revents = p.revents;
      return 1;
    }
    if (n < 0 && errno != EINTR) return -1;
    // A signal, or a time-out rounded to whole milliseconds: look again
    // unless the deadline has passed.
    if (deadline_us >= 0 && NowUs() >= deadline_us) return 0;
  }
}

// Writes one whole frame. While the socket is full, takes in what arrives.
int SendFrame(ipc_endpoint* ep, const FrameHeader& h, const void* payload) {
  if (ep->broken) return Fail(ECONNRESET);
  uint8_t head[db::ipc::kFrameHeaderSize];
  db::ipc::EncodeFrameHeader(h, head);
  iovec iov[2] = {{head, sizeof(head)}, {const_cast<void*>(payload), h.size}};
  size_t done = 0;
  const size_t total = sizeof(head) + h.size;
  while (done < total) {
    iovec part[2];
    msghdr m = {};
    m.msg_iov = part;
    if (done < sizeof(head)) {
      part[0] = {head + done, sizeof(head) - done};
      part[1] = iov[1];
      m.msg_iovlen = h.size > 0 ? 2 : 1;
    } else {
      part[0] = {static_cast<uint8_t*>(iov[1].iov_base) + (done - sizeof(head)), total - done};
      m.msg_iovlen = 1;
    }
    ssize_t n = sendmsg(ep->sock, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return Broken(ep);
    // Held back by the router: keep taking in messages so that it can always
    // empty its queue towards us. A half-sent frame is always completed, so a
    // signal does not end the wait.
    short revents = 0;
    if (WaitSocket(ep, POLLIN | POLLOUT, -1, &revents) < 0) return Broken(ep);
    if ((revents & (POLLIN | POLLHUP | POLLERR)) != 0 && Pump(ep) < 0) return -1;
  }
  return 0;
}

bool Matches(const Block* b, const uint32_t* types, size_t count) {
  return count == 0 || std::find(types, types + count, b->msg.type) != types + count;
}

}  // namespace

extern "C" {

ipc_endpoint* ipc_open(const char* name) {
  if (name == nullptr || !db::ipc::ValidName(name, strlen(name))) {
    errno = EINVAL;
    return nullptr;
  }
  const char* path = getenv("IPC_ROUTER_SOCKET");
  if (path == nullptr || *path == '\0') path = kDefaultSocket;
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof(addr.sun_path)) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  memcpy(addr.sun_path, path, strlen(path) + 1);

  ipc_endpoint* ep = new (std::nothrow) ipc_endpoint;
  if (ep == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  int error = 0;
  ep->sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (ep->sock < 0 ||
      (connect(ep->sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0 && errno != EINTR)) {
    error = errno;
  } else {
    // A connect interrupted by a signal goes on in the background; the first
    // send waits for it like for any full socket.
    FrameHeader h;
    h.command = db::ipc::kOpen;
    h.size = static_cast<uint32_t>(strlen(name));
    short revents = 0;
    if (SendFrame(ep, h, name) < 0) error = errno;
    while (error == 0 && !ep->open_replied) {
      if (WaitSocket(ep, POLLIN, -1, &revents) < 0 || Pump(ep) < 0) error = ECONNRESET;
    }
    if (error == 0 && ep->open_status != db::ipc::kOpenOk) {
      error = ep->open_status == db::ipc::kOpenNameTaken ? EADDRINUSE : EINVAL;
    }
  }
  if (error == 0) {
    ep->event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    ep->epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event in = {};
    in.events = EPOLLIN;
    if (ep->event < 0 || ep->epoll < 0 || epoll_ctl(ep->epoll, EPOLL_CTL_ADD, ep->sock, &in) < 0 ||
        epoll_ctl(ep->epoll, EPOLL_CTL_ADD, ep->event, &in) < 0) {
      error = errno;
    }
  }
  if (error != 0) {
    delete ep;
    errno = error;
    return nullptr;
  }
  SyncSignal(ep);  // messages may have followed the reply already
  return ep;
}

int ipc_close(ipc_endpoint* ep) {
  if (ep == nullptr) return Fail(EINVAL);
  delete ep;
  return 0;
}

int ipc_fd(const ipc_endpoint* ep) { return ep == nullptr ? Fail(EINVAL) : ep->epoll; }

uint32_t ipc_self(const ipc_endpoint* ep) { return ep == nullptr ? 0 : ep->self; }

int ipc_find(ipc_endpoint* ep, const char* name, uint32_t type) {
  if (ep == nullptr || name == nullptr || !db::ipc::ValidFindName(name, strlen(name))) {
    return Fail(EINVAL);
  }
  FrameHeader h;
  h.command = db::ipc::kFind;
  h.type = type;
  h.size = static_cast<uint32_t>(strlen(name));
  int rc = SendFrame(ep, h, name);
  SyncSignal(ep);
  return rc;
}

int32_t ipc_watch(ipc_endpoint* ep, uint32_t addr, uint32_t type) {
  if (ep == nullptr || addr == 0) return Fail(EINVAL);
  // Ids are ours, not the router's, so that watching needs no round trip.
  // They wrap after 2^31 - 1 watches, skipping the ones still armed.
  int32_t id = ep->next_watch;
  while (ep->watches.count(id) != 0) id = id == INT32_MAX ? 1 : id + 1;
  ep->next_watch = id == INT32_MAX ? 1 : id + 1;
  FrameHeader h;
  h.command = db::ipc::kWatch;
  h.to = addr;
  h.type = type;
  h.arg = static_cast<uint32_t>(id);
  int rc = SendFrame(ep, h, nullptr);
  if (rc == 0) ep->watches.insert(id);
  SyncSignal(ep);
  return rc == 0 ? id : -1;
}

int ipc_unwatch(ipc_endpoint* ep, int32_t watch) {
  if (ep == nullptr || watch <= 0) return Fail(EINVAL);
  if (ep->watches.erase(watch) != 0) {
    // The router forgets it; a notice already on its way is dropped on arrival.
    FrameHeader h;
    h.command = db::ipc::kUnwatch;
    h.arg = static_cast<uint32_t>(watch);
    int rc = SendFrame(ep, h, nullptr);
    SyncSignal(ep);
    return rc;
  }
  auto it = std::find_if(ep->queue.begin(), ep->queue.end(),
                         [watch](const Block* b) { return b->watch == watch; });
  if (it == ep->queue.end()) return Fail(EINVAL);
  free(*it);
  ep->queue.erase(it);
  SyncSignal(ep);
  return 0;
}

int ipc_send(ipc_endpoint* ep, uint32_t to, uint32_t type, const void* data, uint32_t size) {
  if (ep == nullptr || to == 0 || (data == nullptr && size > 0)) return Fail(EINVAL);
  if (size > IPC_MAX_SIZE) return Fail(EMSGSIZE);
  FrameHeader h;
  h.command = db::ipc::kSend;
  h.to = to;
  h.type = type;
  h.size = size;
  int rc = SendFrame(ep, h, data);
  SyncSignal(ep);
  return rc;
}

int ipc_receive(ipc_endpoint* ep, const uint32_t* types, size_t count, int32_t timeout_ms,
                ipc_message** out) {
  if (ep == nullptr || out == nullptr || (types == nullptr && count > 0) || timeout_ms < -1) {
    return Fail(EINVAL);
  }
  *out = nullptr;
  const int64_t deadline = timeout_ms < 0 ? -1 : NowUs() + int64_t{timeout_ms} * 1000;
  size_t scanned = 0;  // queue entries already passed over in this call
  int rc = 0;
  for (;;) {
    auto it =
        std::find_if(ep->queue.begin() + static_cast<std::ptrdiff_t>(scanned), ep->queue.end(),
                     [&](const Block* b) { return Matches(b, types, count); });
    if (it != ep->queue.end()) {
      *out = &(*it)->msg;
      ep->queue.erase(it);
      break;
    }
    scanned = ep->queue.size();
    // Waiting for ever is one blocking read; a bounded wait polls first, so
    // that it costs no empty read either.
    if (deadline < 0) {
      if ((rc = Pump(ep, true)) < 0) break;
      continue;
    }
    short revents = 0;
    int ready = WaitSocket(ep, POLLIN, deadline, &revents);
    if (ready == 0) {  // also a time-out of 0 with nothing there
      rc = Fail(ETIMEDOUT);
      break;
    }
    if (ready < 0) {
      rc = Broken(ep);
      break;
    }
    if ((rc = Pump(ep)) < 0) break;
  }
  SyncSignal(ep);
  return rc;
}

void ipc_free(ipc_message* msg) { free(msg); }

}  // extern "C"
