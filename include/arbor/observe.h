/*
 * arbor/observe.h - watching the session forest from the host: one callback
 * that hears every session of this peer begin, end and fail, and a
 * snapshot of the forest with what passed each node.
 *
 * Audience: hosts.
 *
 * An addition beside the engine's own roads: nothing here changes what the
 * engine sends to owners, drivers or the local table. A host that never
 * calls these functions pays one relaxed atomic add per chunk and node.
 *
 * Session events.
 *  - begin: a session's branch was activated (its data may flow).
 *  - end:   a running session was taken down; reason is the text the
 *           owners read in "coz" ("Sys_Exit", "Present_0",
 *           "Lan_Write_error", "Peer_SessionDelete", ...), empty for a
 *           hang-up by this host (RSCHangup), which carries none.
 *  - fail:  a session that never began: its request could not be built or
 *           activated; reason says why, as its owner was told.
 *   Local sessions (uid 0) included. Each event carries the sid, the owner
 *   (uid, AS code) and the chain as "name -> name -> ...", from the root.
 *
 * Thread. The callback runs on a thread of the observer's own, started
 * with the first observer and ended when it is cleared: one event at a
 * time, in the order the engine saw them, never under a forest lock. It may
 * call any function of the engine's public interface, the snapshot
 * included; it should return quickly, since later events wait for it.
 * Events that find ARBOR_OBSERVE_BACKLOG undelivered ones queued are
 * dropped and counted (the next delivered event says how many), so a stuck
 * callback never grows memory. The observer outlives SysExit, so sessions
 * that the stop ends are heard too ("Sys_Exit").
 *
 * The snapshot is consistent: taken under the forest's locks, with no
 * allocation, into the caller's arrays; it never calls the observer.
 */
#ifndef ARBOR_OBSERVE_H
#define ARBOR_OBSERVE_H

#include <stddef.h>
#include <stdint.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

#define ARBOR_OBSERVE_SID_SIZE 64
#define ARBOR_OBSERVE_REASON_SIZE 64
#define ARBOR_OBSERVE_CHAIN_SIZE 512
#define ARBOR_OBSERVE_NAME_SIZE 96
/* Undelivered events kept at most; past it, events are dropped and counted. */
#define ARBOR_OBSERVE_BACKLOG 4096

enum arbor_session_event_kind {
  ARBOR_SESSION_BEGIN = 1,
  ARBOR_SESSION_END = 2,
  ARBOR_SESSION_FAIL = 3
};

typedef struct arbor_session_event {
  uint32_t kind;   /* arbor_session_event_kind */
  uint32_t uid;    /* the owner: 0 for this host, else a peer or the service */
  int32_t ascode;  /* the owner's AS code */
  uint32_t dropped; /* events dropped since the previous delivered one */
  char sid[ARBOR_OBSERVE_SID_SIZE];
  char reason[ARBOR_OBSERVE_REASON_SIZE]; /* "" for begin */
  /* "demo.source -> net. -> demo.sink", cut at a hop boundary with " ..."
   * when longer. */
  char chain[ARBOR_OBSERVE_CHAIN_SIZE];
} arbor_session_event;

ARBOR_RECORD_ASSERT(sizeof(arbor_session_event) == 656, "arbor_session_event layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_session_event, sid) == 16, "arbor_session_event layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_session_event, chain) == 144, "arbor_session_event layout");

/* event is valid for the call only. user is what arbor_observe_sessions
 * was given. */
typedef void (*arbor_session_observer)(const arbor_session_event* event, void* user);

/*
 * Sets the one observer (null: none). Any thread, before or after SysInit.
 * Events already queued for the previous observer go to the new one. A call
 * that sets null lets the observer's thread deliver what is queued (at most
 * ARBOR_OBSERVE_BACKLOG events) to the observer being cleared, and waits for
 * it; after it returns that observer is not called again. Called from
 * inside the callback it cannot wait: the thread drains and ends by itself. 0, or -1 (logged) when no thread could be made for
 * the observer, which is then not set.
 */
ARBOR_EXPORT int32_t arbor_observe_sessions(arbor_session_observer observer, void* user);

/* One node of the forest. Nodes come root first, each followed by its
 * subtree (depth first), so a reader can print the tree in order. */
typedef struct arbor_node_info {
  int32_t parent;    /* index of the parent in the array; -1 for a root */
  int32_t depth;     /* 0 for a root */
  int32_t descriptor; /* what Open returned; a pipe or a peer's uid on net
                       * nodes; -1 once closed */
  uint8_t active;    /* 1 once its branch was activated */
  uint8_t net;       /* 1 for a net hop (pipe or peer) */
  uint8_t reserved[2];
  uint32_t children;
  uint32_t sessions; /* rows of the root's index that end here */
  uint32_t uid;      /* for a root: the tree's owner, 0 open to all */
  uint32_t reserved2;
  uint64_t chunks;   /* chunks that passed this node since it was made */
  uint64_t bytes;
  char name[ARBOR_OBSERVE_NAME_SIZE]; /* "" when the node has none */
} arbor_node_info;

ARBOR_RECORD_ASSERT(sizeof(arbor_node_info) == 144, "arbor_node_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_node_info, chunks) == 32, "arbor_node_info layout");

typedef struct arbor_session_info {
  int32_t node;   /* index, in the node array, of the node where it ends */
  uint32_t uid;
  int32_t ascode;
  uint32_t reserved;
  char sid[ARBOR_OBSERVE_SID_SIZE];
} arbor_session_info;

ARBOR_RECORD_ASSERT(sizeof(arbor_session_info) == 80, "arbor_session_info layout");

typedef struct arbor_forest_snapshot {
  arbor_node_info* nodes;       /* caller's array of node_capacity */
  uint32_t node_capacity;
  uint32_t node_count;          /* out: nodes in the forest */
  arbor_session_info* sessions; /* caller's array of session_capacity */
  uint32_t session_capacity;
  uint32_t session_count;       /* out: sessions in the forest */
  uint64_t taken_ns;            /* out: CLOCK_MONOTONIC when it was taken */
} arbor_forest_snapshot;

/*
 * Fills snapshot: node_count and session_count say how many there are;
 * the arrays hold the first ones that fit, and a session whose node did
 * not fit is not written (though counted). Call again with larger arrays when a count exceeds its
 * capacity. Any thread, the observer's included, but not from inside a
 * driver's slot (those may run under a tree lock, and this takes the
 * forest's locks for reading); it never waits for the command queue.
 * 0, or -1 for a null snapshot or before SysInit.
 */
ARBOR_EXPORT int32_t arbor_forest_snapshot_take(arbor_forest_snapshot* snapshot);

ARBOR_END_DECLS

#endif /* ARBOR_OBSERVE_H */
