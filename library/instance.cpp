// Single instance: flock for the lock, a non-blocking Unix stream socket with an epoll set for the
// channel. A message is 24 bytes on the wire in the machine's order (the peers are processes of
// one machine): number, flags, first and second argument; a result is 8 bytes.
#include "library/instance.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "library/playlist.h"

namespace library {

namespace {

constexpr size_t WIRE_BYTES = 24;
// Longer than the first instance may be busy in a stop (8 s of polling and a last 200 ms), so that
// a second start during one still gets through; a hung instance costs the second start this long.
constexpr int REPLY_TIMEOUT_MS = 15000;
constexpr int32_t COMMAND_PLAY = 40021;
constexpr int32_t COMMAND_STOP = 40022;
// A peer that sends more than this while its hand-over waits is no longer read until it may go on.
constexpr size_t PENDING_LIMIT = 1 << 16;

void encode(const RemoteMessage& m, uint8_t* out) {
  std::memcpy(out, &m.msg, 4);
  std::memcpy(out + 4, &m.sent, 4);
  std::memcpy(out + 8, &m.wparam, 8);
  std::memcpy(out + 16, &m.lparam, 8);
}

RemoteMessage decode(const uint8_t* in) {
  RemoteMessage m;
  std::memcpy(&m.msg, in, 4);
  std::memcpy(&m.sent, in + 4, 4);
  std::memcpy(&m.wparam, in + 8, 8);
  std::memcpy(&m.lparam, in + 16, 8);
  return m;
}

bool make_address(const std::string& folder, sockaddr_un& addr, std::string* path = nullptr) {
  std::string p = folder + "/tovra.sock";
  if (folder.empty() || p.size() >= sizeof addr.sun_path) return false;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, p.c_str(), p.size() + 1);
  if (path) *path = p;
  return true;
}

bool write_all(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= size_t(n);
  }
  return true;
}

bool read_all(int fd, uint8_t* data, size_t size) {
  while (size > 0) {
    ssize_t n = recv(fd, data, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= size_t(n);
  }
  return true;
}

int connect_to(const std::string& folder) {
  sockaddr_un addr;
  if (!make_address(folder, addr)) return -1;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  timeval tv{REPLY_TIMEOUT_MS / 1000, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  return fd;
}

// Sends one message on fd and, for a sent one, waits for its result.
bool exchange(int fd, const RemoteMessage& m, int64_t* result) {
  uint8_t wire[WIRE_BYTES];
  encode(m, wire);
  if (!write_all(fd, wire, sizeof wire)) return false;
  if (!m.sent) return true;
  uint8_t reply[8];
  if (!read_all(fd, reply, sizeof reply)) return false;
  if (result) std::memcpy(result, reply, 8);
  return true;
}

bool is_hand_over(const RemoteMessage& m) { return m.msg == MSG_REMOTE && m.lparam == REMOTE_HAND_OVER; }

void drop_peer(InstanceServer& server, size_t i) {
  InstanceServer::Peer& peer = server.peers[i];
  if (server.hand_over_owner == peer.fd) server.hand_over_owner = -1;
  epoll_ctl(server.epoll_fd, EPOLL_CTL_DEL, peer.fd, nullptr);
  close(peer.fd);
  server.peers.erase(server.peers.begin() + long(i));
}

void accept_peers(InstanceServer& server) {
  for (;;) {
    int fd = accept4(server.listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR) continue;
      return;
    }
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || !peer_allowed(cred.uid, getuid())) {
      close(fd);  // another user: refused before a byte is read
      continue;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(server.epoll_fd, EPOLL_CTL_ADD, fd, &ev);
    server.peers.push_back(InstanceServer::Peer{fd, {}, false});
  }
}

// Reads what the peer has sent so far, unless it has piled up enough unhandled bytes.
void read_peer(InstanceServer::Peer& peer) {
  uint8_t buf[4096];
  while (!peer.closed && peer.pending.size() < PENDING_LIMIT) {
    ssize_t n = recv(peer.fd, buf, sizeof buf, 0);
    if (n > 0) {
      peer.pending.insert(peer.pending.end(), buf, buf + n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) peer.closed = true;
      return;
    }
  }
}

}  // namespace

std::string instance_folder() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  std::string folder =
      runtime && runtime[0] == '/' ? std::string(runtime) + "/tovra" : "/tmp/tovra-" + std::to_string(getuid());
  (void)mkdir(folder.c_str(), 0700);
  struct stat st;
  // lstat: a link planted in /tmp by someone else must not be followed.
  if (lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid()) return {};
  if ((st.st_mode & 077) != 0 && chmod(folder.c_str(), 0700) != 0) return {};
  return folder;
}

bool multi_instance_switch(const char* command_line) {
  return command_line && (command_line[0] == '/' || command_line[0] == '-') &&
         (command_line[1] == 'm' || command_line[1] == 'M');
}

