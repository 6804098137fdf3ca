/*
 * minimal_host.c - the smallest complete Arbor host.
 *
 * It checks that the loaded engine fits the headers it was built against,
 * starts the engine, signs in to a service when told where one is, switches
 * the LAN on (listening on 127.0.0.1, a free port), registers a driver of
 * its own, serves one session from that driver's source to its sink until
 * MINIMAL_CHUNKS chunks have arrived in order, hangs up and stops.
 *
 *   minimal_host                                  no sign-in
 *   minimal_host --service HOST:PORT [--ca FILE]  sign in over TLS 1.3
 *   minimal_host --service HOST:PORT --plain      sign in over plain TCP
 *
 * Prints "minimal_host: OK, <n> chunks through <chain>" and exits 0, or
 * prints one line saying what went wrong and exits 1. Gives up after
 * MINIMAL_LIMIT_S seconds whatever happens.
 *
 * Build it with the Makefile (pkg-config) or CMakeLists.txt (find_package)
 * beside this file; docs/embedding.md walks through it.
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <arbor/asc.h>
#include <arbor/cdef.h>
#include <arbor/device_class.h>
#include <arbor/net.h>
#include <arbor/rsc.h>
#include <arbor/support.h>
#include <arbor/sys.h>
#include <arbor/version.h>

#define MINIMAL_CHUNKS 100      /* chunks the session must carry */
#define MINIMAL_LIMIT_S 10      /* the whole run, sign-in included */
#define HANGUP_LIMIT_S 2        /* of which kept for the hang-up */
#define CHUNK_BYTES 1024        /* bytes per chunk */
#define CHUNK_PERIOD_NS 2000000 /* one chunk every 2 ms */

/*
 * The session's notices come through the engine's local service table. A
 * dial under AS code 0 is delivered locally, to every entry of that table,
 * so our entry under any code of ours hears them, and nothing about the
 * session goes to the service even when we are signed in.
 */
#define DIAL_ASC 0
#define NOTICE_ASC 300

#define CHAIN_TEXT "minimal.source -> minimal.sink"
#define DIAL_TEXT "ftN0=minimal.source;ftN1=minimal.sink;"

/* ==================================================== What the host sees */

/*
 * Everything the engine's threads report to the main thread, under
 * state_lock; state_changed is signalled on every change. The main thread
 * waits on it and never calls the engine while holding the lock.
 */
static pthread_mutex_t state_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t state_changed; /* on CLOCK_MONOTONIC: see main */
static struct {
  int signed_in;           /* host code 0 came */
  int link_code;           /* a failure code of the host callback; 0: none */
  int session_started;     /* the notice "SessionStart" came */
  char session_failed[96]; /* the reason of "RUN_FAIL"; "" while none */
  uint64_t chunks;         /* chunks the sink took */
  uint64_t out_of_order;   /* chunks whose number was not the next one */
  int32_t sink_xfd;        /* the open sink's descriptor; 0: none */
} state;

static void state_signal(void) {
  pthread_cond_broadcast(&state_changed);
  pthread_mutex_unlock(&state_lock);
}

/* ============================================================= The driver */

/*
 * Two device classes make the driver: minimal.source hands out numbered
 * chunks at a steady pace, on a read thread that the engine starts for it;
 * minimal.sink checks that they come in order and counts them. Each class
 * serves one device at a time, which is all one session needs. Descriptors
 * are never reused, so a late call for a closed device finds it gone
 * instead of another one.
 */
static atomic_int next_xfd = 1;
static atomic_int source_xfd;    /* the open source's descriptor; 0: none */
static atomic_ullong source_seq; /* the number of its next chunk */

/* SetCallback, both classes: the engine's callback serves a driver that
 * raises events or pushes media of its own. These classes do neither. */
static int32_t minimal_set_callback(DeviceCallback callback) {
  (void)callback;
  return 0;
}

static const char* source_retrieve(void) { return "minimal.source"; }
static const char* source_object_info(void) {
  return "Type=minimal;Role=source;";
}

/* Open, on the engine's command thread: asks for a read thread. */
static int32_t source_open(const char* name, const char* option,
                           uint32_t* threading) {
  (void)name, (void)option;
  int expected = 0;
  int xfd = atomic_fetch_add(&next_xfd, 1);
  if (!atomic_compare_exchange_strong(&source_xfd, &expected, xfd))
    return -1; /* one device at a time */
  atomic_store(&source_seq, 0);
  *threading = 1;
  return xfd;
}

/* Close, on the command thread or the timed queue's worker. It never waits
 * for a Read in progress: that Read finds the descriptor gone. */
