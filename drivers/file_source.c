/*
 * drivers/file_source.c - file.source, a file read in chunks on the engine's
 * read thread, from its start to its end, or round and round ("loop").
 *
 * Open and Close run on the command thread, Read on the root's read thread,
 * snapshots on any thread; fsrc_lock guards the table and the counters. Read
 * never holds the lock across a system call or a sleep: it marks its device
 * busy, works on the descriptor, and takes the lock again to finish. A Close
 * that finds the device busy only marks it closed, and the Read that holds
 * it closes the file on its way out, so Close never waits for a Read and a
 * Read never uses a file descriptor that another Open has been given.
 * Descriptors (xfd) only grow, so a late Read finds its device gone rather
 * than someone else's.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "demo_internal.h"
#include "sample_drivers.h"
#include "sample_internal.h"

#define MAX_RATE 100000 /* chunks per second */

/*
 * How long one Read waits for input that is not there yet (a pipe or a
 * character device; a regular file is always ready). Read then returns 0,
 * "nothing now", and the engine calls again, so a Close is noticed within
 * this time.
 */
#define POLL_MS 100

typedef struct fsrc_dev {
  int32_t xfd;           /* 0: slot free */
  int busy;              /* a Read works on fd outside the lock */
  int closed;            /* Close came while busy: that Read closes fd */
  int ended;             /* end of file or a read error was reported */
  int fd;
  int loop;              /* at the end, start again from the beginning */
  uint32_t chunk;        /* bytes per Read at most */
  uint64_t period_ns;    /* 1 s / rate; 0: unpaced */
  uint64_t next_due;     /* when the next chunk is due; 0 until the first */
  uint64_t since_rewind; /* bytes read since the start or the last rewind */
  char path[SAMPLE_MAX_OPTION];
} fsrc_dev;

static pthread_mutex_t fsrc_lock = PTHREAD_MUTEX_INITIALIZER;
static fsrc_dev fsrc_devs[SAMPLE_MAX_OPEN];
static int32_t fsrc_next_xfd = 1;
static sample_totals fsrc_total;
static DeviceCallback fsrc_callback; /* kept, not used by this driver */

/* The open device of descriptor xfd, or NULL. Call with fsrc_lock held. */
static fsrc_dev* fsrc_find(int32_t xfd) {
  for (int i = 0; i < SAMPLE_MAX_OPEN; i++)
    if (xfd > 0 && fsrc_devs[i].xfd == xfd && !fsrc_devs[i].closed)
      return &fsrc_devs[i];
  return NULL;
}

/*
 * Reads the option "<path>[|loop][|<chunk-bytes>][|<rate>/s]" into dev.
 * Returns 0, or -1 after one line on stderr; dev is then unusable.
 */
static int fsrc_parse(const char* option, fsrc_dev* dev) {
  char text[SAMPLE_MAX_OPTION];
  char* fields[4];
  if (!option || !*option || strlen(option) >= sizeof text) {
    fprintf(stderr,
            "file.source: the hop's option must name the file to read: "
            "<path>[|loop][|<chunk-bytes>][|<chunks-per-second>/s]\n");
    return -1;
  }
  strcpy(text, option);
  int n = sample_split(text, fields, 4);
  int bad = n > 4 || !*fields[0];
  dev->chunk = SAMPLE_MAX_CHUNK;
  for (int i = 1; i < n && !bad; i++) {
    char* end = NULL;
    unsigned long value = strtoul(fields[i], &end, 10);
    int number = end != fields[i] && fields[i][0] >= '0' && fields[i][0] <= '9';
    if (strcmp(fields[i], "loop") == 0) {
      dev->loop = 1;
    } else if (number && *end == '\0' && value >= 1 &&
               value <= SAMPLE_MAX_CHUNK) {
      dev->chunk = (uint32_t)value;
    } else if (number && strcmp(end, "/s") == 0 && value >= 1 &&
               value <= MAX_RATE) {
      dev->period_ns = 1000000000u / value;
    } else {
      bad = 1;
    }
  }
  if (bad) {
    fprintf(stderr,
            "file.source: bad option '%s': want <path>[|loop][|<chunk-bytes> "
            "1..%d][|<chunks-per-second> 1..%d/s]\n",
            option, SAMPLE_MAX_CHUNK, MAX_RATE);
    return -1;
  }
  strcpy(dev->path, fields[0]);
  return 0;
}

