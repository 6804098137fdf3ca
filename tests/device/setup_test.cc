// Session setup through the queue, as message parsing pushes it: the
// branch, the row, the texts that reach the peer through the scripted
// transport, the time-out check, and requests that must be refused.
#include "arbor/asc.h"
#include "arbor/timedq.h"
#include "build_fakes.h"

namespace {

using namespace forest_test;
using namespace build_test;

class Setup : public ForestTest {
 protected:
  // The row of sid, read under the root's lock; null when there is none.
  static TreeNode* LeafOf(const char* sid) {
    TreeRoot* root = forest_ref_tree_by_sid(sid);
    if (root == nullptr) return nullptr;
    QVRLock(&root->lock);
    const LeafIndexEntry* row = root_find_leaf_by_sid(root, sid);
    TreeNode* leaf = row != nullptr ? row->leaf : nullptr;
    QVXUNLock(&root->lock);
    root_unref(root);
    return leaf;
  }
  static void TimedCheck(TreeNode* leaf, const char* sid) {
    char* argv[] = {const_cast<char*>(sid), nullptr};
    Tree_timed_check(0, reinterpret_cast<uintptr_t>(leaf), 1, argv);
  }
};

// The sids of the Tree_timed_check entries pending on the timed queue; the
// filter cancels nothing.
std::vector<std::string> PendingChecks() {
  std::vector<std::string> sids;
  auto filter = [](uintptr_t out, TqHandler fn, uintptr_t, int32_t argc,
                   char** argv) {
    if (fn == Tree_timed_check && argc == 1)
      reinterpret_cast<std::vector<std::string>*>(out)->emplace_back(argv[0]);
    return 0;
  };
  tq_cancel_if(timedq_, filter, reinterpret_cast<uintptr_t>(&sids));
  return sids;
}

std::string RunFail(const std::string& sid, const std::string& coz) {
  return "MainCmd=RUN_FAIL;sidN=" + sid + ";coz=" + coz + ";";
}

// Each key of a dictionary text has the value given ("<none>": absent).
using Keys = std::initializer_list<std::pair<const char*, std::string>>;
void ExpectKeys(const std::string& text, Keys keys) {
  SCOPED_TRACE(text);
  for (const auto& [key, value] : keys) EXPECT_EQ(Key(text, key), value) << key;
}

// What the local services got.
std::mutex local_mutex;
std::vector<std::string> local_texts;
int32_t LocalService(uint32_t, uint32_t size, const char* data) {
  std::lock_guard hold(local_mutex);
  local_texts.emplace_back(data, size);
  return 0;
}

// A local chain runs at once and answers "SessionStart" to its owner: a LAN
// peer, or for uid 0 the local services of its AS code, or else the service.
TEST_F(Setup, PartialLocalChainRunsAtOnceAndAnswersSessionStartToItsOwner) {
  ASSERT_GT(SysRegistASLan(555, nullptr,
                           reinterpret_cast<AsHandler>(LocalService)), 0);
  Request r = MakeRequest(7, "p1", {Hop(&dev, "cam.1"), Hop(&dev, "disp.1")});
  PushRequest(Tree_new_partial, r);
  Drain();
  TreeNode* leaf = LeafOf("p1");
  ASSERT_NE(leaf, nullptr);
  EXPECT_EQ(leaf->active.load(), 1);
  EXPECT_EQ(PendingChecks(), std::vector<std::string>{"p1"});
  Request local = MakeRequest(0, "l1", {Hop(&dev, "cam.1"), Hop(&dev, "d.1")},
                              0, 555);
  Request service = MakeRequest(0, "l2", {Hop(&dev, "cam.1"), Hop(&dev, "d.2")},
                                0, 100);
  PushRequest(Tree_new_partial, local);
  PushRequest(Tree_new_partial, service);
  Drain();
  const std::vector<std::string> texts = LanTexts();
  ASSERT_EQ(texts.size(), 1u);
  ExpectKeys(texts[0], {{"MainCmd", "SessionStart"}, {"sidN", "p1"},
                        {"ftN0", "disp.1"}, {"FD0", "101"},
                        {"ftN1", "cam.1"}, {"FD1", "100"}});
  // The local table hears it from the timed queue's worker.
  ASSERT_TRUE(WaitFor([] {
    std::lock_guard hold(local_mutex);
    return !local_texts.empty();
  }));
  {
    std::lock_guard hold(local_mutex);
    ASSERT_EQ(local_texts.size(), 1u);
    ExpectKeys(local_texts[0], {{"sidN", "l1"}, {"MainCmd", "SessionStart"}});
  }
  const std::vector<std::string> wan = WanTexts();
  ASSERT_EQ(wan.size(), 1u);
  EXPECT_NE(wan[0].find("sidN=l2;"), std::string::npos);
  // The 60 s check finds an active branch and does nothing.
  TimedCheck(leaf, "p1");
  EXPECT_EQ(LeafOf("p1"), leaf);
  Destroy("p1");
  Drain();
  // uid 0 has a root of its own: p1 was the last session on this one.
  EXPECT_EQ(Closes(), (std::vector<int32_t>{101, 100}));
}

TEST_F(Setup, RequestBuildsUpToThePipeAndAsksThePeerForTheRest) {
  cdef* lan = get_lan_cdef();
  auto hops = [&] {
    return std::vector<MNodeInfo>{Hop(&dev, "cam.1"), Hop(lan, "net.lan"),
                                  Hop(&dev, "disp.9", "w=2")};
  };
  Request first = MakeRequest(7, "s1", hops());
  Request second = MakeRequest(7, "s2", hops());
  PushRequest(Tree_new_request, first);
  PushRequest(Tree_new_request, second);
  Drain();
  TreeNode* peer = LeafOf("s1");
  ASSERT_NE(peer, nullptr);
  // One peer node for both sessions, under the pipe; nothing is active.
  EXPECT_EQ(LeafOf("s2"), peer);
  EXPECT_EQ(peer->xfd.load(), 7);
  EXPECT_EQ(peer->active.load(), 0);
  const int32_t pipe = peer->parent->xfd;
  EXPECT_GE(pipe, 1024);
  const std::vector<std::string> texts = LanTexts(7);
  ASSERT_EQ(texts.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    ExpectKeys(texts[i], {{"MainCmd", "SessionCreate"}, {"AsCode", "100"},
                          {"sidN", i == 0 ? "s1" : "s2"}, {"ftN0", "net.lan"},
                          {"FD0", std::to_string(pipe)}, {"ftN1", "disp.9"},
                          {"opN1", "w=2"}, {"FD1", "<none>"},
                          {"ftN2", "<none>"}});
  }
  // Only the new peer node posted its check, for s1.
  EXPECT_EQ(PendingChecks(), std::vector<std::string>{"s1"});
  EXPECT_EQ(Events()[0],
            "MainCmd=17;event=Follower;Status=Joining;To=R;sidN=s1;");

  // "SessionStart" for s1 activates peer, pipe, and the root.
  cmdq_push("t", Tree_active_branch, 0, "s1", 3);
  Drain();
  EXPECT_EQ(peer->active.load(), 1);
  EXPECT_EQ(node_find_root(peer)->node.active.load(), 1);
  EXPECT_EQ(Events().back(), "MainCmd=24;");
  TimedCheck(peer, "s2");
  EXPECT_EQ(LeafOf("s2"), peer);
}

TEST_F(Setup, PartialChainEndingInAPipeGivesEachSessionItsOwnPeerNode) {
  cdef* lan = get_lan_cdef();
  Request a = MakeRequest(7, "q1", {Hop(&dev, "cam.1"), Hop(lan, "net.lan")});
  Request b = MakeRequest(7, "q2", {Hop(&dev, "cam.1"), Hop(lan, "net.lan")});
  PushRequest(Tree_new_partial, a);
  PushRequest(Tree_new_partial, b);
  Drain();
  TreeNode* p1 = LeafOf("q1");
  TreeNode* p2 = LeafOf("q2");
  ASSERT_NE(p1, nullptr);
  ASSERT_NE(p2, nullptr);
  EXPECT_NE(p1, p2);
  EXPECT_EQ(p1->parent, p2->parent);
  EXPECT_EQ(p1->xfd.load() + p2->xfd.load(), 14);
  const std::vector<std::string> texts = LanTexts(7);
  ASSERT_EQ(texts.size(), 2u);
  ExpectKeys(texts[0], {{"ftN0", "net.lan"},
                        {"FD0", std::to_string(p1->parent->xfd.load())},
                        {"ftN1", "cam.1"}});
  EXPECT_EQ(Events()[0],
            "MainCmd=17;event=Follower;Status=Joining;To=R;sidN=q1;");
}

// A chain of one hop ends at an existing root; its row holds the root's
// reference, given back with the last such row.
TEST_F(Setup, OneHopSessionOnAnExistingRootHoldsOneReference) {
  Request branch = MakeRequest(7, "o1", {Hop(&dev, "cam.1"), Hop(&dev, "d.1")});
  Request one = MakeRequest(7, "o2", {Hop(&dev, "cam.1")});
  Request again = MakeRequest(7, "o3", {Hop(&dev, "cam.1")});
  PushRequest(Tree_new_partial, branch);
  PushRequest(Tree_new_partial, one);
  PushRequest(Tree_new_partial, again);
  Drain();
  TreeRoot* root = forest_.head.next;
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(LeafOf("o2"), root_node(root));
  EXPECT_EQ(root_use_count(root), 2);
  EXPECT_EQ(Key(LanTexts(7)[1], "ftN0"), "cam.1");
  Destroy("o2");
  Destroy("o3");
  Drain();
  EXPECT_EQ(root_use_count(root), 1);
  EXPECT_EQ(Opens().size(), 2u);
}

TEST_F(Setup, FailedTreesTellTheOwnerRunFailAndLeaveNothingBuiltForThem) {
  opener.fail_name = "bad.1";
  Request partial =
      MakeRequest(7, "f1", {Hop(&dev, "cam.1"), Hop(&dev, "bad.1")});
  Request no_pipe = MakeRequest(7, "f2", {Hop(&dev, "cam.1"),
                                          Hop(get_wan_cdef(), "net.wan")});
  PushRequest(Tree_new_partial, partial);
  PushRequest(Tree_new_request, no_pipe);
  Drain();
  EXPECT_EQ(LanTexts(7), (std::vector<std::string>{
                             RunFail("f1", "Tree create fail"),
                             RunFail("f2", "Tree request fail")}));
  EXPECT_EQ(RootCount(), 0);
  EXPECT_EQ(Closes(), std::vector<int32_t>{100});

  // A peer node or row that cannot be made takes down what was built for it.
  cdef* lan = get_lan_cdef();
  // Growth 1 hangs the pipe on the root; growth 2 (the pipe's children)
  // fails in the first request, growth 3 (the leaf index) in the second.
  for (int32_t budget : {1, 2}) {
    const std::string sid = "g" + std::to_string(budget);
    Request r = MakeRequest(7, sid, {Hop(&dev, "cam.1"), Hop(lan, "net.lan")});
    OnConsumer([budget] { build_test_fail_grows(budget); });
    PushRequest(Tree_new_partial, r);
    OnConsumer([] { build_test_fail_grows(-1); });
    EXPECT_EQ(LanTexts(7).back(), RunFail(sid, "Tree create fail"));
    EXPECT_EQ(LeafOf(sid.c_str()), nullptr);
  }
  // Each time the root had nothing else and closed; its pipe went back.
  EXPECT_EQ(Closes(), (std::vector<int32_t>{100, 101, 102}));
  for (TreeRoot* root = forest_.head.next; root; root = root->next) {
    EXPECT_EQ(root->node.nchildren, 0u);
    EXPECT_EQ(root_use_count(root), 0);
  }
}

TEST_F(Setup, BadRequestsAreRefusedWithoutStoppingAndFreeTheirStrings) {
  const std::vector<MNodeInfo> hops{Hop(&dev, "cam.1"), Hop(&dev, "d.1")};
  Request short_payload = MakeRequest(7, "b1", hops);
  PushRequest(Tree_new_partial, short_payload,
              short_payload.size() - sizeof(MNodeInfo));
  Request empty_sid = MakeRequest(7, "", hops);
  PushRequest(Tree_new_partial, empty_sid);
  Request long_sid = MakeRequest(7, std::string(64, 's'), hops);
  PushRequest(Tree_new_request, long_sid);
  Request too_many = MakeRequest(7, "b2", hops);
  too_many.dx()->length = TREE_MAX_HOPS + 1;
  PushRequest(Tree_new_request, too_many);
  Drain();
  EXPECT_TRUE(log_.Has("sizeof(*dx) + sizeof(MNodeInfo) * dx->length <= size"));
  EXPECT_TRUE(log_.Has("Tree_new_partial: empty sid refused."));
  EXPECT_TRUE(Opens().empty());
  EXPECT_TRUE(LanTexts().empty());
  // find_netornil: the first net hop, or the first that cannot be used.
  const MNodeInfo chain[] = {Hop(&dev, "cam.1"), Hop(nullptr, "x.1"),
                             Hop(get_lan_cdef(), "net.lan")};
  EXPECT_EQ(find_netornil(chain, 3), &chain[1]);
  EXPECT_EQ(find_netornil(chain, 1), nullptr);
  EXPECT_EQ(find_netornil(chain, 0), nullptr);
}


// A longer chain runs through another session's leaf: ending the longer one
// must keep that leaf, and ending both gives the root's reference back once.
TEST_F(Setup, EndingALongerChainKeepsTheLeafItRanThrough) {
  Request shorter =
      MakeRequest(0, "s1", {Hop(&dev, "cam.1"), Hop(&dev, "enc.1")});
  Request longer = MakeRequest(
      0, "s2", {Hop(&dev, "cam.1"), Hop(&dev, "enc.1"), Hop(&dev, "disp.1")});
  PushRequest(Tree_new_partial, shorter);
  PushRequest(Tree_new_partial, longer);
  Drain();
  TreeNode* enc = LeafOf("s1");
  ASSERT_NE(enc, nullptr);
  ASSERT_EQ(LeafOf("s2")->parent, enc);
  TreeRoot* root = node_find_root(enc);
  EXPECT_EQ(root_use_count(root), 1);

  cmdq_push("Tree_destroy_branch", Tree_destroy_branch, 0, "s2", 3);
  Drain();
  ASSERT_EQ(LeafOf("s1"), enc);  // still there, now without children
  EXPECT_EQ(enc->nchildren, 0u);
  EXPECT_EQ(root_use_count(root), 1);

  cmdq_push("Tree_destroy_branch", Tree_destroy_branch, 0, "s1", 3);
  Drain();
  EXPECT_EQ(LeafOf("s1"), nullptr);
  // disp.1 first, then enc.1, then the source as the root closes.
  EXPECT_EQ(Closes(), (std::vector<int32_t>{102, 101, 100}));
}

}  // namespace