static int32_t source_close(int32_t xfd) {
  int expected = xfd;
  atomic_compare_exchange_strong(&source_xfd, &expected, 0);
  return 0;
}

/* Read, on the read thread only, in a loop while the session runs. */
static int32_t source_read(int32_t xfd, void* buffer, uint32_t size,
                           uint32_t* flags) {
  (void)flags; /* plain media */
  struct timespec pause = {0, CHUNK_PERIOD_NS};
  nanosleep(&pause, NULL);
  if (atomic_load(&source_xfd) != xfd || size < sizeof(uint64_t))
    return -1; /* closed: the read thread ends */
  unsigned long long seq = atomic_fetch_add(&source_seq, 1);
  uint32_t n = size < CHUNK_BYTES ? size : CHUNK_BYTES;
  memset(buffer, 0, n);
  memcpy(buffer, &seq, sizeof seq);
  return (int32_t)n;
}

static const char* sink_retrieve(void) { return "minimal.sink"; }
static const char* sink_object_info(void) { return "Type=minimal;Role=sink;"; }

/* Open, on the command thread. A sink needs no read thread. */
static int32_t sink_open(const char* name, const char* option,
                         uint32_t* threading) {
  (void)name, (void)option, (void)threading;
  int32_t xfd = -1;
  pthread_mutex_lock(&state_lock);
  if (state.sink_xfd == 0) {
    xfd = state.sink_xfd = atomic_fetch_add(&next_xfd, 1);
    state.chunks = state.out_of_order = 0;
  }
  state_signal();
  return xfd;
}

static int32_t sink_close(int32_t xfd) {
  pthread_mutex_lock(&state_lock);
  if (state.sink_xfd == xfd) state.sink_xfd = 0;
  state_signal();
  return 0;
}

/* Write, on the source's read thread: one chunk, the engine's, valid for
 * the call only. Returns the bytes taken, -1 for a closed device. */
static int32_t sink_write(int32_t xfd, const void* data, uint32_t size,
                          uint32_t flags) {
  (void)flags;
  unsigned long long seq = 0;
  if (size >= sizeof seq) memcpy(&seq, data, sizeof seq);
  pthread_mutex_lock(&state_lock);
  int32_t taken = -1;
  if (state.sink_xfd == xfd) {
    if (size < sizeof seq || seq != state.chunks) state.out_of_order++;
    state.chunks++;
    taken = (int32_t)size;
  }
  state_signal();
  return taken;
}

/* The class records. The engine keeps their addresses, so they live as
 * long as the program. */
static cdef source_class = {
    NULL,                 /* Reserved: not used */
    minimal_set_callback, /* SetCallback */
    source_retrieve,      /* Retrieve: the resources' full names */
    source_object_info,   /* GetObjectInfo: Type names the class */
    source_open,          /* Open */
    source_close,         /* Close */
    NULL,                 /* DoEvent: no commands for this device */
    NULL,                 /* Write: a source takes no data */
    source_read,          /* Read: required, since Open asks for threading */
    NULL,                 /* Convert: not a transform */
};

static cdef sink_class = {
    NULL,                 /* Reserved */
    minimal_set_callback, /* SetCallback */
    sink_retrieve,        /* Retrieve */
    sink_object_info,     /* GetObjectInfo */
    sink_open,            /* Open */
    sink_close,           /* Close */
    NULL,                 /* DoEvent */
    sink_write,           /* Write */
    NULL,                 /* Read: a sink is never read */
    NULL,                 /* Convert */
};

/* ====================================================== Engine callbacks */

/*
 * The host callback: how the service link is doing. Called on the timed
 * queue's worker and on the transport's thread, possibly at once; text
 * need not be NUL-terminated. It returns quickly and never calls SysExit.
 */
static void on_host(int32_t code, const char* text, int32_t length) {
  (void)text, (void)length;
  const char* what = code == 0    ? "signed in"
                     : code == 3  ? "connection failed or link down"
                     : code == 6  ? "connected"
                     : code == 14 ? "no answer to the sign-in"
                                  : "sign-in refused";
  printf("minimal_host: link: %s (code %d)\n", what, (int)code);
  pthread_mutex_lock(&state_lock);
  if (code == 0)
    state.signed_in = 1;
  else if (code != 6 && !state.signed_in)
    state.link_code = code;
  state_signal();
}

/*
 * The session's notices ("SessionStart", "RUN_FAIL", "SessionDelete"),
 * dictionary text of size bytes, on the engine's threads. Returns 0 so that
 * the engine's own handler sees them too: it starts a local session on its
 * "SessionStart".
 */
