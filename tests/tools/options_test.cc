// The argument languages of arbor-peer: what a user may write for devices,
// chains and endpoints, and the one-line errors for what they may not.
#include "options.h"

#include <gtest/gtest.h>

namespace {

using namespace arbor_peer;

TEST(PeerOptions, DeviceSpecsTakeNameKindAndArgument) {
  DeviceSpec spec;
  std::string error;
  ASSERT_TRUE(ParseDeviceSpec("test=demo:200/1024", Role::kSource, &spec, &error)) << error;
  EXPECT_EQ(spec.name, "test");
  EXPECT_EQ(spec.kind, "demo");
  EXPECT_EQ(spec.arg, "200/1024");

  // A pipeline keeps its own '=' and ':' after the first ':'.
  ASSERT_TRUE(ParseDeviceSpec("video=gst:videotestsrc ! capsfilter caps=a:b ! appsink name=arbor",
                              Role::kSource, &spec, &error));
  EXPECT_EQ(spec.name, "video");
  EXPECT_EQ(spec.arg, "videotestsrc ! capsfilter caps=a:b ! appsink name=arbor");

  // Without a name, the kind names the device.
  ASSERT_TRUE(ParseDeviceSpec("null", Role::kSink, &spec, &error));
  EXPECT_EQ(spec.name, "null");
  EXPECT_EQ(spec.arg, "");
}

TEST(PeerOptions, BadDeviceSpecsSayWhatToWrite) {
  DeviceSpec spec;
  std::string error;
  EXPECT_FALSE(ParseDeviceSpec("x=", Role::kSource, &spec, &error));
  EXPECT_NE(error.find("[name=]kind[:arg]"), std::string::npos) << error;
  EXPECT_FALSE(ParseDeviceSpec("net.x=demo", Role::kSource, &spec, &error));
  EXPECT_NE(error.find("network hop"), std::string::npos) << error;
  EXPECT_FALSE(ParseDeviceSpec("a;b=demo", Role::kSource, &spec, &error));
  EXPECT_FALSE(ParseDeviceSpec("file=file:", Role::kSink, &spec, &error));
  EXPECT_FALSE(ParseDeviceSpec(std::string(64, 'a') + "=demo", Role::kSource, &spec, &error));

  // The engine finds a device by any part of its name.
  std::vector<DeviceSpec> specs = {{Role::kSource, "test", "demo", ""},
                                   {Role::kSource, "test2", "demo", ""}};
  EXPECT_FALSE(NamesDistinct(specs, &error));
  EXPECT_NE(error.find("overlap"), std::string::npos) << error;
  specs[1].name = "test";
  EXPECT_FALSE(NamesDistinct(specs, &error));
  specs[1].name = "other";
  EXPECT_TRUE(NamesDistinct(specs, &error));
}

TEST(PeerOptions, ChainsNeedOneNetworkHopInTheMiddle) {
  std::vector<Hop> hops;
  std::string error;
  ASSERT_TRUE(ParseChain("test:500/1024 -> net. -> dec -> null", &hops, &error)) << error;
  ASSERT_EQ(hops.size(), 4u);
  EXPECT_EQ(hops[0].option, "500/1024");
  EXPECT_TRUE(hops[1].net);
  EXPECT_EQ(hops[1].name, "net.");
  EXPECT_EQ(ChainText(hops), "test:500/1024 -> net. -> dec -> null");
  ASSERT_TRUE(ParseChain("test->net->null", &hops, &error));

  for (const char* bad : {"test -> null", "net -> null", "test -> net", "a -> net -> net -> b",
                          "a -> -> net -> b", "a -> net:x -> b", "a b -> net -> c"})
    EXPECT_FALSE(ParseChain(bad, &hops, &error)) << bad;
}

TEST(PeerOptions, EndpointsAndLanOptionText) {
  Endpoint to;
  std::string error;
  ASSERT_TRUE(ParseEndpoint("127.0.0.1:7000", &to, &error));
  EXPECT_EQ(to.host, "127.0.0.1");
  EXPECT_EQ(to.port, 7000);
  ASSERT_TRUE(ParseEndpoint("[::1]:9", &to, &error));
  EXPECT_EQ(to.host, "::1");
  for (const char* bad : {"127.0.0.1", "host:0", "host:65536", ":7000", "host:7x", "a;b:1"})
    EXPECT_FALSE(ParseEndpoint(bad, &to, &error)) << bad;

  // Presence stays off unless an interface is named.
  LanConfig lan;
  EXPECT_EQ(LanOptionText(lan), "listen=127.0.0.1;port=0;");
  lan.presence_interface = "veth0";
  lan.presence_interval_ms = 100;
  EXPECT_EQ(LanOptionText(lan),
            "listen=127.0.0.1;port=0;presence=veth0;presence_interval_ms=100;");
}

}  // namespace
