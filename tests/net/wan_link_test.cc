// The service link: statuses as the engine reads them, frames both ways
// exactly as NetWrite was given them, redialling after a drop, and TLS that
// verifies the service or fails, never falling back to plain text. The
// service is a stand-in on 127.0.0.1.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "net_test_util.h"
#include "service_stub.h"
#include "wan_link.h"

namespace {

using arbor::net::WanLink;
using arbor::net::WanOptions;
using nettest::ServiceStub;
using nettest::TestCertificates;

// Records the WAN callback's calls: statuses (pipe 0, no data) and frames.
class WanRecorder {
 public:
  WanLink::Handler handler() {
    return [this](uint32_t pipe, uint32_t type, uint32_t size, const void* data) {
      std::lock_guard hold(mutex_);
      calls_.push_back({pipe, type, std::string(static_cast<const char*>(data), data ? size : 0)});
      changed_.notify_all();
    };
  }
  // Waits for the n-th status of this type (1 for the first).
  bool WaitStatus(uint32_t type, int n = 1) {
    std::unique_lock hold(mutex_);
    return changed_.wait_for(hold, std::chrono::seconds(20), [&] {
      int seen = 0;
      for (const Call& c : calls_) seen += c.pipe == 0 && c.data.empty() && c.type == type;
      return seen >= n;
    });
  }
  // Waits for a frame of this type; its data, or "<none>".
  std::string WaitFrame(uint32_t pipe, uint32_t type) {
    std::unique_lock hold(mutex_);
    std::string found = "<none>";
    changed_.wait_for(hold, std::chrono::seconds(20), [&] {
      for (const Call& c : calls_)
        if (c.pipe == pipe && c.type == type && !c.data.empty()) found = c.data;
      return found != "<none>";
    });
    return found;
  }