static int32_t on_notice(uint32_t from, uint32_t size, const char* data) {
  if (from != 0) return 0; /* LAN traffic of our code, not a notice */
  Dict dict = DictCreate(data, (int32_t)size);
  const char* command = DictGetStr(dict, "MainCmd");
  const char* reason = DictGetStr(dict, "coz");
  pthread_mutex_lock(&state_lock);
  if (command && strcmp(command, "SessionStart") == 0)
    state.session_started = 1;
  else if (command && strcmp(command, "RUN_FAIL") == 0)
    snprintf(state.session_failed, sizeof state.session_failed, "%s",
             reason && *reason ? reason : "no reason given");
  state_signal();
  DictDestroy(dict);
  return 0;
}

/* ============================================================= Main line */

/* When the work must be done, and when the hang-up must be. */
static struct timespec work_by, stop_by;

/* Waits until done() holds or the time by passes; returns done(). */
static int wait_for(int (*done)(void), const struct timespec* by) {
  pthread_mutex_lock(&state_lock);
  int rc = 0;
  while (!done() && rc == 0)
    rc = pthread_cond_timedwait(&state_changed, &state_lock, by);
  int held = done();
  pthread_mutex_unlock(&state_lock);
  return held;
}

/* Conditions of wait_for, read under state_lock. */
static int link_settled(void) { return state.signed_in || state.link_code; }
static int chunks_arrived(void) {
  return state.chunks >= MINIMAL_CHUNKS || state.session_failed[0];
}
static int devices_closed(void) {
  return state.sink_xfd == 0 && atomic_load(&source_xfd) == 0;
}

typedef struct options {
  char host[256];
  int port;       /* 0: no --service */
  int plain;      /* --plain */
  const char* ca; /* --ca FILE, or NULL */
} options;

#define USAGE "usage: minimal_host [--service HOST:PORT [--plain | --ca FILE]]"

/* Reads the command line into o; NULL, or the line to print. */
static const char* parse(int argc, char** argv, options* o, char* why,
                         size_t room) {
  memset(o, 0, sizeof *o);
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--plain") == 0) {
      o->plain = 1;
    } else if (strcmp(argv[i], "--ca") == 0 && i + 1 < argc) {
      o->ca = argv[++i];
    } else if (strcmp(argv[i], "--service") == 0 && i + 1 < argc) {
      const char* service = argv[++i];
      const char* colon = strrchr(service, ':');
      char* end = NULL;
      long port = colon ? strtol(colon + 1, &end, 10) : 0;
      if (!colon || colon == service || *end || port < 1 || port > 65534 ||
          (size_t)(colon - service) >= sizeof o->host) {
        snprintf(why, room, "--service wants HOST:PORT, not '%s'; %s", service,
                 USAGE);
        return why;
      }
      memcpy(o->host, service, (size_t)(colon - service));
      o->port = (int)port;
    } else {
      snprintf(why, room, "bad argument '%s'; %s", argv[i], USAGE);
      return why;
    }
  }
  if ((o->plain || o->ca) && o->port == 0)
    return "--plain and --ca need --service HOST:PORT; " USAGE;
  if (o->plain && o->ca) return "--plain and --ca exclude each other; " USAGE;
  return NULL;
}

/* Signs in; NULL, or the line to print. */
static const char* sign_in(const options* o, char* why, size_t room) {
  if (o->ca) {
    char text[512];
    snprintf(text, sizeof text, "ca_file=%s;", o->ca);
    if (arbor_net_wan_options(text) != 0) {
      snprintf(why, room, "cannot use --ca '%s'; give a PEM file of CAs",
               o->ca);
      return why;
    }
  }
  int32_t rc = SysLogin("minimal_host", "", "", o->host, o->port,
                        o->plain ? "Protocol=TCP;" : NULL);
  if (rc < 0) {
    snprintf(why, room,
             "could not start the sign-in to %s:%d (SysLogin gave %d); see "
             "the engine's line above",
             o->host, o->port, (int)rc);
    return why;
  }
  if (!wait_for(link_settled, &work_by)) {
    snprintf(why, room,
             "not signed in to %s:%d within %d s; is the service running "
             "there?",
             o->host, o->port, MINIMAL_LIMIT_S - HANGUP_LIMIT_S);
    return why;
  }
  pthread_mutex_lock(&state_lock);
  int code = state.signed_in ? 0 : state.link_code;
  pthread_mutex_unlock(&state_lock);
  if (code == 3)
    snprintf(why, room,
             "could not reach the service at %s:%d; check that it listens "
             "there, and use --plain for a plain-TCP development service or "
             "--ca FILE for its CA",
             o->host, o->port);
  else if (code != 0)
    snprintf(why, room, "the service at %s:%d refused the sign-in (code %d)",
             o->host, o->port, code);
  return code == 0 ? NULL : why;
}

