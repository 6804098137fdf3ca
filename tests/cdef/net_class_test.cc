// Tests of the network classes and the device callback: bemerge's overrides
// and its refusal of a text that does not fit, the packet type that
// wan_write gives, net_emit_event without an event, and the subscriptions
// and events that a driver makes through its callback (seen by a recording
// sender). Each case runs in a process of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "arbor/device_class.h"
#include "arbor/rsevents.h"
#include "arbor/support.h"
#include "cdef/cdef_fake.h"
#include "cdef/cdef_internal.h"
#include "init/sys_state.h"
#include "test_helpers.h"

using cdef_fake::classes;

namespace {

struct Delivery { uint32_t uid; int32_t asc; std::string body; };
std::vector<Delivery> deliveries;

void RecordDelivery(void*, uint32_t uid, int32_t asc, const char* body) {
  deliveries.push_back({uid, asc, body});
}

class DeviceCallbackTest : public ::testing::Test {
 protected:
  void SetUp() override { cdef_init("dev"); evt_init(nullptr, nullptr, RecordDelivery); }
  void TearDown() override { cdef_uninit(); }
};

}  // namespace

TEST(Bemerge, FormatOverridesBaseKeepsOtherKeysAndRefusesWhatDoesNotFit) {
  char buffer[256];
  const int32_t n = bemerge(buffer, sizeof buffer, "event=old;MainCmd=3;level=5;",
                            "event=%s;MainCmd=%d;", "alarm", 17);
  const std::string text(buffer, std::max(n, 0));
  EXPECT_EQ(Key(text, "event") + " " + Key(text, "MainCmd") + " " + Key(text, "level"),
            "alarm 17 5");
  // Cut at 31 bytes this would end just behind the x pair: a valid text
  // that lacks the MainCmd override.
  EXPECT_EQ(bemerge(buffer, 32, "MainCmd=3;", "event=a;%s;MainCmd=17;",
                    "x=0123456789abcdefghij"),
            0);
  // 16 bytes merged: no room for the NUL in 16, room in 17.
  EXPECT_EQ(bemerge(buffer, 16, "level=55555;", "a=%d;", 1), 0);
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(bemerge(buffer, 17, "level=55555;", "a=%d;", 1), 16);
}

TEST(WanWrite, GivesMediaTypeOnlyWhenFlagsHaveNone) {
  sys_.wan_state = 9;
  EXPECT_EQ(wan_write(1030, "\x01\x02\x03\x04", 4, 0x103), 4);
  EXPECT_EQ(wan_write(1030, "\x01\x02\x03\x04", 4, 0x50000), 4);
  ASSERT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 2u);
  EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, 0).header.nPacketType, 4);
  EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, 1).header.nPacketType, 5);
}

TEST_F(DeviceCallbackTest, NetEmitEventNeedsBothKeys) {
  RsSubscribeEvent(0, 300, "cam0", "alarm", nullptr, nullptr);
  EXPECT_EQ(net_emit_event(nullptr, "subResource=cam0;"), 0);
  EXPECT_EQ(net_emit_event(nullptr, "broken"), 0);
  EXPECT_EQ(wan_do_event("x", 1, "MainCmd=17;subResource=cam0;event=alarm;"),
            0);
  ASSERT_EQ(deliveries.size(), 1u);
  EXPECT_EQ(deliveries[0].asc, 300);
}

// A driver subscribes through its callback under 28672 + its class number,
// also from inside SetCallback, where this thread holds the class mutex
// (the callback must not take it); a class never registered subscribes
// nothing.
TEST_F(DeviceCallbackTest, ClassSubscribesUnder28672PlusItsNumberEvenInsideSetCallback) {
  for (int i = 0; i < 2; ++i) SysRegisterDev(&classes[i]);
  cdef third = classes[0];
  third.SetCallback = [](DeviceCallback callback) -> int32_t {
    callback(&cdef_fake::classes[9], "MainCmd=15;subResource=a;event=e;", "x", 1);
    return 0;
  };
  classes[9] = third;
  SysRegisterDev(&classes[9]);
  cdef_fake::given_callback(&classes[5], "MainCmd=15;subResource=a;event=e;", "x", 1);
  RsEmitEvent("a", "e", "body", nullptr, nullptr);
  ASSERT_EQ(deliveries.size(), 1u);
  EXPECT_EQ(deliveries[0].uid, 0u);
  EXPECT_EQ(deliveries[0].asc, 28674);
}

TEST_F(DeviceCallbackTest, ClassNumberLookupIsSafeDuringGrowth) {
  // Old generations of the array must stay readable while a registration
  // on another thread replaces them (ASan would see a freed one).
  std::atomic<bool> done{false};
  std::thread registrar([&] {
    for (int round = 0; round < 8; ++round)
      for (cdef& cls : classes) SysRegisterDev(&cls);
    done = true;
  });
  for (int32_t n; !done;)
    if ((n = cdef_class_index(&classes[9])) != -1 && n != 9) ADD_FAILURE() << n;
  registrar.join();
  EXPECT_EQ(cdef_class_count(), 80u);
}

TEST_F(DeviceCallbackTest, EventIsEmittedWithDriverKeysAndMainCmd17) {
  SysRegisterDev(&classes[0]);
  RsSubscribeEvent(0, 400, "cam0", "alarm", nullptr, nullptr);
  const char body[] = "level=5;MainCmd=99;event=old;";
  cdef_fake::given_callback(
      &classes[0], "MainCmd=3;subResource=cam0;event=alarm;FD=0;", body,
      sizeof body);
  // The text is read to its NUL: a size without the terminator, or any
  // size at all, only says the call carries something.
  cdef_fake::given_callback(&classes[0], "MainCmd=3;subResource=cam0;event=alarm;",
                            body, sizeof body - 1);
  cdef_fake::given_callback(&classes[0], "MainCmd=3;subResource=cam0;event=alarm;",
                            body, 1);
  // Media without an FD: nothing. A text that is no dictionary: dropped.
  cdef_fake::given_callback(&classes[0], "MainCmd=3;subResource=cam0;", body,
                            sizeof body);
  LogCapture log(0);
  cdef_fake::given_callback(&classes[0], "MainCmd=3;subResource=cam0;event=alarm;",
                            "no pairs", 9);
  EXPECT_TRUE(log.Has("DictCreate: no pairs"));
  ASSERT_EQ(deliveries.size(), 3u);
  for (const auto& delivery : deliveries) {
    EXPECT_EQ(Key(delivery.body, "MainCmd"), "17");
    EXPECT_EQ(Key(delivery.body, "event"), "alarm");
    EXPECT_EQ(Key(delivery.body, "level"), "5");
  }
}
