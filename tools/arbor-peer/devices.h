// devices.h - the devices an arbor-peer process offers, each under the
// name its command line gave.
//
// A sample driver names its own resources (demo.source, demo.sink, ...),
// while a chain on the command line names devices by what the user called
// them ("test", "video"). So each device is registered with the engine as a
// class of its own, a named device: a cdef whose Retrieve is that one name
// and whose slots pass every call to the driver's own class, with the
// driver's own resource name and, when the chain gives none, the device's
// default option. The driver's callback comes back through the named
// device whose descriptor it names, so media that a driver pushes reaches
// the tree that opened it.
//
// A named device also counts what its Write slot took (chunks and bytes)
// and, for streams that begin with a demo_chunk_header, the gaps in the
// sequence and the latency from the stamp: dial reads those counters.
//
// Threads: Add and RegisterAll on the main thread (RegisterAll after
// SysInit); the slots on the engine's threads; the counters from any
// thread. Registered devices live as long as the process (the engine keeps
// their records).
#ifndef ARBOR_TOOLS_PEER_DEVICES_H
#define ARBOR_TOOLS_PEER_DEVICES_H

#include <cstdint>
#include <string>
#include <vector>

#include "arbor/cdef.h"
#include "options.h"

namespace arbor_peer {

// What a named device's Write slot took, since the process started.
struct SinkCounters {
  uint64_t chunks = 0;
  uint64_t bytes = 0;
  uint64_t stamped = 0;       // chunks that carried a sequence stamp
  uint64_t gaps = 0;          // stamped chunks missing before one that came
  uint64_t out_of_order = 0;  // stamped chunks older than one already seen
  uint64_t latency_sum_ns = 0;
  uint64_t latency_max_ns = 0;
  uint64_t first_ns = 0;  // CLOCK_MONOTONIC when the first chunk was taken; 0: none yet
  uint64_t last_ns = 0;   // ... and the last one
  uint32_t opens = 0;
  uint32_t closes = 0;
};

// The kinds this build offers for role, e.g. "demo, null, file".
std::string KindsFor(Role role);

// Checks spec against what this build offers and keeps it for
// RegisterAll. false with *error (one line) for a kind the role lacks, a
// bad argument, a name taken, or more than kMaxDevices devices.
bool AddDevice(const DeviceSpec& spec, std::string* error);

// Registers every device added so far with the engine (SysRegisterDev).
// Call once, after SysInit.
void RegisterAll();

// The devices added, in order.
const std::vector<DeviceSpec>& Devices();

// The added device called name, or null.
const DeviceSpec* FindDevice(const std::string& name);

// Whether the named source stamps its chunks (demo sources do).
bool SourceStamps(const DeviceSpec& spec);

// Makes the Write slot of the named device read a demo_chunk_header at the
// start of each chunk (sequence gaps, latency). Off by default.
void CheckStamps(const std::string& name, bool on);

// Counters of the named device; zeros for an unknown name.
SinkCounters Counters(const std::string& name);

// The record the engine sees for the named device, or null: for tests,
// which call its slots as the engine would.
const cdef* DeviceRecord(const std::string& name);

// Descriptors of all named devices now open (Open without its Close).
uint32_t OpenDevices();

}  // namespace arbor_peer

#endif  // ARBOR_TOOLS_PEER_DEVICES_H
