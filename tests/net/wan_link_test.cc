// The service link: statuses as the engine reads them, frames both ways
// exactly as NetWrite was given them, redialling after a drop, and TLS that
// verifies the service or fails, never falling back to plain text. The
// service is a stand-in on 127.0.0.1.
#include <gtest/gtest.h>

#include <string>

#include "net_test_util.h"
#include "service_stub.h"
#include "wan_link.h"

namespace {

using arbor::net::WanLink;
using nettest::Event;
using nettest::Recorder;
using nettest::ServiceStub;
using nettest::TestCertificates;

// A link whose engine is r, trusting the CAs of ca_file ("" : the system's).
std::unique_ptr<WanLink> StartLink(Recorder& r, const std::string& ca_file = "") {
  arbor::net::WanOptions options;
  options.ca_file = ca_file;
  return WanLink::Start(r.wan_handler(), options);
}

const std::string kControl = std::string("\x64\x00", 2) + "MainCmd=Sigoff;";
const PacketHeader kControlHeader{0, 0, 0, QVTP_CONTROL, 0};

TEST(Wan, PlainLinkCarriesFramesExactlyBothWays) {
  ServiceStub service;
  Recorder engine;
  auto link = StartLink(engine);
  ASSERT_EQ(link->Connect("127.0.0.1", service.port(), false), 0);
  ASSERT_TRUE(engine.WaitCount(QVNETS_SUCCESS, 1));

  EXPECT_EQ(link->Write(kControlHeader, kControl.data(), static_cast<uint16_t>(kControl.size())),
            static_cast<int32_t>(kControl.size()));
  const PacketHeader media{0, 7, 3000, QVTP_RTP, 2};
  EXPECT_EQ(link->Write(media, "\x01\x02\x03", 3), 3);
  ASSERT_TRUE(service.WaitFrames([](const auto& frames) { return frames.size() == 2; }));
  const auto frames = service.Frames();
  EXPECT_EQ(frames[0].pipe + frames[0].type, 3u);
  EXPECT_EQ(frames[0].payload, kControl);
  EXPECT_EQ(frames[1].pipe, 3000u);
  EXPECT_EQ(frames[1].payload, "\x01\x02\x03");

  ASSERT_TRUE(service.Send(frames[0].from, 0, QVTP_CONTROL, kControl));
  ASSERT_TRUE(service.Send(frames[0].from, 3001, QVTP_INBAND, "event=e;"));
  const std::vector<Event> got = engine.WaitFrames(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].pipe + got[0].type, 3u);
  EXPECT_EQ(got[0].data, kControl);
  EXPECT_EQ(got[1].pipe, 3001u);
  EXPECT_EQ(got[1].data, "event=e;");
  EXPECT_TRUE(link->Stop());
}

// A first attempt that fails is reported, 6 refused or 8 not reached, and
// the link does not write before it is up.
TEST(Wan, FailedFirstAttemptsReportSixOrEight) {
  Recorder engine;
  auto link = StartLink(engine);
  uint16_t closed_port = 0;  // where nothing listens once the acceptor goes
  {
    asio::io_context io;
    asio::ip::tcp::acceptor probe(io, {asio::ip::make_address("127.0.0.1"), 0});
    closed_port = probe.local_endpoint().port();
  }
  ASSERT_EQ(link->Connect("127.0.0.1", closed_port, false), 0);
  EXPECT_TRUE(engine.WaitCount(QVNETS_FAIL, 1));
  EXPECT_EQ(link->Write(kControlHeader, "x", 1), -1);
  ASSERT_EQ(link->Connect(nettest::kUnresolvableHost, 443, false), 0);
  EXPECT_TRUE(engine.WaitCount(QVNETS_UNREACHABLE, 1));
  EXPECT_EQ(link->Connect("", 443, false), -1);
}

// The service goes away: 7, then the link comes back by itself and says 9
// again; the same target asked again while up says 9 once more.
TEST(Wan, DroppedLinkReportsSevenAndComesBackByItself) {
  ServiceStub service;
  Recorder engine;
  auto link = StartLink(engine);
  ASSERT_EQ(link->Connect("127.0.0.1", service.port(), false), 0);
  ASSERT_TRUE(engine.WaitCount(QVNETS_SUCCESS, 1));
  ASSERT_EQ(service.WaitHellos(1), 1u);
  service.DropAll();
  EXPECT_TRUE(engine.WaitCount(QVNETS_DISCONNECT, 1));
  EXPECT_TRUE(engine.WaitCount(QVNETS_SUCCESS, 2));
  EXPECT_EQ(service.WaitHellos(2), 2u);
  arbor_net_peer_info info{};
  link->Stats(&info);
  EXPECT_EQ(info.link_up + info.reconnects, 2u);
  ASSERT_EQ(link->Connect("127.0.0.1", service.port(), false), 0);
  EXPECT_TRUE(engine.WaitCount(QVNETS_SUCCESS, 3));
  EXPECT_EQ(service.hellos(), 2u) << "an up link is not dialled again";
}

TEST(Wan, TlsVerifiesTheServiceAndNeverFallsBackToPlainText) {
  TestCertificates certs("service.test");
  TestCertificates stranger("service.test");
  if (!certs.ok() || !stranger.ok()) GTEST_SKIP() << "the openssl command is missing";
  ServiceStub service(nettest::ServerTlsContext(certs.certificate(), certs.key()));

  Recorder good;
  auto link = StartLink(good, certs.ca());
  ASSERT_EQ(link->Connect("127.0.0.1", service.port(), true), 0);
  ASSERT_TRUE(good.WaitCount(QVNETS_SUCCESS, 1));
  link->Write(kControlHeader, kControl.data(), static_cast<uint16_t>(kControl.size()));
  ASSERT_TRUE(service.WaitFrames([](const auto& f) { return f.size() == 1; }));
  EXPECT_EQ(service.Frames()[0].payload, kControl);

  // A certificate of another CA, a name the certificate does not carry, and
  // a service that speaks no TLS: each a failed connection (6).
  ServiceStub plain_service;
  struct Case {
    const char* why;
    std::string ca, host;
    uint16_t port;
  } cases[] = {{"another CA", stranger.ca(), "127.0.0.1", service.port()},
               {"a name not on the certificate", certs.ca(), "localhost", service.port()},
               {"no TLS at all", certs.ca(), "127.0.0.1", plain_service.port()}};
  for (const Case& c : cases) {
    Recorder engine;
    auto refused = StartLink(engine, c.ca);
    ASSERT_EQ(refused->Connect(c.host, c.port, true), 0);
    EXPECT_TRUE(engine.WaitCount(QVNETS_FAIL, 1)) << c.why;
  }
  EXPECT_EQ(service.hellos(), 1u);
  EXPECT_EQ(plain_service.hellos(), 0u);
}

}  // namespace
