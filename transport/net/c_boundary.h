// c_boundary.h - what every extern "C" function of libarbor-net does at the
// boundary: no exception may cross it.
#ifndef ARBOR_NET_C_BOUNDARY_H
#define ARBOR_NET_C_BOUNDARY_H

#include <cstdint>
#include <exception>

#include "arbor/support.h"

namespace arbor::net {

// Runs body and returns its result; anything thrown inside (out of memory)
// becomes -1 with a level-0 line naming where.
template <typename Body>
int32_t guarded(const char* where, Body body) {
  try {
    return body();
  } catch (const std::exception& e) {
    ARBOR_LOG(0, "%s: %s", where, e.what());
  } catch (...) {
    ARBOR_LOG(0, "%s: unknown exception", where);
  }
  return -1;
}

}  // namespace arbor::net

#endif  // ARBOR_NET_C_BOUNDARY_H
