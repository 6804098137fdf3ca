// The sweeps: forest_ref_tree freeing dead roots and joining finished read
// threads as it searches, and the stop's forest_make_clean ending every
// session, however the trees stand.
#include "forest_fixture.h"

namespace {

using namespace forest_test;

class Sweep : public ForestTest {};

std::string SessionDelete(const std::string& sid, const std::string& coz) {
  return "sidN=" + sid + ";MainCmd=SessionDelete;coz=" + coz + ";";
}

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

TEST_F(Sweep, FinishedThreadsSessionsEndAndItIsJoinedByTheNextSearch) {
  TreeRoot* root = Root(get_lan_cdef(), 1030, 5);
  Row(Hang(root, &camera, 11), "f1", 7);
  StartReader(root, true);
  forest_link(root);
  ASSERT_TRUE(WaitFor([&] { return root->use_thread.load() == -111; }));
  TreeRoot* found = root;
  // Its own key: a finished root is never handed out.
  OnConsumer([&] { found = forest_ref_tree(get_lan_cdef(), 5, 1030); });
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(LanTexts(7), std::vector<std::string>{
                             SessionDelete("f1", "Thread_Terminated")});
  EXPECT_TRUE(log_.Has("thread-join-return: }root->thread."));
  EXPECT_EQ(forest_.head.next, nullptr);  // joined and freed
  EXPECT_EQ(Closes(), std::vector<int32_t>{11});
}

TEST_F(Sweep, HeldFinishedRootIsJoinedKeptAndThenFound) {
  TreeRoot* root = Root(get_lan_cdef(), 1030, 5);
  Row(Hang(root, &camera, 11), "h1", 7);
  root_ref(root);  // a holder
  StartReader(root, true);
  forest_link(root);
  ASSERT_TRUE(WaitFor([&] { return root->use_thread.load() == -111; }));
  TreeRoot* found = nullptr;
  OnConsumer([&] { found = forest_ref_tree(get_lan_cdef(), 5, 1030); });
  EXPECT_EQ(found, root);
  EXPECT_EQ(root->use_thread.load(), 0);
  EXPECT_EQ(root_use_count(root), 2);
  root_unref(root);
  root_unref(root);
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
