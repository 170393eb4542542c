// The links between routers: listening and dialling, the hello, endpoint
// names, messages and credits across, heartbeats and supervision. The design
// is described in router.h.

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>

#include "router.h"

namespace ipc_router {

using db::ipc::FrameHeader;

namespace {

constexpr uint32_t kFirstBackoffMs = 100;
constexpr uint32_t kLastBackoffMs = 5000;
constexpr int64_t kSilentBeats = 3;
// Unsent bytes the kernel may hold for a link; the rest waits in the router,
// where heartbeats and credits can pass it.
constexpr int kNotSentLowWater = 64 * 1024;

// "HOST:PORT" ("[HOST]:PORT" for IPv6; HOST empty for any address when
// `passive`) to a socket address. Host names are looked up once, here.
bool Resolve(const std::string& text, bool passive, sockaddr_storage* addr, socklen_t* len,
             std::string* error) {
  size_t colon = text.rfind(':');
  std::string host = text.substr(0, colon == std::string::npos ? 0 : colon);
  std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
  if (port.empty() || port.size() > 5 ||
      port.find_first_not_of("0123456789") != std::string::npos || std::stoul(port) > 65535) {
    *error = "not HOST:PORT";
    return false;
  }
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | (passive ? AI_PASSIVE : 0);
  addrinfo* found = nullptr;
  int rc = getaddrinfo(host.empty() ? nullptr : host.c_str(), port.c_str(), &hints, &found);
  if (rc != 0) {
    *error = gai_strerror(rc);
    return false;
  }
  memcpy(addr, found->ai_addr, found->ai_addrlen);
  *len = found->ai_addrlen;
  freeaddrinfo(found);
  return true;
}

std::string AddressText(const sockaddr_storage& addr, socklen_t len) {
  char host[NI_MAXHOST], port[NI_MAXSERV];
  if (getnameinfo(reinterpret_cast<const sockaddr*>(&addr), len, host, sizeof(host), port,
                  sizeof(port), NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "?";
  }
  return addr.ss_family == AF_INET6 ? "[" + std::string(host) + "]:" + port
                                    : std::string(host) + ":" + port;
}

FrameHeader HelloFrame(const LinkOptions& options) {
  FrameHeader h = Header(db::ipc::kHello, 0, 0, options.heartbeat_ms);
  h.size = static_cast<uint32_t>(options.node.size());
  return h;
}

}  // namespace

bool Router::ListenLinks() {
  std::string error;
  for (const auto& [peer, address] : options_.peers) {
    auto l = std::make_unique<Link>();
    l->peer = peer;
    l->address = address;
    l->backoff_ms = kFirstBackoffMs;
    if (!Resolve(address, false, &l->dial, &l->dial_len, &error)) {
      Log("link %s: cannot use address \"%s\": %s", peer.c_str(), address.c_str(), error.c_str());
      return false;
    }
    links_.push_back(std::move(l));
  }
  if (options_.listen.empty()) return true;
  sockaddr_storage addr;
  socklen_t len = 0;
  if (!Resolve(options_.listen, true, &addr, &len, &error)) {
    Log("cannot listen for links on \"%s\": %s", options_.listen.c_str(), error.c_str());
    return false;
  }
  link_fd_ = socket(addr.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int one = 1;
  len = sizeof(addr);  // for getsockname; bind takes the address's own length first
  if (link_fd_ < 0 || setsockopt(link_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) < 0 ||
      bind(link_fd_, reinterpret_cast<sockaddr*>(&addr),
           addr.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in)) < 0 ||
      listen(link_fd_, 16) < 0 ||
      getsockname(link_fd_, reinterpret_cast<sockaddr*>(&addr), &len) < 0) {
    Log("cannot listen for links on %s: %s", options_.listen.c_str(), strerror(errno));
    return false;
  }
  listen_address_ = AddressText(addr, len);
  Log("node %s listening for links on %s", options_.node.c_str(), listen_address_.c_str());
  return true;
}

Router::Conn* Router::AddLinkConn(int fd, const sockaddr_storage& peer, socklen_t len) {
  auto c = std::make_unique<Conn>();
  c->kind = Conn::kLink;
  c->fd = fd;
  c->peer = AddressText(peer, len);
  c->heard_us = NowUs();
  int one = 1, low_water = kNotSentLowWater;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  setsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &low_water, sizeof(low_water));
  conns_.push_back(std::move(c));
  return conns_.back().get();
}

void Router::Dial(Link* l) {
  int fd = socket(l->dial.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int error = fd < 0 ? errno : 0;
  Conn* c = AddLinkConn(fd, l->dial, l->dial_len);
  c->link = l;
  c->connecting = true;
  l->conn = c;
  l->state = Link::kConnecting;
  QueueUrgent(c, HelloFrame(options_), options_.node.data());
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&l->dial), l->dial_len) < 0 &&
      errno != EINPROGRESS) {
    error = errno;
  }
  if (error != 0) Close(c, std::string("connect: ") + strerror(error));
}

