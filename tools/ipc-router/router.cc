#include "router.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>

namespace ipc_router {

using db::ipc::FrameHeader;
using db::ipc::ParseResult;

namespace {

constexpr size_t kReadChunk = 256 * 1024;
constexpr int kAcceptBurst = 16;

bool UnixAddress(const std::string& path, sockaddr_un* addr) {
  memset(addr, 0, sizeof(*addr));
  addr->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(addr->sun_path)) return false;
  memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

FrameHeader Header(uint8_t command, uint32_t from, uint32_t type, uint32_t arg) {
  FrameHeader h;
  h.command = command;
  h.from = from;
  h.type = type;
  h.arg = arg;
  return h;
}

void Log(const char* format, ...) {
  char line[512] = "ipc-router: ";
  size_t n = strlen(line);
  va_list args;
  va_start(args, format);
  vsnprintf(line + n, sizeof(line) - n - 1, format, args);
  va_end(args);
  n = strlen(line);
  line[n++] = '\n';
  ssize_t w = write(STDERR_FILENO, line, n);
  (void)w;
}

Router::Router(std::string socket_path, LinkOptions links)
    : path_(std::move(socket_path)), options_(std::move(links)) {
  // Addresses count up from a point that moves with the clock, so that a
  // restarted router does not hand out the addresses its predecessor just
  // used; within one router an address comes back only after 2^32 - 1 opens.
  next_address_ = static_cast<uint32_t>(time(nullptr)) * 1024u;
}

Router::~Router() {
  for (auto& c : conns_) {
    if (!c->dead) close(c->fd);
  }
  if (listen_fd_ >= 0) {
    close(listen_fd_);
    unlink(path_.c_str());
  }
  if (spare_fd_ >= 0) close(spare_fd_);
  if (link_fd_ >= 0) close(link_fd_);
}

bool Router::Listen() {
  sockaddr_un addr;
  if (!UnixAddress(path_, &addr)) {
    Log("socket path \"%s\" is empty or too long", path_.c_str());
    return false;
  }
  struct stat st;
  if (lstat(path_.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      Log("%s exists and is not a socket; not touching it", path_.c_str());
      return false;
    }
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int rc = connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    int error = errno;
    close(probe);
    if (rc == 0) {
      Log("another router is serving %s", path_.c_str());
      return false;
    }
    if (error != ECONNREFUSED) {
      Log("cannot probe %s: %s", path_.c_str(), strerror(error));
      return false;
    }
    Log("taking over stale socket %s", path_.c_str());
    unlink(path_.c_str());
  }
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  // The mode comes from the umask at bind time: 0660 from the start, with no
  // window in which others could connect.
  mode_t old_mask = umask(0117);
  int rc = listen_fd_ < 0 ? -1 : bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  int error = errno;
  umask(old_mask);
  if (rc < 0 || chmod(path_.c_str(), 0660) < 0 || listen(listen_fd_, 128) < 0) {
    Log("cannot listen on %s: %s", path_.c_str(), strerror(rc < 0 ? error : errno));
    if (listen_fd_ >= 0) close(listen_fd_);
    if (rc == 0) unlink(path_.c_str());
    listen_fd_ = -1;
    return false;
  }
  spare_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  return options_.node.empty() || ListenLinks();
}

void Router::Run(int stop_fd) {
  std::vector<pollfd> fds;
  std::vector<Conn*> polled;
  int timeout = options_.node.empty() ? -1 : Tick();
  for (;;) {
    fds.clear();
    polled.clear();
    fds.push_back({stop_fd, POLLIN, 0});
    fds.push_back({listen_fd_, POLLIN, 0});
    fds.push_back({link_fd_, POLLIN, 0});
    for (auto& c : conns_) {
      short events = 0;
      if (c->parked_on == nullptr && !c->closing && !c->connecting) events |= POLLIN;
      if (c->queued_bytes() > 0 || !c->urgent.empty() || c->connecting) events |= POLLOUT;
      // A descriptor polled for nothing would still report hang-ups: leave
      // parked connections out entirely.
      fds.push_back({events != 0 ? c->fd : -1, events, 0});
      polled.push_back(c.get());
    }
    if (poll(fds.data(), fds.size(), timeout) < 0) {
      if (errno == EINTR) continue;
      Log("poll failed: %s", strerror(errno));
      return;
    }
    if (fds[0].revents != 0) return;
    if (fds[1].revents != 0) Accept(listen_fd_);
    if (fds[2].revents != 0) Accept(link_fd_);
    for (size_t i = 0; i < polled.size(); ++i) {
      Conn* c = polled[i];
      short r = fds[i + 3].revents;
      if (c->dead || r == 0) continue;
      if (c->connecting) {
        Connected(c);
        continue;
      }
      if ((r & (POLLOUT | POLLHUP | POLLERR)) != 0) Flush(c);
      bool reading = c->parked_on == nullptr && !c->closing;
      if (!c->dead && reading && (r & (POLLIN | POLLHUP | POLLERR)) != 0) Read(c);
    }
    // Links first: supervision after the reads, so that heartbeats that
    // waited in a socket while this router was not running still count.
    if (!options_.node.empty()) timeout = Tick();
    // Handle unparked senders and write what was queued, until neither
    // produces more work.
    while (!runnable_.empty() || !dirty_.empty()) {
      std::vector<Conn*> work;
      work.swap(runnable_);
      for (Conn* c : work) {
        if (!c->dead && c->parked_on == nullptr) HandleInput(c);
      }
      work.swap(dirty_);
      dirty_.clear();
      for (Conn* c : work) {
        c->dirty = false;
        if (!c->dead) Flush(c);
      }
    }
    conns_.erase(std::remove_if(conns_.begin(), conns_.end(),
                                [](const std::unique_ptr<Conn>& c) { return c->dead; }),
                 conns_.end());
    // A link the peer dialled is forgotten once down (nothing refers to it
    // then): a peer cannot make the router keep records of made-up nodes.
    links_.erase(std::remove_if(links_.begin(), links_.end(),
                                [](const std::unique_ptr<Link>& l) {
                                  return l->state == Link::kDown && l->dial_len == 0;
                                }),
                 links_.end());
  }
}

void Router::Accept(int listen_fd) {
  for (int i = 0; i < kAcceptBurst; ++i) {
    sockaddr_storage from;
    socklen_t from_len = sizeof(from);
    int fd = accept4(listen_fd, reinterpret_cast<sockaddr*>(&from), &from_len,
                     SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if ((errno == EMFILE || errno == ENFILE) && spare_fd_ >= 0) {
        // Out of descriptors: accept with the spare one and refuse at once,
        // rather than leave the connection pending and spin on it.
        // (accept fails so even when nothing is pending.)
        close(spare_fd_);
        fd = accept(listen_fd, nullptr, nullptr);
        spare_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        Log("refused a connection: out of file descriptors");
        close(fd);
        continue;
      }
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        Log("accept failed: %s", strerror(errno));
      }
      return;
    }
    if (listen_fd == link_fd_) {
      AddLinkConn(fd, from, from_len);
      continue;
    }
    auto c = std::make_unique<Conn>();
    c->fd = fd;
    ucred cred = {};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) c->pid = cred.pid;
    conns_.push_back(std::move(c));
  }
}

