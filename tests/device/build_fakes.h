// Fakes for building: a class whose Open records each call and gives 100,
// 101, ... (or -1 for one name), and TreeRequest payloads as parsing makes.
#ifndef ARBOR_TESTS_DEVICE_BUILD_FAKES_H
#define ARBOR_TESTS_DEVICE_BUILD_FAKES_H

#include "arbor/support.h"
#include "device/build.h"
#include "forest_fixture.h"

namespace build_test {

struct OpenRecord {
  std::vector<std::string> opens;  // "name" or "name/option"
  int32_t next_fd = 100;
  std::string fail_name;           // Open of this name gives -1
  uint32_t threading = 0;          // what Open asks for
};
inline OpenRecord opener;  // Open writes under forest_test::driver_mutex
inline std::vector<std::string> Opens() { return forest_test::Locked(opener.opens); }

// Its first Read fails: a read thread ends at once.
inline cdef dev = [] {
  cdef cls = forest_test::camera;
  cls.Open = [](const char* name, const char* option, uint32_t* threading) {
    std::lock_guard hold(forest_test::driver_mutex);
    opener.opens.push_back(option != nullptr ? std::string(name) + "/" + option
                                             : std::string(name));
    if (opener.fail_name == name) return -1;
    *threading = opener.threading;
    return opener.next_fd++;
  };
  cls.Read = [](int32_t, void*, uint32_t, uint32_t*) { return -1; };
  return cls;
}();

// A source that yields a chunk about every millisecond, and sinks that
// count what they are given: a read thread that keeps walking.
inline std::atomic<uint32_t> written{0};
inline cdef stream = [] {
  cdef cls = dev;
  cls.Read = [](int32_t, void* buffer, uint32_t, uint32_t* flags) {
    usleep(1000);  // the device's own pace, not a wait of the test
    std::memset(buffer, 1, 16);
    *flags = 0;
    return 16;
  };
  cls.Write = [](int32_t, const void*, uint32_t size, uint32_t) {
    written += size;
    return static_cast<int32_t>(size);
  };
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
                           const std::vector<MNodeInfo>& hops) {
  Request r;
  r.bytes.assign(sizeof(TreeRequest) + hops.size() * sizeof(MNodeInfo), 0);
  TreeRequest* dx = r.dx();
  dx->uid = uid;
  dx->ascode = 100;
  std::memcpy(dx->sid, sid.data(), std::min(sid.size(), sizeof dx->sid));
  std::strcpy(dx->peer, "R");
  dx->length = static_cast<uint32_t>(hops.size());
  for (size_t i = 0; i < hops.size(); ++i) {
    dx->nodes[i] = hops[i];
    dx->nodes[i].name = hops[i].name ? stringdup(hops[i].name) : nullptr;
    dx->nodes[i].option = hops[i].option ? stringdup(hops[i].option) : nullptr;
  }
  return r;
}
inline void PushRequest(CommandHandler fn, Request& r) {
  cmdq_push("test", fn, 0, r.bytes.data(), r.size());
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
