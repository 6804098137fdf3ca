// The remote session control tests' fixture: the library started for real
// (SysInit with the scripted transport, both links up), four recording
// drivers, and helpers that play a LAN peer or the service by handing texts
// to the doors a transport would use.
//
// Drivers, by the resource names their Retrieve lists:
//   cam.1   threaded source; each Read yields one 32-byte chunk about every
//           millisecond (the device's own pace).
//   enc.1   pass-through transform (no Convert).
//   sink.1  sink: counts the bytes written, records DoEvent texts.
//           (sink.bad: the same driver, whose Open fails.)
//   push.1  source without a thread, fed by its driver through the callback;
//           Open gives descriptor 7.
#ifndef ARBOR_TESTS_RSC_RSC_FIXTURE_H
#define ARBOR_TESTS_RSC_RSC_FIXTURE_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "arbor/sys.h"
#include "device/forest.h"
#include "init/sys_state.h"
#include "test_helpers.h"

namespace rsc_test {

// What the drivers saw. Close and DoEvent run on the consumer, Write on the
// consumer or a read thread.
struct DriverLog {
  std::mutex mutex;
  std::vector<std::string> opens, events;
  std::vector<int32_t> fds;  // beside opens
  int closes = 0;
  DeviceCallback callback = nullptr;
};
inline DriverLog drivers;
inline std::atomic<uint32_t> sink_bytes{0}, sink_writes{0};
inline std::atomic<int32_t> next_fd{100};

inline int32_t SetCallback(DeviceCallback callback) {
  std::lock_guard hold(drivers.mutex);
  drivers.callback = callback;
  return 0;
}
inline int32_t Open(const char* name, const char*, uint32_t* threading) {
  if (std::strcmp(name, "sink.bad") == 0) return -1;
  std::lock_guard hold(drivers.mutex);
  drivers.opens.emplace_back(name);
  *threading = std::strncmp(name, "cam.", 4) == 0 ? 1 : 0;
  drivers.fds.push_back(std::strncmp(name, "push.", 5) == 0 ? 7 : next_fd++);
  return drivers.fds.back();
}
inline int32_t Close(int32_t) {
  std::lock_guard hold(drivers.mutex);
  ++drivers.closes;
  return 0;
}
inline int32_t DoEvent(const char* name, int32_t, const char* text) {
  std::lock_guard hold(drivers.mutex);
  drivers.events.push_back(std::string(name) + "|" + text);
  return 0;
}
inline int32_t Read(int32_t, void* buffer, uint32_t size, uint32_t* flags) {
  usleep(1000);
  static std::atomic<uint32_t> seq{0};
  const uint32_t n = seq++;
  // Never all zeros: the LAN road refuses a frame of NULs only.
  std::memset(buffer, 0x5a, std::min<uint32_t>(size, 32));
  std::memcpy(buffer, &n, sizeof n);
  *flags = 0;
  return 32;
}
inline int32_t Write(int32_t, const void*, uint32_t size, uint32_t) {
  sink_bytes += size;
  ++sink_writes;
  return static_cast<int32_t>(size);
}

inline cdef MakeClass(const char* (*retrieve)(), bool source, bool sink) {
  cdef cls{};
  cls.SetCallback = SetCallback;
  cls.Retrieve = retrieve;
  cls.GetObjectInfo = [] { return "Type=test;"; };
  cls.Open = Open;
  cls.Close = Close;
  cls.DoEvent = DoEvent;
  if (source) cls.Read = Read;
  if (sink) cls.Write = Write;
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
inline size_t Opens() {
  std::lock_guard hold(drivers.mutex);
  return drivers.opens.size();
}
// The descriptor of the latest Open of name, or -1.
inline int32_t FdOf(const std::string& name) {
  std::lock_guard hold(drivers.mutex);
  for (size_t i = drivers.opens.size(); i-- > 0;)
    if (drivers.opens[i] == name) return drivers.fds[i];
  return -1;
}
inline int Closes() {
  std::lock_guard hold(drivers.mutex);
  return drivers.closes;
}

// Waits up to 10 s for cond; true when it held.
inline bool WaitFor(const std::function<bool()>& cond) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    usleep(1000);
  }
  return true;
}

// Waits until every command pushed before has run.
inline void Drain() {
  static std::atomic<int> ran{0};
  const int target = ran + 1;
  cmdq_push("drain", [](uintptr_t, const void*, uint32_t) { ++ran; }, 0,
            nullptr, 0);
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

// Every control text the scripted transport carried to LAN peer `peer`, or
// to the service, in order.
inline std::vector<std::string> LanTexts(uint16_t peer) {
  std::vector<std::string> texts;
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_LAN_NET_WRITE, i, &call) == 0;
       ++i) {
    if (call.peer == peer && call.text != nullptr)
      texts.emplace_back(call.text, call.text_size);
  }
  return texts;
}
// The first text to `texts` that holds needle, or "".
inline std::string Find(const std::vector<std::string>& texts,
                        const std::string& needle) {
  for (const std::string& text : texts)
    if (text.find(needle) != std::string::npos) return text;
  return "";
}
// Data frames of packet type `type` sent to LAN peer `peer`.
inline size_t LanFrames(uint16_t peer, uint16_t type) {
  size_t n = 0;
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_LAN_NET_WRITE, i, &call) == 0;
       ++i) {
    n += call.peer == peer && call.header.nPacketType == type;
  }
  return n;
}

// Peer `peer` asks for cam.1 through a net hop under AS code 200; returns
// the pipe that the SessionCreate it is sent names.
inline uint32_t RequestFrom(uint16_t peer, const std::string& sid) {
  FromPeer(peer, 200,
           "MainCmd=QV_RES_REQ;sidN=" + sid +
               ";AsCode=200;user=R;ftN0=cam.1;ftN1=net.;ftN2=sink.1;");
  std::string create;
  EXPECT_TRUE(WaitFor([&] {
    create = Find(LanTexts(peer), "sidN=" + sid + ";");
    return create.find("SessionCreate") != std::string::npos;
  }));
  return static_cast<uint32_t>(std::stoul(Key(create, "FD0")));
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
    EXPECT_EQ(Opens(), static_cast<size_t>(Closes()));
    if (HasFailure() && std::getenv("ARBOR_TEST_LOG") != nullptr)
      std::fputs(log_.Dump().c_str(), stderr);
  }
  LogCapture log_{3};
};

}  // namespace rsc_test

#endif  // ARBOR_TESTS_RSC_RSC_FIXTURE_H
