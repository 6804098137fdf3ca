// The remote session control tests' fixture: the library started for real
// (scripted transport, both links up), recording drivers, and helpers that
// play a LAN peer or the service by handing texts to the transport's doors.
// Drivers: cam.1, a threaded source (a 32-byte chunk about every ms);
// enc.1, pass-through; sink.1, a sink that counts bytes and records DoEvent
// texts (sink.bad: its Open fails); push.1, a threadless source fed through
// the callback, whose Open gives 7.
#ifndef ARBOR_TESTS_RSC_RSC_FIXTURE_H
#define ARBOR_TESTS_RSC_RSC_FIXTURE_H

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "arbor/sys.h"
#include "device/forest.h"
#include "init/sys_state.h"
#include "test_helpers.h"

namespace rsc_test {

// What the drivers saw: their DoEvent texts and callback.
struct DriverLog {
  std::mutex mutex;
  std::vector<std::string> events;
  DeviceCallback callback = nullptr;
};
inline DriverLog drivers;
inline std::atomic<uint32_t> sink_bytes{0}, sink_writes{0}, opens{0}, closes{0};

inline cdef MakeClass(const char* (*retrieve)(), bool source, bool sink) {
  cdef cls{};
  cls.SetCallback = [](DeviceCallback callback) {
    std::lock_guard hold(drivers.mutex);
    drivers.callback = callback;
    return 0;
  };
  cls.Retrieve = retrieve;
  cls.GetObjectInfo = [] { return "Type=test;"; };
  cls.Open = [](const char* name, const char*, uint32_t* threading) {
    if (std::strcmp(name, "sink.bad") == 0) return -1;
    *threading = std::strncmp(name, "cam.", 4) == 0 ? 1 : 0;
    const auto fd = static_cast<int32_t>(100 + opens++);  // 100 on
    return std::strncmp(name, "push.", 5) == 0 ? 7 : fd;
  };
  cls.Close = [](int32_t) {
    ++closes;
    return 0;
  };
  cls.DoEvent = [](const char* name, int32_t, const char* text) {
    std::lock_guard hold(drivers.mutex);
    drivers.events.push_back(std::string(name) + "|" + text);
    return 0;
  };
  if (source)
    cls.Read = [](int32_t, void* buffer, uint32_t size, uint32_t* flags) {
      usleep(1000);
      // Never all zeros: the LAN road refuses a frame of NULs only.
      std::memset(buffer, 0x5a, std::min<uint32_t>(size, 32));
      *flags = 0;
      return 32;
    };
  if (sink)
    cls.Write = [](int32_t, const void*, uint32_t size, uint32_t) {
      sink_bytes += size;
      ++sink_writes;
      return static_cast<int32_t>(size);
    };
  return cls;
}
inline cdef cam = MakeClass([] { return "cam.1"; }, true, false);
inline cdef enc = MakeClass([] { return "enc.1"; }, false, false);
inline cdef sink = MakeClass([] { return "sink.1,sink.bad"; }, false, true);
inline cdef push = MakeClass([] { return "push.1"; }, false, false);

inline std::vector<std::string> Events() {
  std::lock_guard hold(drivers.mutex);
  return drivers.events;
}

// Waits until every command pushed before has run.
inline void Drain() {
  static std::atomic<int> ran{0};
  const int target = ran + 1;
  cmdq_push(
      "drain", [](uintptr_t, const void*, uint32_t) { ++ran; }, 0, nullptr, 0);
  ASSERT_TRUE(WaitFor([target] { return ran >= target; }));
}

// A control text from LAN peer `from` under AS code asc, as the transport
// delivers it; and one from the service (the WAN door reports AS 100).
inline void FromPeer(uint32_t from, int32_t asc, const std::string& text) {
  asdispatch(get_lan_cdef(), from, asc, text.data(),
             static_cast<uint32_t>(text.size()));
}
inline void FromService(const std::string& text) {
  asdispatch(get_wan_cdef(), 0, 100, text.data(),
             static_cast<uint32_t>(text.size()));
}

// Every write the scripted transport made to LAN peer `peer`, in order.
inline std::vector<scripted_call> LanWrites(uint16_t peer) {
  std::vector<scripted_call> calls;
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_LAN_NET_WRITE, i, &call) == 0;
       ++i)
    if (call.peer == peer) calls.push_back(call);
  return calls;
}
inline std::vector<std::string> LanTexts(uint16_t peer) {
  std::vector<std::string> texts;
  for (const scripted_call& call : LanWrites(peer))
    if (call.text != nullptr) texts.emplace_back(call.text, call.text_size);
  return texts;
}
// The first of texts that holds needle, or "".
inline std::string Find(const std::vector<std::string>& texts,
                        const std::string& needle) {
  for (const std::string& text : texts)
    if (text.find(needle) != std::string::npos) return text;
  return "";
}
// Waits for a text holding needle among those sent to LAN peer `peer` (to
// the service for -1); the first, or "" on time-out.
inline std::string AwaitText(int peer, const std::string& needle) {
  std::string found;
  WaitFor([&] {
    found = Find(peer < 0 ? WanTexts() : LanTexts(static_cast<uint16_t>(peer)), needle);
    return !found.empty();
  });
  return found;
}
// The AS code under which the first control text holding needle went to
// LAN peer `peer` (to the service for -1), or -1.
inline int32_t AscOf(int peer, const std::string& needle) {
  scripted_call call;
  const scripted_fn fn = peer < 0 ? SCRIPTED_NET_WRITE : SCRIPTED_LAN_NET_WRITE;
  for (size_t i = 0; scripted_call_get(fn, i, &call) == 0; ++i)
    if (call.text != nullptr && (peer < 0 || call.peer == peer) &&
        std::string(call.text, call.text_size).find(needle) != std::string::npos)
      return call.asc;
  return -1;
}
// Data frames of packet type `type` sent to LAN peer `peer` (on `pipe`,
// unless 0).
inline size_t LanFrames(uint16_t peer, uint16_t type, uint32_t pipe = 0) {
  size_t n = 0;
  for (const scripted_call& call : LanWrites(peer))
    n += call.header.nPacketType == type &&
         (pipe == 0 || call.header.nPipe == pipe);
  return n;
}

