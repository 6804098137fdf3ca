// The WAN road across processes, over loopback: two peers sign in to a
// stand-in for the service (arbor_test_service), which relays a session
// from one peer's source to the other's sink through a WAN pipe; plain TCP
// and TLS with a throwaway CA; and a service that goes away and comes back.
// Each case kills whatever is left of its children when it ends.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <memory>
#include <vector>

#include "child_process.h"
#include "service_stub.h"

namespace {

using std::chrono::seconds;

const std::string kWanPeer = ARBOR_TEST_WAN_PEER_PATH;
const std::string kService = ARBOR_TEST_SERVICE_PATH;

// argv of a WAN peer, with the CA file when one is given.
std::vector<std::string> Peer(std::vector<std::string> args, const std::string& ca) {
  args.insert(args.begin(), kWanPeer);
  if (!ca.empty()) args.push_back(ca);
  return args;
}

// S signs in with a source, R with a sink; the service relays session v1
// from S to R on WAN pipe 3000. R gets every chunk in order and hangs up;
// the hang-up reaches S through the service; both sign out and stop clean.
void RelayOneSession(const std::vector<std::string>& service_args, const std::string& ca) {
  ChildProcess service(service_args);
  const int port = service.ListeningPort();
  ASSERT_GT(port, 0) << service.Output();
  const std::string p = std::to_string(port);
  ChildProcess source(Peer({"source", "127.0.0.1", p, "cam"}, ca));
  ChildProcess sink(Peer({"sink", "127.0.0.1", p, "viewer", "200"}, ca));
  ASSERT_NE(service.WaitForLine("signed in cam", seconds(20)), "") << source.Output();
  ASSERT_NE(service.WaitForLine("signed in viewer", seconds(20)), "") << sink.Output();
  service.Send("relay cam viewer 3000");

  EXPECT_EQ(sink.Wait(seconds(30)), 0) << sink.Output() << service.Output();
  EXPECT_NE(sink.WaitForLine("out-of-order 0", seconds(0)), "") << sink.Output();
  EXPECT_NE(sink.WaitForLine("clean", seconds(0)), "") << sink.Output();
  EXPECT_NE(source.WaitForLine("demo.source: Close(", seconds(10)), "") << source.Output();
  // The source's observer heard the service's session on it begin and end.
  EXPECT_NE(source.WaitForLine("observed begin - | demo.source", seconds(0)), "")
      << source.Output();
  EXPECT_NE(source.WaitForLine("observed end ", seconds(10)), "") << source.Output();
  source.Send("quit");
  EXPECT_EQ(source.Wait(seconds(15)), 0) << source.Output();
  EXPECT_NE(source.WaitForLine("clean", seconds(0)), "") << source.Output();
}

TEST(CrossProcessWan, ServiceRelaysASessionOverPlainTcp) {
  RelayOneSession({kService, "0"}, "");
}

TEST(CrossProcessWan, ServiceRelaysASessionOverTls) {
  nettest::TestCertificates certs("service.test");
  if (!certs.ok()) GTEST_SKIP() << "the openssl command is missing";
  RelayOneSession({kService, "0", certs.certificate(), certs.key()}, certs.ca());
}

// The service is killed: the peer hears the link go down (host code 3), the
// transport redials by itself, and when a service listens again on the same
// port the peer is told the link is up (6) and signs in a second time (0).
TEST(CrossProcessWan, ServiceRestartBringsTheLinkBackAndASecondSignIn) {
  auto first = std::make_unique<ChildProcess>(std::vector<std::string>{kService, "0"});
  const int port = first->ListeningPort();
  ASSERT_GT(port, 0) << first->Output();
  ChildProcess peer(Peer({"source", "127.0.0.1", std::to_string(port), "cam"}, ""));
  ASSERT_NE(first->WaitForLine("signed in cam", seconds(20)), "") << peer.Output();
  ASSERT_NE(peer.WaitForLine("signed in", seconds(20)), "") << peer.Output();
  first->Kill();
  first.reset();
  ASSERT_NE(peer.WaitForLine("host code 3", seconds(20)), "") << peer.Output();

  ChildProcess second({kService, std::to_string(port)});
  ASSERT_EQ(second.ListeningPort(), port) << second.Output();
  EXPECT_NE(second.WaitForLine("signed in cam", seconds(40)), "") << peer.Output();
  EXPECT_TRUE(peer.WaitForLines("host code 6", 2, seconds(20))) << peer.Output();
  EXPECT_TRUE(peer.WaitForLines("host code 0", 2, seconds(20))) << peer.Output();
  peer.Send("quit");
  EXPECT_EQ(peer.Wait(seconds(15)), 0) << peer.Output();
}

}  // namespace
