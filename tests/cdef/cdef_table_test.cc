// Tests of the class table: registration order and growth, lookup by name,
// and the terminated-copy rule of cdef_res_control. Each case runs in a
// process of its own, so the table starts empty.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "arbor/device_class.h"
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
  for (int i = 0; i < 9; ++i) EXPECT_EQ(cdef_class_at(i), &classes[i]);
  EXPECT_EQ(cdef_fake::given_callback, &local_device_callback);
}

TEST_F(ClassTable, FirstRegisteredSubstringMatchWinsAndStaysAfterUnregister) {
  lists[1] = "cam0.video.hd,cam0.audio";
  lists[2] = "cam0.video";
  for (int i = 0; i < 3; ++i) SysRegisterDev(&classes[i]);
  EXPECT_EQ(cdef_find_by_fullname("cam0.video"), &classes[1]);
  EXPECT_EQ(cdef_find_by_fullname("cam1"), nullptr);
  EXPECT_EQ(SysUnregisterDev(&classes[1]), &classes[1]);
  EXPECT_EQ(cdef_find_by_fullname("cam0.video"), &classes[1]);
  EXPECT_EQ(cdef_find_by_fullname(""), nullptr);
}

TEST_F(ClassTable, ResControlGivesDriverATerminatedText) {
  lists[0] = "cam0.ptz";
  SysRegisterDev(&classes[0]);
  // Not terminated inside its size: the driver gets a copy.
  const char unterminated[] = "ftN=cam0.ptz;FD=7;cmd=left;garbage";
  cdef_res_control(0, unterminated, std::strlen("ftN=cam0.ptz;FD=7;cmd=left;"));
  // Terminated: the text itself.
  const char terminated[] = "ftN=cam0.ptz;FD=8;";
  cdef_res_control(0, terminated, sizeof terminated);
  // Unknown resource or undecodable text: ignored.
  cdef_res_control(0, "ftN=cam9;FD=1;", 15);
  cdef_res_control(0, "ftN", 3);

  const auto& calls = cdef_fake::do_events;
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_NE(calls[0].text, unterminated);
  EXPECT_EQ(calls[0].copy, "ftN=cam0.ptz;FD=7;cmd=left;");
  EXPECT_EQ(calls[1].text, terminated);
}
