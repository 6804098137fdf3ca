// A fake driver for the class tests: records whose Retrieve texts the test
// sets per class, a DoEvent that records its calls, and a SetCallback that
// keeps the callback it is given.
#ifndef ARBOR_TESTS_CDEF_CDEF_FAKE_H
#define ARBOR_TESTS_CDEF_CDEF_FAKE_H

#include <string>
#include <vector>

#include "arbor/cdef.h"

namespace cdef_fake {

constexpr int kClasses = 10;

// Retrieve of class i returns lists[i] (null: none).
inline const char* lists[kClasses];
inline DeviceCallback given_callback = nullptr;
inline std::vector<int> set_callback_order;  // class numbers, in call order

struct DoEventCall {
  std::string name;
  int32_t xfd;
  const char* text;  // the pointer the driver was given
  std::string copy;  // what it pointed to
};
inline std::vector<DoEventCall> do_events;

template <int I>
const char* Retrieve() {
  return lists[I];
}
inline const char* Info() { return "Type=fake;"; }
inline int32_t DoEvent(const char* name, int32_t xfd, const char* text) {
  do_events.push_back({name, xfd, text, text});
  return 0;
}

template <int I>
int32_t SetCallback(DeviceCallback callback) {
  given_callback = callback;
  set_callback_order.push_back(I);
  return 0;
}

template <int I>
cdef Make() {
  cdef cls{};
  cls.SetCallback = SetCallback<I>;
  cls.Retrieve = Retrieve<I>;
  cls.GetObjectInfo = Info;
  cls.DoEvent = DoEvent;
  return cls;
}

// classes[i] is class I, ready to register.
inline cdef classes[kClasses] = {Make<0>(), Make<1>(), Make<2>(), Make<3>(),
                                 Make<4>(), Make<5>(), Make<6>(), Make<7>(),
                                 Make<8>(), Make<9>()};

}  // namespace cdef_fake

#endif  // ARBOR_TESTS_CDEF_CDEF_FAKE_H
