// rsc/rsc_callback.cc - the door of control texts: decoding, sorting by
// MainCmd, the named session commands, the reading of a hop list and the
// choice of where a request is served.
//
// Everything here runs on the thread that delivered the text (a transport
// thread, or any thread that dispatches locally: the consumer for RUN_FAIL
// and SessionStart, the timed queue's worker, an emitter of events) and
// holds no lock of its own. Its only effect on the forest is a push on the
// command queue, so requests keep the order of their arrival, and a handler
// that the forest reaches while it holds a root's lock never re-enters it.
// A request is built on this stack with room for every hop; the hop strings
// point into the dictionary until they are duplicated just before the push.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "arbor/rsevents.h"
#include "arbor/send.h"
#include "arbor/strutils.h"
#include "rsc/rsc_internal.h"
#include "strutils/wire_text.h"

namespace {

constexpr int32_t kMainCmdSubscribe = 15;
constexpr int32_t kMainCmdEvent = 17;
// Room for a device command once ftN and FD are set.
constexpr int32_t kDoEventBuffer = 2048;

// Pushes a command whose payload is the sid with its NUL. A sid of 64 bytes
// or more goes along all the same: the handlers ignore it.
void push_sid_command(const char* name, CommandHandler handler,
                      const char* reason, const char* sid) {
  cmdq_push(name, handler, reinterpret_cast<uintptr_t>(reason), sid,
            static_cast<uint32_t>(std::strlen(sid) + 1));
}

// The fields that QV_RES_REQ and SessionCreate fill alike: sender, sid,
// exclusive flag, hops and the peer's display name (user, else To, else
// "unknown name"; a name of 96 characters or more stays empty). False when
// the sid does not fit the record or the text names no hop: such a request
// is dropped without a reply.
bool fill_request(RscRequest* request, Dict dict, const char* sid,
                  uint32_t from, uint32_t parse_from, cdef* cls) {
  TreeRequest& dx = request->head;
  if (std::strlen(sid) >= TREE_SID_SIZE) return false;
  std::strcpy(dx.sid, sid);
  dx.uid = from;
  dx.exclusive = DictGetInt(dict, "exclusively");
  dx.length = parse_node_info(dx.nodes, dict, parse_from, cls);
  if (dx.length == 0) return false;
  const char* peer = DictGetStr(dict, "To");
  if (peer == nullptr) peer = "unknown name";
  if (const char* user = DictGetStr(dict, "user")) peer = user;
  if (std::strlen(peer) < TREE_PEER_SIZE) std::strcpy(dx.peer, peer);
  return true;
}

void on_resource_request(cdef* cls, uint32_t from, int32_t asc,
                         const char* sid, Dict dict) {
  // Requests are served for the LAN and for local dials only: a request from
  // the service would build a chain for a sender that has no peer node. It
  // is refused before anything is built.
  if (cls == get_wan_cdef()) {
    ARBOR_LOG(0, "QV_RES_REQ from the WAN refused: sid=%s", sid);
    return;
  }
  if (!is_read_access_allow(from, asc)) return;
  RscRequest request{};
  request.head.ascode = DictGetInt(dict, "AsCode");
  if (!fill_request(&request, dict, sid, from, 0, cls)) return;
  exec_request(cls, &request);
}

void on_session_create(cdef* cls, uint32_t from, int32_t asc, const char* sid,
                       Dict dict) {
  RscRequest request{};
  request.head.ascode = asc;  // the message's own code; key AsCode is not read
  if (!fill_request(&request, dict, sid, from, from, cls)) return;
  rsc_push_request("Tree_new_partial", Tree_new_partial, &request);
}

// The sid and the peer's display name of a session command are written
// raw into texts this engine makes later: "SessionDelete" and "RUN_FAIL"
// carry the sid, the "Follower" events the sid and the name. Decoded from
// the sender's dictionary, either may hold ';' or '=' escaped; pasted raw,
// such a value adds keys of the sender's choosing (a MainCmd, a chain) to a
// text that this host then sends or dispatches with its own authority. So
// a command whose sid or name could do that is refused here, before
// anything keeps it: the one place every such value comes in. This is
// stricter than the messages' own definition, on purpose. The line names
// the sender but not the value, which may hold control characters.
bool identifiers_plain(const cdef* cls, uint32_t from, const char* name,
                       const char* sid, Dict dict) {
  const char* bad = nullptr;
  if (!wire_value_plain(sid)) {
    bad = "sidN";
  } else if (!wire_value_plain(DictGetStr(dict, "user"))) {
    bad = "user";
  } else if (!wire_value_plain(DictGetStr(dict, "To"))) {
    bad = "To";
  }
  if (bad == nullptr) return true;
  char sender[32];
  if (cls == get_wan_cdef()) {
    std::snprintf(sender, sizeof sender, "the service");
  } else if (from != 0) {
    std::snprintf(sender, sizeof sender, "LAN peer %u", from);
  } else {
    std::snprintf(sender, sizeof sender, "local dispatch");
  }
  ARBOR_LOG(0,
            "%s from %s refused: %s holds ';', '=', '\\' or a control "
            "character",
            name, sender, bad);
  return false;
}

}  // namespace

