// Tests of the subscription tree: where a path files a subscription, when a
// second call adds a subscriber and when it does not, the refusals (null
// event name, too many pieces, lack of memory) and that every path through
// RsSubscribeEvent releases the lock it took. Each case runs in a process of
// its own, so the tree starts empty.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

#include "arbor/rsevents.h"
#include "rsevents/evt_internal.h"

namespace {

// The node at a dotted path of non-empty pieces; the root for "".
const EventNode* At(const std::string& path) {
  const EventNode* node = &evt_root_;
  for (size_t beg = 0, end; node != nullptr && beg < path.size(); beg = end + 1) {
    end = std::min(path.find('.', beg), path.size());
    const EventNode* parent = std::exchange(node, nullptr);
    for (uint32_t i = 0; i < parent->nchildren; ++i)
      if (path.compare(beg, end - beg, parent->children[i]->name) == 0)
        node = parent->children[i];
  }
  return node;
}

const char* SlotName(const EventSlot& slot) { return evt_l_[slot.un.evidx].un.name; }
int RejectAll(const char* const*, const char* const*, const char*) { return 0; }

// Lock hooks that catch a second lock and count both calls.
int locks = 0, unlocks = 0;
bool held = false;
int CountLock() {
  EXPECT_FALSE(held) << "lock taken twice";
  held = true;
  return ++locks;
}
int CountUnlock() {
  EXPECT_TRUE(held) << "unlock without lock";
  held = false;
  return ++unlocks;
}

}  // namespace

TEST(EventSubscribe, DuplicateReturnsSameSlotAndKeepsOneSubscriber) {
  EventSlot* first = RsSubscribeEvent(0, 100, "a.b", "x", nullptr, "one");
  ASSERT_NE(first, nullptr);
  // match_any is no match, and a different arg alone adds nothing.
  EXPECT_EQ(RsSubscribeEvent(0, 100, "a.b", "x", match_any, nullptr), first);
  EXPECT_EQ(RsSubscribeEvent(0, 100, "a.b", "x", nullptr, "two"), first);
  ASSERT_EQ(first->nsubs, 1u);
  EXPECT_STREQ(first->subs[0].arg, "one");
  // Another asc, another uid or another match is another subscriber.
  RsSubscribeEvent(0, 101, "a.b", "x", nullptr, nullptr);
  RsSubscribeEvent(7, 100, "a.b", "x", nullptr, nullptr);
  EventSlot* slot = RsSubscribeEvent(0, 100, "a.b", "x", RejectAll, nullptr);
  ASSERT_EQ(slot->nsubs, 4u);
  EXPECT_EQ(slot->subs[3].match, &RejectAll);
}

TEST(EventSubscribe, PathFilesSubscriptionAtItsNodeDotsAtRootEmptyInList) {
  RsSubscribeEvent(0, 100, "a.b.c", "x", nullptr, nullptr);
  EventSlot* slot = RsSubscribeEvent(0, 100, "a..b.", "x", nullptr, nullptr);
  EXPECT_EQ(RsSubscribeEvent(0, 100, "a.b", "x", nullptr, nullptr), slot);
  EXPECT_EQ(&At("a.b")->events[0], slot);
  // The name is known once to the list, whose own slot has no subscriber.
  ASSERT_EQ(n_evt_l_, 1u);
  EXPECT_EQ(evt_l_[0].nsubs, 0u);
  // Dots only land on the root; an empty or null path files in the list.
  EventSlot* root_slot = RsSubscribeEvent(0, 100, "...", "x", nullptr, nullptr);
  EXPECT_EQ(root_slot, &evt_root_.events[0]);
  EventSlot* list_slot = RsSubscribeEvent(0, 100, "", "x", nullptr, nullptr);
  EXPECT_EQ(list_slot, &evt_l_[0]);
  EXPECT_EQ(RsSubscribeEvent(0, 100, nullptr, "x", 0, 0), list_slot);
  // The root's name is not a piece, and a path's length is not limited.
  const std::string path = "Object." + std::string(130, 'k') + "." + std::string(130, 'k');
  RsSubscribeEvent(0, 100, path.c_str(), "y", nullptr, nullptr);
  EXPECT_NE(At(path), nullptr);
}

