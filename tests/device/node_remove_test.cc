// Node removal and the forest's look-ups on trees built by hand: what a cut
// closes and in which order, pipe numbers, and the assertions that guard
// our own faults.
#include "forest_fixture.h"

#include "cdef/cdef_internal.h"

namespace {

using namespace forest_test;

class NodeRemoval : public ForestTest {};

TEST_F(NodeRemoval, SharedUpperPartLosesOnlyWhatTheLeafAloneKept) {
  TreeRoot* root = Root(&camera, 10);
  TreeNode* b = Hang(root, &camera, 11);
  TreeNode* c = Node(b, &camera, 12);
  TreeNode* d1 = Node(c, &camera, 13);
  TreeNode* d2 = Node(c, &camera, 14);
  EXPECT_EQ(destroy_branch(d1, root_node(root)), c);
  EXPECT_EQ(Closes(), (std::vector<int32_t>{13}));
  EXPECT_EQ(destroy_branch(c, root_node(root)), c);  // has a child: stays
  EXPECT_EQ(destroy_branch(d2, root_node(root)), root_node(root));
  EXPECT_EQ(Closes(), (std::vector<int32_t>{13, 14, 12, 11}));
  EXPECT_EQ(root_use_count(root), 1);  // the caller gives the branch's back
  EXPECT_EQ(root->node.nchildren, 0u);
  root_unref(root);
  _destroy_root(root);
}

TEST_F(NodeRemoval, PipeNodeGoesWithItsLastPeerAndFreesOnlyItsOwnNumber) {
  TreeRoot* root = Root(&camera, 10);
  TreeNode* pipe = Hang(root, get_lan_cdef(), static_cast<int32_t>(lan_pipe_alloc()));
  pipe->pipe_owned = 1;
  TreeNode* p7 = Node(pipe, get_lan_cdef(), 7);
  TreeNode* p8 = Node(pipe, get_lan_cdef(), 8);
  // A pipe number that came with a request and that another node owns.
  lan_pipe_test_set_next(5000);
  ASSERT_EQ(lan_pipe_alloc(), 5000u);
  TreeNode* given = Hang(root, get_lan_cdef(), 5000);
  TreeNode* p9 = Node(given, get_lan_cdef(), 9);
  const uint32_t in_use = lan_pipe_test_count();

  EXPECT_EQ(destroy_branch(p7, root_node(root)), pipe);
  EXPECT_EQ(lan_pipe_test_count(), in_use);
  EXPECT_EQ(destroy_branch(p8, root_node(root)), root_node(root));
  EXPECT_EQ(lan_pipe_test_count(), in_use - 1);
  EXPECT_TRUE(log_.Has("lan_pipe_free(" + std::to_string(1024) + ") OK."));
  EXPECT_EQ(destroy_branch(p9, root_node(root)), root_node(root));
  EXPECT_EQ(lan_pipe_test_count(), in_use - 1);  // 5000 stays its owner's
  EXPECT_TRUE(Closes().empty());  // network nodes call no driver
  lan_pipe_free(5000);
  root_unref(root);
  root_unref(root);
  _destroy_root(root);
}

TEST_F(NodeRemoval, DetachedChainGoesToItsTopAndCloseHappensOnce) {
  TreeNode* top = Node(nullptr, &camera, 21);
  TreeNode* low = Node(top, &camera, 22);
  EXPECT_EQ(destroy_branch(low, nullptr), nullptr);
  EXPECT_EQ(Closes(), (std::vector<int32_t>{22, 21}));

  TreeNode* lone = Node(nullptr, &camera, 23);
  node_close_device(lone);
  node_close_device(lone);
  EXPECT_EQ(lone->xfd.load(), -1);
  TreeNode* slotless = Node(nullptr, &bare, 24);
  node_close_device(slotless);  // no Close slot: only the descriptor goes
  EXPECT_EQ(slotless->xfd.load(), -1);
  EXPECT_EQ(Closes(), (std::vector<int32_t>{22, 21, 23}));
  destroy_branch(lone, nullptr);
  destroy_branch(slotless, nullptr);
}

TEST_F(NodeRemoval, LeafIndexHasNoOrderAndSidLookupCountsAReference) {
  TreeRoot* root = Root(&camera, 10);
  for (const char* sid : {"a", "b", "c"}) Row(Hang(root, &camera, 30), sid, 7);
  root->use_thread = 1;
  forest_link(root);
  QVWLock(&root->lock);
  EXPECT_NE(_cleanup_sid(root, "a", nullptr), nullptr);
  EXPECT_STREQ(root->leaves[0].sid, "c");  // the last row took the gap
  EXPECT_EQ(root_find_leaf_by_sid(root, "c"), &root->leaves[0]);
  QVXUNLock(&root->lock);
  EXPECT_EQ(forest_ref_tree_by_sid("c"), root);
  EXPECT_EQ(root_use_count(root), 3);  // two branches and the holder
  EXPECT_EQ(root->use_thread.load(), 1);
  EXPECT_EQ(forest_ref_tree_by_sid("a"), nullptr);
  root_unref(root);
}

TEST_F(NodeRemoval, BranchStartsAtOnceUnlessALocalSourceFeedsTheNetwork) {
  TreeRoot* net = Root(get_lan_cdef(), 1030);
  TreeRoot* local = Root(&camera, 10);
  TreeNode* peer = Node(nullptr, get_lan_cdef(), 7);
  TreeNode* sink = Node(nullptr, &camera, 11);
  EXPECT_EQ(branch_starts_at_once(net, peer) + branch_starts_at_once(net, sink) +
                branch_starts_at_once(local, sink),
            3);
  EXPECT_EQ(branch_starts_at_once(local, peer), 0);
  for (TreeNode* n : {peer, sink}) destroy_branch(n, nullptr);
  for (TreeRoot* r : {net, local}) _destroy_root(r);
}

using NodeRemovalDeathTest = NodeRemoval;

TEST_F(NodeRemovalDeathTest, NullLeafAndBrokenTreeAreOurOwnFaults) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto to_stderr = [] { LOG_SetSink(nullptr, nullptr); };
  EXPECT_DEATH((to_stderr(), destroy_branch(nullptr, nullptr)),
               "assertion failed: leaf");
  TreeNode parent{};
  TreeNode orphan{};
  orphan.parent = &parent;  // not in parent's children
  EXPECT_DEATH((to_stderr(), destroy_branch(&orphan, nullptr)),
               "assertion failed: !\"error\"");
}

}  // namespace
