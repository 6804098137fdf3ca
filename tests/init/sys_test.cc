// Start and stop of the library: the order of the steps, what the transport
// sees, the flush of pending timed jobs, the host callback and the host's
// subscriptions.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "arbor/asc.h"
#include "arbor/rsevents.h"
#include "arbor/sys.h"
#include "arbor/timedq.h"
#include "init/sys_state.h"
#include "rsevents/evt_internal.h"
#include "test_helpers.h"

namespace {

using Fns = std::vector<scripted_fn>;
Fns TransportCalls() {
  Fns calls;
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_ANY, i, &call) == 0; ++i)
    calls.push_back(call.fn);
  return calls;
}

int32_t local_service_calls = 0;
int32_t LocalService(uint32_t, uint32_t, const char*) {
  ++local_service_calls;
  return 0;
}

// A flushed job still finds the service tables in place.
int32_t flushed_elapsed = 0;
int32_t services_seen_by_flushed_job = 0;
void RecordElapsed(int32_t elapsed, uintptr_t, int32_t, char**) {
  flushed_elapsed = elapsed;
  evt_local_asc(500, "x", 2);
  services_seen_by_flushed_job = local_service_calls;
}

void Nothing(int32_t, uintptr_t, int32_t, char**) {}
constexpr const char* kEnd = nullptr;

std::vector<int32_t> host_codes;
void RecordHostCode(int32_t code, const char*, int32_t) {
  host_codes.push_back(code);
}

TEST(Lifecycle, StartOpensTransportStopClosesItInOrderHostCallbackOptional) {
  EXPECT_EQ(SysInit(nullptr), 0);
  sys_notify_host(ARBOR_HOST_LINK_UP, nullptr, 0);  // dropped, no crash
  EXPECT_EQ(SysExit(), 0);
  EXPECT_EQ(timedq_, nullptr);
  EXPECT_EQ(TransportCalls(), (Fns{SCRIPTED_NET_OPEN, SCRIPTED_NET_CLOSE}));
  // With LAN on, the stop turns it off before closing the transport.
  SysInit(RecordHostCode);
  sys_notify_host(ARBOR_HOST_LINK_UP, nullptr, 0);
  sys_.lan_state = 0;  // as a successful InitLAN leaves it
  SysExit();
  EXPECT_EQ(host_codes, std::vector<int32_t>{ARBOR_HOST_LINK_UP});
  EXPECT_EQ(sys_.lan_state.load(), -1);
  EXPECT_EQ(TransportCalls(),
            (Fns{SCRIPTED_NET_OPEN, SCRIPTED_NET_CLOSE, SCRIPTED_NET_OPEN,
                 SCRIPTED_UNINIT_LAN, SCRIPTED_NET_CLOSE}));
}

TEST(Lifecycle, PendingTimedJobRunsFlushedAtStop) {
  SysInit(nullptr);
  SysRegistASLan(500, nullptr, reinterpret_cast<AsHandler>(LocalService));
  ASSERT_NE(tq_post(timedq_, 30000, RecordElapsed, 0, 0, nullptr), nullptr);
  SysExit();
  EXPECT_EQ(flushed_elapsed, 1);
  EXPECT_EQ(services_seen_by_flushed_job, 1);
}

TEST(Lifecycle, VersionFieldsKeep31CharactersWholeAndSurviveStart) {
  const std::string v31(31, 'v'), u32(32, 'u');
  SysVer(v31.c_str(), u32.c_str());
  SysInit(nullptr);
  EXPECT_STREQ(sys_.verNum, v31.c_str());
  // 32 characters fill the field and lose the terminator.
  EXPECT_EQ(std::memcmp(sys_.userType, u32.data(), 32), 0);
  SysVer("1.0", nullptr);
  EXPECT_STREQ(sys_.verNum, "1.0");
  EXPECT_EQ(sys_.userType[0], '\0');
  SysExit();
}

TEST(HostSubscribe, RefusesBadArgumentsSilentlySubscribesFromCopiedStrings) {
  EXPECT_EQ(SysSubscribe(100, "a", "x", 0, nullptr), 0);  // not running
  SysInit(nullptr);
  LogCapture log(3);
  EXPECT_EQ(SysSubscribe(0, "a", "x", 0, nullptr), 0);
  EXPECT_EQ(SysSubscribe(100, "a", nullptr, 0, nullptr), 0);
  EXPECT_EQ(SysUnsubscribe(100, "a", nullptr, 0), 0);
  EXPECT_EQ(log.Count(), 0u);
  char resource[] = "cam.front", event[] = "motion";
  ASSERT_EQ(SysSubscribe(100, resource, event, 7, "note"), 1);
  std::strcpy(resource, "xxx.yyyyy");
  std::strcpy(event, "zzzzzz");
  // A job sent behind the subscription returns once the worker got past it.
  ASSERT_NE(tq_send(timedq_, 0, Nothing, 0, kEnd), nullptr);
  EventSlot* slot = RsSubscribeEvent(0, 100, "cam.front", "motion", nullptr,
                                     nullptr);
  ASSERT_NE(slot, nullptr);
  EXPECT_EQ(slot->nsubs, 1u);  // the host's, not a second one
  EXPECT_EQ(SysUnsubscribe(100, "cam.front", "motion", 7), 1);
  SysExit();
}

}  // namespace
