// The control socket of a serving arbor-peer: it answers request lines,
// keeps its place on disk to itself, and stays bounded against clients
// that crowd it, send too much or stop reading.
#include "control_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>

namespace {

using namespace arbor_peer;

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/arbor-peer-test-XXXXXX";
    path_ = mkdtemp(pattern) != nullptr ? pattern : "";
  }
  ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

int Connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// What arrives on fd within ms, up to a newline or the end; "<closed>" at
// the end with nothing read.
std::string ReadLine(int fd, int ms) {
  std::string line;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 50) <= 0) continue;
    char c = 0;
    const ssize_t n = recv(fd, &c, 1, 0);
    if (n <= 0) return line.empty() ? "<closed>" : line;
    if (c == '\n') return line;
    line += c;
  }
  return line;
}

void Send(int fd, const std::string& text) {
  ASSERT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

TEST(ControlSocket, AnswersRequestLinesAndCleansUp) {
  TempDir dir;
  const std::string path = dir.path() + "/serve.sock";
  ControlServer server;
  std::string error;
  ASSERT_TRUE(server.Start(path, [](const std::string& r) { return "got " + r; }, &error)) << error;
  struct stat st{};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  std::string reply;
  ASSERT_TRUE(ControlRequest(path, "snapshot", 3000, &reply, &error)) << error;
  EXPECT_EQ(reply, "got snapshot");

  // Several requests on one connection, sent at once, answered in order.
  const int fd = Connect(path);
  ASSERT_GE(fd, 0);
  Send(fd, "a\nb\r\n");
  EXPECT_EQ(ReadLine(fd, 3000), "got a");
  EXPECT_EQ(ReadLine(fd, 3000), "got b");
  close(fd);

  // A second server on a live socket is refused; one on a stale file is not.
  ControlServer second;
  EXPECT_FALSE(second.Start(path, [](const std::string&) { return ""; }, &error));
  EXPECT_NE(error.find("another arbor-peer answers"), std::string::npos) << error;
  server.Stop();
  EXPECT_NE(access(path.c_str(), F_OK), 0) << "Stop removes the socket";
  const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(stale);  // the file stays, nobody answers on it
  EXPECT_TRUE(second.Start(path, [](const std::string&) { return "ok"; }, &error)) << error;
  second.Stop();
}

TEST(ControlSocket, RefusesADirectoryOthersCanEnter) {
  TempDir dir;
  std::string error;
  const std::string mine = dir.path() + "/private";
  EXPECT_TRUE(PrepareControlDir(mine, &error)) << error;
  struct stat st{};
  ASSERT_EQ(stat(mine.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  chmod(mine.c_str(), 0755);
  EXPECT_FALSE(PrepareControlDir(mine, &error));
  EXPECT_NE(error.find("not private"), std::string::npos) << error;
}

TEST(ControlSocket, CrowdsLongRequestsAndStalledReadersAreCutOff) {
  TempDir dir;
  const std::string path = dir.path() + "/serve.sock";
  const std::string big(4u << 20, 'x');  // far more than a socket buffer holds
  ControlServer server;
  std::string error;
  ASSERT_TRUE(server.Start(
      path, [&big](const std::string& r) { return r == "big" ? big : std::string("small"); },
      &error))
      << error;

  // A request line past the limit ends that connection.
  const int talker = Connect(path);
  Send(talker, std::string(kMaxControlRequest + 64, 'a'));
  EXPECT_EQ(ReadLine(talker, 3000), "<closed>");
  close(talker);

  // Every place taken: one more client is told it is busy.
  int clients[kMaxControlClients];
  for (int& fd : clients) {
    fd = Connect(path);
    ASSERT_GE(fd, 0);
    Send(fd, "hello\n");
    EXPECT_EQ(ReadLine(fd, 3000), "small");
  }
  const int extra = Connect(path);
  EXPECT_NE(ReadLine(extra, 3000).find("busy"), std::string::npos);
  close(extra);

  // One asks for a large answer and reads none of it: the others are still
  // answered meanwhile, and the reader is dropped, freeing its place.
  Send(clients[0], "big\n");
  Send(clients[1], "again\n");
  EXPECT_EQ(ReadLine(clients[1], 3000), "small");
  const auto limit = std::chrono::milliseconds(kControlStallMs + 3000);
  std::string reply;
  bool served = false;
  for (auto end = std::chrono::steady_clock::now() + limit;
       !served && std::chrono::steady_clock::now() < end;) {
    const int late = Connect(path);
    // A busy server may close before the request is written: no assertion.
    [[maybe_unused]] const ssize_t n = send(late, "late\n", 5, MSG_NOSIGNAL);
    served = ReadLine(late, 500) == "small";
    close(late);
  }
  EXPECT_TRUE(served) << "the stalled reader still holds its place";
  for (int fd : clients) close(fd);
  server.Stop();
}

}  // namespace