 private:
  struct Call {
    uint32_t pipe, type;
    std::string data;
  };
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Call> calls_;
};

// A port on 127.0.0.1 where nothing listens.
uint16_t ClosedPort() {
  asio::io_context io;
  asio::ip::tcp::acceptor probe(io, {asio::ip::make_address("127.0.0.1"), 0});
  return probe.local_endpoint().port();  // closed again when probe goes
}

const std::string kControl = std::string("\x64\x00", 2) + "MainCmd=Sigoff;";

TEST(Wan, PlainLinkCarriesFramesExactlyBothWays) {
  ServiceStub service;
  WanRecorder engine;
  auto link = WanLink::Start(engine.handler(), {});
  ASSERT_EQ(link->Connect("127.0.0.1", service.port(), false), 0);
  ASSERT_TRUE(engine.WaitStatus(QVNETS_SUCCESS));

  const PacketHeader control{0, 0, 0, QVTP_CONTROL, 0};
  EXPECT_EQ(link->Write(control, kControl.data(), static_cast<uint16_t>(kControl.size())),
            static_cast<int32_t>(kControl.size()));
  const PacketHeader media{0, 7, 3000, QVTP_RTP, 2};
  EXPECT_EQ(link->Write(media, "\x01\x02\x03", 3), 3);
  ASSERT_TRUE(service.WaitFrames([](const auto& frames) { return frames.size() == 2; }));
  const auto frames = service.Frames();
  EXPECT_EQ(frames[0].pipe + frames[0].type, 3u);
  EXPECT_EQ(frames[0].payload, kControl);
  EXPECT_EQ(frames[1].pipe, 3000u);
  EXPECT_EQ(frames[1].payload, "\x01\x02\x03");

  const uint32_t id = frames[0].from;
  ASSERT_TRUE(service.Send(id, 0, QVTP_CONTROL, kControl));
  ASSERT_TRUE(service.Send(id, 3001, QVTP_INBAND, "event=e;"));
  EXPECT_EQ(engine.WaitFrame(0, QVTP_CONTROL), kControl);
  EXPECT_EQ(engine.WaitFrame(3001, QVTP_INBAND), "event=e;");
  EXPECT_TRUE(link->Stop());
}

// A first attempt that fails is reported, 6 refused or 8 not reached, and
// the link does not write before it is up.
TEST(Wan, FailedFirstAttemptsReportSixOrEight) {
  WanRecorder engine;
  auto link = WanLink::Start(engine.handler(), {});
  ASSERT_EQ(link->Connect("127.0.0.1", ClosedPort(), false), 0);
  EXPECT_TRUE(engine.WaitStatus(QVNETS_FAIL));
  const PacketHeader control{0, 0, 0, QVTP_CONTROL, 0};
  EXPECT_EQ(link->Write(control, "x", 1), -1);
  ASSERT_EQ(link->Connect(nettest::kUnresolvableHost, 443, false), 0);
  EXPECT_TRUE(engine.WaitStatus(QVNETS_UNREACHABLE));
  EXPECT_EQ(link->Connect("", 443, false), -1);
}

// The service goes away: 7, then the link comes back by itself and says 9
// again; the same target asked again while up says 9 once more.
TEST(Wan, DroppedLinkReportsSevenAndComesBackByItself) {
  ServiceStub service;
  WanRecorder engine;
  auto link = WanLink::Start(engine.handler(), {});
  ASSERT_EQ(link->Connect("127.0.0.1", service.port(), false), 0);
  ASSERT_TRUE(engine.WaitStatus(QVNETS_SUCCESS));
  ASSERT_NE(service.WaitLink(), 0u);
  service.DropAll();
  EXPECT_TRUE(engine.WaitStatus(QVNETS_DISCONNECT));
  EXPECT_TRUE(engine.WaitStatus(QVNETS_SUCCESS, 2));
  EXPECT_EQ(service.WaitHellos(2), 2u);
  arbor_net_peer_info info{};
  link->Stats(&info);
  EXPECT_EQ(info.link_up + info.reconnects, 2u);
  ASSERT_EQ(link->Connect("127.0.0.1", service.port(), false), 0);
  EXPECT_TRUE(engine.WaitStatus(QVNETS_SUCCESS, 3));
  EXPECT_EQ(service.hellos(), 2u) << "an up link is not dialled again";
}

TEST(Wan, TlsVerifiesTheServiceAndNeverFallsBackToPlainText) {
  TestCertificates certs("service.test");
  TestCertificates stranger("service.test");
  if (!certs.ok() || !stranger.ok()) GTEST_SKIP() << "the openssl command is missing";
  ServiceStub service(certs.ServerContext());

  WanRecorder good;
  auto link = WanLink::Start(good.handler(), WanOptions{certs.ca(), "", 4u << 20});
  ASSERT_EQ(link->Connect("127.0.0.1", service.port(), true), 0);
  ASSERT_TRUE(good.WaitStatus(QVNETS_SUCCESS));
  const PacketHeader control{0, 0, 0, QVTP_CONTROL, 0};
  link->Write(control, kControl.data(), static_cast<uint16_t>(kControl.size()));
  ASSERT_TRUE(service.WaitFrames([](const auto& f) { return f.size() == 1; }));
  EXPECT_EQ(service.Frames()[0].payload, kControl);

  // A certificate of another CA, a name the certificate does not carry, and
  // a service that speaks no TLS: each a failed connection (6).
  WanRecorder untrusting, misnamed, plain;
  auto wrong_ca = WanLink::Start(untrusting.handler(), WanOptions{stranger.ca(), "", 4u << 20});
  ASSERT_EQ(wrong_ca->Connect("127.0.0.1", service.port(), true), 0);
  EXPECT_TRUE(untrusting.WaitStatus(QVNETS_FAIL));
  auto wrong_name = WanLink::Start(misnamed.handler(), WanOptions{certs.ca(), "", 4u << 20});
  ASSERT_EQ(wrong_name->Connect("localhost", service.port(), true), 0);
  EXPECT_TRUE(misnamed.WaitStatus(QVNETS_FAIL));
  ServiceStub plain_service;
  auto to_plain = WanLink::Start(plain.handler(), WanOptions{certs.ca(), "", 4u << 20});
  ASSERT_EQ(to_plain->Connect("127.0.0.1", plain_service.port(), true), 0);
  EXPECT_TRUE(plain.WaitStatus(QVNETS_FAIL));
  EXPECT_EQ(service.hellos(), 1u);
  EXPECT_EQ(plain_service.hellos(), 0u);
}

}  // namespace
