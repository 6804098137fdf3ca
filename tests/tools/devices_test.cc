// Named devices (devices.h) called as the engine calls them, without the
// engine: options reach the driver, what a sink takes is counted, stamped
// chunks tell their gaps, and what cannot be served is refused with a line
// that says why. Then the catalogue a peer answers with.
#include "devices.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>

#include "catalogue.h"
#include "demo_drivers.h"

namespace {

using namespace arbor_peer;

uint64_t Now() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

TEST(NamedDevices, ASinkCountsWhatItTookAndReadsTheStamps) {
  demo_drivers_set_verbose(0);
  std::string error;
  ASSERT_TRUE(AddDevice({Role::kSink, "rec", "demo", "/dev/null"}, &error)) << error;
  const cdef* rec = DeviceRecord("rec");
  ASSERT_NE(rec, nullptr);
  EXPECT_STREQ(rec->Retrieve(), "rec");
  EXPECT_EQ(rec->Read, nullptr) << "a slot the driver lacks stays empty";
  CheckStamps("rec", true);

  uint32_t threading = 0;
  const int32_t xfd = rec->Open("rec", nullptr, &threading);
  ASSERT_GT(xfd, 0);
  EXPECT_EQ(OpenDevices(), 1u);
  // 3 and 4 are missing when 5 comes; 4 then comes late.
  for (uint64_t seq : {0, 1, 2, 5, 4}) {
    unsigned char chunk[64] = {};
    const demo_chunk_header head{seq, Now()};
    std::memcpy(chunk, &head, sizeof head);
    EXPECT_EQ(rec->Write(xfd, chunk, sizeof chunk, 0), 64);
  }
  const SinkCounters c = Counters("rec");
  EXPECT_EQ(c.chunks, 5u);
  EXPECT_EQ(c.bytes, 320u);
  EXPECT_EQ(c.stamped, 5u);
  EXPECT_EQ(c.gaps, 2u);
  EXPECT_EQ(c.out_of_order, 1u);
  EXPECT_LE(c.first_ns, c.last_ns);
  rec->Close(xfd);
  EXPECT_EQ(OpenDevices(), 0u);
  EXPECT_EQ(Counters("rec").closes, 1u);
}

TEST(NamedDevices, TheChainsOptionWinsOverTheDevicesOwn) {
  demo_drivers_set_verbose(0);
  std::string error;
  ASSERT_TRUE(AddDevice({Role::kSource, "test", "demo", "200/1024"}, &error)) << error;
  const cdef* test = DeviceRecord("test");
  uint32_t threading = 0;
  EXPECT_EQ(test->Open("test", "not-a-rate", &threading), -1) << "the chain's option reached it";
  EXPECT_EQ(OpenDevices(), 0u);
  const int32_t xfd = test->Open("test", nullptr, &threading);
  ASSERT_GT(xfd, 0) << "the device's own option";
  EXPECT_NE(threading, 0u);
  unsigned char buffer[2048];
  uint32_t flags = 0;
  EXPECT_EQ(test->Read(xfd, buffer, sizeof buffer, &flags), 1024);
  test->Close(xfd);
}

TEST(NamedDevices, WhatCannotBeServedIsRefusedWithTheReason) {
  std::string error;
  EXPECT_FALSE(AddDevice({Role::kSource, "x", "foo", ""}, &error));
  EXPECT_NE(error.find("no source of kind \"foo\"; kinds here: demo"), std::string::npos) << error;
  EXPECT_FALSE(AddDevice({Role::kSource, "x", "demo", "fast"}, &error));
  EXPECT_NE(error.find("<chunks-per-second>/<bytes>"), std::string::npos) << error;
  EXPECT_FALSE(AddDevice({Role::kSink, "out", "file", ""}, &error));
  EXPECT_NE(error.find("give the file"), std::string::npos) << error;
  EXPECT_FALSE(AddDevice({Role::kSink, "n", "null", "arg"}, &error));

  ASSERT_TRUE(AddDevice({Role::kSource, "cam", "demo", ""}, &error)) << error;
  EXPECT_FALSE(AddDevice({Role::kSink, "cam2", "null", ""}, &error)) << "overlaps cam";
  for (size_t i = 1; i < kMaxDevices; ++i)
    ASSERT_TRUE(AddDevice({Role::kSink, "s" + std::to_string(100 + i), "null", ""}, &error))
        << error;
  EXPECT_FALSE(AddDevice({Role::kSink, "last", "null", ""}, &error));
  EXPECT_NE(error.find("too many devices"), std::string::npos) << error;
}

TEST(Catalogue, APeersAnswerNamesItsDevicesAndKinds) {
  std::string error;
  ASSERT_TRUE(AddDevice({Role::kSource, "test", "demo", ""}, &error));
  ASSERT_TRUE(AddDevice({Role::kSink, "rec", "null", ""}, &error));
  Catalogue catalogue;
  ASSERT_TRUE(ParseCatalogue(CatalogueText("alpha"), &catalogue));
  EXPECT_EQ(catalogue.name, "alpha");
  EXPECT_EQ(catalogue.KindOf("test"), "demo");
  EXPECT_EQ(catalogue.KindOf("rec"), "null");
  EXPECT_EQ(catalogue.KindOf("tes"), "") << "names match whole, not in part";
  EXPECT_EQ(catalogue.Names(), "test, rec");

  EXPECT_FALSE(ParseCatalogue("MainCmd=SessionStart;sidN=x;", &catalogue));
  EXPECT_FALSE(ParseCatalogue("not a dictionary", &catalogue));
}

}  // namespace
