// A stand-in for the service on 127.0.0.1, for the WAN's tests: it listens
// (plain TCP or TLS), takes each link through the transport's own
// Connection (so it speaks the wire of docs/wire.md), records every frame
// it receives, can send frames to a link, and can drop every link at once.
// A hook given at construction may answer frames as the service would.
// Also the throwaway certificates a TLS test needs, made with the openssl
// command in a temporary folder.
#ifndef ARBOR_TESTS_NET_SERVICE_STUB_H
#define ARBOR_TESTS_NET_SERVICE_STUB_H

#include <unistd.h>

#include <asio.hpp>
#include <asio/ssl.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "connection.h"
#include "link_owner.h"

namespace nettest {

class ServiceStub : public arbor::net::LinkOwner {
 public:
  struct Frame {
    uint32_t from, pipe, type;
    std::string payload;
  };

  using FrameHook = std::function<void(ServiceStub&, const Frame&)>;

  // Listens on 127.0.0.1:port (0: any free port), under TLS when tls is set.
  // on_frame, when given, sees every frame after it is recorded, on the
  // stub's I/O thread.
  explicit ServiceStub(std::shared_ptr<asio::ssl::context> tls = nullptr, uint16_t port = 0,
                       FrameHook on_frame = nullptr)
      : on_frame_(std::move(on_frame)), tls_(std::move(tls)), work_(asio::make_work_guard(io_)),
        acceptor_(io_) {
    settings_.name = "WAN";
    settings_.instance = arbor::net::new_instance_id();
    const asio::ip::tcp::endpoint at(asio::ip::make_address("127.0.0.1"), port);
    acceptor_.open(at.protocol());
    acceptor_.set_option(asio::ip::tcp::acceptor::reuse_address(true));
    acceptor_.bind(at);
    acceptor_.listen();
    port_ = acceptor_.local_endpoint().port();
    AcceptNext();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~ServiceStub() override {
    work_.reset();
    io_.stop();
    thread_.join();
    std::lock_guard hold(mutex_);
    for (auto& [id, conn] : links_) conn->CloseNow();
    for (auto& conn : pending_) conn->CloseNow();
  }

  uint16_t port() const { return port_; }

  // Waits up to 20 s for done over the frames so far.
  bool WaitFrames(const std::function<bool(const std::vector<Frame>&)>& done) {
    std::unique_lock hold(mutex_);
    return changed_.wait_for(hold, std::chrono::seconds(20), [&] { return done(frames_); });
  }
  std::vector<Frame> Frames() {
    std::lock_guard hold(mutex_);
    return frames_;
  }
  // Waits up to 20 s until n hellos have arrived; the count then.
  size_t WaitHellos(size_t n) {
    std::unique_lock hold(mutex_);
    changed_.wait_for(hold, std::chrono::seconds(20), [&] { return hellos_ >= n; });
    return hellos_;
  }
  size_t hellos() {
    std::lock_guard hold(mutex_);
    return hellos_;
  }
  // Sends one frame to link `to`; false when there is no such link.
  bool Send(uint32_t to, uint32_t pipe, uint16_t type, const std::string& payload,
            uint16_t boat = 0, uint16_t level = 0) {
    std::shared_ptr<arbor::net::Connection> conn;
    {
      std::lock_guard hold(mutex_);
      auto it = links_.find(to);
      if (it == links_.end()) return false;
      conn = it->second;
    }
    arbor::net::FrameHeader h;
    h.length = static_cast<uint16_t>(payload.size());
    h.pipe = pipe;
    h.type = type;
    h.boat = boat;
    h.level = level;
    return conn->Write(h, payload.data()) == arbor::net::Connection::WriteResult::kAccepted;
  }
  // Closes every link: for the far side the service went away.
  void DropAll() {
    std::lock_guard hold(mutex_);
    for (auto& [id, conn] : links_) conn->Fail(0);
    links_.clear();
  }

  // ---- LinkOwner ----
  const arbor::net::LinkSettings& settings() const override { return settings_; }
  bool OnHello(const std::shared_ptr<arbor::net::Connection>& conn,
               const arbor::net::Hello&) override {
    std::lock_guard hold(mutex_);
    const uint32_t id = ++next_id_;
    conn->Bind(static_cast<uint16_t>(id), std::make_shared<arbor::net::PeerCounters>());
    links_[id] = conn;
    ++hellos_;
    changed_.notify_all();
    return true;
  }
  void OnClosed(const std::shared_ptr<arbor::net::Connection>& conn, int) override {
    std::lock_guard hold(mutex_);
    for (auto it = links_.begin(); it != links_.end(); ++it)
      if (it->second == conn) {
        links_.erase(it);
        break;
      }
    changed_.notify_all();
  }
  void Deliver(uint32_t from, uint32_t pipe, uint32_t type, uint32_t size,
               const void* data) override {
    Frame frame{from, pipe, type, std::string(static_cast<const char*>(data), data ? size : 0)};
    {
      std::lock_guard hold(mutex_);
      frames_.push_back(frame);
      changed_.notify_all();
    }
    if (on_frame_) on_frame_(*this, frame);
  }

 private:
  void AcceptNext() {
    acceptor_.async_accept(asio::make_strand(io_), [this](std::error_code ec,
                                                           asio::ip::tcp::socket socket) {
      if (ec) return;
      auto conn = std::make_shared<arbor::net::Connection>(*this, asio::make_strand(io_),
                                                           std::move(socket));
      if (tls_) conn->UseTls(tls_, "");
      {
        std::lock_guard hold(mutex_);
        pending_.push_back(conn);
      }
      conn->Accept();
      AcceptNext();
    });
  }

  const FrameHook on_frame_;
  std::shared_ptr<asio::ssl::context> tls_;
  arbor::net::LinkSettings settings_;
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> work_;
  asio::ip::tcp::acceptor acceptor_;
  uint16_t port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<uint32_t, std::shared_ptr<arbor::net::Connection>> links_;
  std::vector<std::shared_ptr<arbor::net::Connection>> pending_;  // kept for the stop
  std::vector<Frame> frames_;
  uint32_t next_id_ = 0;
  size_t hellos_ = 0;
};

// A server's TLS context from a certificate chain and a key in PEM files.
inline std::shared_ptr<asio::ssl::context> ServerTlsContext(const std::string& certificate,
                                                            const std::string& key) {
  auto ctx = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_server);
  ctx->use_certificate_chain_file(certificate);
  ctx->use_private_key_file(key, asio::ssl::context::pem);
  return ctx;
}

// A throwaway CA and a server certificate it signed for `name` (DNS name
// and 127.0.0.1), in a temporary folder removed with the object.
class TestCertificates {
 public:
  explicit TestCertificates(const std::string& name) {
    char pattern[] = "/tmp/arbor-certs-XXXXXX";
    dir_ = mkdtemp(pattern) != nullptr ? pattern : "";
    const std::string d = dir_;
    const std::string cmd =
        "cd " + d +
        " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
        " -keyout ca.key -out ca.pem -days 1 -subj /CN=arbor-test-ca 2>/dev/null"
        " && openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
        " -keyout server.key -out server.csr -subj /CN=" + name + " 2>/dev/null"
        " && printf 'subjectAltName=DNS:" + name + ",IP:127.0.0.1\\n' > san.ext"
        " && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
        " -out server.pem -days 1 -extfile san.ext 2>/dev/null";
    ok_ = !d.empty() && std::system(cmd.c_str()) == 0;
  }
  ~TestCertificates() {
    if (!dir_.empty()) std::system(("rm -rf " + dir_).c_str());
  }
  bool ok() const { return ok_; }
  std::string ca() const { return dir_ + "/ca.pem"; }
  std::string certificate() const { return dir_ + "/server.pem"; }
  std::string key() const { return dir_ + "/server.key"; }

 private:
  std::string dir_;
  bool ok_ = false;
};

}  // namespace nettest

#endif  // ARBOR_TESTS_NET_SERVICE_STUB_H
