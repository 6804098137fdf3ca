// A bounded stress of teardown: several threads push teardown commands and
// searches while trees stand, the timed queue's worker runs timed checks
// and another thread asks is_free_time, all at once. Run under
// ThreadSanitizer this is the check that the forest's locks keep the
// consumer, the worker and the readers apart. Every device must be closed
// exactly once, and the stop must leave nothing.
#include <algorithm>
#include <random>
#include <thread>

#include "arbor/timedq.h"
#include "forest_fixture.h"

namespace {

using namespace forest_test;

class ForestStress : public ForestTest {};

constexpr int kRoots = 6, kPeers = 4, kRowsPerPeer = 3, kRounds = 150;

std::string Sid(int root, int peer, int k) {
  return "r" + std::to_string(root) + "p" + std::to_string(peer) + "k" +
         std::to_string(k);
}

TEST_F(ForestStress, ConcurrentTeardownClosesEachDeviceOnceAndLeavesNothing) {
  std::vector<uintptr_t> leaves;
  std::vector<int32_t> devices;
  for (int r = 0; r < kRoots; ++r) {
    TreeRoot* root = Root(&camera, 100 + r, 0, "cam");
    devices.push_back(100 + r);
    TreeNode* pipe = Hang(root, get_lan_cdef(), 2000 + r, r % 2);
    for (int p = 1; p <= kPeers; ++p) {
      TreeNode* peer = Node(pipe, get_lan_cdef(), p, p % 2);
      leaves.push_back(reinterpret_cast<uintptr_t>(peer));
      for (int k = 0; k < kRowsPerPeer; ++k) Row(peer, Sid(r, p, k).c_str(), p);
    }
    TreeNode* sink = Hang(root, &camera, 200 + r);
    devices.push_back(200 + r);
    Row(sink, ("d" + std::to_string(r)).c_str(), 0);
    leaves.push_back(reinterpret_cast<uintptr_t>(sink));
    if (r == 0) StartReader(root);
    forest_link(root);
  }

  std::atomic<bool> stop{false};
  std::thread asker([&] {
    while (!stop) is_free_time();
  });
  std::vector<std::thread> pushers;
  for (int t = 0; t < 3; ++t) {
    pushers.emplace_back([&, t] {
      std::mt19937 rng(static_cast<unsigned>(t));
      for (int i = 0; i < kRounds; ++i) {
        const int r = static_cast<int>(rng() % kRoots);
        const int p = 1 + static_cast<int>(rng() % kPeers);
        const std::string sid = Sid(r, p, static_cast<int>(rng() % 4));
        switch (rng() % 5) {
          case 0:
            cmdq_push("Tree_cleanup_byuid", Tree_cleanup_byuid, 0, nullptr,
                      static_cast<uint32_t>(rng() % (kPeers + 2)));
            break;
          case 1:
            tq_post_v(timedq_, 0, Tree_timed_check,
                      leaves[rng() % leaves.size()], sid.c_str(),
                      static_cast<const char*>(nullptr));
            break;
          case 2:
            cmdq_push("search", [](uintptr_t key, const void*, uint32_t) {
              TreeRoot* found = forest_ref_tree(
                  get_lan_cdef(), 0, static_cast<int32_t>(key));
              if (found != nullptr) root_unref(found);
            }, rng() % 3, nullptr, 0);
            break;
          case 3:
            Push(Tree_destroy_branch, "Peer_RUN_FAIL", sid,
                 static_cast<uint32_t>(rng() % (sid.size() + 2)));
            break;
          default:
            Destroy(sid, "Peer_SessionDelete");
        }
      }
    });
  }
  for (auto& p : pushers) p.join();
  Drain();
  stop = true;
  asker.join();
  device_stop();
  started_ = false;

  std::vector<int32_t> closes = Closes();
  std::sort(closes.begin(), closes.end());
  std::sort(devices.begin(), devices.end());
  EXPECT_EQ(closes, devices);  // each device once, none forgotten
}

}  // namespace
