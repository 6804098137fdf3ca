// Tests of event emission: the order and reach of a delivery, what a filter
// and a ctx count, the refusals, and where the default sender takes a body:
// the local service table for uid 0, a LAN write otherwise. Each case runs in
// its own process, so the tree starts empty.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "arbor/asc.h"
#include "arbor/rsevents.h"
#include "init/sys_state.h"
#include "rsevents/evt_internal.h"
#include "test_helpers.h"

namespace {

using Uids = std::vector<uint32_t>;
Uids got;  // uids, in the order the sender saw them
void Record(void*, uint32_t uid, int32_t, const char*) { got.push_back(uid); }

// The uids an emission reached, in order; its result must count them.
Uids Emit(const char* path, const char* evname) {
  got.clear();
  const int32_t count = RsEmitEvent(path, evname, "body", Record, nullptr);
  EXPECT_EQ(count, static_cast<int32_t>(got.size()));
  return got;
}

// The subscriber set: uid 1 at a (x), 2 at a.b (x), 3 at a.b (eventAny),
// 4 at a.c (y), 5 in the global list (x).
void Subscribe() {
  RsSubscribeEvent(1, 100, "a", "x", nullptr, nullptr);
  RsSubscribeEvent(2, 100, "a.b", "x", nullptr, nullptr);
  RsSubscribeEvent(3, 100, "a.b", "eventAny", nullptr, nullptr);
  RsSubscribeEvent(4, 100, "a.c", "y", nullptr, nullptr);
  RsSubscribeEvent(5, 100, "", "x", nullptr, nullptr);
}

int RejectAll(const char* const*, const char* const*, const char*) { return 0; }

int locks = 0;
int CountLock() { return ++locks; }

uint32_t local_size = 0;
int32_t Local(uint32_t from, uint32_t size, const char*) {
  EXPECT_EQ(from, 0u);
  local_size = size;
  return 0;
}

}  // namespace

TEST(EventEmit, TreeBeforeListExactBeforeAnyFromDeepestNode) {
  Subscribe();
  EXPECT_EQ(Emit("a", "x"), (Uids{1, 2, 3, 5}));
  EXPECT_EQ(Emit("a.b.zz", "x"), (Uids{2, 3, 5}));
  EXPECT_EQ(Emit("q", "x"), (Uids{1, 2, 3, 5}));  // no such node: from root
  EXPECT_EQ(Emit("a.b", "y"), (Uids{3}));
  EXPECT_EQ(Emit("...", "x"), (Uids{5}));
  EXPECT_EQ(Emit("a", "eventAny"), (Uids{3, 3}));  // one slot, twice
}

TEST(EventEmit, DollarNodeEndsWalkThatReachesItFromAbove) {
  RsSubscribeEvent(6, 100, "a.$s", "x", nullptr, nullptr);
  RsSubscribeEvent(7, 100, "a.$s.t", "x", nullptr, nullptr);
  EXPECT_EQ(Emit("a", "x"), (Uids{6}));
  EXPECT_EQ(Emit("a.$s", "x"), (Uids{6}));
  EXPECT_EQ(Emit("a.$s.t", "x"), (Uids{7}));
}

TEST(EventEmit, FilterAndRefusals) {
  Subscribe();
  RsSubscribeEvent(8, 100, "a", "x", RejectAll, nullptr);
  EXPECT_EQ(Emit("a", "x"), (Uids{1, 2, 3, 5}));  // 8 is refused
  evt_init(CountLock, nullptr, nullptr);
  EXPECT_EQ(RsEmitEvent(nullptr, "x", "b", Record, nullptr) +
                RsEmitEvent("a", nullptr, "b", Record, nullptr) +
                RsEmitEvent("a", "x", nullptr, Record, nullptr), 0);
  const std::string at255 = "a." + std::string(253, 'z');
  EXPECT_EQ(RsEmitEvent((at255 + "z").c_str(), "x", "b", Record, nullptr), 0);
  EXPECT_EQ(locks, 0);
  EXPECT_EQ(RsEmitEvent(at255.c_str(), "x", "b", Record, nullptr), 4);
  EXPECT_EQ(locks, 1);
}

TEST(EventEmit, TimedHandlerEmitsItsThreeStringsEvenWhenFlushed) {
  evt_init(nullptr, nullptr, evt_deliver);
  SysRegistASLan(100, nullptr, reinterpret_cast<AsHandler>(Local));
  RsSubscribeEvent(0, 100, "cam", "x", nullptr, nullptr);
  char path[] = "cam", event[] = "x", body[] = "ev=1;";
  char* argv[] = {path, event, body};
  event_emit(0, 0, 2, argv);  // too few strings
  EXPECT_EQ(local_size, 0u);
  event_emit(5, 0, 3, argv);
  EXPECT_EQ(local_size, 6u);
}

TEST(EventEmit, DefaultSenderServesCtxTargetOverLanAndUidZeroLocally) {
  evt_init(nullptr, nullptr, evt_deliver);
  sys_.lan_state = 0;
  SysRegistASLan(100, nullptr, reinterpret_cast<AsHandler>(Local));
  for (uint32_t uid : {6u, 5u, 0u}) RsSubscribeEvent(uid, 100, "", "x", 0, 0);
  RsSubscribeEvent(5, 101, "", "x", nullptr, nullptr);
  // ctx picks (5, 100) out of four, and all four are counted.
  EvtDeliverFilter only{5, 100};
  EXPECT_EQ(RsEmitEvent("", "x", "ev=1;", nullptr, &only), 4);
  EXPECT_EQ(local_size, 0u);
  scripted_call call;
  ASSERT_EQ(scripted_call_get(SCRIPTED_LAN_NET_WRITE, 0, &call), 0);
  EXPECT_EQ(call.peer, 5);
  EXPECT_EQ(call.asc, 100);
  EXPECT_EQ(call.size, 5u);  // without the final NUL
  // uid 0 goes to the local table, its final NUL counted.
  EvtDeliverFilter local{0, 100};
  EXPECT_EQ(RsEmitEvent("", "x", "ev=1;", nullptr, &local), 4);
  EXPECT_EQ(local_size, 6u);
  EXPECT_EQ(scripted_call_count(SCRIPTED_ANY), 1u);
}