void Router::Read(Conn* c) {
  if (c->in.size() - c->in_len < kReadChunk / 2) c->in.resize(c->in_len + kReadChunk);
  ssize_t n = recv(c->fd, c->in.data() + c->in_len, c->in.size() - c->in_len, MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
  if (n <= 0) {
    Hangup(c);
    return;
  }
  c->in_len += static_cast<size_t>(n);
  if (c->kind == Conn::kLink) c->heard_us = NowUs();
  HandleInput(c);
  // After the frames: a peer's hello counts for the link it brings up.
  if (c->kind == Conn::kLink && c->link != nullptr) c->link->bytes_in += static_cast<uint64_t>(n);
}

void Router::HandleInput(Conn* c) {
  size_t pos = 0;
  while (!c->dead && !c->closing) {
    FrameHeader h;
    ParseResult r = db::ipc::ParseFrame(c->in.data() + pos, c->in_len - pos, &h);
    if (r == ParseResult::kMalformed) {
      Close(c, "malformed frame");
      return;
    }
    if (r == ParseResult::kNeedMore) break;
    bool parked = false;
    const uint8_t* payload = c->in.data() + pos + db::ipc::kFrameHeaderSize;
    std::string error = c->kind == Conn::kLink ? HandleLinkFrame(c, h, payload)
                                               : HandleFrame(c, h, payload, &parked);
    if (!error.empty()) {
      Close(c, error);
      return;
    }
    if (parked) break;
    pos += db::ipc::kFrameHeaderSize + h.size;
  }
  if (c->dead) return;
  memmove(c->in.data(), c->in.data() + pos, c->in_len - pos);
  c->in_len -= pos;
  // Keep a big buffer only while a big frame is in it.
  if (c->in_len == 0 && c->in.size() > kReadChunk) std::vector<uint8_t>().swap(c->in);
}

std::string Router::HandleFrame(Conn* c, const FrameHeader& h, const uint8_t* payload,
                                bool* parked) {
  const std::string unexpected = "unexpected command " + std::to_string(h.command);
  if (c->kind == Conn::kNew) {
    if (h.command == db::ipc::kOpen) {
      Open(c, h, payload);
      return "";
    }
    if (h.command != db::ipc::kStatus) return unexpected;
    c->kind = Conn::kStatus;
    std::string text = StatusText();
    for (size_t at = 0; at < text.size(); at += IPC_MAX_SIZE) {
      FrameHeader piece = Header(db::ipc::kStatusText, 0, 0, 0);
      piece.size = static_cast<uint32_t>(std::min<size_t>(IPC_MAX_SIZE, text.size() - at));
      Queue(c, piece, text.data() + at);
    }
    c->closing = true;
    return "";
  }
  if (c->kind != Conn::kClient) return unexpected;
  Endpoint* self = c->endpoint;
  switch (h.command) {
    case db::ipc::kSend: {
      auto dest = by_address_.find(h.to);
      if (dest == by_address_.end()) {
        ++dropped_;  // the sender learns of it through a watch
        return "";
      }
      Endpoint* d = dest->second.get();
      Conn* to = d->conn;
      Gate* full = nullptr;
      if (to->queued_bytes() >= kQueueBound) {
        full = to;
      } else if (d->link != nullptr && d->in_flight >= kLinkWindow) {
        full = d;  // its window: credit comes back as it takes its messages
      }
      if (full != nullptr) {
        c->parked_on = full;
        full->parked.push_back(c);
        *parked = true;
        return "";
      }
      FrameHeader m = h;
      m.command = db::ipc::kMessage;
      m.from = self->address;  // never what the client wrote
      m.to = dest->first;
      m.arg = 0;
      if (d->link != nullptr) {
        m.command = db::ipc::kLinkMessage;
        m.to = d->remote;
        d->in_flight += static_cast<uint32_t>(db::ipc::kFrameHeaderSize) + h.size;
        ++d->link->msgs_out;
      }
      Queue(to, m, payload);
      ++routed_;
      return "";
    }
    case db::ipc::kFind: {
      std::string name(reinterpret_cast<const char*>(payload), h.size);
      if (!db::ipc::ValidFindName(name.data(), name.size())) return unexpected;
      auto found = by_name_.find(name);
      if (found != by_name_.end()) {
        Queue(c, Header(db::ipc::kMessage, found->second, h.type, 0), nullptr);
      } else {
        finds_.emplace(name, Find{self->address, h.type});
      }
      return "";
    }
    case db::ipc::kWatch: {
      int32_t id = static_cast<int32_t>(h.arg);
      if (id <= 0 || self->watching.count(id) != 0) return unexpected;
      auto target = by_address_.find(h.to);
      if (target == by_address_.end()) {
        Queue(c, Header(db::ipc::kWatchFired, h.to, h.type, h.arg), nullptr);
      } else {
        target->second->watchers.push_back(Watch{self->address, id, h.type});
        self->watching.emplace(id, h.to);
      }
      return "";
    }
    case db::ipc::kUnwatch: {
      // Unknown ids are watches that fired while the request was on its way.
      auto w = self->watching.find(static_cast<int32_t>(h.arg));
      if (w == self->watching.end()) return "";
      auto& list = by_address_.at(w->second)->watchers;
      list.erase(std::remove_if(list.begin(), list.end(),
                                [&](const Watch& x) {
                                  return x.watcher == self->address && x.id == w->first;
                                }),
                 list.end());
      self->watching.erase(w);
      return "";
    }
    default:
      return unexpected;
  }
}

void Router::Open(Conn* c, const FrameHeader& h, const uint8_t* payload) {
  std::string name(reinterpret_cast<const char*>(payload), h.size);
  uint32_t status = db::ipc::kOpenOk;
  if (!db::ipc::ValidName(name.data(), name.size())) {
    status = db::ipc::kOpenBadName;
  } else if (by_name_.count(name) != 0) {
    status = db::ipc::kOpenNameTaken;
  }
  if (status != db::ipc::kOpenOk) {
    Log("refused connection (pid %d): name \"%s\" %s", static_cast<int>(c->pid),
        status == db::ipc::kOpenNameTaken ? name.c_str() : "?",
        status == db::ipc::kOpenNameTaken ? "is taken" : "is invalid");
    Queue(c, Header(db::ipc::kOpenReply, 0, 0, status), nullptr);
    c->closing = true;
    return;
  }
  c->kind = Conn::kClient;
  c->endpoint = AddEndpoint(name, c, nullptr, 0);
  FrameHeader reply = Header(db::ipc::kOpenReply, 0, 0, db::ipc::kOpenOk);
  reply.to = c->endpoint->address;
  Queue(c, reply, nullptr);
}

Router::Endpoint* Router::AddEndpoint(const std::string& name, Conn* conn, Link* link,
                                      uint32_t remote) {
  auto owned = std::make_unique<Endpoint>();
  Endpoint* e = owned.get();
  e->address = NextAddress();
  e->name = name;
  e->conn = conn;
  e->link = link;
  e->remote = remote;
  by_name_.emplace(name, e->address);
  by_address_.emplace(e->address, std::move(owned));
  if (link != nullptr) {
    link->proxies.emplace(remote, e->address);
  } else {
    Announce(*e, true);
  }
  auto range = finds_.equal_range(name);
  for (auto it = range.first; it != range.second; ++it) {
    Conn* finder = by_address_.at(it->second.finder)->conn;
    Queue(finder, Header(db::ipc::kMessage, e->address, it->second.type, 0), nullptr);
  }
  finds_.erase(range.first, range.second);
  return e;
}

uint32_t Router::NextAddress() {
  do {
    ++next_address_;
  } while (next_address_ == 0 || by_address_.count(next_address_) != 0);
  return next_address_;
}

void Router::Queue(Conn* c, const FrameHeader& h, const void* payload, Link* credit) {
  db::ipc::AppendFrame(h, payload, &c->out);
  c->frames.push_back({c->out.size(), credit});
  MarkDirty(c);
}

void Router::MarkDirty(Conn* c) {
  if (!c->dirty) {
    c->dirty = true;
    dirty_.push_back(c);
  }
}

void Router::Flush(Conn* c) {
  if (c->connecting) return;
  const size_t urgent = c->urgent.size();
  if (c->queued_bytes() + urgent > 0) {
    // Urgent frames go between two queued frames: right away when the last
    // write ended on a frame boundary, else after the frame under way.
    size_t split = urgent == 0                 ? c->out.size()
                   : c->out_pos == c->sent_end ? c->out_pos
                                               : c->frames.front().end;
    char* out = &c->out[0];
    iovec iov[3] = {{out + c->out_pos, split - c->out_pos},
                    {&c->urgent[0], urgent},
                    {out + split, c->out.size() - split}};
    msghdr m = {};
    m.msg_iov = iov;
    m.msg_iovlen = 3;
    ssize_t n = sendmsg(c->fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      Hangup(c);
      return;
    }
    if (n > 0) {
      size_t left = static_cast<size_t>(n);
      size_t head = std::min(left, split - c->out_pos);
      c->out_pos += head;
      left -= head;
      size_t sent_urgent = std::min(left, urgent);
      c->urgent.erase(0, sent_urgent);
      c->out_pos += left - sent_urgent;
      if (c->link != nullptr) c->link->bytes_out += static_cast<uint64_t>(n);
    }
    while (!c->frames.empty() && c->frames.front().end <= c->out_pos) {
      const Conn::Frame& f = c->frames.front();
      if (f.link != nullptr)
        Credit(f.link, c->endpoint->address, static_cast<uint32_t>(f.end - c->sent_end));
      c->sent_end = f.end;
      c->frames.pop_front();
    }
    if (c->out_pos == c->out.size()) {
      c->out.clear();
      c->out_pos = 0;
      c->sent_end = 0;
    } else if (c->out_pos > c->out.size() / 2) {
      c->out.erase(0, c->out_pos);
      for (Conn::Frame& f : c->frames) f.end -= c->out_pos;
      c->sent_end -= c->out_pos;
      c->out_pos = 0;
    }
  }
  if (c->queued_bytes() < kQueueBound) Release(c);
  if (c->closing && c->queued_bytes() == 0) Close(c, "");
}

void Router::Release(Gate* g) {
  for (Conn* s : g->parked) {
    s->parked_on = nullptr;
    runnable_.push_back(s);
  }
  g->parked.clear();
}

void Router::Hangup(Conn* c) {
  // A close in the middle of a frame is a client that died mid-write. (A
  // parked sender holds whole frames: those are just lost with it.)
  FrameHeader h;
  bool half =
      c->in_len > 0 && db::ipc::ParseFrame(c->in.data(), c->in_len, &h) == ParseResult::kNeedMore;
  Close(c, half ? "closed in the middle of a frame" : "");
}

void Router::Close(Conn* c, const std::string& reason) {
  if (c->dead) return;
  if (c->kind == Conn::kLink) {
    c->dead = true;
    if (c->link != nullptr && c->link->conn == c) {
      LinkDown(c->link, reason.empty() ? "connection closed" : reason);
    } else if (!reason.empty()) {
      Log("dropped link connection with %s: %s", c->peer.c_str(), reason.c_str());
    }
    close(c->fd);
    Release(c);
    return;
  }
  if (!reason.empty()) {
    Log("dropped connection (pid %d, %s): %s", static_cast<int>(c->pid),
        c->endpoint != nullptr ? ("endpoint \"" + c->endpoint->name + "\"").c_str() : "no endpoint",
        reason.c_str());
  }
  c->dead = true;
  close(c->fd);
  if (c->endpoint != nullptr) {
    dropped_ += c->frames.size();
    RemoveEndpoint(c->endpoint);
    c->endpoint = nullptr;
  }
  if (c->parked_on != nullptr) {
    auto& list = c->parked_on->parked;
    list.erase(std::remove(list.begin(), list.end(), c), list.end());
    c->parked_on = nullptr;
  }
  // Senders parked on us go on; their messages to us are now dropped.
  Release(c);
}

void Router::RemoveEndpoint(Endpoint* e) {
  uint32_t address = e->address;
  by_name_.erase(e->name);
  Release(e);
  if (e->link != nullptr) {
    e->link->proxies.erase(e->remote);
  } else {
    Announce(*e, false);
  }
  for (const Watch& w : e->watchers) {
    auto watcher = by_address_.find(w.watcher);
    if (watcher == by_address_.end()) continue;
    watcher->second->watching.erase(w.id);
    Queue(watcher->second->conn,
          Header(db::ipc::kWatchFired, address, w.type, static_cast<uint32_t>(w.id)), nullptr);
  }
  for (const auto& w : e->watching) {
    auto target = by_address_.find(w.second);
    if (target == by_address_.end()) continue;
    auto& list = target->second->watchers;
    list.erase(std::remove_if(list.begin(), list.end(),
                              [&](const Watch& x) { return x.watcher == address; }),
               list.end());
  }
  for (auto it = finds_.begin(); it != finds_.end();) {
    it = it->second.finder == address ? finds_.erase(it) : std::next(it);
  }
  by_address_.erase(address);
}

std::string Router::StatusText() const {
  // Sections: a title line with a count, a column line, then one row each.
  // Sections for further kinds of connections go before the counters.
  std::string out;
  char line[256];
  auto add = [&](const char* format, auto... args) {
    snprintf(line, sizeof(line), format, args...);
    out += line;
  };
  add("ipc-router on %s, pid %d%s%s\n", path_.c_str(), static_cast<int>(getpid()),
      options_.node.empty() ? "" : ", node ", options_.node.c_str());
  add("endpoints %zu\n", by_address_.size());
  add("  %10s %8s %8s %10s  %s\n", "address", "pid", "queued", "bytes", "name");
  size_t watches = 0;
  for (const auto& [name, address] : by_name_) {
    const Endpoint& e = *by_address_.at(address);
    if (e.link != nullptr) {  // of a linked node: the bytes on their way to it
      add("  %10" PRIu32 " %8s %8s %10" PRIu32 "  %s\n", address, "-", "-", e.in_flight,
          name.c_str());
    } else {
      add("  %10" PRIu32 " %8d %8zu %10zu  %s\n", address, static_cast<int>(e.conn->pid),
          e.conn->frames.size(), e.conn->queued_bytes(), name.c_str());
    }
    watches += e.watchers.size();
  }
  add("watches %zu\n", watches);
  add("  %10s %10s %10s %10s\n", "watcher", "id", "address", "type");
  for (const auto& [name, address] : by_name_) {
    for (const Watch& w : by_address_.at(address)->watchers) {
      add("  %10" PRIu32 " %10" PRId32 " %10" PRIu32 " %10" PRIu32 "\n", w.watcher, w.id, address,
          w.type);
    }
  }
  add("finds %zu\n", finds_.size());
  add("  %10s %10s  %s\n", "finder", "type", "name");
  for (const auto& [name, f] : finds_) {
    add("  %10" PRIu32 " %10" PRIu32 "  %s\n", f.finder, f.type, name.c_str());
  }
  if (!options_.node.empty()) out += LinksText();
  add("messages routed %" PRIu64 " dropped %" PRIu64 "\n", routed_, dropped_);
  return out;
}

int PrintStatus(const std::string& socket_path) {
  sockaddr_un addr;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (!UnixAddress(socket_path, &addr) || fd < 0 ||
      connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0) {
    fprintf(stderr, "ipc-status: no router on %s: %s\n", socket_path.c_str(), strerror(errno));
    if (fd >= 0) close(fd);
    return 1;
  }
  timeval limit = {5, 0};  // a router answers at once; never hang an operator
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  uint8_t head[db::ipc::kFrameHeaderSize];
  db::ipc::EncodeFrameHeader(Header(db::ipc::kStatus, 0, 0, 0), head);
  std::vector<uint8_t> in;
  bool ok = send(fd, head, sizeof(head), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(head));
  while (ok) {
    uint8_t buf[16384];
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    if (n == 0) break;
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) in.insert(in.end(), buf, buf + n);
  }
  close(fd);
  size_t pos = 0;
  FrameHeader h;
  while (ok && db::ipc::ParseFrame(in.data() + pos, in.size() - pos, &h) == ParseResult::kFrame &&
         h.command == db::ipc::kStatusText) {
    fwrite(in.data() + pos + db::ipc::kFrameHeaderSize, 1, h.size, stdout);
    pos += db::ipc::kFrameHeaderSize + h.size;
  }
  if (!ok || pos != in.size() || pos == 0) {
    fprintf(stderr, "ipc-status: no valid answer from %s\n", socket_path.c_str());
    return 1;
  }
  return 0;
}

}  // namespace ipc_router
