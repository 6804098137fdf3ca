// Start and stop of the library: the order of the steps, what the transport
// sees, the flush of pending timed jobs, the host callback and the host's
// subscriptions.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "arbor/rsevents.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "arbor/timedq.h"
#include "init/sys_state.h"
#include "rsevents/evt_internal.h"
#include "scripted_transport.h"

namespace {

// Collects log lines of the given level and below.
class LogCapture {
 public:
  explicit LogCapture(int level) : previous_(LOG_SetLevel(level)) {
    LOG_SetSink(&LogCapture::Sink, this);
  }
  ~LogCapture() {
    LOG_SetSink(nullptr, nullptr);
    LOG_SetLevel(previous_);
  }
  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> hold(mutex_);
    return lines_;
  }
  // Index of the first line containing text, or -1.
  int Find(const std::string& text) {
    auto lines = Lines();
    for (size_t i = 0; i < lines.size(); ++i)
      if (lines[i].find(text) != std::string::npos) return static_cast<int>(i);
    return -1;
  }

 private:
  static void Sink(void* self, int, const char* line, size_t length) {
    auto* capture = static_cast<LogCapture*>(self);
    std::lock_guard<std::mutex> hold(capture->mutex_);
    capture->lines_.emplace_back(line, length);
  }
  int previous_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

std::vector<scripted_fn> TransportCalls() {
  std::vector<scripted_fn> calls;
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_ANY, i, &call) == 0; ++i)
    calls.push_back(call.fn);
  return calls;
}

int32_t flushed_elapsed = 0;
void RecordElapsed(int32_t elapsed, uintptr_t, int32_t, char**) {
  flushed_elapsed = elapsed;
}

void Nothing(int32_t, uintptr_t, int32_t, char**) {}

std::vector<int32_t> host_codes;
void RecordHostCode(int32_t code, const char*, int32_t) {
  host_codes.push_back(code);
}

TEST(Lifecycle, StartOpensTransportAndStopClosesItLeavingLanAlone) {
  EXPECT_EQ(timedq_, nullptr);
  EXPECT_EQ(SysInit(nullptr), 0);
  EXPECT_NE(timedq_, nullptr);
  EXPECT_EQ(sys_.wan_state.load(), -1);
  EXPECT_EQ(sys_.lan_state.load(), -1);
  EXPECT_EQ(SysExit(), 0);
  EXPECT_EQ(timedq_, nullptr);
  EXPECT_EQ(TransportCalls(),
            (std::vector<scripted_fn>{SCRIPTED_NET_OPEN, SCRIPTED_NET_CLOSE}));
}

TEST(Lifecycle, StopWithLanOnTurnsItOffBeforeClosingTransport) {
  LogCapture log(2);
  SysInit(nullptr);
  sys_.lan_state = 0;  // as a successful InitLAN leaves it
  SysExit();
  EXPECT_EQ(sys_.lan_state.load(), -1);
  EXPECT_EQ(TransportCalls(),
            (std::vector<scripted_fn>{SCRIPTED_NET_OPEN, SCRIPTED_UNINIT_LAN,
                                      SCRIPTED_NET_CLOSE}));
  int tq = log.Find("SysExit:tq_destroy");
  int lan = log.Find("SysExit:UnInitLAN");
  int close = log.Find("SysExit:NetClose");
  ASSERT_GE(tq, 0);
  EXPECT_LT(tq, lan);
  EXPECT_LT(lan, close);
}

TEST(Lifecycle, PendingTimedJobRunsFlushedAtStop) {
  SysInit(nullptr);
  ASSERT_NE(tq_post(timedq_, 30000, RecordElapsed, 0, 0, nullptr), nullptr);
  SysExit();
  EXPECT_EQ(flushed_elapsed, 1);
}

TEST(Lifecycle, HostCallbackIsOptional) {
  SysInit(nullptr);
  sys_notify_host(ARBOR_HOST_LINK_UP, nullptr, 0);  // dropped, no crash
  SysExit();

  SysInit(RecordHostCode);
  sys_notify_host(ARBOR_HOST_LINK_UP, nullptr, 0);
  SysExit();
  EXPECT_EQ(host_codes, std::vector<int32_t>{ARBOR_HOST_LINK_UP});
}

TEST(Lifecycle, VersionFieldsKeep31CharactersWholeAndSurviveStart) {
  const std::string v31(31, 'v');
  const std::string u32(32, 'u');
  SysVer(v31.c_str(), u32.c_str());
  SysInit(nullptr);
  EXPECT_STREQ(sys_.verNum, v31.c_str());
  // 32 characters fill the field and lose the terminator.
  EXPECT_EQ(std::memcmp(sys_.userType, u32.data(), 32), 0);
  SysVer("1.0", nullptr);
  EXPECT_STREQ(sys_.verNum, "1.0");
  EXPECT_EQ(sys_.verNum[31], '\0');
  EXPECT_EQ(sys_.userType[0], '\0');
  SysExit();
}

TEST(HostSubscribe, RefusesBadArgumentsSilently) {
  EXPECT_EQ(SysSubscribe(100, "a", "x", 0, nullptr), 0);  // not running
  SysInit(nullptr);
  LogCapture log(3);
  EXPECT_EQ(SysSubscribe(0, "a", "x", 0, nullptr), 0);
  EXPECT_EQ(SysSubscribe(-5, "a", "x", 0, nullptr), 0);
  EXPECT_EQ(SysSubscribe(100, nullptr, "x", 0, nullptr), 0);
  EXPECT_EQ(SysSubscribe(100, "a", nullptr, 0, nullptr), 0);
  EXPECT_EQ(SysUnsubscribe(0, "a", "x", 0), 0);
  EXPECT_EQ(SysUnsubscribe(100, "a", nullptr, 0), 0);
  EXPECT_TRUE(log.Lines().empty());
  SysExit();
}

TEST(HostSubscribe, SubscribesOnWorkerFromCopiedStrings) {
  SysInit(nullptr);
  char resource[] = "cam.front";
  char event[] = "motion";
  ASSERT_EQ(SysSubscribe(100, resource, event, 7, "note"), 1);
  std::strcpy(resource, "xxx.yyyyy");
  std::strcpy(event, "zzzzzz");
  // A job sent behind the subscription returns once the worker got past it.
  ASSERT_NE(tq_send(timedq_, 0, Nothing, 0, static_cast<const char*>(nullptr)),
            nullptr);
  EventSlot* slot = RsSubscribeEvent(0, 100, "cam.front", "motion", nullptr,
                                     nullptr);
  ASSERT_NE(slot, nullptr);
  ASSERT_EQ(slot->nsubs, 1u);  // the host's, not a second one
  EXPECT_EQ(slot->subs[0].uid, 0u);
  EXPECT_EQ(slot->subs[0].asc, 100);
  EXPECT_EQ(SysUnsubscribe(100, "cam.front", "motion", 7), 1);
  SysExit();
}

}  // namespace
