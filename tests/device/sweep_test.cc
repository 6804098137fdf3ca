// The sweeps: forest_ref_tree freeing dead roots and joining finished read
// threads as it searches, and the stop's forest_make_clean ending every
// session, however the trees stand.
#include "forest_fixture.h"

namespace {

using namespace forest_test;

class Sweep : public ForestTest {};

TEST_F(Sweep, RefTreeFreesAZeroCountRootEvenWhenItsKeyMatches) {
  TreeRoot* dead = Root(get_lan_cdef(), 1030, 5);  // no branch, no holder
  TreeRoot* live = Root(get_lan_cdef(), 1031, 5);
  Row(Hang(live, &camera, 11), "l1", 0);
  forest_link(live);
  forest_link(dead);
  TreeRoot* found = nullptr;
  OnConsumer([&] { found = forest_ref_tree(get_lan_cdef(), 5, 1030); });
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(forest_.head.next, live);
  OnConsumer([&] { found = forest_ref_tree(get_lan_cdef(), 5, 1031); });
  EXPECT_EQ(found, live);
  EXPECT_EQ(root_use_count(live), 2);
  root_unref(live);
}

// A finished root is never handed out: its sessions end, and the search
// that passes it joins its thread and frees it, or keeps it while held.
TEST_F(Sweep, FinishedThreadIsJoinedItsSessionsEndAndOnlyAHeldRootStays) {
  TreeRoot* held = Root(get_lan_cdef(), 1031, 5);
  Row(Hang(held, &camera, 12), "h1", 8);
  root_ref(held);  // a holder
  TreeRoot* root = Root(get_lan_cdef(), 1030, 5);
  Row(Hang(root, &camera, 11), "f1", 7);
  for (TreeRoot* r : {held, root}) {
    StartReader(r, true);
    forest_link(r);
    ASSERT_TRUE(WaitFor([r] { return r->use_thread.load() == -111; }));
  }
  TreeRoot* found = root;
  OnConsumer([&] { found = forest_ref_tree(get_lan_cdef(), 5, 1030); });
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(LanTexts(7), std::vector<std::string>{
                             SessionDelete("f1", "Thread_Terminated")});
  EXPECT_TRUE(log_.Has("thread-join-return: }root->thread."));
  EXPECT_EQ(forest_.head.next, held);  // the other joined and freed
  EXPECT_EQ(held->next, nullptr);
  EXPECT_EQ(Closes().front(), 11);
  OnConsumer([&] { found = forest_ref_tree(get_lan_cdef(), 5, 1031); });
  EXPECT_EQ(found, held);
  EXPECT_EQ(held->use_thread.load(), 0);
  EXPECT_EQ(root_use_count(held), 2);
  root_unref(held);
  root_unref(held);
}

TEST_F(Sweep, StopWithLiveSessionsTellsEveryOwnerAndLeavesNothing) {
  // A device root whose read thread leaves only when told, a shared leaf,
  // a branch that no row keeps, and a service session on a LAN root.
  TreeRoot* cam = Root(&camera, 3, 0, "cam.1");
  TreeNode* leaf = Node(Hang(cam, &camera, 31), &camera, 32);
  Row(leaf, "c1", 7);
  Row(leaf, "c2", 8);
  Node(Hang(cam, get_lan_cdef(), 1040), get_lan_cdef(), 9);  // rowless
  StartReader(cam, false);
  TreeRoot* net = Root(get_lan_cdef(), 1030, 5);
  Row(Hang(net, &camera, 41), "n1", 0);
  Row(root_node(net), "n2", 0);  // a chain of one hop: the root is its leaf
  forest_link(cam);
  forest_link(net);
  device_stop();
  started_ = false;
  EXPECT_EQ(LanTexts(8), std::vector<std::string>{SessionDelete("c2", "Sys_Exit")});
  EXPECT_TRUE(LanTexts(7).empty());  // its leaf stayed for c2 when it went
  EXPECT_EQ(WanTexts(), (std::vector<std::string>{SessionDelete("n1", "Sys_Exit"),
                                                  SessionDelete("n2", "Sys_Exit")}));
  std::vector<int32_t> closes = Closes();
  std::sort(closes.begin(), closes.end());
  EXPECT_EQ(closes, (std::vector<int32_t>{3, 31, 32, 41}));
}

}  // namespace
