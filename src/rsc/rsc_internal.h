/*
 * rsc/rsc_internal.h - the pieces of remote session control that the
 * engine wires up itself and that no host calls: the three built-in service
 * handlers, the reading of a hop list, and the step that decides where a
 * session request is served.
 */
#ifndef ARBOR_SRC_RSC_RSC_INTERNAL_H
#define ARBOR_SRC_RSC_RSC_INTERNAL_H

#include <cstdint>

#include "arbor/cdef.h"
#include "arbor/forest.h"
#include "arbor/support.h"

// AS code of session and resource control, on the WAN and on the LAN.
constexpr int32_t kRscAsCode = 100;
// Local code of the resource events that LAN peers send.
constexpr int32_t kRscLanEventCode = 555;

// A request with room for every hop plus the zeroed entry behind the last,
// which the push copies along (the forest reads `length` entries and checks
// that the payload covers them).
struct RscRequest {
  TreeRequest head;
  MNodeInfo more[TREE_MAX_HOPS];
};

// The size of the payload that carries a request of n hops.
inline uint32_t rsc_request_size(uint32_t n) {
  return static_cast<uint32_t>(sizeof(TreeRequest) + sizeof(MNodeInfo) * n);
}

// The WAN table's handler under type 100: every WAN control text of AS code
// 100, given to rsc_callback as from the WAN. Transport thread.
int32_t rsc_wan_callback(uint32_t size, const char* data);

// The local table's entry 555: a resource event that a LAN peer sent, emitted
// here. Returns the number of deliveries, 0 when nothing was done.
int32_t rsc_lan_event(uint32_t from, uint32_t size, const char* data);

// The local table's entry -100, which sees every LAN message and every local
// dispatch: link reports of LAN peers (LocalData) are handled here, every
// other text goes to rsc_callback as from the LAN. A negative result (that
// of the transport's connect) ends the dispatch of that message.
int32_t cb_lan(uint32_t qvid, int32_t asc, const char* data, uint32_t size);

// Reads the hops ftN<i>, opN<i>, FD<i> of dict into nodes (room for
// TREE_MAX_HOPS + 1 entries), from hop 0 up to the first gap and at most
// TREE_MAX_HOPS of them; the entry behind the last hop read is zeroed. A
// name that begins with "net." is a hop of class cls, any other is looked up
// among the drivers (null when none knows it). From a LAN peer (from not 0,
// cls the LAN class) a hop with a descriptor of 1 or more is renamed
// "net.<fd>" in dict itself, and the hop's name points to that new text.
// Names and options point into dict. Returns the number of hops.
uint32_t parse_node_info(MNodeInfo* nodes, Dict dict, uint32_t from, cdef* cls);

// Decides where a request of one or more hops is served and queues it: a
// chain with no network hop is built here whole, one whose network hop
// stands between a source part and a far part feeds that peer. The hop
// strings are duplicated just before the push, and freed again when the
// queue refuses it. Returns false only when the network hop is first or
// last (logged "exec_request"); a chain with a hop that no driver knows is
// dropped without a word and counts as taken.
bool exec_request(const cdef* cls, RscRequest* request);

// Duplicates the name and option of every hop of request, so that the
// record outlives the dictionary it was read from, and pushes it as
// handler. On a refused push (or no memory) the copies are freed again.
// Returns whether it was queued.
bool rsc_push_request(const char* name, CommandHandler handler,
                      RscRequest* request);

#endif  // ARBOR_SRC_RSC_RSC_INTERNAL_H
