// The node's message router: one single-threaded poll loop over a listening
// Unix socket, one connection per endpoint, and the TCP links to the routers
// of other nodes.
//
// Routing table: every endpoint has an address and a name and is reached
// through one connection. A local endpoint's connection is its client's, whose
// output queue is the endpoint's queue. An endpoint of a linked node joins the
// table under "NODE/name" with a local address and is reached through the
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
//
// Links: one TCP connection per pair of nodes carries, both ways, the names of
// the endpoints as they come and go, the messages between them, heartbeats and
// credits. A router always reads its links, so that heartbeats are seen
// however busy a link is; instead of stopping to read, the receiving router
// grants each remote sender node a window of kLinkWindow bytes per local
// receiver, and returns credit as the receiver takes its messages. A sender
// whose next message would exceed the window is parked on the remote
// endpoint, so a slow receiver holds up only those who send to it, and the
// memory a link can make a router hold is bounded. Heartbeats and credits
// bypass the queued data: they go out at the next frame boundary, and the
// kernel is allowed only a little unsent data (TCP_NOTSENT_LOWAT), so that a
// heartbeat never waits behind more than one queued message. A link that
// brings nothing for three heartbeat intervals (the smaller of both sides'),
// closes or fails is down: its endpoints leave the table, which fires their
// watches, and a link this router dials is redialled with back-off.
//
// Both sides may dial: when each has a dial outstanding and the other's hello
// arrives, the connection dialled by the node whose name sorts first is kept
// and the other is closed, so both routers keep the same one.

#ifndef DB_INTF_TOOLS_IPC_ROUTER_ROUTER_H_
#define DB_INTF_TOOLS_IPC_ROUTER_ROUTER_H_

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ipc_frame.h"

namespace ipc_router {

constexpr size_t kQueueBound = 256 * 1024;
// Bytes of messages (headers included) one node may have on their way to one
// endpoint of another node before that endpoint's router credits them back.
constexpr uint32_t kLinkWindow = 128 * 1024;

// How this router links to other nodes. Without a node name it has no links.
struct LinkOptions {
  std::string node;    // this node's name
  std::string listen;  // "HOST:PORT" to accept links on (port 0: any), or empty
  std::vector<std::pair<std::string, std::string>> peers;  // node name, "HOST:PORT" to dial
  uint32_t heartbeat_ms = 500;
};

// One line "ipc-router: <message>" on standard error, written at once.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

db::ipc::FrameHeader Header(uint8_t command, uint32_t from, uint32_t type, uint32_t arg);

using db::ipc::NowUs;

class Router {
 public:
  explicit Router(std::string socket_path, LinkOptions links = LinkOptions());
  ~Router();
  Router(const Router&) = delete;
  Router& operator=(const Router&) = delete;

  // Creates the listening socket with mode 0660. Refuses (false, with a log
  // line) when a live router answers on the path or the path is not a socket;
  // takes over a socket file that nobody answers on. With links, also resolves
  // the peers' addresses and listens for links (logging the address and port).
  bool Listen();

  // Serves until `stop_fd` becomes readable. The socket file is removed by the
  // destructor.
  void Run(int stop_fd);