void Router::Connected(Conn* c) {
  int error = 0;
  socklen_t len = sizeof(error);
  if (getsockopt(c->fd, SOL_SOCKET, SO_ERROR, &error, &len) < 0) error = errno;
  if (error != 0) {
    Close(c, std::string("connect: ") + strerror(error));
    return;
  }
  c->connecting = false;
  Flush(c);
}

std::string Router::Hello(Conn* c, const FrameHeader& h, const uint8_t* payload) {
  std::string name(reinterpret_cast<const char*>(payload), h.size);
  if (h.command != db::ipc::kHello || !db::ipc::ValidName(name.data(), name.size()) || h.arg == 0) {
    return "no valid hello";
  }
  if (name == options_.node) return "the peer claims this router's own node name " + name;
  Link* l = c->link;
  if (l != nullptr) {  // the answer to our dial
    if (name != l->peer) return "the peer answers as node " + name;
  } else {
    auto known = std::find_if(links_.begin(), links_.end(),
                              [&](const std::unique_ptr<Link>& x) { return x->peer == name; });
    l = known == links_.end() ? nullptr : known->get();
    if (l != nullptr && l->state == Link::kUp) return "node " + name + " is already linked";
    if (l != nullptr && l->state == Link::kConnecting) {
      // Both sides dialled: the connection dialled by the node whose name
      // sorts first is kept, on both sides.
      if (options_.node < name) return "node " + name + " dialled while we did; ours is kept";
      Conn* ours = l->conn;
      l->conn = nullptr;
      Close(ours, "");
    }
    if (l == nullptr) {
      links_.push_back(std::make_unique<Link>());
      l = links_.back().get();
      l->peer = name;
    }
    if (l->dial_len == 0) l->address = c->peer;
    c->link = l;
    l->conn = c;
    // Urgent, like the heartbeats and credits that must not overtake it.
    QueueUrgent(c, HelloFrame(options_), options_.node.data());
  }
  LinkUp(l, h.arg);
  return "";
}

void Router::LinkUp(Link* l, uint32_t peer_heartbeat_ms) {
  l->state = Link::kUp;
  l->heartbeat_ms = std::min(options_.heartbeat_ms, peer_heartbeat_ms);
  l->heartbeat_us = 0;
  l->next_beat_us = NowUs();
  l->backoff_ms = kFirstBackoffMs;
  l->reported = false;
  Log("link %s up (%s)", l->peer.c_str(), l->address.c_str());
  for (const auto& entry : by_address_) {
    const Endpoint& e = *entry.second;
    if (e.link != nullptr) continue;
    FrameHeader up = Header(db::ipc::kEndpointUp, e.address, 0, 0);
    up.size = static_cast<uint32_t>(e.name.size());
    Queue(l->conn, up, e.name.data());
  }
}

void Router::Announce(const Endpoint& e, bool up) {
  FrameHeader h = Header(up ? db::ipc::kEndpointUp : db::ipc::kEndpointDown, e.address, 0, 0);
  h.size = up ? static_cast<uint32_t>(e.name.size()) : 0;
  for (auto& l : links_) {
    if (l->state == Link::kUp) Queue(l->conn, h, e.name.data());
  }
}

void Router::LinkDown(Link* l, const std::string& reason) {
  if (l->state == Link::kUp) {
    Log("link %s down (%s): %s", l->peer.c_str(), l->address.c_str(), reason.c_str());
  } else if (!l->reported) {  // once per outage, not at every redial
    Log("link %s (%s) not up: %s; redialling with back-off", l->peer.c_str(), l->address.c_str(),
        reason.c_str());
  }
  l->reported = true;
  l->state = Link::kDown;
  l->conn = nullptr;
  // Its endpoints leave the table: their watches fire, senders parked on
  // them go on (and their messages to them are dropped from now on).
  while (!l->proxies.empty()) RemoveEndpoint(by_address_.at(l->proxies.begin()->second).get());
  // Messages that came over it are still delivered, without credit.
  l->credit_due.clear();
  for (auto& c : conns_) {
    for (Conn::Frame& f : c->frames) {
      if (f.link == l) f.link = nullptr;
    }
  }
  if (l->dial_len > 0) {
    l->redial_us = NowUs() + int64_t{l->backoff_ms} * 1000;
    l->backoff_ms = std::min(2 * l->backoff_ms, kLastBackoffMs);
  }
}

