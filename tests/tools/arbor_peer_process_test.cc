// arbor-peer as people run it: `serve` and `dial` in two processes over
// loopback, `top --json` against the serving one, and what each prints and
// exits with when things go right and when they do not. Every process a
// case starts is killed and reaped when the case ends (ChildProcess).
#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "control_socket.h"
#include "peer_process.h"

namespace {

using namespace peer_process;

std::vector<std::string> ServeArgs(const std::vector<std::string>& more) {
  std::vector<std::string> args = {"serve", "--port", "0", "--name", "alpha", "--source",
                                   "test=demo:200/1024"};
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

std::vector<std::string> DialArgs(int port, const std::string& chain,
                                  const std::vector<std::string>& more) {
  std::vector<std::string> args = {"dial", "--to", "127.0.0.1:" + std::to_string(port),
                                   "--chain", chain, "--no-progress"};
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

TEST(ArborPeer, DialStreamsFromServeAndItsSummaryMatchesTheSink) {
  TempDir dir;
  ChildProcess serve(Peer(ServeArgs({"--no-control"})));
  const int port = StartServe(serve);
  ASSERT_GT(port, 0) << serve.Output();

  const std::string out = dir / "out.bin";
  ChildProcess dial(Peer(DialArgs(port, "test -> net -> out",
                                  {"--sink", "out=file:" + out, "--seconds", "2"})));
  const std::string sid = DialledSid(dial);
  ASSERT_EQ(dial.Wait(seconds(40)), 0) << dial.Output();

  // What the summary counts is what the sink wrote, chunk for chunk, and
  // the stamps of demo.source came in order, none missing.
  const long long chunks = Summary(dial, "chunks"), bytes = Summary(dial, "bytes");
  struct stat st{};
  ASSERT_EQ(stat(out.c_str(), &st), 0);
  EXPECT_GT(chunks, 0) << dial.Output();
  EXPECT_EQ(bytes, chunks * 1024) << dial.Output();
  EXPECT_EQ(bytes, static_cast<long long>(st.st_size));
  EXPECT_EQ(Summary(dial, "drops"), 0) << dial.Output();
  EXPECT_EQ(Summary(dial, "reordered"), 0) << dial.Output();
  EXPECT_NE(dial.WaitForLine("  result    ok, streamed for the time asked", seconds(0)), "")
      << dial.Output();

  // The serving side saw the session begin and end at the hang-up.
  ASSERT_FALSE(sid.empty());
  EXPECT_NE(serve.WaitForLine("session begin " + sid + " for peer ", seconds(10)), "")
      << serve.Output();
  EXPECT_NE(serve.WaitForLine("session end " + sid, seconds(10)).find("Peer_SessionDelete"),
            std::string::npos)
      << serve.Output();
  Signal(serve, SIGTERM);
  EXPECT_EQ(serve.Wait(seconds(20)), 0) << serve.Output();
  EXPECT_NE(serve.WaitForLine("stopped: 1 session(s) served", seconds(0)), "") << serve.Output();
}

TEST(ArborPeer, WrongNamesAndTakenPortsAreOneClearLineAndFail) {
  ChildProcess serve(Peer(ServeArgs({"--no-control"})));
  const int port = StartServe(serve);
  ASSERT_GT(port, 0) << serve.Output();

  // A source the serving peer does not have: caught before the dial.
  ChildProcess remote(Peer(DialArgs(port, "nosuch -> net -> null", {})));
  EXPECT_EQ(remote.Wait(seconds(30)), 1) << remote.Output();
  ASSERT_EQ(Lines(remote).size(), 1u) << remote.Output();
  EXPECT_EQ(Lines(remote)[0], "arbor-peer: peer 127.0.0.1:" + std::to_string(port) +
                                   " (alpha) has no device \"nosuch\"; it offers: test; fix --chain");

  // A sink this side does not have.
  ChildProcess local(Peer(DialArgs(port, "test -> net -> nosink", {})));
  EXPECT_EQ(local.Wait(seconds(30)), 1) << local.Output();
  ASSERT_EQ(Lines(local).size(), 1u) << local.Output();
  EXPECT_NE(Lines(local)[0].find("no device \"nosink\" on this side"), std::string::npos);

  // A chain without its network hop is a wrong command line.
  ChildProcess shape(Peer(DialArgs(port, "test -> null", {})));
  EXPECT_EQ(shape.Wait(seconds(30)), 2) << shape.Output();
  EXPECT_EQ(Lines(shape).size(), 1u) << shape.Output();

  // A second peer on the same port.
  ChildProcess twin(Peer({"serve", "--port", std::to_string(port), "--no-control"}));
  EXPECT_EQ(twin.Wait(seconds(30)), 1) << twin.Output();
  ASSERT_EQ(Lines(twin).size(), 1u) << twin.Output();
  EXPECT_NE(Lines(twin)[0].find("the port is in use; choose another with --port"),
            std::string::npos);
}

TEST(ArborPeer, TopJsonShowsTheRootWhileADialRunsAndCtrlCEndsTheDial) {
  TempDir dir;
  const std::string socket = dir / "ctl.sock";
  ChildProcess serve(Peer(ServeArgs({"--control-socket", socket})));
  const int port = StartServe(serve);
  ASSERT_GT(port, 0) << serve.Output();

  ChildProcess dial(Peer(DialArgs(port, "test -> net -> null", {"--seconds", "0"})));
  const std::string sid = DialledSid(dial);
  ASSERT_FALSE(sid.empty()) << dial.Output();
  ASSERT_NE(serve.WaitForLine("session begin " + sid, seconds(20)), "") << serve.Output();

  ChildProcess top(Peer({"top", "--json", "--control-socket", socket}));
  ASSERT_EQ(top.Wait(seconds(20)), 0) << top.Output();
  ASSERT_EQ(Lines(top).size(), 1u) << top.Output();
  const nlohmann::json shot = nlohmann::json::parse(Lines(top)[0], nullptr, false);
  ASSERT_TRUE(shot.is_object()) << top.Output();
  bool root = false;
  for (const auto& node : shot["nodes"])
    root = root || (node["parent"] == -1 && node["name"] == "test" && node["active"] == true);
  EXPECT_TRUE(root) << top.Output();
  ASSERT_EQ(shot["sessions"].size(), 1u) << top.Output();
  EXPECT_EQ(shot["sessions"][0]["sid"], sid);
  EXPECT_EQ(shot["peer"]["name"], "alpha");

  // Ctrl-C hangs up cleanly: a summary, and success since chunks came.
  Signal(dial, SIGINT);
  EXPECT_EQ(dial.Wait(seconds(20)), 0) << dial.Output();
  EXPECT_NE(dial.WaitForLine("  result    ok, interrupted (SIGINT)", seconds(0)), "")
      << dial.Output();
  EXPECT_GT(Summary(dial, "chunks"), 0) << dial.Output();
  EXPECT_NE(serve.WaitForLine("session end " + sid, seconds(10)), "") << serve.Output();

  Signal(serve, SIGINT);
  EXPECT_EQ(serve.Wait(seconds(20)), 0) << serve.Output();
  struct stat st{};
  EXPECT_NE(stat(socket.c_str(), &st), 0) << "the control socket is removed at the stop";
}

TEST(ArborPeer, AServeThatStopsEndsTheDialWithItsReason) {
  ChildProcess serve(Peer(ServeArgs({"--no-control"})));
  const int port = StartServe(serve);
  ASSERT_GT(port, 0) << serve.Output();
  ChildProcess dial(Peer(DialArgs(port, "test -> net -> null", {"--seconds", "0"})));
  const std::string sid = DialledSid(dial);
  ASSERT_NE(serve.WaitForLine("session begin " + sid, seconds(20)), "") << serve.Output();

  Signal(serve, SIGTERM);
  EXPECT_EQ(serve.Wait(seconds(20)), 0) << serve.Output();
  EXPECT_NE(serve.WaitForLine("stopping (SIGTERM): ending 1 session(s)", seconds(0)), "")
      << serve.Output();
  EXPECT_NE(serve.WaitForLine("session end " + sid + " for peer ", seconds(0)).find("\"Sys_Exit\""),
            std::string::npos)
      << serve.Output();
  EXPECT_EQ(dial.Wait(seconds(20)), 1) << dial.Output();
  EXPECT_NE(dial.WaitForLine("arbor-peer: dial failed: the peer ended the session: \"Sys_Exit\"",
                             seconds(0)),
            "")
      << dial.Output();
}

// top reads another process's answer: one that is not JSON, and a socket
// nobody serves, end it with a line saying so, never a crash.
TEST(ArborPeer, TopSaysWhatIsWrongWithTheSocketItReads) {
  TempDir dir;
  const std::string path = dir / "fake.sock";
  arbor_peer::ControlServer fake;
  std::string error;
  ASSERT_TRUE(fake.Start(path, [](const std::string&) { return std::string("{\"nodes\": [1,"); },
                         &error))
      << error;
  ChildProcess garbled(Peer({"top", "--control-socket", path}));
  EXPECT_EQ(garbled.Wait(seconds(20)), 1) << garbled.Output();
  ASSERT_EQ(Lines(garbled).size(), 1u) << garbled.Output();
  EXPECT_NE(Lines(garbled)[0].find("answered something that is not JSON"), std::string::npos);
  fake.Stop();

  ChildProcess nobody(Peer({"top", "--json", "--control-socket", path}));
  EXPECT_EQ(nobody.Wait(seconds(20)), 1) << nobody.Output();
  ASSERT_EQ(Lines(nobody).size(), 1u) << nobody.Output();
  EXPECT_NE(Lines(nobody)[0].find("no arbor-peer serve answers on " + path), std::string::npos);
}

}  // namespace