TEST(EventSubscribe, NinthSubscriberGrowsArrayAndKeepsEarlierOnes) {
  // The global list needs no path copy, so with allocations failing only
  // the growth of the subscriber array can fail: at the 1st and the 9th.
  EventSlot* slot = RsSubscribeEvent(1, 1, "", "x", nullptr, nullptr);
  evt_test_fail_allocs(0);
  for (int32_t asc = 2; asc <= 9; ++asc)
    EXPECT_EQ(RsSubscribeEvent(1, asc, "", "x", nullptr, nullptr), slot);
  EXPECT_EQ(slot->nsubs, 8u) << "the 9th needs the array to grow";
  evt_test_fail_allocs(-1);
  RsSubscribeEvent(1, 9, "", "x", nullptr, nullptr);
  ASSERT_EQ(slot->nsubs, 9u);
  for (uint32_t i = 0; i < 9; ++i) EXPECT_EQ(slot->subs[i].asc, int32_t(i + 1));
}

// Every call of RsSubscribeEvent, refusals included, takes the lock once
// and releases it once, first thing: a null event name too, and a path
// whose copy runs out of memory. A retry after a failed allocation reuses
// what the failure left.
TEST(EventSubscribe, RefusalsUnlockAndRetryAfterOutOfMemoryReusesBranch) {
  evt_init(CountLock, CountUnlock, nullptr);
  EXPECT_EQ(RsSubscribeEvent(0, 100, "a.b", nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(locks, 1);
  EXPECT_EQ(unlocks, 1);
  EventSlot* slot = nullptr;
  int32_t budget = 0;
  for (; slot == nullptr && budget < 50; ++budget) {
    evt_test_fail_allocs(budget);
    slot = RsSubscribeEvent(0, 100, "p.q.r", "x", nullptr, "arg");
    EXPECT_EQ(locks, budget + 2);
    EXPECT_EQ(unlocks, locks);
  }
  evt_test_fail_allocs(-1);
  ASSERT_NE(slot, nullptr);
  EXPECT_GT(budget, 1) << "some attempts must have failed";
  EXPECT_EQ(RsSubscribeEvent(0, 100, "p.q.r", "x", nullptr, "arg")->nsubs, 1u);
  ASSERT_EQ(evt_root_.nchildren, 1u);  // no "a" from the refusal
  EXPECT_EQ(At("p")->nchildren, 1u);
  EXPECT_EQ(At("p.q.r")->nevents, 1u);
}

TEST(EventSubscribe, PathOfMoreThan32PiecesIsRefusedWhole) {
  std::string path32;
  for (int i = 0; i < 32; ++i) path32 += "..p" + std::to_string(i);
  const std::string path33 = path32 + ".z";
  EXPECT_EQ(RsSubscribeEvent(0, 100, path33.c_str(), "x", nullptr, nullptr),
            nullptr);
  EXPECT_EQ(evt_root_.nchildren, 0u);
  EXPECT_EQ(n_evt_l_, 0u);
  // Empty pieces do not count towards the limit.
  EXPECT_NE(RsSubscribeEvent(0, 100, (path32 + "...").c_str(), "x", 0, 0), nullptr);
}

TEST(EventQueueJob, SubscribeNeedsFourArgumentsUnsubscribeRemovesNothing) {
  char uid[] = "7", asc[] = "100", path[] = "dev.cam", ev[] = "motion";
  char* argv[] = {uid, asc, path, ev, nullptr};
  event_subscribe(0, 0, 3, argv);
  EXPECT_EQ(evt_root_.nchildren, 0u);
  event_subscribe(0, 0, 5, argv);
  const EventNode* cam = At("dev.cam");
  ASSERT_NE(cam, nullptr);
  ASSERT_EQ(cam->nevents, 1u);
  EXPECT_STREQ(SlotName(cam->events[0]), "motion");
  EXPECT_EQ(cam->events[0].subs[0].uid, 7u);
  EXPECT_EQ(RsUnsubscribeEvent(7, 100, "dev.cam", "motion"), 0);
  event_unsubscribe(0, 0, 3, argv);
  event_unsubscribe(0, 0, 4, argv);
  EXPECT_EQ(cam->events[0].nsubs, 1u);
}
