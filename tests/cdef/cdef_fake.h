// A fake driver for the class tests: records whose Retrieve texts the test
// sets per class, a DoEvent that records its calls, and a SetCallback that
// keeps the callback it is given.
#ifndef ARBOR_TESTS_CDEF_CDEF_FAKE_H
#define ARBOR_TESTS_CDEF_CDEF_FAKE_H

#include <string>
#include <vector>

#include "arbor/cdef.h"

namespace cdef_fake {

inline const char* lists[10];  // Retrieve of class i returns lists[i]
inline DeviceCallback given_callback = nullptr;
inline std::vector<int> set_callback_order;  // class numbers, in call order

// text: the pointer the driver was given; copy: what it pointed to.
struct DoEventCall { std::string name; int32_t xfd; const char* text; std::string copy; };
inline std::vector<DoEventCall> do_events;

// Class I, ready to register.
template <int I>
cdef Make() {
  cdef cls{};
  cls.SetCallback = [](DeviceCallback callback) -> int32_t {
    given_callback = callback;
    set_callback_order.push_back(I);
    return 0;
  };
  cls.Retrieve = [] { return lists[I]; };
  cls.GetObjectInfo = [] { return "Type=fake;"; };
  cls.DoEvent = [](const char* name, int32_t xfd, const char* text) -> int32_t {
    do_events.push_back({name, xfd, text, text});
    return 0;
  };
  return cls;
}
inline cdef classes[10] = {Make<0>(), Make<1>(), Make<2>(), Make<3>(), Make<4>(),
                           Make<5>(), Make<6>(), Make<7>(), Make<8>(), Make<9>()};

}  // namespace cdef_fake

#endif  // ARBOR_TESTS_CDEF_CDEF_FAKE_H
