// rsc/dial.cc - dialling and hanging up for the host.
//
// A dial leaves no state here: the sid in the caller's slot is the host's
// handle for the session, and every effect is a message to a peer or a push
// on the command queue. Any thread may dial once SysInit has returned;
// generate_sid's counter is the only thing dials share.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "arbor/device_class.h"
#include "arbor/ident.h"
#include "arbor/rsc.h"
#include "arbor/send.h"
#include "init/ident.h"
#include "rsc/rsc_internal.h"
#include "strutils/wire_text.h"

namespace {

// Room for a dial text once the request's own keys are merged in. A chain
// must fit: an encoding that does not is sent as nothing, which sendasc
// refuses.
constexpr int32_t kDialBuffer = 1024;
// The display name a dialled request gives its peer.
constexpr char kDialUser[64] = "Lan user";

// Serves the request here: the chain is built on this peer for the peer
// named by To (0: this peer's own host). 0 when queued or set aside, -1
// when the text has no hop or its network hop is first or last.
int32_t dial_here(int32_t asc, const char* sid, Dict dict) {
  RscRequest request{};
  TreeRequest& dx = request.head;
  std::snprintf(dx.sid, sizeof dx.sid, "%s", sid);
  dx.uid = static_cast<uint32_t>(DictGetInt(dict, "To"));
  dx.ascode = asc;
  dx.exclusive = DictGetInt(dict, "exclusively");
  std::snprintf(dx.peer, sizeof dx.peer, "%s", kDialUser);
  dx.length = parse_node_info(dx.nodes, dict, 0, get_lan_cdef());
  if (dx.length == 0) return -1;
  return exec_request(nullptr, &request) ? 0 : -1;
}

}  // namespace

extern "C" {

ARBOR_EXPORT int32_t ExecDial(int32_t asc, const char* sid, const char* text) {
  ARBOR_LOG(3, "%s: sid=%s: %s", "ExecDial", sid != nullptr ? sid : "(null)",
            text != nullptr ? text : "(null)");
  if (sid == nullptr || text == nullptr) return -1;
  // A longer sid would be cut in the request, and the host could never hang
  // up the session it started.
  if (strnlen(sid, TREE_SID_SIZE) >= TREE_SID_SIZE) return -1;
  Dict dict = dict_of(text);
  if (dict == nullptr) return -1;
  // The request's own keys win over any of the same name in the text.
  char own[kDialBuffer];
  const int own_length =
      std::snprintf(own, sizeof own,
                    "sidN=%s;AsCode=%u;MainCmd=QV_RES_REQ;user=%s;", sid,
                    static_cast<uint32_t>(asc), kDialUser);
  int32_t result = -1;
  if (own_length > 0 && own_length < kDialBuffer &&
      DictUpdate(dict, own, own_length) >= 0) {
    const auto peer = static_cast<uint32_t>(DictGetInt(dict, "id"));
    if (peer != 0) {
      char buffer[kDialBuffer];
      const int32_t length = DictEncode(buffer, sizeof buffer, dict);
      result = sendasc(peer, asc, buffer, static_cast<uint32_t>(length),
                       ARBOR_SEND_CONTROL);
    } else {
      result = dial_here(asc, sid, dict);
    }
  }
  DictDestroy(dict);
  return result;
}

ARBOR_EXPORT void RSCDial(int32_t asc, char* sids, const char* text, ...) {
  if (text == nullptr) return;
  va_list texts;
  va_start(texts, text);
  for (char* slot = sids; text != nullptr;
       slot += RSC_SID_SLOT, text = va_arg(texts, const char*)) {
    generate_sid(slot, my_id());
    if (ExecDial(asc, slot, text) < 0) {
      slot[0] = '\0';
      break;
    }
  }
  va_end(texts);
}

ARBOR_EXPORT intptr_t RSCHangup(intptr_t x, const char* sid) {
  if (sid == nullptr) return x;
  // A null reason: the peer hears SessionDelete with an empty coz.
  return reinterpret_cast<intptr_t>(
      cmdq_push("Tree_destroy_branch", Tree_destroy_branch, 0, sid,
                static_cast<uint32_t>(std::strlen(sid) + 1)));
}

}  // extern "C"
