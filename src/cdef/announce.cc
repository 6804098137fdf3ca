// cdef/announce.cc - telling the service what this peer offers, at each
// accepted sign-in: for each class one message, and one for each resource
// its driver lists. Also get_mac_address, a utility for hosts.
//
// The walk holds the class mutex across the driver calls and the sends, so
// a class cannot leave while its texts are in use; it runs on the
// transport's thread, and a slow driver holds up the link. Every buffer is
// fixed and on the stack but the copy of a resource list.
#include <net/if.h>
#include <netinet/ether.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "arbor/device_class.h"
#include "arbor/send.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "cdef/cdef_internal.h"
#include "strutils/wire_text.h"

namespace {

constexpr int32_t kAsControl = 100;
constexpr int kMaxResources = 512;
constexpr int kMessageBuffer = 512;
constexpr int kMainCmdEvent = 17;

char mac_text[24];

// Names are pasted into dictionary text unescaped: one holding ';', '=' or
// '\' would add or change keys of the message.
bool pastable(const char* name) {
  return std::strpbrk(name, ";=\\") == nullptr;
}

void send_to_service(const char* text, int length) {
  sendasc(0, kAsControl, text, static_cast<uint32_t>(length), 0);
}

// One class: its message, merged over its object information, then one
// message per resource of its list. A class without a usable Type is
// passed over whole. A Type of 128 characters or more and a message over
// 512 bytes are refused with a line, not cut: a cut name would announce a
// resource that does not exist.
void announce_class(const char* info, const char* list) {
  if (info == nullptr || info[0] == '\0') return;
  Dict dict = dict_of(info);
  if (dict == nullptr) return;
  const char* type_value = DictGetStr(dict, "Type");
  char type[128];
  const bool type_fits = type_value != nullptr &&
                         std::strlen(type_value) < sizeof type &&
                         pastable(type_value);
  if (type_fits) std::strcpy(type, type_value);
  if (type_value != nullptr && !type_fits)
    ARBOR_LOG(0, "Type of 128 characters or more, or with ';', '=' or '\\', "
              "refused: %.40s...", type_value);
  DictDestroy(dict);
  if (!type_fits) return;
  ARBOR_LOG(3, "GetObjectInfo: %s.", info);
  ARBOR_LOG(3, "Retrieve: %s.", list != nullptr ? list : "(null)");

  char text[kMessageBuffer];
  // bemerge refuses (0) what does not fit; sendasc then refuses the size 0
  // with its "send error" line, and the resources still go out.
  const int32_t length =
      bemerge(text, sizeof text, info,
              "MainCmd=%d;event=eventResOnline;subResource=%s;",
              kMainCmdEvent, type);
  send_to_service(text, length);
  if (list == nullptr) return;

  char* copy = stringdup(list);
  if (copy == nullptr) return;
  char* names[kMaxResources];
  int count = string_split(copy, names, kMaxResources, ',');
  // Past 512 names the last piece holds the rest of the list unsplit: it
  // names no resource, and is dropped with a line.
  if (count == kMaxResources && std::strchr(names[count - 1], ',') != nullptr) {
    --count;
    ARBOR_LOG(0, "%s: only the first %d resources announced", type, count);
  }
  for (int i = 0; i < count; ++i) {
    const int n = std::snprintf(
        text, sizeof text,
        "MainCmd=%d;event=eventResOnline;subResource=%s;resouce=%s;",
        kMainCmdEvent, type, names[i]);
    if (!pastable(names[i])) {
      ARBOR_LOG(0, "resource '%.40s' of %s refused: ';', '=' or '\\' in it",
                names[i], type);
      continue;
    }
    if (n < 0 || n >= kMessageBuffer) {
      ARBOR_LOG(0, "resource '%.40s...' of %s refused: message over %d bytes",
                names[i], type, kMessageBuffer - 1);
      continue;
    }
    send_to_service(text, n);
  }
  std::free(copy);
}

}  // namespace

extern "C" {

ARBOR_EXPORT void cdef_resources_present(void) {
  std::lock_guard<std::mutex> lock(device_.mutex);
  const uint32_t count = device_.count.load(std::memory_order_relaxed);
  ARBOR_LOG(3, "device_.classes.size=%d.", static_cast<int>(count));
  if (count == 0) return;
  cdef* const* slots =
      cdef_array_slots(device_.classes.load(std::memory_order_relaxed));
  for (uint32_t i = 0; i < count; ++i) {
    const char* info = slots[i]->GetObjectInfo();
    const char* list = slots[i]->Retrieve();
    announce_class(info, list);
  }
}

ARBOR_EXPORT const char* get_mac_address(const char* interface) {
  if (interface == nullptr) return nullptr;
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return nullptr;
  ifreq request{};
  std::strncpy(request.ifr_name, interface, sizeof request.ifr_name - 1);
  const int result = ioctl(fd, SIOCGIFHWADDR, &request);
  close(fd);
  if (result < 0) return nullptr;
  ether_addr address;
  std::memcpy(address.ether_addr_octet, request.ifr_hwaddr.sa_data,
              sizeof address.ether_addr_octet);
  std::snprintf(mac_text, sizeof mac_text, "%s", ether_ntoa(&address));
  return mac_text;
}

}  // extern "C"
