// Fakes for the branch-building tests: a device class whose Open records
// each call, hands out rising descriptors, fails for one chosen name and
// asks for a read thread when told; a source whose Read ends its thread at
// once; and TreeRequest payloads as message parsing makes them.
#ifndef ARBOR_TESTS_DEVICE_BUILD_FAKES_H
#define ARBOR_TESTS_DEVICE_BUILD_FAKES_H

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "arbor/forest.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "device/build.h"
#include "forest_fixture.h"

namespace build_test {

struct OpenRecord {
  std::mutex mutex;
  std::vector<std::string> opens;  // "name" or "name/option"
  int32_t next_fd = 100;
  std::string fail_name;           // Open of this name gives -1
  uint32_t threading = 0;          // what Open asks for
};
inline OpenRecord opener;

inline int32_t FakeOpen(const char* name, const char* option,
                        uint32_t* threading) {
  std::lock_guard hold(opener.mutex);
  std::string entry = name != nullptr ? name : "";
  if (option != nullptr) entry += std::string("/") + option;
  opener.opens.push_back(entry);
  if (opener.fail_name == (name != nullptr ? name : "")) return -1;
  *threading = opener.threading;
  return opener.next_fd++;
}
inline std::vector<std::string> Opens() {
  std::lock_guard hold(opener.mutex);
  return opener.opens;
}
// A source whose first Read fails: its read thread ends at once.
inline int32_t FailingRead(int32_t, void*, uint32_t, uint32_t*) { return -1; }

inline cdef dev = [] {
  cdef cls = forest_test::camera;
  cls.Open = FakeOpen;
  cls.Read = FailingRead;
  return cls;
}();

// A source that yields a chunk about every millisecond, and sinks that
// count what they are given: a read thread that keeps walking.
inline std::atomic<uint32_t> written{0};
inline int32_t ChunkRead(int32_t, void* buffer, uint32_t, uint32_t* flags) {
  usleep(1000);  // the device's own pace, not a wait of the test
  std::memset(buffer, 1, 16);
  *flags = 0;
  return 16;
}
inline int32_t CountWrite(int32_t, const void*, uint32_t size, uint32_t) {
  written += size;
  return static_cast<int32_t>(size);
}
inline cdef stream = [] {
  cdef cls = dev;
  cls.Read = ChunkRead;
  cls.Write = CountWrite;
  return cls;
}();

// One hop; the test's literals are copied by whoever keeps them.
inline MNodeInfo Hop(cdef* cls, const char* name, const char* option = nullptr,
                     int32_t fd = 0) {
  return MNodeInfo{cls, const_cast<char*>(name), const_cast<char*>(option),
                   fd};
}

// A request payload: hop strings are heap copies, as the pusher makes them.
struct Request {
  std::vector<unsigned char> bytes;
  TreeRequest* dx() { return reinterpret_cast<TreeRequest*>(bytes.data()); }
  uint32_t size() const { return static_cast<uint32_t>(bytes.size()); }
};
inline Request MakeRequest(uint32_t uid, const std::string& sid,
                           const std::vector<MNodeInfo>& hops,
                           int32_t exclusive = 0, int32_t ascode = 100) {
  Request r;
  r.bytes.assign(sizeof(TreeRequest) + hops.size() * sizeof(MNodeInfo), 0);
  TreeRequest* dx = r.dx();
  dx->uid = uid;
  dx->ascode = ascode;
  std::memcpy(dx->sid, sid.data(), std::min(sid.size(), sizeof dx->sid));
  std::strcpy(dx->peer, "R");
  dx->exclusive = exclusive;
  dx->length = static_cast<uint32_t>(hops.size());
  for (size_t i = 0; i < hops.size(); ++i) {
    dx->nodes[i] = hops[i];
    dx->nodes[i].name = hops[i].name ? stringdup(hops[i].name) : nullptr;
    dx->nodes[i].option = hops[i].option ? stringdup(hops[i].option) : nullptr;
  }
  return r;
}
inline void PushRequest(CommandHandler fn, Request& r, uint32_t size = 0) {
  cmdq_push("test", fn, 0, r.bytes.data(), size != 0 ? size : r.size());
}

// tree_new_branch on the consumer, as the commands call it.
inline TreeNode* Branch(uint32_t uid, std::vector<MNodeInfo> hops,
                        int32_t exclusive = 0) {
  TreeNode* leaf = nullptr;
  forest_test::OnConsumer([&] {
    leaf = tree_new_branch(uid, "sid", exclusive, hops.data(),
                           static_cast<uint32_t>(hops.size()));
  });
  return leaf;
}

inline int RootCount() {
  int n = 0;
  for (TreeRoot* r = forest_.head.next; r != nullptr; r = r->next) ++n;
  return n;
}

}  // namespace build_test

#endif  // ARBOR_TESTS_DEVICE_BUILD_FAKES_H
