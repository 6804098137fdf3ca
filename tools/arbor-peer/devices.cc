// devices.cc - named devices (devices.h): one cdef per device the command
// line gave, passing each slot to the sample driver behind it.
//
// The engine's slots carry no context, so each of the kMaxDevices possible
// devices has slot functions of its own, stamped out by a template over its
// index. Records stay in a static array for the life of the process.
//
// Locks: each device's mutex guards its open descriptors and its counters;
// it is never held across a call into a driver or the engine.
#include "devices.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <utility>

#include "arbor/cdef.h"
#include "arbor/device_class.h"
#include "demo_drivers.h"
#ifdef ARBOR_PEER_HAVE_SAMPLE_DRIVERS
#include "sample_drivers.h"
#endif
#ifdef ARBOR_HAVE_GST
#include "gst_bridge.h"
#endif

namespace arbor_peer {

namespace {

// Descriptors one device tracks at once; more still work, but their
// chunks are not checked for stamps and a driver's callback for them goes
// to the first device of that driver.
constexpr size_t kMaxOpenPerDevice = 8;
// demo.source's option limits (drivers/demo_source.c).
constexpr unsigned kDemoMaxRate = 100000;

uint64_t NowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

struct OpenSlot {
  int32_t xfd = 0;  // 0: free
  bool have_seq = false;
  uint64_t expected_seq = 0;
};

struct NamedDevice {
  DeviceSpec spec;
  cdef* inner = nullptr;       // the driver's class
  std::string inner_name;      // the resource name the driver knows
  std::string default_option;  // "": none
  std::string info;            // GetObjectInfo text
  bool stamps = false;         // a source whose chunks start with a stamp
  std::atomic<bool> check_stamps{false};
  cdef record{};  // what the engine sees