uint32_t parse_node_info(MNodeInfo* nodes, Dict dict, uint32_t from,
                         cdef* cls) {
  const bool rename = from != 0 && cls == get_lan_cdef();
  uint32_t i = 0;
  for (; i < TREE_MAX_HOPS; ++i) {
    MNodeInfo& hop = nodes[i];
    hop = MNodeInfo{};
    char key[16];
    std::snprintf(key, sizeof key, "ftN%u", i);
    const char* name = DictGetStr(dict, key);
    if (name == nullptr) break;
    ARBOR_LOG(3, "%s:%u %s", "parse_node_info", i, name);
    hop.device = std::strncmp(name, "net.", 4) == 0
                     ? cls
                     : cdef_find_by_fullname(name);
    hop.name = const_cast<char*>(name);
    char option_key[16];
    std::snprintf(option_key, sizeof option_key, "opN%u", i);
    const char* option = DictGetStr(dict, option_key);
    if (option != nullptr && option[0] != '\0')
      hop.option = const_cast<char*>(option);
    char fd_key[16];
    std::snprintf(fd_key, sizeof fd_key, "FD%u", i);
    const char* fd = DictGetStr(dict, fd_key);
    if (fd == nullptr || fd[0] == '\0') continue;
    // strtol's long may not fit: a descriptor outside int32_t is no pipe
    // this system hands out, so it is clamped and finds no tree.
    const long value = std::strtol(fd, nullptr, 10);
    hop.fd = static_cast<int32_t>(
        std::clamp<long>(value, INT32_MIN, INT32_MAX));
    if (rename && hop.fd >= 1) {
      // The peer named the pipe by its own number: here the hop is the
      // network hop on that pipe, whatever name it came with.
      char pipe_name[32];
      std::snprintf(pipe_name, sizeof pipe_name, "%s.%u", "net",
                    static_cast<uint32_t>(hop.fd));
      if (DictSetStr(dict, key, pipe_name) == 0)
        hop.name = const_cast<char*>(DictGetStr(dict, key));
    }
  }
  if (i < TREE_MAX_HOPS) nodes[i] = MNodeInfo{};
  return i;
}

bool rsc_push_request(const char* name, CommandHandler handler,
                      RscRequest* request) {
  TreeRequest& dx = request->head;
  bool copied = true;
  for (uint32_t i = 0; i < dx.length; ++i) {
    MNodeInfo& hop = dx.nodes[i];
    hop.name = hop.name != nullptr ? stringdup(hop.name) : nullptr;
    const bool has_option = hop.option != nullptr;
    hop.option = has_option ? stringdup(hop.option) : nullptr;
    copied = copied && hop.name != nullptr && (hop.option != nullptr) == has_option;
  }
  if (copied && cmdq_push(name, handler, 0, request,
                          rsc_request_size(dx.length)) != nullptr) {
    return true;
  }
  if (!copied) ARBOR_LOG(0, "%s: sid=%s: out of memory", name, dx.sid);
  for (uint32_t i = 0; i < dx.length; ++i) {
    std::free(dx.nodes[i].name);
    std::free(dx.nodes[i].option);
    dx.nodes[i].name = dx.nodes[i].option = nullptr;
  }
  return false;
}

bool exec_request(const cdef* cls, RscRequest* request) {
  (void)cls;  // the class the request came by; the WAN is refused earlier
  TreeRequest& dx = request->head;
  const MNodeInfo* hop = find_netornil(dx.nodes, dx.length);
  if (hop == nullptr) {
    rsc_push_request("Tree_new_partial", Tree_new_partial, request);
    return true;
  }
  // A hop that no driver knows: nobody could build the chain, and the
  // requester is not told (it runs into its time-out).
  if (hop->device != get_lan_cdef()) return true;
  if (hop == dx.nodes || hop == dx.nodes + dx.length - 1) {
    // The network hop has to stand between a source part and a far part.
    ARBOR_LOG(0, "%s", "exec_request");
    ARBOR_LOG(3, "%s: sid=%s: the network hop is hop %u of %u", "exec_request",
              dx.sid, static_cast<uint32_t>(hop - dx.nodes), dx.length);
    return false;
  }
  rsc_push_request("Tree_new_request", Tree_new_request, request);
  return true;
}

