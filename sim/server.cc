#include "server.h"

#include <algorithm>
#include <span>
#include <utility>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <vector>

#include "state.h"
#include "tq_msg.h"

namespace tqsim {
namespace {

using namespace std::chrono_literals;

constexpr auto kHandshakeTimeout = 10s;
constexpr auto kAcceptBackoff = 100ms;
constexpr int kPollTimeoutMs = 500;
// Rows a running query may produce per round of the loop.
constexpr std::size_t kQuerySlice = 256;
// One connection's turn: at most this many requests, and no more once this
// much time has gone (one request at least). A client that pipelines costly
// requests gets them served over several rounds instead of holding every
// other client up until its last one is answered.
constexpr int kRequestsPerTurn = 64;
constexpr auto kTurn = 2ms;
// How long a restart waits for a client to take its notice.
constexpr auto kRestartLinger = 2s;

std::string peer_text(const sockaddr_storage &ss) {
  char host[INET6_ADDRSTRLEN] = "?";
  unsigned port = 0;
  if (ss.ss_family == AF_INET) {
    const auto &a = reinterpret_cast<const sockaddr_in &>(ss);
    inet_ntop(AF_INET, &a.sin_addr, host, sizeof host);
    port = ntohs(a.sin_port);
  } else if (ss.ss_family == AF_INET6) {
    const auto &a = reinterpret_cast<const sockaddr_in6 &>(ss);
    inet_ntop(AF_INET6, &a.sin6_addr, host, sizeof host);
    port = ntohs(a.sin6_port);
  }
  return format("%s:%u", host, port);
}

}  // namespace

Server::Server(Options opts)
    : opts_(std::move(opts)),
      store_("tqdbsim", static_cast<uint64_t>(std::time(nullptr))),
      stats_(opts_.stats_seed, opts_.stats_scale),
      areas_(opts_) {
  if (!stats_.built())
    std::fprintf(stderr, "tqdbsim: statistics store: %s\n", stats_.fault().c_str());
}

Server::~Server() {
  queries_.clear();
  for (auto &[id, c] : conns_) store_.end_sessions_of(id);
  conns_.clear();
}

uint64_t Server::now() const { return static_cast<uint64_t>(std::time(nullptr)); }

std::string Server::peer_host(uint32_t conn) const {
  auto it = conns_.find(conn);
  if (it == conns_.end()) return {};
  const std::string &peer = it->second->peer();  // "host:port"
  return peer.substr(0, peer.rfind(':'));
}

void Server::log(const char *fmt, ...) const {
  if (!opts_.verbose) return;
  va_list ap;
  va_start(ap, fmt);
  std::fputs("tqdbsim: ", stderr);
  std::vfprintf(stderr, fmt, ap);
  std::fputc('\n', stderr);
  va_end(ap);
}

bool Server::load(std::string &why) {
  return opts_.state_file.empty() || load_state(store_, opts_.state_file, why);
}

bool Server::listen(std::string &why) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo *found = nullptr;
  const std::string port = std::to_string(opts_.port);
  if (int rc = getaddrinfo(opts_.host.c_str(), port.c_str(), &hints, &found); rc != 0) {
    why = "cannot resolve " + opts_.host + ": " + gai_strerror(rc);
    return false;
  }
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(found, freeaddrinfo);
  why = "no address for " + opts_.host;
  for (const addrinfo *ai = found; ai; ai = ai->ai_next) {
    UniqueFd fd(socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                       ai->ai_protocol));
    if (!fd) {
      why = std::string("socket: ") + std::strerror(errno);
      continue;
    }
    const int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    // A fleet may connect all at once: the longest backlog the system allows.
    if (bind(fd.get(), ai->ai_addr, ai->ai_addrlen) != 0 || ::listen(fd.get(), SOMAXCONN) != 0) {
      why = format("cannot listen on %s:%u: %s", opts_.host.c_str(), opts_.port,
                   std::strerror(errno));
      continue;
    }
    sockaddr_storage bound{};
    socklen_t len = sizeof bound;
    if (getsockname(fd.get(), reinterpret_cast<sockaddr *>(&bound), &len) != 0) {
      why = std::string("getsockname: ") + std::strerror(errno);
      continue;
    }
    port_ = ntohs(bound.ss_family == AF_INET6
                      ? reinterpret_cast<const sockaddr_in6 &>(bound).sin6_port
                      : reinterpret_cast<const sockaddr_in &>(bound).sin_port);
    listener_ = std::move(fd);
    return true;
  }
  return false;
}