/* Serves one session; NULL, or the line to print. *sid is the session's. */
static const char* serve(char* sid, char* why, size_t room) {
  SysRegistASLan(NOTICE_ASC, NULL, (AsHandler)on_notice);
  /* No id in the text: the chain is served here, on this peer. */
  RSCDial(DIAL_ASC, sid, DIAL_TEXT, (const char*)NULL);
  if (sid[0] == '\0') return "the engine refused the dial of " CHAIN_TEXT;
  wait_for(chunks_arrived, &work_by);
  pthread_mutex_lock(&state_lock);
  uint64_t chunks = state.chunks, wrong = state.out_of_order;
  int started = state.session_started;
  char failed[sizeof state.session_failed];
  memcpy(failed, state.session_failed, sizeof failed);
  pthread_mutex_unlock(&state_lock);
  if (failed[0])
    snprintf(why, room, "the session failed: \"%s\"", failed);
  else if (chunks < MINIMAL_CHUNKS)
    snprintf(why, room,
             "only %llu of %d chunks arrived within %d s (session %s); "
             "run with ARBOR_LOG_LEVEL=2 to see why",
             (unsigned long long)chunks, MINIMAL_CHUNKS,
             MINIMAL_LIMIT_S - HANGUP_LIMIT_S,
             started ? "started" : "never started");
  else if (wrong)
    snprintf(why, room, "%llu of %llu chunks arrived out of order",
             (unsigned long long)wrong, (unsigned long long)chunks);
  else
    return NULL;
  return why;
}

int main(int argc, char** argv) {
  static char why[512];
  options o;
  const char* error = parse(argc, argv, &o, why, sizeof why);
  if (error) {
    fprintf(stderr, "minimal_host: %s\n", error);
    return 1;
  }
  /* Headers of one version, engine of another: stop before any call. */
  if (!ARBOR_VERSION_MATCHES()) {
    fprintf(stderr,
            "minimal_host: built for Arbor %s but loaded Arbor %s; install "
            "Arbor %s or a later %d.x, or rebuild against the installed "
            "headers\n",
            ARBOR_VERSION_STRING, arbor_version_string(), ARBOR_VERSION_STRING,
            ARBOR_VERSION_MAJOR);
    return 1;
  }
  setvbuf(stdout, NULL, _IOLBF, 0);
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&state_changed, &attr);
  pthread_condattr_destroy(&attr);
  clock_gettime(CLOCK_MONOTONIC, &stop_by);
  stop_by.tv_sec += MINIMAL_LIMIT_S;
  work_by = stop_by;
  work_by.tv_sec -= HANGUP_LIMIT_S;

  /* The version strings go into every sign-in text: set them first. */
  SysVer(ARBOR_VERSION_STRING, "minimal_host");
  SysInit(on_host);
  SysRegisterDev(&source_class);
  SysRegisterDev(&sink_class);

  if (o.port == 0)
    printf("minimal_host: no --service given, not signing in\n");
  else
    error = sign_in(&o, why, sizeof why);

  /* The LAN: open to any host that reaches the port, since no key= is set
   * (arbor/net.h). Loopback only here. */
  if (!error &&
      LanNetworking(1, (intptr_t) "listen=127.0.0.1;port=0;", 0, 0) < 0)
    error = "the LAN did not start on 127.0.0.1; see the engine's line above";
  if (!error)
    printf("minimal_host: LAN listening on 127.0.0.1:%d\n",
           (int)arbor_net_lan_port());

  char sid[RSC_SID_SLOT] = "";
  if (!error) error = serve(sid, why, sizeof why);
  if (sid[0]) {
    RSCHangup(0, sid);
    if (!wait_for(devices_closed, &stop_by) && !error)
      error = "the devices were not closed after the hang-up";
  }
  if (o.port) SysLogout(); /* also after a failed sign-in: safe either way */
  SysExit(); /* joins the engine's threads: no callback runs after it */

  if (error) {
    fprintf(stderr, "minimal_host: %s\n", error);
    return 1;
  }
  printf("minimal_host: OK, %llu chunks through %s\n",
         (unsigned long long)state.chunks, CHAIN_TEXT);
  return 0;
}
