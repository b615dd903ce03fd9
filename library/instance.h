// One running instance per user, and the hand-over of a second start's command line to it.
//
// The lock is an flock on "tovra.lock" and the channel a Unix stream socket "tovra.sock", both in
// a folder of the user's own with mode 0700: $XDG_RUNTIME_DIR/tovra, or /tmp/tovra-<uid> without
// a runtime folder. Only a peer of the same user is served (SO_PEERCRED), whatever the folder's
// permissions say.
//
// On the socket travel window messages: a number and two arguments, posted (no answer) or sent
// (the sender waits for the receiver's result). A second start sends message 1024 (0, -1), which
// asks for the foreground, then posts 1024 (-1, 777) to reset the receiver's buffer, one 1024
// (byte, 777) for every byte of its command line, the byte sign-extended, and 1024 (0, 777) to end.
//
// Threads: everything here runs on the main thread of its process. The receiving side never
// blocks: the shell watches instance_server_fd in its main loop and calls poll_instance_server.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace library {

constexpr int32_t MSG_REMOTE = 1024;
constexpr int64_t REMOTE_FOREGROUND = -1;  // second argument of the foreground request
constexpr int64_t REMOTE_HAND_OVER = 777;  // second argument of the hand-over bytes
constexpr int32_t HAND_OVER_BYTES = 512;   // the receiver's buffer, its terminating zero included

struct RemoteMessage {
  int32_t msg = 0;
  int32_t sent = 0;  // 1: the sender waits for the result
  int64_t wparam = 0;
  int64_t lparam = 0;
};

// The folder of the lock and the socket, made if missing, checked to be a real folder of this user
// with no access for others. Empty when no such folder can be had.
std::string instance_folder();

// The multi-instance start switch: the command line starts with "/m" or "-m", either case.
bool multi_instance_switch(const char* command_line);

struct InstanceLock {
  int fd = -1;  // -1: not held (not tried, or the process runs as an extra instance)
};
// 1 when taken, 0 when another process holds it, -1 when the folder can't be used.
int32_t take_instance_lock(InstanceLock& lock, const std::string& folder);
void release_instance_lock(InstanceLock& lock);

// The start's instance test. Returns 0 when this process is to run: with the lock, or without it
// when started with the switch, with Ctrl held (ctrl_held) or without a usable folder. Returns -1
// when another instance runs: the command line has been handed to it, or lost when it has no
// socket open.
int32_t claim_instance(const char* command_line, bool ctrl_held, InstanceLock& lock, const std::string& folder);

// The sending side: foreground request, then the command line. Returns 1 when delivered, 0 when no
// instance listens.
int32_t hand_over_command_line(const std::string& folder, const char* command_line);
// Sends or posts one message on a fresh connection; a sent one waits up to 15 s for its result.
// Returns 1 when delivered (and *result set for a sent message), 0 otherwise.
int32_t send_remote_message(const std::string& folder, const RemoteMessage& message, int64_t* result);
// Sends count messages in order on one connection (so that no other peer's come between them);
// results[i] receives the result of each sent one. Returns 1 when all were delivered.
int32_t send_remote_messages(const std::string& folder, const RemoteMessage* messages, size_t count,
                             int64_t* results);

// The receiving side.
struct InstanceServer {
  int listen_fd = -1;
  int epoll_fd = -1;  // readable whenever a connection or a message waits
  std::string path;
  struct Peer {
    int fd = -1;
    std::vector<uint8_t> pending;  // received bytes not yet handled
    bool closed = false;
  };
  std::vector<Peer> peers;
  int hand_over_owner = -1;  // the peer whose hand-over is under way; others' bytes wait
};
using RemoteHandler = int64_t (*)(void* context, const RemoteMessage& message);

// Opens the socket in folder, replacing a stale one (the caller holds the lock). 1 or 0.
int32_t open_instance_server(InstanceServer& server, const std::string& folder);
void close_instance_server(InstanceServer& server);
// The one descriptor to watch for readability.
inline int instance_server_fd(const InstanceServer& server) { return server.epoll_fd; }
// Accepts waiting connections, refusing other users', and hands each complete message to handler
// in order; a sent message gets the handler's result back. One peer's hand-over is never mixed with
// another's: bytes of a second hand-over wait until the first has ended or its sender has gone.
// Never blocks. Returns the number of messages handled.
int32_t poll_instance_server(InstanceServer& server, RemoteHandler handler, void* context);

// Whether a peer of uid may talk to an instance of self.
inline bool peer_allowed(uid_t peer, uid_t self) { return peer == self; }

// The receiver's hand-over buffer and what one hand-over message does to it.
struct HandOver {
  char buffer[HAND_OVER_BYTES] = {};
  int32_t index = 0;
};
// Applies the first argument of one (x, 777) message: -1 resets the buffer, 0 ends the command line
// and hands it to take_command_line, anything else is one byte, kept while there is room (bytes
// beyond the 511th are dropped). At the end, returns the number of main-window commands to post with
// second argument 3, written to commands: Stop (40022) first when paused, then Play (40021) when
// the command line asks to play, else Stop. The caller posts them in that order and then asks the
// playlist editor, when open, to refresh (message 1042, first argument 1). Returns 0 otherwise.
int32_t hand_over_message(HandOver& hand_over, int64_t wparam, bool paused, bool shift_held, int32_t commands[2]);

}  // namespace library