namespace {

// epoll's flags are poll's on Linux, so a connection keeps speaking poll's.
static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLERR == POLLERR &&
              EPOLLHUP == POLLHUP);
// Tags of the two descriptors that are not connections; a connection's tag
// is its address, valid until the end of the round that reaps it, after the
// socket closed and left the epoll set.
constexpr uint64_t kStopTag = 0;
constexpr uint64_t kListenerTag = 1;
constexpr int kEventsPerWait = 256;

}  // namespace

void Server::watch(int fd, uint64_t tag, uint32_t events, uint32_t &watched) {
  if (events == watched) return;
  epoll_event e{events, {.u64 = tag}};
  const int op = watched == 0 ? EPOLL_CTL_ADD : events == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
  if (epoll_ctl(epoll_.get(), op, fd, &e) == 0 || op == EPOLL_CTL_DEL) watched = events;
}

void Server::watch(Conn &c) {
  if (!c.doomed)
    watch(c.fd(), reinterpret_cast<uintptr_t>(&c), static_cast<uint16_t>(c.poll_events()), c.watched);
}

void Server::touch(Conn &c) {
  if (c.touched) return;
  c.touched = true;
  touched_.push_back(&c);
}

bool Server::run(int stop_fd) {
  epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
  uint32_t stop_watched = 0, listener_watched = 0;
  if (epoll_) watch(stop_fd, kStopTag, EPOLLIN, stop_watched);
  if (!epoll_ || stop_watched == 0) {
    std::fprintf(stderr, "tqdbsim: epoll: %s\n", std::strerror(errno));
    return false;
  }
  std::vector<epoll_event> events(kEventsPerWait);
  std::vector<std::pair<Conn *, short>> ready;
  for (;;) {
    const auto now = Conn::Clock::now();
    const bool listening = now >= accept_paused_until_;
    watch(listener_.get(), kListenerTag, listening ? uint32_t{EPOLLIN} : 0u, listener_watched);

    // A query that may go on is stepped right after the wait; one waiting
    // for its client to read waits with the rest.
    const bool query_ready = std::ranges::any_of(queries_, [&](const auto &q) {
      auto it = conns_.find(q->conn());
      return it == conns_.end() || !it->second->wants_write();
    });
    // What the last reaping sent (sessions that ended) goes out at once.
    int timeout = query_ready || !touched_.empty() || !backlog_.empty() ? 0 : kPollTimeoutMs;
    if (!listening)
      timeout = std::min<int>(timeout, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(
                                                            accept_paused_until_ - now)
                                                            .count()));
    const int n = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), timeout);
    if (n < 0) {
      if (errno == EINTR) continue;
      std::fprintf(stderr, "tqdbsim: epoll_wait: %s\n", std::strerror(errno));
      return false;
    }
    // Connections are served in the order of their numbers, whatever order
    // the kernel reported them in.
    ready.clear();
    bool accepting = false;
    for (const epoll_event &e : std::span(events.data(), static_cast<size_t>(n))) {
      if (e.data.u64 == kStopTag) return true;
      if (e.data.u64 == kListenerTag)
        accepting = true;
      else
        ready.emplace_back(static_cast<Conn *>(e.data.ptr), static_cast<short>(e.events));
    }
    if (accepting) accept_all();
    std::ranges::sort(ready, {}, [](const auto &r) { return r.first->id(); });
    for (const auto &[c, revents] : ready) {
      if (c->doomed) continue;
      service(*c, revents);
      touch(*c);
    }
    // Then another turn for those whose requests were left over, in the
    // order of their numbers (a connection also reported ready above had a
    // turn already and keeps its place for the next round).
    std::vector<uint32_t> turn = std::exchange(backlog_, {});
    std::ranges::sort(turn);
    for (const uint32_t id : turn) {
      auto it = conns_.find(id);
      if (it == conns_.end()) continue;
      Conn &c = *it->second;
      c.backlogged = false;
      if (c.doomed) continue;
      serve_frames(c);
      touch(c);
    }

    pump_queries();

    // Replies and notices queued this round go out now; the wait only
    // covers what the socket did not take.
    const auto later = Conn::Clock::now();
    std::erase_if(handshaking_, [&](uint32_t id) {
      auto it = conns_.find(id);
      if (it == conns_.end() || it->second->doomed) return true;
      if (it->second->phase() != Conn::Phase::kHandshake) return true;
      if (later <= it->second->handshake_deadline()) return false;
      doom(*it->second, "handshake timed out");
      return true;
    });
    for (Conn *const touched : touched_) {
      Conn &c = *touched;
      c.touched = false;
      if (c.doomed) continue;
      if (c.phase() == Conn::Phase::kOpen && c.wants_write() && !c.flush())
        doom(c, format("write failed (status %u, errno %d)", c.io_status(), c.io_errno()));
      watch(c);
    }
    touched_.clear();
    std::erase_if(closing_, [&](const auto &entry) {
      auto it = conns_.find(entry.first);
      if (it == conns_.end()) return true;
      if (it->second->doomed) return true;
      if (it->second->wants_write() && later < entry.second) return false;
      doom(*it->second, "appliance restart");
      return true;
    });
    reap();
  }
}