int32_t take_instance_lock(InstanceLock& lock, const std::string& folder) {
  if (folder.empty()) return -1;
  int fd = open((folder + "/tovra.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    int err = errno;
    close(fd);
    return err == EWOULDBLOCK ? 0 : -1;
  }
  lock.fd = fd;
  return 1;
}

void release_instance_lock(InstanceLock& lock) {
  if (lock.fd >= 0) close(lock.fd);
  lock.fd = -1;
}

int32_t claim_instance(const char* command_line, bool ctrl_held, InstanceLock& lock, const std::string& folder) {
  // The switch and Ctrl are the only ways to a second instance, which then holds no lock.
  if (multi_instance_switch(command_line) || ctrl_held) return 0;
  // Without a usable folder there is no way to find another instance: run.
  if (take_instance_lock(lock, folder) != 0) return 0;
  hand_over_command_line(folder, command_line ? command_line : "");
  return -1;
}

int32_t send_remote_message(const std::string& folder, const RemoteMessage& message, int64_t* result) {
  int fd = connect_to(folder);
  if (fd < 0) return 0;
  bool ok = exchange(fd, message, result);
  close(fd);
  return ok ? 1 : 0;
}

int32_t send_remote_messages(const std::string& folder, const RemoteMessage* messages, size_t count,
                             int64_t* results) {
  int fd = connect_to(folder);
  if (fd < 0) return 0;
  bool ok = true;
  for (size_t i = 0; ok && i < count; ++i) ok = exchange(fd, messages[i], results ? results + i : nullptr);
  close(fd);
  return ok ? 1 : 0;
}

int32_t hand_over_command_line(const std::string& folder, const char* command_line) {
  int fd = connect_to(folder);
  if (fd < 0) return 0;
  // The foreground request is sent: the receiver has acted on it before the bytes follow.
  bool ok = exchange(fd, RemoteMessage{MSG_REMOTE, 1, 0, REMOTE_FOREGROUND}, nullptr);
  // The rest is posted, in one write, so that the receiver finds it whole.
  size_t n = std::strlen(command_line);
  std::vector<uint8_t> wire((n + 2) * WIRE_BYTES);
  encode(RemoteMessage{MSG_REMOTE, 0, -1, REMOTE_HAND_OVER}, wire.data());
  for (size_t i = 0; i <= n; ++i) {
    // Sign-extended as a char argument: a byte 0xFF arrives as -1 and resets the buffer.
    int64_t byte = int64_t(static_cast<int8_t>(command_line[i]));
    encode(RemoteMessage{MSG_REMOTE, 0, byte, REMOTE_HAND_OVER}, wire.data() + (i + 1) * WIRE_BYTES);
  }
  ok = ok && write_all(fd, wire.data(), wire.size());
  close(fd);
  return ok ? 1 : 0;
}

int32_t open_instance_server(InstanceServer& server, const std::string& folder) {
  sockaddr_un addr;
  std::string path;
  if (!make_address(folder, addr, &path)) return 0;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  unlink(path.c_str());  // left by an instance that died; the lock says none runs
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0) {
    close(fd);
    return 0;
  }
  int ep = epoll_create1(EPOLL_CLOEXEC);
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = fd;
  if (ep < 0 || epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0) {
    if (ep >= 0) close(ep);
    close(fd);
    unlink(path.c_str());
    return 0;
  }
  server.listen_fd = fd;
  server.epoll_fd = ep;
  server.path = path;
  return 1;
}

void close_instance_server(InstanceServer& server) {
  while (!server.peers.empty()) drop_peer(server, server.peers.size() - 1);
  if (server.listen_fd >= 0) {
    close(server.listen_fd);
    unlink(server.path.c_str());
  }
  if (server.epoll_fd >= 0) close(server.epoll_fd);
  server = InstanceServer{};
}

int32_t poll_instance_server(InstanceServer& server, RemoteHandler handler, void* context) {
  if (server.listen_fd < 0) return 0;
  // The epoll set is level-triggered: it stays readable exactly while something below waits, so
  // there is nothing to take from it here; every descriptor is looked at.
  accept_peers(server);
  int32_t handled = 0;
  for (bool progress = true; progress;) {
    progress = false;
    for (size_t i = 0; i < server.peers.size();) {
      InstanceServer::Peer& peer = server.peers[i];
      read_peer(peer);
      size_t at = 0;
      while (peer.pending.size() - at >= WIRE_BYTES) {
        RemoteMessage m = decode(peer.pending.data() + at);
        if (is_hand_over(m)) {
          if (server.hand_over_owner >= 0 && server.hand_over_owner != peer.fd) break;  // waits its turn
          server.hand_over_owner = m.wparam == 0 ? -1 : peer.fd;
        }
        at += WIRE_BYTES;
        int64_t result = handler(context, m);
        ++handled;
        progress = true;
        if (m.sent) {
          uint8_t reply[8];
          std::memcpy(reply, &result, 8);
          if (!write_all(peer.fd, reply, sizeof reply)) peer.closed = true;
        }
      }
      peer.pending.erase(peer.pending.begin(), peer.pending.begin() + long(at));
      if (peer.closed && peer.pending.size() < WIRE_BYTES) {
        // Gone, with nothing whole left to handle (a peer whose hand-over waits its turn stays).
        bool had_turn = server.hand_over_owner == peer.fd;
        drop_peer(server, i);
        progress = progress || had_turn;
        continue;
      }
      ++i;
    }
  }
  return handled;
}

int32_t hand_over_message(HandOver& hand_over, int64_t wparam, bool paused, bool shift_held, int32_t commands[2]) {
  if (wparam == -1) {
    hand_over.index = 0;
    return 0;
  }
  if (wparam != 0) {
    // The last byte of the buffer is kept for the terminating zero.
    if (hand_over.index >= 0 && hand_over.index < HAND_OVER_BYTES - 1)
      hand_over.buffer[hand_over.index++] = char(wparam);
    return 0;
  }
  if (hand_over.index < 0 || hand_over.index >= HAND_OVER_BYTES) hand_over.index = 0;
  hand_over.buffer[hand_over.index] = 0;
  take_command_line(hand_over.buffer, shift_held);
  int32_t n = 0;
  if (paused) commands[n++] = COMMAND_STOP;
  commands[n++] = playlist.command_line_play ? COMMAND_PLAY : COMMAND_STOP;
  hand_over.index = 0;
  return n;
}

}  // namespace library
