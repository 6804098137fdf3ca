/*
 * init/link.h - the two transport callbacks, which the engine hands to the
 * transport itself, and the test seam of the sign-in time-out.
 */
#ifndef ARBOR_SRC_INIT_LINK_H
#define ARBOR_SRC_INIT_LINK_H

#include <cstdint>

// What the WAN side of the transport reports: a status or a control frame
// on pipe 0, a session's data on any other pipe. Transport thread.
void on_wan_callback(uint32_t pipe, uint32_t type, uint32_t size,
                     const void* data);

// What the LAN side reports: a peer's link status, a control text under an
// AS code (pipe below 1024), or a session's data. Transport thread.
void on_lan_callback(uint32_t from, uint32_t pipe, uint32_t type,
                     uint32_t size, const void* data);

// Test seam: the delay of the sign-in time-out, 180000 ms unless changed.
// Applies to attempts that begin after the call. The engine never calls it.
void sys_test_set_login_timeout(uint32_t ms);

#endif  // ARBOR_SRC_INIT_LINK_H
