// Tests of the class table: registration order and growth (and the refusal
// when growth fails), lookup by name with its tie and null rules, and the
// terminated-copy rule of cdef_res_control.
// Each case runs in a process of its own, so the table starts empty.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "arbor/device_class.h"
#include "arbor/forest.h"
#include "cdef/cdef_internal.h"
#include "cdef/cdef_fake.h"

using cdef_fake::classes;
using cdef_fake::lists;

namespace {

class ClassTable : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(cdef_init("dev"), 0); }
  void TearDown() override {
    EXPECT_EQ(cdef_uninit(), 0);
    EXPECT_EQ(cdef_class_count(), 0u);
  }
};

}  // namespace

// A record without a required slot is refused; so is a class the array
// cannot grow for. Neither leaves an entry.
TEST_F(ClassTable, RefusedClassesLeaveNoEntryAndEarlierPositionsStay) {
  cdef broken = classes[0];
  broken.Retrieve = nullptr;
  SysRegisterDev(&broken);
  SysRegisterDev(nullptr);
  // One allocation allowed: the first class takes 8 entries, the next seven
  // need none, the ninth needs the next 8 and is refused.
  cdef_test_fail_allocs(1);
  for (int i = 0; i < 9; ++i) SysRegisterDev(&classes[i]);
  EXPECT_EQ(cdef_class_count(), 8u) << "refused class must leave no entry";
  EXPECT_EQ(cdef_fake::set_callback_order.size(), 8u);
  cdef_test_fail_allocs(-1);
  SysRegisterDev(&classes[8]);
  ASSERT_EQ(cdef_class_count(), 9u);
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(cdef_class_at(i), &classes[i]);
    EXPECT_EQ(cdef_fake::set_callback_order[i], i);
  }
  EXPECT_EQ(cdef_fake::given_callback, &local_device_callback);
}

TEST_F(ClassTable, FirstRegisteredSubstringMatchWinsAndStaysAfterUnregister) {
  lists[0] = nullptr;
  lists[1] = "cam0.video.hd,cam0.audio";
  lists[2] = "cam0.video";
  SysRegisterDev(&classes[0]);
  SysRegisterDev(&classes[1]);
  SysRegisterDev(&classes[2]);
  EXPECT_EQ(cdef_find_by_fullname("cam0.video"), &classes[1]);
  EXPECT_EQ(cdef_find_by_fullname("audio"), &classes[1]);
  EXPECT_EQ(cdef_find_by_fullname("cam1"), nullptr);
  EXPECT_EQ(SysUnregisterDev(&classes[1]), &classes[1]);
  EXPECT_EQ(cdef_find_by_fullname("cam0.video"), &classes[1]);
  EXPECT_EQ(cdef_find_by_fullname(""), nullptr);
  EXPECT_EQ(cdef_find_by_fullname(nullptr), nullptr);
}

TEST_F(ClassTable, ResControlGivesDriverATerminatedTextAlsoAsACommand) {
  lists[0] = "cam0.ptz";
  SysRegisterDev(&classes[0]);
  // Not terminated inside its size: the driver gets a copy.
  const char unterminated[] = "ftN=cam0.ptz;FD=7;cmd=left;garbage";
  const uint32_t size = std::strlen("ftN=cam0.ptz;FD=7;cmd=left;");
  cdef_res_control(0, unterminated, size);
  // Terminated: the text itself.
  const char terminated[] = "ftN=cam0.ptz;FD=8;";
  cdef_res_control(0, terminated, sizeof terminated);
  // Unknown resource, missing ftN, undecodable text, empty ftN: ignored.
  const char unknown[] = "ftN=cam9;FD=1;";
  cdef_res_control(0, unknown, sizeof unknown);
  cdef_res_control(0, "FD=1;", 5);
  cdef_res_control(0, "ftN", 3);
  cdef_res_control(0, "ftN=;", 5);

  const auto& calls = cdef_fake::do_events;
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].name, "cam0.ptz");
  EXPECT_EQ(calls[0].xfd, 7);
  EXPECT_NE(calls[0].text, unterminated);
  EXPECT_EQ(calls[0].copy, "ftN=cam0.ptz;FD=7;cmd=left;");
  EXPECT_EQ(calls[1].xfd, 8);
  EXPECT_EQ(calls[1].text, terminated);

  // As a command: the queue's copy reaches the driver on the consumer, and
  // the caller's buffer may change at once.
  device_initialize();
  device_start();
  char text[] = "ftN=cam0.ptz;FD=9;cmd=zoom;";
  ASSERT_NE(cmdq_push("cdef_res_control", cdef_res_control, 0, text,
                      sizeof text),
            nullptr);
  std::memset(text, 'x', sizeof text - 1);
  device_stop();  // returns once the queue has drained
  device_exit();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[2].xfd, 9);
  EXPECT_EQ(calls[2].copy, "ftN=cam0.ptz;FD=9;cmd=zoom;");
  EXPECT_EQ(cached_size_inc(0), 0u);
}
