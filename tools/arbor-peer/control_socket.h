// control_socket.h - the local control socket of a serving arbor-peer: a
// Unix domain socket on which `arbor-peer top` asks for a snapshot.
//
// Protocol: a client writes one request line ("snapshot\n"); the server
// answers with one line of JSON. A client may ask again on the same
// connection. Unknown requests get {"error": "..."}.
//
// Limits, all here so that no client can make the server grow or stall:
//  - kMaxControlClients connections at once; one more is told
//    {"error":"busy"} and closed;
//  - a request line of at most kMaxControlRequest bytes, else the client is
//    closed;
//  - one answer in flight per client; a client that takes no byte of it for
//    kControlStallMs is closed, and so is one that sends no complete request
//    for kControlIdleMs;
//  - an answer above kMaxControlReply bytes is replaced by an error.
//
// Privacy: the default directory is made 0700 and must belong to this user
// with no access for others; the socket itself is 0600.
//
// Threads: the server runs one thread of its own, which calls the responder;
// Start and Stop are for one owner thread.
#ifndef ARBOR_TOOLS_PEER_CONTROL_SOCKET_H
#define ARBOR_TOOLS_PEER_CONTROL_SOCKET_H

#include <functional>
#include <string>
#include <thread>

namespace arbor_peer {

inline constexpr int kMaxControlClients = 4;
inline constexpr size_t kMaxControlRequest = 256;
inline constexpr size_t kMaxControlReply = 16u << 20;
inline constexpr int kControlStallMs = 2000;
inline constexpr int kControlIdleMs = 30000;

// $XDG_RUNTIME_DIR/arbor-peer, or /tmp/arbor-peer-<uid>.
std::string DefaultControlDir();

// The socket of the peer serving on LAN port `port` in the default directory.
std::string DefaultControlPath(int port);

// Makes the default directory (0700) or checks the one there. false with
// *error when it is not private to this user.
bool PrepareControlDir(const std::string& dir, std::string* error);

class ControlServer {
 public:
  // Maps one request line (without its newline) to one answer line
  // (without its newline). Runs on the server's thread.
  using Responder = std::function<std::string(const std::string& request)>;

  ControlServer() = default;
  ~ControlServer() { Stop(); }
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Binds path (replacing a stale socket nobody answers on) and starts the
  // thread. false with *error, nothing left behind.
  bool Start(const std::string& path, Responder responder, std::string* error);

  // Closes every client and the socket, removes its file, joins the thread.
  // Idempotent.
  void Stop();

 private:
  void Run();

  std::string path_;
  Responder responder_;
  int listen_fd_ = -1;
  int wake_fd_ = -1;  // eventfd: Stop wakes the thread
  std::thread thread_;
};

// Whether a server answers on path now (a connect succeeds).
bool ControlSocketAnswers(const std::string& path);

// Sends request to the server at path and waits up to timeout_ms for the
// answer line. false with *error (one line: no server, no answer).
bool ControlRequest(const std::string& path, const std::string& request, int timeout_ms,
                    std::string* reply, std::string* error);

}  // namespace arbor_peer

#endif  // ARBOR_TOOLS_PEER_CONTROL_SOCKET_H
