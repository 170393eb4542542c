// The node's message router: one single-threaded poll loop over a listening
// Unix socket and one connection per endpoint.
//
// Routing table: every endpoint has an address and a name and is reached
// through one connection, whose output queue is the endpoint's queue. The
// table is keyed by address and by name, so that endpoints of a linked node
// can join it under "NODE/name" with a local address, reached through the
// link's connection.
//
// Back-pressure: a connection's output queue holds at most kQueueBound bytes
// (plus the one message that crossed it, and the router's own small notices).
// A sender whose next message goes to a full queue is parked on that
// destination: the router stops reading from it, and only from it, until the
// destination's queue falls below the bound. Nothing is dropped; the sender's
// own socket fills and its ipc_send waits. A parked connection is also not
// polled for hang-ups, so the messages it wrote before closing are still
// delivered, in order, before its watches fire.

#ifndef DB_INTF_TOOLS_IPC_ROUTER_ROUTER_H_
#define DB_INTF_TOOLS_IPC_ROUTER_ROUTER_H_

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ipc_frame.h"

namespace ipc_router {

constexpr size_t kQueueBound = 256 * 1024;

// One line "ipc-router: <message>" on standard error, written at once.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

class Router {
 public:
  explicit Router(std::string socket_path);
  ~Router();
  Router(const Router&) = delete;
  Router& operator=(const Router&) = delete;

  // Creates the listening socket with mode 0660. Refuses (false, with a log
  // line) when a live router answers on the path or the path is not a socket;
  // takes over a socket file that nobody answers on.
  bool Listen();

  // Serves until `stop_fd` becomes readable. The socket file is removed by the
  // destructor.
  void Run(int stop_fd);

 private:
  struct Endpoint;
  // One connection of the poll loop. Links to the routers of other nodes
  // (TCP, heartbeats on a poll time-out) become a further kind; the endpoints
  // they carry then point at the link's connection.
  struct Conn {
    enum Kind { kNew, kClient, kStatus };
    Kind kind = kNew;
    int fd = -1;
    pid_t pid = 0;
    std::vector<uint8_t> in;  // bytes read, not yet handled
    size_t in_len = 0;
    std::string out;  // frames not yet written, from out_pos on
    size_t out_pos = 0;
    std::deque<size_t> frame_ends;  // end offset in `out` of each queued frame
    Endpoint* endpoint = nullptr;
    Conn* parked_on = nullptr;  // the full destination of our next message
    std::vector<Conn*> parked;  // senders parked on us
    bool closing = false;       // close once `out` is written
    bool dead = false;
    bool dirty = false;  // in dirty_
    size_t queued_bytes() const { return out.size() - out_pos; }
  };
  struct Watch {
    uint32_t watcher;
    int32_t id;
    uint32_t type;
  };
  struct Endpoint {
    uint32_t address = 0;
    std::string name;
    Conn* conn = nullptr;
    std::vector<Watch> watchers;                     // watches on this endpoint
    std::unordered_map<int32_t, uint32_t> watching;  // our watch id -> address
  };
  struct Find {
    uint32_t finder;
    uint32_t type;
  };

  void Accept();
  void Read(Conn* c);
  // Handles the whole frames in c->in until they run out or c is parked.
  void HandleInput(Conn* c);
  // False when the frame is a protocol error (the caller drops c).
  bool HandleFrame(Conn* c, const db::ipc::FrameHeader& h, const uint8_t* payload, bool* parked);
  void Open(Conn* c, const db::ipc::FrameHeader& h, const uint8_t* payload);
  void Queue(Conn* c, const db::ipc::FrameHeader& h, const void* payload);
  void Flush(Conn* c);
  // Closes c after its peer went away.
  void Hangup(Conn* c);
  // Closes c; a non-empty `reason` is logged as a dropped connection.
  void Close(Conn* c, const std::string& reason);
  void RemoveEndpoint(Endpoint* e);
  uint32_t NextAddress();
  std::string StatusText() const;

  std::string path_;
  int listen_fd_ = -1;
  int spare_fd_ = -1;  // given up to accept and refuse when descriptors run out
  uint32_t next_address_;
  std::vector<std::unique_ptr<Conn>> conns_;
  std::unordered_map<uint32_t, std::unique_ptr<Endpoint>> by_address_;
  std::map<std::string, uint32_t> by_name_;
  std::multimap<std::string, Find> finds_;
  std::vector<Conn*> runnable_;  // unparked senders waiting to be handled
  std::vector<Conn*> dirty_;     // output queued since the last write
  uint64_t routed_ = 0;
  uint64_t dropped_ = 0;
};

// Asks the router on `socket_path` for its status text and writes it to
// standard output. 0, or 1 with a message on standard error.
int PrintStatus(const std::string& socket_path);

}  // namespace ipc_router

#endif  // DB_INTF_TOOLS_IPC_ROUTER_ROUTER_H_