// What a local service entry heard (an AsPeerHandler): the texts, each cut
// at its first NUL. The forest's locks are never held around the call: the
// entry looks at the forest to prove it.
inline std::mutex heard_mutex;
inline std::vector<std::string> heard;
inline int32_t Hear(uint32_t, uint32_t size, const char* data) {
  is_free_time();
  std::lock_guard hold(heard_mutex);
  heard.emplace_back(data, strnlen(data, size));
  return 0;
}
inline std::vector<std::string> Heard() {
  std::lock_guard hold(heard_mutex);
  return heard;
}
inline std::string Heard(const std::string& needle) { return Find(Heard(), needle); }

// Peer `peer` asks for cam.1 through a net hop under AS code 200; returns
// the pipe that the SessionCreate it is sent names.
inline uint32_t RequestFrom(uint16_t peer, const std::string& sid) {
  FromPeer(peer, 200,
           "MainCmd=QV_RES_REQ;sidN=" + sid +
               ";AsCode=200;user=R;ftN0=cam.1;ftN1=net.;ftN2=sink.1;");
  const std::string create = AwaitText(peer, "SessionCreate;sidN=" + sid + ";");
  EXPECT_NE(create, "");
  return static_cast<uint32_t>(std::stoul(Key(create, "FD0")));
}
// ... and starts it, as the peer does once its side is built.
inline uint32_t StartedFrom(uint16_t peer, const std::string& sid) {
  const uint32_t pipe = RequestFrom(peer, sid);
  FromPeer(peer, 100,
           "MainCmd=SessionStart;sidN=" + sid +
               ";ftN0=net.;FD0=" + std::to_string(pipe) + ";");
  return pipe;
}

// The library running with both links up and the four drivers registered.
// The stop must leave the forest swept, the queue empty, and every device
// that was opened closed.
class RscTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(SysInit(nullptr), 0);
    sys_.wan_state = QVNETS_SUCCESS;
    sys_.lan_state = 0;
    for (cdef* cls : {&cam, &enc, &sink, &push}) SysRegisterDev(cls);
  }
  void TearDown() override {
    SysExit();
    EXPECT_EQ(forest_.head.next, nullptr);
    EXPECT_EQ(cmdq_cached_total(), 0u);
    EXPECT_EQ(opens.load(), closes.load());
  }
  LogCapture log_{3};
};

}  // namespace rsc_test

#endif  // ARBOR_TESTS_RSC_RSC_FIXTURE_H