 private:
  struct Conn;
  struct Endpoint;
  struct Link;
  // What parked senders wait on: a full connection, or the window of an
  // endpoint of a linked node.
  struct Gate {
    std::vector<Conn*> parked;
  };
  // One connection of the poll loop: a client, an operator asking for the
  // status, or a link (TCP) to another router.
  struct Conn : Gate {
    enum Kind { kNew, kClient, kStatus, kLink };
    Kind kind = kNew;
    int fd = -1;
    pid_t pid = 0;
    std::vector<uint8_t> in;  // bytes read, not yet handled
    size_t in_len = 0;
    std::string out;  // frames not yet written, from out_pos on
    size_t out_pos = 0;
    size_t sent_end = 0;  // end offset in `out` of the last frame fully written
    // Queued frames: end offset in `out`, and the link to credit when a
    // message from it has been written to its receiver.
    struct Frame {
      size_t end;
      Link* link;
    };
    std::deque<Frame> frames;
    Endpoint* endpoint = nullptr;
    Gate* parked_on = nullptr;  // what our next message waits for
    bool closing = false;       // close once `out` is written
    bool dead = false;
    bool dirty = false;  // in dirty_
    // kLink only.
    Link* link = nullptr;     // the link it serves or dials; null until the peer's hello
    bool connecting = false;  // our connect() has not completed
    int64_t heard_us = 0;     // when bytes last arrived
    std::string urgent;       // heartbeats and credits, written at the next frame boundary
    std::string peer;         // "HOST:PORT" of the other side
    size_t queued_bytes() const { return out.size() - out_pos; }
  };
  struct Watch {
    uint32_t watcher;
    int32_t id;
    uint32_t type;
  };
  struct Endpoint : Gate {
    uint32_t address = 0;
    std::string name;
    Conn* conn = nullptr;
    std::vector<Watch> watchers;                     // watches on this endpoint
    std::unordered_map<int32_t, uint32_t> watching;  // our watch id -> address
    // Endpoints of a linked node only.
    Link* link = nullptr;
    uint32_t remote = 0;     // its address on its node
    uint32_t in_flight = 0;  // bytes sent to it and not yet credited
  };
  struct Find {
    uint32_t finder;
    uint32_t type;
  };
  struct Link {
    enum State { kDown, kConnecting, kUp };
    std::string peer;       // node name
    std::string address;    // as given to --link, else as seen when the peer dialled
    sockaddr_storage dial;  // where to dial, when dial_len > 0
    socklen_t dial_len = 0;
    State state = kDown;
    Conn* conn = nullptr;  // up, or our dial under way
    uint32_t heartbeat_ms = 0;
    int64_t heartbeat_us = 0;  // last heartbeat received, 0 for never
    int64_t next_beat_us = 0;
    int64_t redial_us = 0;
    uint32_t backoff_ms = 0;
    bool reported = false;  // this outage is logged
    uint64_t msgs_out = 0, bytes_out = 0, msgs_in = 0, bytes_in = 0;
    std::unordered_map<uint32_t, uint32_t> proxies;     // peer's address -> local address
    std::unordered_map<uint32_t, uint32_t> credit_due;  // local receiver -> bytes taken
  };

  // Accepts from the Unix socket or, for link_fd_, the links' TCP socket.
  void Accept(int listen_fd);
  void Read(Conn* c);
  // Handles the whole frames in c->in until they run out or c is parked.
  void HandleInput(Conn* c);
  // Returns why the frame is a protocol error (the caller drops c), or "".
  std::string HandleFrame(Conn* c, const db::ipc::FrameHeader& h, const uint8_t* payload,
                          bool* parked);
  void Open(Conn* c, const db::ipc::FrameHeader& h, const uint8_t* payload);
  // Enters an endpoint in the table (of a linked node when `link` is set, with
  // its address there) and fires the finds waiting for its name.
  Endpoint* AddEndpoint(const std::string& name, Conn* conn, Link* link, uint32_t remote);
  // `credit`: the link whose message this is, credited once it is written.
  void Queue(Conn* c, const db::ipc::FrameHeader& h, const void* payload, Link* credit = nullptr);
  void MarkDirty(Conn* c);
  void Flush(Conn* c);
  // Lets the senders parked on `g` go on.
  void Release(Gate* g);
  // Closes c after its peer went away.
  void Hangup(Conn* c);
  // Closes c; a non-empty `reason` is logged as a dropped connection.
  void Close(Conn* c, const std::string& reason);
  void RemoveEndpoint(Endpoint* e);
  uint32_t NextAddress();
  std::string StatusText() const;

  // Links (links.cc).
  bool ListenLinks();
  Conn* AddLinkConn(int fd, const sockaddr_storage& peer, socklen_t len);
  void Dial(Link* l);
  void Connected(Conn* c);
  std::string HandleLinkFrame(Conn* c, const db::ipc::FrameHeader& h, const uint8_t* payload);
  std::string Hello(Conn* c, const db::ipc::FrameHeader& h, const uint8_t* payload);
  void LinkUp(Link* l, uint32_t peer_heartbeat_ms);
  // Called by Close for the link's connection.
  void LinkDown(Link* l, const std::string& reason);
  // Tells every linked node that a local endpoint opened or closed.
  void Announce(const Endpoint& e, bool up);
  void QueueUrgent(Conn* c, const db::ipc::FrameHeader& h, const void* payload = nullptr);
  void Credit(Link* l, uint32_t receiver, uint32_t bytes);
  // Supervises the links, sends heartbeats, redials. Returns the poll
  // time-out in ms until the next of these is due (-1: none).
  int Tick();
  std::string LinksText() const;

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
  LinkOptions options_;
  int link_fd_ = -1;            // listening for links
  std::string listen_address_;  // "HOST:PORT" really bound
  std::vector<std::unique_ptr<Link>> links_;
  uint64_t routed_ = 0;
  uint64_t dropped_ = 0;
};

// Asks the router on `socket_path` for its status text and writes it to
// standard output. 0, or 1 with a message on standard error.
int PrintStatus(const std::string& socket_path);

}  // namespace ipc_router

#endif  // DB_INTF_TOOLS_IPC_ROUTER_ROUTER_H_