std::string Router::HandleLinkFrame(Conn* c, const FrameHeader& h, const uint8_t* payload) {
  Link* l = c->link;
  if (l == nullptr || l->state != Link::kUp) return Hello(c, h, payload);
  switch (h.command) {
    case db::ipc::kHeartbeat:
      l->heartbeat_us = NowUs();
      return "";
    case db::ipc::kEndpointUp: {
      const char* name = reinterpret_cast<const char*>(payload);
      std::string full = l->peer + "/" + std::string(name, h.size);
      if (!db::ipc::ValidName(name, h.size) || h.from == 0 || l->proxies.count(h.from) != 0 ||
          by_name_.count(full) != 0) {
        return "bad endpoint announcement";
      }
      AddEndpoint(full, c, l, h.from);
      return "";
    }
    case db::ipc::kEndpointDown: {
      auto proxy = l->proxies.find(h.from);
      if (proxy == l->proxies.end()) return "an unknown endpoint went down";
      RemoveEndpoint(by_address_.at(proxy->second).get());
      return "";
    }
    case db::ipc::kLinkMessage: {
      auto sender = l->proxies.find(h.from);
      if (sender == l->proxies.end()) return "a message from an unknown endpoint";
      ++l->msgs_in;
      auto dest = by_address_.find(h.to);
      if (dest == by_address_.end() || dest->second->link != nullptr) {
        ++dropped_;  // gone meanwhile: its node learns it from our kEndpointDown
        return "";
      }
      FrameHeader m = h;
      m.command = db::ipc::kMessage;
      m.from = sender->second;
      m.arg = 0;
      Queue(dest->second->conn, m, payload, l);
      ++routed_;
      return "";
    }
    case db::ipc::kCredit: {
      auto proxy = l->proxies.find(h.to);
      if (proxy == l->proxies.end()) return "";  // gone meanwhile
      Endpoint* e = by_address_.at(proxy->second).get();
      e->in_flight -= std::min(e->in_flight, h.arg);
      if (e->in_flight < kLinkWindow) Release(e);
      return "";
    }
    default:
      return "unexpected command " + std::to_string(h.command);
  }
}

void Router::QueueUrgent(Conn* c, const FrameHeader& h, const void* payload) {
  db::ipc::AppendFrame(h, payload, &c->urgent);
  MarkDirty(c);
}

void Router::Credit(Link* l, uint32_t receiver, uint32_t bytes) {
  // Credit goes back in pieces of a quarter window: a sender held back at a
  // full window always gets one, and a busy link carries few of them.
  uint32_t& due = l->credit_due[receiver];
  due += bytes;
  if (due < kLinkWindow / 4) return;
  FrameHeader h = Header(db::ipc::kCredit, 0, 0, due);
  h.to = receiver;
  QueueUrgent(l->conn, h);
  l->credit_due.erase(receiver);
}

int Router::Tick() {
  const int64_t now = NowUs();
  int64_t next = INT64_MAX;
  auto silence_us = [](uint32_t heartbeat_ms) { return kSilentBeats * 1000 * heartbeat_ms; };
  for (auto& c : conns_) {
    if (c->kind != Conn::kLink || c->dead) continue;
    Link* l = c->link;
    int64_t deadline =
        c->heard_us +
        silence_us(l != nullptr && l->state == Link::kUp ? l->heartbeat_ms : options_.heartbeat_ms);
    if (now < deadline) {
      next = std::min(next, deadline);
    } else {
      Close(c.get(), "silent for " + std::to_string((now - c->heard_us) / 1000) + " ms");
    }
  }
  for (auto& l : links_) {
    if (l->state == Link::kDown && l->dial_len > 0 && now >= l->redial_us) Dial(l.get());
    if (l->state == Link::kUp) {
      if (now >= l->next_beat_us) {
        QueueUrgent(l->conn, Header(db::ipc::kHeartbeat, 0, 0, 0));
        l->next_beat_us = now + int64_t{l->heartbeat_ms} * 1000;
      }
      next = std::min(next, l->next_beat_us);
    } else if (l->state == Link::kConnecting) {
      next = std::min(next, l->conn->heard_us + silence_us(options_.heartbeat_ms));
    } else if (l->dial_len > 0) {
      next = std::min(next, l->redial_us);
    }
  }
  if (next == INT64_MAX) return -1;
  return static_cast<int>(
      std::min<int64_t>((std::max<int64_t>(next - now, 0) + 999) / 1000, 1 << 30));
}

std::string Router::LinksText() const {
  std::string out;
  char line[512];
  const int64_t now = NowUs();
  snprintf(line, sizeof(line), "links %zu (node %s, %s%s, heartbeat %" PRIu32 " ms)\n",
           links_.size(), options_.node.c_str(),
           listen_address_.empty() ? "not listening" : "listening on ", listen_address_.c_str(),
           options_.heartbeat_ms);
  out += line;
  snprintf(line, sizeof(line), "  %-16s %-10s %14s %10s %12s %10s %12s  %s\n", "peer", "state",
           "last heartbeat", "msgs out", "bytes out", "msgs in", "bytes in", "address");
  out += line;
  static const char* const kStates[] = {"down", "connecting", "up"};
  for (const auto& l : links_) {
    char heard[32] = "never";
    if (l->heartbeat_us != 0) {
      snprintf(heard, sizeof(heard), "%" PRId64 " ms ago", (now - l->heartbeat_us) / 1000);
    }
    snprintf(line, sizeof(line),
             "  %-16s %-10s %14s %10" PRIu64 " %12" PRIu64 " %10" PRIu64 " %12" PRIu64 "  %s\n",
             l->peer.c_str(), kStates[l->state], heard, l->msgs_out, l->bytes_out, l->msgs_in,
             l->bytes_in, l->address.c_str());
    out += line;
  }
  return out;
}

}  // namespace ipc_router