void Server::accept_all() {
  for (;;) {
    sockaddr_storage from{};
    socklen_t len = sizeof from;
    UniqueFd fd(accept4(listener_.get(), reinterpret_cast<sockaddr *>(&from), &len,
                        SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        std::fprintf(stderr, "tqdbsim: accept: %s; pausing\n", std::strerror(errno));
        accept_paused_until_ = Conn::Clock::now() + kAcceptBackoff;
      }
      return;  // EAGAIN: nothing more waiting
    }
    const int one = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    while (next_conn_ == 0 || conns_.contains(next_conn_)) ++next_conn_;
    const uint32_t id = next_conn_++;
    auto c = Conn::open(id, std::move(fd), peer_text(from),
                        Conn::Clock::now() + kHandshakeTimeout);
    if (!c) {
      std::fprintf(stderr, "tqdbsim: no buffers for a new connection; refused\n");
      continue;
    }
    log("connection %u from %s", id, c->peer().c_str());
    watch(*c);
    handshaking_.push_back(id);
    conns_.emplace(id, std::move(c));
  }
}

void Server::service(Conn &c, short revents) {
  const bool can_read = (revents & (POLLIN | POLLHUP | POLLERR)) != 0;
  const bool can_write = (revents & POLLOUT) != 0;
  switch (c.phase()) {
    case Conn::Phase::kHandshake: {
      if (revents & POLLNVAL) return doom(c, "socket invalid");
      std::string why;
      switch (c.handshake(can_read, can_write, why)) {
        case Conn::Step::kMore:
          if (revents & (POLLHUP | POLLERR)) doom(c, "peer gone during handshake");
          return;
        case Conn::Step::kFailed:
          return doom(c, why);
        case Conn::Step::kDone:
          log("connection %u established", c.id());
          send_to_conn(c.id(), version_announcement(opts_));
          return;
      }
      return;
    }
    case Conn::Phase::kOpen:
      if (can_read) {
        c.read();
        const uint32_t status = c.io_status();
        serve_frames(c);
        if (c.doomed) return;
        if (status == TQDB_API_IO_CLOSED) {
          // Requests left for a later turn are still answered: the end of
          // the stream is seen again once they are.
          if (c.backlogged) return;
          // Answers to the last requests may still reach a half-closed peer.
          if (c.wants_write()) static_cast<void>(c.flush());
          return doom(c, "closed by peer");
        }
        if (status == TQDB_API_IO_ERROR)
          return doom(c, format("read failed (errno %d)", c.io_errno()));
      }
      // Answers leave as soon as they are made, before the next connection
      // is served: its queue drains and hands its chunk back at once, so a
      // round with hundreds of busy clients needs a chunk or two, not one
      // each (the spares beyond the cache's limit would be freed and made
      // again every round).
      if (c.wants_write() && !c.flush())
        doom(c, format("write failed (status %u, errno %d)", c.io_status(), c.io_errno()));
      return;
  }
}