/* SetCallback: called once, by SysRegisterDev, with the class mutex held.
 * Kept as every driver should; this one pushes nothing of its own. */
static int32_t fsrc_set_callback(DeviceCallback callback) {
  fsrc_callback = callback;
  return 0;
}

/* Retrieve: called for every hop of every request, with the class mutex
 * held: a constant. */
static const char* fsrc_retrieve(void) { return "file.source"; }

/* GetObjectInfo: a dictionary text describing the class; Type names it. */
static const char* fsrc_object_info(void) { return "Type=file;Role=source;"; }

/*
 * Open: called on the command thread when a chain names "file.source";
 * option is the hop's text (see sample_drivers.h). The file is opened
 * without blocking, so a pipe without a writer cannot hold the command
 * thread. Asks for a read thread. Returns the descriptor, or -1 after one
 * line on stderr (bad option, missing or unreadable file, table full).
 */
static int32_t fsrc_open(const char* name, const char* option,
                         uint32_t* threading) {
  fsrc_dev dev = {0};
  if (fsrc_parse(option, &dev) != 0) return -1;
  dev.fd = open(dev.path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat st;
  if (dev.fd < 0 || fstat(dev.fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    fprintf(stderr, "file.source: cannot read %s: %s\n", dev.path,
            dev.fd < 0 ? strerror(errno) : "it is a directory");
    if (dev.fd >= 0) close(dev.fd);
    return -1;
  }

  int32_t xfd = -1;
  pthread_mutex_lock(&fsrc_lock);
  for (int i = 0; i < SAMPLE_MAX_OPEN; i++) {
    if (fsrc_devs[i].xfd != 0) continue;
    fsrc_devs[i] = dev;
    fsrc_devs[i].xfd = xfd = fsrc_next_xfd++;
    fsrc_total.opens++;
    break;
  }
  pthread_mutex_unlock(&fsrc_lock);

  if (xfd < 0) {
    fprintf(stderr, "file.source: %d files open already; close one first\n",
            SAMPLE_MAX_OPEN);
    close(dev.fd);
    return -1;
  }
  *threading = 1;
  if (atomic_load(&sample_verbose))
    fprintf(stderr, "file.source: Open(%s) -> %d: %s, %u-byte chunks%s\n",
            name, xfd, dev.path, dev.chunk, dev.loop ? ", looping" : "");
  return xfd;
}

/*
 * Close: called on the command thread or the timed queue's worker. The read
 * thread may be inside Read; then the file stays open until that Read
 * returns (-1), and Close returns at once all the same.
 */
static int32_t fsrc_close(int32_t xfd) {
  pthread_mutex_lock(&fsrc_lock);
  fsrc_dev* dev = fsrc_find(xfd);
  if (dev) {
    fsrc_total.closes++;
    if (dev->busy) {
      dev->closed = 1;
    } else {
      close(dev->fd);
      dev->xfd = 0;
    }
  }
  pthread_mutex_unlock(&fsrc_lock);
  return 0;
}

/*
 * Reads the next chunk of dev's file into buffer; the caller has marked dev
 * busy, so dev's settings and fd are stable and the lock is not held.
 * Returns the bytes read, 0 for nothing now, or -1 at the end (after one
 * line) or on error.
 */
static int32_t fsrc_read_file(fsrc_dev* dev, void* buffer, uint32_t want) {
  struct pollfd p = {.fd = dev->fd, .events = POLLIN};
  int ready = poll(&p, 1, POLL_MS);
  if (ready == 0 || (ready < 0 && errno == EINTR)) return 0;
  for (int attempt = 0; attempt < 2; attempt++) {
    ssize_t n = read(dev->fd, buffer, want);
    if (n > 0) {
      dev->since_rewind += (uint64_t)n;
      return (int32_t)n;
    }
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return 0;
    if (n < 0) {
      fprintf(stderr, "file.source: cannot read %s: %s\n", dev->path,
              strerror(errno));
      return -1;
    }
    /* The end: once round again when looping and the round was not empty. */
    if (!dev->loop || dev->since_rewind == 0 ||
        lseek(dev->fd, 0, SEEK_SET) != 0)
      break;
    dev->since_rewind = 0;
  }
  if (atomic_load(&sample_verbose))
    fprintf(stderr, "file.source: %s: end of file after %" PRIu64 " bytes\n",
            dev->path, dev->since_rewind);
  return -1;
}

/* DoEvent: commands and in-band events; a file has no use for them. */
static int32_t fsrc_do_event(const char* name, int32_t xfd, const char* text) {
  (void)name, (void)xfd, (void)text;
  return 0;
}

/*
 * Read: called on the read thread only, in a loop. Sleeps until the next
 * chunk is due when the option gave a rate, then reads at most the chunk
 * size (and never more than size, the engine's buffer). Returns the bytes
 * read, 0 when a pipe has nothing yet, -1 at the end of the file (not
 * looping), on a read error and once the device is closed. An end is
 * reported once and stays: later Reads return -1 at once.
 */
static int32_t fsrc_read(int32_t xfd, void* buffer, uint32_t size,
                         uint32_t* flags) {
  (void)flags; /* plain media: the engine marks it as such */
  pthread_mutex_lock(&fsrc_lock);
  fsrc_dev* dev = fsrc_find(xfd);
  if (!dev || dev->ended || dev->busy) { /* one reader per device */
    if (dev) fsrc_total.failures++;
    pthread_mutex_unlock(&fsrc_lock);
    return -1;
  }
  dev->busy = 1;
  uint64_t due = 0;
  if (dev->period_ns) {
    uint64_t now = demo_now_ns();
    if (dev->next_due == 0 || now > dev->next_due + dev->period_ns)
      dev->next_due = now; /* start, or start afresh after a stall */
    due = dev->next_due;
    dev->next_due += dev->period_ns;
  }
  pthread_mutex_unlock(&fsrc_lock);

  demo_sleep_until(due);
  uint32_t want = dev->chunk < size ? dev->chunk : size;
  int32_t n = want ? fsrc_read_file(dev, buffer, want) : 0;

  pthread_mutex_lock(&fsrc_lock);
  dev->busy = 0;
  if (dev->closed) { /* Close came meanwhile: the file is ours to close */
    close(dev->fd);
    dev->xfd = 0;
    dev->closed = 0;
    n = -1;
  } else if (n < 0) {
    dev->ended = 1;
    fsrc_total.failures++;
  } else if (n > 0) {
    fsrc_total.chunks++;
    fsrc_total.bytes += (uint64_t)n;
  }
  pthread_mutex_unlock(&fsrc_lock);
  return n;
}

/* The class record; the engine keeps its address while the library runs. */
static cdef fsrc_class = {
    NULL,              /* Reserved */
    fsrc_set_callback, /* SetCallback */
    fsrc_retrieve,     /* Retrieve */
    fsrc_object_info,  /* GetObjectInfo */
    fsrc_open,         /* Open */
    fsrc_close,        /* Close */
    fsrc_do_event,     /* DoEvent */
    NULL,              /* Write: a source takes no data */
    fsrc_read,         /* Read: required, since Open asks for threading */
    NULL,              /* Convert: not a transform */
};

cdef* file_source_class(void) { return &fsrc_class; }

sample_totals file_source_snapshot(void) {
  pthread_mutex_lock(&fsrc_lock);
  sample_totals copy = fsrc_total;
  pthread_mutex_unlock(&fsrc_lock);
  copy.open_devices = copy.opens - copy.closes;
  return copy;
}
