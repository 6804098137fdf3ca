// The media path and in-band events: what the read thread delivers, its
// network writes with the tree's lock free, how it ends, a converter's
// held-back bytes through Tree_inflate, and Tree_inband's text events.
#include <condition_variable>
#include <deque>
#include <future>

#include "arbor/inband.h"
#include "device/datapath.h"
#include "forest_fixture.h"

namespace {

using namespace forest_test;

// A source that records like camera and whose Read serves queued results,
// then queued chunks, blocking until one comes or the device is closed.
struct Source {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<int32_t> results;
  std::deque<std::string> chunks;
  bool closed = false;
} source;

// A chunk for Read, behind the results given.
void Feed(const std::string& chunk, std::initializer_list<int32_t> results = {}) {
  std::lock_guard hold(source.mutex);
  source.results.insert(source.results.end(), results);
  source.chunks.push_back(chunk);
  source.cv.notify_all();
}

cdef source_class = [] {
  cdef cls = camera;
  cls.Read = [](int32_t, void* buffer, uint32_t size, uint32_t* flags) {
    std::unique_lock hold(source.mutex);
    source.cv.wait(hold, [] { return source.closed || !source.chunks.empty(); });
    if (!source.results.empty()) {
      const int32_t result = source.results.front();
      source.results.pop_front();
      return result;
    }
    if (source.closed) return -1;
    const std::string chunk = source.chunks.front();
    source.chunks.pop_front();
    std::memcpy(buffer, chunk.data(), std::min<size_t>(chunk.size(), size));
    *flags = 0x100;  // a level the driver set; the media type is ORed in
    return static_cast<int32_t>(chunk.size());
  };
  cls.Close = [](int32_t) {
    std::lock_guard hold(source.mutex);
    source.closed = true;
    source.cv.notify_all();
    return 0;
  };
  return cls;
}();

// A converter that consumes whole units of 35 bytes only, holding the rest.
cdef converter_class = [] {
  cdef cls = camera;
  cls.Convert = [](int32_t, const void* in, uint32_t* in_size, void* out,
                   uint32_t* out_size, uint32_t* flags) {
    *flags = 0xdead;  // must not reach the children
    *out_size = *in_size / 35 * 35;
    if (out == nullptr) return 0;
    std::memcpy(out, in, *out_size);
    *in_size = *out_size;
    return 0;
  };
  return cls;
}();

// The writes xfd received, once there are at least count (10 s limit).
std::vector<std::string> WritesOf(int32_t xfd, size_t count) {
  WaitFor([&] { return Locked(writes)[xfd].size() >= count; });
  return Locked(writes)[xfd];
}

// Links root and starts its read thread as the activation does.
void StartThread(TreeRoot* root) {
  forest_link(root);
  root_ref(root);
  root->use_thread = 2;
  pthread_create(&root->thread, nullptr, thread_read_root, root);
}

// Bytes first, first + 1, ... as a chunk of n.
std::string Bytes(int first, size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(first + i);
  return s;
}

class DataPath : public ForestTest {};
class Inband : public ForestTest {};

// source -> pass-through -> {sink 11 active, sink 12 inactive}; empty reads
// first, which neither end the thread nor reach anyone. The thread then
// waits in Read, and the stop's close must end it.
TEST_F(DataPath, ChunksReachActiveSinksInOrderAndTheStopEndsABlockedRead) {
  TreeRoot* root = Root(&source_class, 3, 0, "cam");
  TreeNode* mid = Hang(root, &camera, 10);
  Node(mid, &camera, 11);
  Node(mid, &camera, 12, /*active=*/0);
  StartThread(root);
  Feed(Bytes(1, 100), {0, 0, 0});
  Feed(Bytes(2, 200));
  Feed(Bytes(3, 63488));
  EXPECT_EQ(WritesOf(11, 3), (std::vector<std::string>{
                                Bytes(1, 100), Bytes(2, 200), Bytes(3, 63488)}));
  device_stop();  // joins the thread: no lock needed below
  device_exit();
  started_ = false;
  EXPECT_EQ(writes.size(), 1u) << "only the active leaf is written";
  for (uint32_t flags : write_flags) EXPECT_EQ(flags, 0x40100u);
}

// While the read thread sits in a deferred network write (its "Nw" trace), a
// writer must get the root's lock: were it still held for reading, the
// writer would wait past the limit.
TreeRoot* probed_root = nullptr;
std::atomic<bool> probed{false};
bool lock_was_free = false;
std::future<void> writer;
void ProbeSink(void*, int, const char* line, size_t length) {
  if (std::string(line, length).find("Nw") == std::string::npos ||
      probed.exchange(true))
    return;
  writer = std::async(std::launch::async, [] {
    QVWLock(&probed_root->lock);
    QVXUNLock(&probed_root->lock);
  });
  lock_was_free =
      writer.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
}

// A LAN pipe fed by the read thread; then a failing Read ends the thread,
// and the next forest scan ends its sessions.
TEST_F(DataPath, WritesRunWithTheLockReleasedAndAFailedReadEndsTheSessions) {
  TreeRoot* root = Root(&source_class, 3);
  Row(Node(Hang(root, get_lan_cdef(), 1024), get_lan_cdef(), 7), "sid-r", 7);
  probed_root = root;
  LOG_SetSink(ProbeSink, nullptr);
  StartThread(root);
  Feed(Bytes(1, 64));
  ASSERT_EQ(scripted_wait_calls(SCRIPTED_LAN_NET_WRITE, 1, 10000), 1);
  LOG_SetSink(nullptr, nullptr);
  ASSERT_TRUE(probed);
  writer.wait();
  EXPECT_TRUE(lock_was_free) << "the network write ran under the tree lock";
  Feed("", {-5});
  ASSERT_TRUE(WaitFor([root] { return root->use_thread.load() == -111; }));
  OnConsumer([] { EXPECT_EQ(forest_ref_tree(&camera, 0, 99), nullptr); });
  EXPECT_EQ(forest_.head.next, nullptr);
  EXPECT_EQ(LanTexts(7).back(), SessionDelete("sid-r", "Thread_Terminated"));
}

// A record as the incoming paths make it, with length bytes of payload.
void PushRecord(CommandHandler fn, cdef* device, uint32_t uid, int32_t xfd,
                const std::string& payload, uint32_t length) {
  InbandRecord head{};
  head.uid = uid;
  head.device = device;
  head.xfd = xfd;
  head.length = length;
  const std::string record =
      std::string(reinterpret_cast<const char*>(&head), sizeof head) + payload;
  ASSERT_NE(cmdq_push("test", fn, 0, record.data(),
                      static_cast<uint32_t>(record.size())), nullptr);
}
void Inflate(const std::string& data) {
  PushRecord(Tree_inflate, get_lan_cdef(), 5, 1030, data,
             static_cast<uint32_t>(data.size()));
}
void Event(int32_t xfd, const std::string& text) {
  PushRecord(Tree_inband, &source_class, 0, xfd, text + '\0',
             static_cast<uint32_t>(text.size() + 1));
}

// Fed from LAN peer 5 on pipe 1030: root -> converter -> sink 41.
TEST_F(Inband, InflateCarriesHeldBytesAndDropsWhatConvertCannotUse) {
  TreeRoot* root = Root(get_lan_cdef(), 1030, 5, "net.pipe");
  Row(Node(Hang(root, &converter_class, 40), &camera, 41), "sid-in", 5);
  forest_link(root);
  // Another peer's, empty, and a length beyond the record's bytes: dropped.
  PushRecord(Tree_inflate, get_lan_cdef(), 6, 1030, "abc", 3);
  PushRecord(Tree_inflate, get_lan_cdef(), 5, 1030, "", 0);
  PushRecord(Tree_inflate, get_lan_cdef(), 5, 1030, "abc", 4000);
  Inflate(Bytes(0, 100));   // 70 out, 30 held
  Inflate(Bytes(100, 4));   // 34 in: Convert reports nothing, all dropped
  Inflate(Bytes(104, 35));  // nothing held any more: exactly this chunk
  Drain();
  EXPECT_EQ(writes[41], (std::vector<std::string>{Bytes(0, 70), Bytes(104, 35)}));
  EXPECT_EQ(write_flags[0], 0x40000u) << "Convert's flag word stays private";
}

// root(source) -> device 50 -> LAN pipe 1024 -> {peer 7, peer 9 inactive};
// root -> WAN pipe 2000 -> peer 0. Unterminated text, or text for another
// device, is refused: outside input never reaches the walk's NUL assertion.
TEST_F(Inband, TextReachesDevicesAndPeersAndTheWanAndBadTextIsRefused) {
  TreeRoot* root = Root(&source_class, 3, 0, "cam");
  TreeNode* pipe = Node(Hang(root, &camera, 50), get_lan_cdef(), 1024);
  Node(pipe, get_lan_cdef(), 7);
  Node(pipe, get_lan_cdef(), 9, /*active=*/0);
  Node(Hang(root, get_wan_cdef(), 2000), get_wan_cdef(), 0);
  forest_link(root);
  PushRecord(Tree_inband, &source_class, 0, 3, "abcd", 4);
  Event(4, "event=x;");
  Event(3, "event=motion;");
  Event(3, "event=alarm;");
  Drain();
  EXPECT_EQ(Events(), (std::vector<std::string>{"event=motion;", "event=motion;",
                                                "event=alarm;", "event=alarm;"}));
  EXPECT_EQ(LanTexts(), (std::vector<std::string>{
                           std::string("event=motion;") + '\0',
                           std::string("event=alarm;") + '\0'}));
  EXPECT_EQ(Recorded(SCRIPTED_LAN_NET_WRITE, 0).header.nPacketType, QVTP_INBAND);
  ASSERT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 1u) << "no alarm to WAN";
  EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, 0).header.nPipe, 2000u);
}

}  // namespace