  std::mutex mutex;
  std::array<OpenSlot, kMaxOpenPerDevice> open{};  // guarded by mutex
  SinkCounters counters;                           // guarded by mutex
};

std::array<NamedDevice, kMaxDevices> g_devices;
std::atomic<size_t> g_count{0};
std::vector<DeviceSpec> g_specs;
std::atomic<DeviceCallback> g_engine_callback{nullptr};
std::vector<cdef*> g_inner_given_callback;  // main thread only (registration)

// "FD=<n>;" of a driver's callback text: the descriptor it speaks for, or 0.
int32_t FdOf(const char* var) {
  for (const char* p = var; (p = std::strstr(p, "FD=")) != nullptr; p += 3) {
    if (p != var && p[-1] != ';') continue;
    long value = 0;
    for (const char* d = p + 3; *d >= '0' && *d <= '9' && value < 1000000000; ++d)
      value = value * 10 + (*d - '0');
    return static_cast<int32_t>(value);
  }
  return 0;
}

bool HasOpen(NamedDevice& d, int32_t xfd) {
  std::lock_guard<std::mutex> lock(d.mutex);
  return std::any_of(d.open.begin(), d.open.end(),
                     [xfd](const OpenSlot& s) { return s.xfd == xfd; });
}

// What a driver tells the engine comes back here; it goes on as if the
// named device that opened the descriptor had said it.
void InnerCallback(const cdef* cls, const char* var, const void* data, uint32_t size) {
  const DeviceCallback engine = g_engine_callback.load();
  if (engine == nullptr || cls == nullptr || var == nullptr) return;
  const int32_t fd = FdOf(var);
  NamedDevice* target = nullptr;
  const size_t count = g_count.load();
  for (size_t i = 0; i < count; ++i) {
    NamedDevice& d = g_devices[i];
    if (d.inner != cls) continue;
    if (target == nullptr) target = &d;
    if (fd > 0 && HasOpen(d, fd)) {
      target = &d;
      break;
    }
  }
  if (target != nullptr) engine(&target->record, var, data, size);
}

// ------------------------------------------------------------- The slots

int32_t DeviceSetCallback(DeviceCallback callback) {
  g_engine_callback.store(callback);
  return 0;
}

int32_t DeviceOpen(NamedDevice& d, const char* option, uint32_t* threading) {
  const char* use = option != nullptr && *option != '\0' ? option
                    : d.default_option.empty()           ? nullptr
                                                         : d.default_option.c_str();
  const int32_t xfd = d.inner->Open(d.inner_name.c_str(), use, threading);
  if (xfd <= 0) return xfd;
  std::lock_guard<std::mutex> lock(d.mutex);
  ++d.counters.opens;
  for (OpenSlot& slot : d.open) {
    if (slot.xfd != 0) continue;
    slot = OpenSlot{};
    slot.xfd = xfd;
    break;
  }
  return xfd;
}

int32_t DeviceClose(NamedDevice& d, int32_t xfd) {
  const int32_t result = d.inner->Close != nullptr ? d.inner->Close(xfd) : 0;
  std::lock_guard<std::mutex> lock(d.mutex);
  for (OpenSlot& slot : d.open) {
    if (slot.xfd != xfd || xfd == 0) continue;
    slot.xfd = 0;
    ++d.counters.closes;
    return result;
  }
  // An untracked descriptor (more than kMaxOpenPerDevice were open).
  ++d.counters.closes;
  return result;
}

int32_t DeviceDoEvent(NamedDevice& d, int32_t xfd, const char* text) {
  return d.inner->DoEvent(d.inner_name.c_str(), xfd, text);
}

// Counts what the driver took; with stamps checked, reads the sequence and
// the time the source made the chunk (one clock: both peers on one host).
int32_t DeviceWrite(NamedDevice& d, int32_t xfd, const void* data, uint32_t size,
                    uint32_t flags) {
  const int32_t taken = d.inner->Write(xfd, data, size, flags);
  if (taken < 0) return taken;
  const bool check = d.check_stamps.load(std::memory_order_relaxed);
  const uint64_t now = NowNs();
  std::lock_guard<std::mutex> lock(d.mutex);
  SinkCounters& c = d.counters;
  ++c.chunks;
  c.bytes += size;
  if (c.first_ns == 0) c.first_ns = now;
  c.last_ns = now;
  if (!check || data == nullptr || size < sizeof(demo_chunk_header)) return taken;
  demo_chunk_header head{};
  std::memcpy(&head, data, sizeof head);
  ++c.stamped;
  auto slot = std::find_if(d.open.begin(), d.open.end(),
                           [xfd](const OpenSlot& s) { return s.xfd == xfd; });
  if (slot != d.open.end()) {
    if (slot->have_seq && head.seq > slot->expected_seq)
      c.gaps += head.seq - slot->expected_seq;
    else if (slot->have_seq && head.seq < slot->expected_seq)
      ++c.out_of_order;
    if (!slot->have_seq || head.seq >= slot->expected_seq) slot->expected_seq = head.seq + 1;
    slot->have_seq = true;
  }
  if (now >= head.made_ns) {
    const uint64_t latency = now - head.made_ns;
    c.latency_sum_ns += latency;
    c.latency_max_ns = std::max(c.latency_max_ns, latency);
  }
  return taken;
}

template <size_t I>
struct Slots {
  static int32_t SetCallback(DeviceCallback callback) { return DeviceSetCallback(callback); }
  static const char* Retrieve() { return g_devices[I].spec.name.c_str(); }
  static const char* ObjectInfo() { return g_devices[I].info.c_str(); }
  static int32_t Open(const char*, const char* option, uint32_t* threading) {
    return DeviceOpen(g_devices[I], option, threading);
  }
  static int32_t Close(int32_t xfd) { return DeviceClose(g_devices[I], xfd); }
  static int32_t DoEvent(const char*, int32_t xfd, const char* text) {
    return DeviceDoEvent(g_devices[I], xfd, text);
  }
  static int32_t Write(int32_t xfd, const void* data, uint32_t size, uint32_t flags) {
    return DeviceWrite(g_devices[I], xfd, data, size, flags);
  }
  static int32_t Read(int32_t xfd, void* buffer, uint32_t size, uint32_t* flags) {
    return g_devices[I].inner->Read(xfd, buffer, size, flags);
  }
  static int32_t Convert(int32_t xfd, const void* in, uint32_t* in_size, void* out,
                         uint32_t* out_size, uint32_t* flags) {
    return g_devices[I].inner->Convert(xfd, in, in_size, out, out_size, flags);
  }
  // Slots the driver lacks stay null, so the engine treats the named device
  // exactly as it would treat the driver.
  static cdef Record(const cdef& inner) {
    return cdef{
        .Reserved = nullptr,
        .SetCallback = SetCallback,
        .Retrieve = Retrieve,
        .GetObjectInfo = ObjectInfo,
        .Open = inner.Open != nullptr ? Open : nullptr,
        .Close = inner.Close != nullptr ? Close : nullptr,
        .DoEvent = inner.DoEvent != nullptr ? DoEvent : nullptr,
        .Write = inner.Write != nullptr ? Write : nullptr,
        .Read = inner.Read != nullptr ? Read : nullptr,
        .Convert = inner.Convert != nullptr ? Convert : nullptr,
    };
  }
};

using RecordMaker = cdef (*)(const cdef&);

template <size_t... I>
constexpr std::array<RecordMaker, sizeof...(I)> MakeRecordMakers(std::index_sequence<I...>) {
  return {&Slots<I>::Record...};
}

constexpr auto kRecordMakers = MakeRecordMakers(std::make_index_sequence<kMaxDevices>{});

// --------------------------------------------------------------- Kinds

bool Fail(std::string* error, std::string text) {
  *error = std::move(text);
  return false;
}

// "<rate>/<bytes>" within demo.source's limits.
bool DemoRateValid(const std::string& arg) {
  unsigned rate = 0, bytes = 0;
  char extra = 0;
  return std::sscanf(arg.c_str(), "%u/%u%c", &rate, &bytes, &extra) == 2 && rate >= 1 &&
         rate <= kDemoMaxRate && bytes >= sizeof(demo_chunk_header) && bytes <= DEMO_MAX_CHUNK;
}

#ifdef ARBOR_HAVE_GST
void GstInitOnce() {
  static std::once_flag once;
  std::call_once(once, [] { gst_bridge_init(); });
}
#endif

// Fills d's driver side for spec, or says why it cannot.
bool Resolve(const DeviceSpec& spec, NamedDevice& d, std::string* error) {
  const std::string what = std::string("--") + RoleName(spec.role) + " " + spec.name + "=" +
                           spec.kind + (spec.arg.empty() ? "" : ":" + spec.arg);
  const std::string& k = spec.kind;
  if (spec.role == Role::kSource && k == "demo") {
    if (!spec.arg.empty() && !DemoRateValid(spec.arg))
      return Fail(error, what + ": the demo source takes <chunks-per-second>/<bytes>, 1..100000 "
                                "and 16.." + std::to_string(DEMO_MAX_CHUNK) + ", e.g. 200/1024");
    d.inner = demo_source_class();
    d.inner_name = "demo.source";
    d.default_option = spec.arg;
    d.stamps = true;
    return true;
  }
  if (spec.role == Role::kSink && k == "demo") {
    d.inner = demo_sink_class();
    d.inner_name = "demo.sink";
    d.default_option = spec.arg.empty() ? "/dev/null" : spec.arg;
    return true;
  }
  if (spec.role == Role::kSink && k == "null") {
    if (!spec.arg.empty()) return Fail(error, what + ": the null sink takes no argument");
#ifdef ARBOR_PEER_HAVE_SAMPLE_DRIVERS
    d.inner = null_sink_class();
    d.inner_name = "null.sink";
#else
    d.inner = demo_sink_class();
    d.inner_name = "demo.sink";
    d.default_option = "/dev/null";
#endif
    return true;
  }
  if (k == "file" && spec.role != Role::kTransform) {
    if (spec.arg.empty())
      return Fail(error, what + ": give the file after a ':', e.g. file:/tmp/out.bin");
#ifdef ARBOR_PEER_HAVE_SAMPLE_DRIVERS
    d.inner = spec.role == Role::kSource ? file_source_class() : file_sink_class();
    d.inner_name =
        spec.role == Role::kSource ? "file.source" : "file.sink";
    d.default_option = spec.arg;
    return true;
#else
    if (spec.role == Role::kSink) {  // demo.sink writes every chunk to its file
      d.inner = demo_sink_class();
      d.inner_name = "demo.sink";
      d.default_option = spec.arg;
      return true;
    }
#endif
  }
  if (k == "gst") {
#ifdef ARBOR_HAVE_GST
    if (spec.arg.empty())
      return Fail(error, what + ": give the pipeline after a ':', e.g. gst:\"videotestsrc ! ... ! "
                                "appsink name=arbor\"");
    GstInitOnce();
    int added = -1;
    switch (spec.role) {
      case Role::kSource:
        added = gst_bridge_add_source(spec.name.c_str(), spec.arg.c_str());
        d.inner = gst_source_class();
        break;
      case Role::kSink:
        added = gst_bridge_add_sink(spec.name.c_str(), spec.arg.c_str());
        d.inner = gst_sink_class();
        break;
      case Role::kTransform:
        added = gst_bridge_add_transform(spec.name.c_str(), spec.arg.c_str());
        d.inner = gst_transform_class();
        break;
    }
    if (added < 0)
      return Fail(error, what + ": the GStreamer bridge refused the pipeline; check it with "
                                "gst-launch-1.0, and name its app element \"arbor\"");
    d.inner_name = spec.name;
    return true;
#else
    return Fail(error, what + ": this arbor-peer was built without GStreamer; install the "
                              "packages of scripts/setup.sh and build again");
#endif
  }
  return Fail(error, what + ": no " + RoleName(spec.role) + " of kind \"" + k +
                         "\"; kinds here: " + KindsFor(spec.role));
}

}  // namespace

std::string KindsFor(Role role) {
  std::vector<std::string> kinds;
  switch (role) {
    case Role::kSource:
      kinds = {"demo"};
#ifdef ARBOR_PEER_HAVE_SAMPLE_DRIVERS
      kinds.push_back("file");
#endif
      break;
    case Role::kSink:
      kinds = {"null", "file", "demo"};
      break;
    case Role::kTransform:
      break;
  }
#ifdef ARBOR_HAVE_GST
  kinds.push_back("gst");
#endif
  std::string text;
  for (const std::string& k : kinds) text += (text.empty() ? "" : ", ") + k;
  return text.empty() ? "none" : text;
}

bool AddDevice(const DeviceSpec& spec, std::string* error) {
  const size_t n = g_count.load();
  if (n >= kMaxDevices)
    return Fail(error, "too many devices: at most " + std::to_string(kMaxDevices) + " per process");
  std::vector<DeviceSpec> all = g_specs;
  all.push_back(spec);
  if (!NamesDistinct(all, error)) return false;
  NamedDevice& d = g_devices[n];
  d.spec = spec;
  if (!Resolve(spec, d, error)) {
    d.inner = nullptr;
    return false;
  }
  d.info = "Type=" + spec.kind + ";Role=" + RoleName(spec.role) + ";";
  d.record = kRecordMakers[n](*d.inner);
  g_specs.push_back(spec);
  g_count.store(n + 1);
  return true;
}

void RegisterAll() {
  const size_t count = g_count.load();
  for (size_t i = 0; i < count; ++i) {
    NamedDevice& d = g_devices[i];
    // The driver hears its callback once, whichever of its devices comes
    // first; InnerCallback sorts what it says by descriptor.
    if (std::find(g_inner_given_callback.begin(), g_inner_given_callback.end(), d.inner) ==
        g_inner_given_callback.end()) {
      g_inner_given_callback.push_back(d.inner);
      d.inner->SetCallback(InnerCallback);
    }
    SysRegisterDev(&d.record);
  }
}

const std::vector<DeviceSpec>& Devices() { return g_specs; }

const DeviceSpec* FindDevice(const std::string& name) {
  for (const DeviceSpec& spec : g_specs)
    if (spec.name == name) return &spec;
  return nullptr;
}

bool SourceStamps(const DeviceSpec& spec) {
  return spec.role == Role::kSource && spec.kind == "demo";
}

void CheckStamps(const std::string& name, bool on) {
  const size_t count = g_count.load();
  for (size_t i = 0; i < count; ++i)
    if (g_devices[i].spec.name == name) g_devices[i].check_stamps.store(on);
}

SinkCounters Counters(const std::string& name) {
  const size_t count = g_count.load();
  for (size_t i = 0; i < count; ++i) {
    NamedDevice& d = g_devices[i];
    if (d.spec.name != name) continue;
    std::lock_guard<std::mutex> lock(d.mutex);
    return d.counters;
  }
  return {};
}

const cdef* DeviceRecord(const std::string& name) {
  const size_t count = g_count.load();
  for (size_t i = 0; i < count; ++i)
    if (g_devices[i].spec.name == name) return &g_devices[i].record;
  return nullptr;
}

uint32_t OpenDevices() {
  uint32_t open = 0;
  const size_t count = g_count.load();
  for (size_t i = 0; i < count; ++i) {
    NamedDevice& d = g_devices[i];
    std::lock_guard<std::mutex> lock(d.mutex);
    open += d.counters.opens - std::min(d.counters.opens, d.counters.closes);
  }
  return open;
}

}  // namespace arbor_peer