extern "C" {

ARBOR_EXPORT int32_t is_read_access_allow(uint32_t, int32_t) { return 1; }

ARBOR_EXPORT int32_t rsc_main(cdef* cls, uint32_t from, int32_t asc,
                              const char* name, Dict dict) {
  const char* sid = DictGetStr(dict, "sidN");
  if (sid == nullptr || name == nullptr) return 0;
  if (!identifiers_plain(cls, from, name, sid, dict)) return 0;
  if (std::strcmp(name, "QV_RES_REQ") == 0) {
    on_resource_request(cls, from, asc, sid, dict);
  } else if (std::strcmp(name, "SessionCreate") == 0) {
    on_session_create(cls, from, asc, sid, dict);
  } else if (std::strcmp(name, "SessionStart") == 0) {
    if (DictGetInt(dict, "FD0") != 0 && DictGetStr(dict, "ftN0") != nullptr)
      push_sid_command("Tree_active_branch", Tree_active_branch, nullptr, sid);
  } else if (std::strcmp(name, "SessionDelete") == 0) {
    push_sid_command("Tree_destroy_branch", Tree_destroy_branch,
                     "Peer_SessionDelete", sid);
  } else if (std::strcmp(name, "RUN_FAIL") == 0) {
    push_sid_command("Tree_destroy_branch", Tree_destroy_branch,
                     "Peer_RUN_FAIL", sid);
  } else if (std::strcmp(name, "QVVPipeReady") == 0) {
    push_sid_command("Tree_active_branch", Tree_active_branch, nullptr, sid);
  } else if (std::strcmp(name, "Sigoff") == 0) {
    // The sender's number rides in the size word; from the WAN it is 0,
    // which cleans nothing.
    cmdq_push("Tree_cleanup_byuid", Tree_cleanup_byuid,
              reinterpret_cast<uintptr_t>("Sigoff"), nullptr, from);
  }
  return 0;
}

ARBOR_EXPORT int32_t rsc_callback(cdef* cls, uint32_t from, int32_t asc,
                                  const char* data, uint32_t size) {
  Dict dict = dict_of(data, size);
  ARBOR_LOG(3, "%s:QV_SRV_RES: %.*s", "rsc_callback", log_precision(size), data);
  if (dict == nullptr) {
    ARBOR_LOG(0, "decode error");
    return 0;
  }
  const int32_t main_cmd = DictGetInt(dict, "MainCmd");
  if (main_cmd < 1) {
    rsc_main(cls, from, asc, DictGetStr(dict, "MainCmd"), dict);
  } else if (main_cmd == kMainCmdEvent) {
    // Resource events reach the service whatever way they came; the WAN
    // door always reports AS code 100, so the service hears its own too.
    if (DictGetStr(dict, "event") != nullptr && asc == kRscAsCode)
      sendasc(0, kRscAsCode, data, size, 0);
  } else if (main_cmd == kMainCmdSubscribe) {
    const char* event = DictGetStr(dict, "event");
    if (event != nullptr && cls == get_wan_cdef()) {
      RsSubscribeEvent(0, kRscAsCode, DictGetStr(dict, "subResource"), event,
                       nullptr, nullptr);
    }
  } else if (const char* ftN = DictGetStr(dict, "ftN")) {
    RSCDoEvent(ftN, DictGetInt(dict, "FD"), data, size);
  }
  DictDestroy(dict);
  return 0;
}

ARBOR_EXPORT int32_t RSCDoEvent(const char* ftN, int32_t fd, const char* data,
                                uint32_t size) {
  if (ftN == nullptr) return 0;
  Dict dict = dict_of(data, size);
  if (dict == nullptr) return 0;
  DictSetStr(dict, "ftN", ftN);
  if (fd != 0) DictSetInt(dict, "FD", fd);
  char buffer[kDoEventBuffer];
  const int32_t length = DictEncode(buffer, sizeof buffer, dict);
  DictDestroy(dict);
  // DictEncode gives 0 for a text that does not fit; one that fills the
  // buffer exactly has no room for its NUL and is refused alike.
  if (length <= 0 || length >= kDoEventBuffer) {
    ARBOR_LOG(0, "device command for '%s' refused: empty or over %d bytes",
              ftN, kDoEventBuffer - 1);
    return 0;
  }
  cmdq_push("cdef_res_control", cdef_res_control, 0, buffer,
            static_cast<uint32_t>(length + 1));
  return 0;
}

}  // extern "C"

int32_t rsc_wan_callback(uint32_t size, const char* data) {
  return rsc_callback(get_wan_cdef(), 0, kRscAsCode, data, size);
}

int32_t rsc_lan_event(uint32_t from, uint32_t size, const char* data) {
  // Link reports pass every LAN handler; they are no resource events. The
  // text need not end in a NUL, so the search keeps within size.
  static constexpr char kLinkReport[] = "LocalData";
  if (data == nullptr ||
      memmem(data, size, kLinkReport, sizeof kLinkReport - 1) != nullptr) {
    return 0;
  }
  Dict dict = dict_of(data, size);
  if (dict == nullptr) return 0;
  int32_t delivered = 0;
  const char* path = DictGetStr(dict, "subResource");
  const char* event = DictGetStr(dict, "event");
  if (path != nullptr && event != nullptr && !wire_event_text(dict)) {
    ARBOR_LOG(0, "event from LAN peer %u refused: MainCmd is not %d", from,
              kWireMainCmdEvent);
  } else if (path != nullptr && event != nullptr) {
    // The whole text is the body; subscribers get a C string.
    if (std::memchr(data, '\0', size) != nullptr) {
      delivered = RsEmitEvent(path, event, data, nullptr, nullptr);
    } else if (char* body = string_make(data, data + size)) {
      delivered = RsEmitEvent(path, event, body, nullptr, nullptr);
      std::free(body);
    }
  }
  DictDestroy(dict);
  return delivered;
}