void Server::serve_frames(Conn &c) {
  if (c.backlogged) return;  // its turn comes with the backlog's
  const auto until = Conn::Clock::now() + kTurn;
  for (int served = 0;; ++served) {
    if (closing_.contains(c.id())) return;  // restarting: requests go unanswered
    if (served == kRequestsPerTurn || (served > 0 && Conn::Clock::now() >= until)) {
      c.backlogged = true;
      backlog_.push_back(c.id());
      return;
    }
    bool broken = false;
    Msg m = c.next_frame(broken);
    if (broken) return doom(c, "broken frame: the stream cannot be decrypted");
    if (!m) return;
    handle(c, *m);
    if (c.doomed) return;
  }
}

void Server::handle(Conn &c, tq_msg_t &m) { dispatch_.serve(*this, store_, c.id(), c.login, m); }

void Server::note_request(uint32_t conn, uint32_t code, const Route *route, uint32_t session,
                          uint32_t cid, uint32_t bytes) {
  log("connection %u: request 0x%x (%s) session %u cid %u, %u bytes", conn, code,
      route ? route->name : "unknown", session, cid, bytes);
}

void Server::restart(std::string_view reason) {
  log("restart: %.*s", static_cast<int>(reason.size()), reason.data());
  const auto deadline = Conn::Clock::now() + kRestartLinger;
  for (auto &[id, c] : conns_) {
    if (c->doomed) continue;
    if (c->phase() == Conn::Phase::kHandshake) {
      doom(*c, "appliance restart");
      continue;
    }
    send_to_conn(id, notice_restarting(reason));
    closing_.emplace(id, deadline);
  }
}

void Server::reload(std::string_view reason) {
  log("reload: %.*s", static_cast<int>(reason.size()), reason.data());
  for (auto &[id, c] : conns_)
    if (c->phase() == Conn::Phase::kOpen && !closing_.contains(id))
      send_to_conn(id, notice_reloading(reason));
}

void Server::run_query(std::unique_ptr<QueryRun> q) { queries_.push_back(std::move(q)); }

void Server::pump_queries() {
  std::erase_if(queries_, [&](std::unique_ptr<QueryRun> &q) {
    auto it = conns_.find(q->conn());
    if (it == conns_.end() || it->second->doomed) return true;
    if (it->second->wants_write()) return false;  // let the client catch up first
    return q->pump(*this, kQuerySlice);
  });
}

void Server::send_to_conn(uint32_t conn, Msg m) {
  auto it = conns_.find(conn);
  if (it == conns_.end() || it->second->doomed) return;
  Conn &c = *it->second;
  if (!m) {
    std::fprintf(stderr, "tqdbsim: out of messages; connection %u dropped\n", conn);
    return doom(c, "out of messages");
  }
  if (!c.queue(*m)) return doom(c, "send queue full: the client does not read");
  touch(c);
}

void Server::send_to_session(uint32_t session, Msg m) {
  if (const Session *s = store_.session(session)) send_to_conn(s->conn, std::move(m));
}

void Server::doom(Conn &c, std::string reason) {
  if (!c.doomed) doomed_.push_back(c.id());
  c.doomed = true;
  c.doom_reason = std::move(reason);
}

void Server::reap() {
  // In the order of their numbers; ending sessions may doom more.
  while (!doomed_.empty()) {
    std::vector<uint32_t> ids = std::exchange(doomed_, {});
    std::ranges::sort(ids);
    for (const uint32_t id : ids) {
      auto it = conns_.find(id);
      if (it == conns_.end()) continue;
      log("connection %u closed: %s", id, it->second->doom_reason.c_str());
      store_.end_sessions_of(id);
      areas_.drop_uploads_of(id);
      conns_.erase(it);  // closing the socket takes it out of the epoll set
    }
  }
}

}  // namespace tqsim
