#include "server.h"

#include <algorithm>
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
    if (bind(fd.get(), ai->ai_addr, ai->ai_addrlen) != 0 || ::listen(fd.get(), 128) != 0) {
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

bool Server::run(int stop_fd) {
  std::vector<pollfd> fds;
  std::vector<uint32_t> ids;
  for (;;) {
    const auto now = Conn::Clock::now();
    fds.clear();
    ids.clear();
    fds.push_back({stop_fd, POLLIN, 0});
    const bool listening = now >= accept_paused_until_;
    fds.push_back({listening ? listener_.get() : -1, POLLIN, 0});
    for (const auto &[id, c] : conns_) {
      fds.push_back({c->fd(), c->poll_events(), 0});
      ids.push_back(id);
    }

    // A query that may go on is stepped right after the poll; one waiting
    // for its client to read waits with the rest.
    const bool query_ready = std::ranges::any_of(queries_, [&](const auto &q) {
      auto it = conns_.find(q->conn());
      return it == conns_.end() || !it->second->wants_write();
    });
    if (poll(fds.data(), fds.size(), query_ready ? 0 : kPollTimeoutMs) < 0) {
      if (errno == EINTR) continue;
      std::fprintf(stderr, "tqdbsim: poll: %s\n", std::strerror(errno));
      return false;
    }
    if (fds[0].revents != 0) return true;
    if (fds[1].revents != 0) accept_all();

    for (size_t i = 0; i < ids.size(); ++i) {
      const short revents = fds[i + 2].revents;
      auto it = conns_.find(ids[i]);
      if (revents == 0 || it == conns_.end() || it->second->doomed) continue;
      service(*it->second, revents);
    }

    pump_queries();

    // Replies and notices queued this round go out now; poll only waits
    // for what the socket did not take.
    const auto later = Conn::Clock::now();
    for (auto &[id, c] : conns_) {
      if (c->doomed) continue;
      switch (c->phase()) {
        case Conn::Phase::kHandshake:
          if (later > c->handshake_deadline()) doom(*c, "handshake timed out");
          break;
        case Conn::Phase::kOpen:
          if (c->wants_write() && !c->flush())
            doom(*c, format("write failed (status %u, errno %d)", c->io_status(),
                            c->io_errno()));
          break;
      }
    }
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
          // Answers to the last requests may still reach a half-closed peer.
          if (c.wants_write()) static_cast<void>(c.flush());
          return doom(c, "closed by peer");
        }
        if (status == TQDB_API_IO_ERROR)
          return doom(c, format("read failed (errno %d)", c.io_errno()));
      }
      if (can_write && c.wants_write() && !c.flush())
        doom(c, format("write failed (status %u, errno %d)", c.io_status(), c.io_errno()));
      return;
  }
}

void Server::serve_frames(Conn &c) {
  for (;;) {
    if (closing_.contains(c.id())) return;  // restarting: requests go unanswered
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
  if (!c.queue(*m)) doom(c, "send queue full: the client does not read");
}

void Server::send_to_session(uint32_t session, Msg m) {
  if (const Session *s = store_.session(session)) send_to_conn(s->conn, std::move(m));
}

void Server::doom(Conn &c, std::string reason) {
  c.doomed = true;
  c.doom_reason = std::move(reason);
}

void Server::reap() {
  for (auto it = conns_.begin(); it != conns_.end();) {
    if (!it->second->doomed) {
      ++it;
      continue;
    }
    log("connection %u closed: %s", it->first, it->second->doom_reason.c_str());
    store_.end_sessions_of(it->first);
    areas_.drop_uploads_of(it->first);
    it = conns_.erase(it);
  }
}

}  // namespace tqsim
