/*
 * drivers/file_sink.c - file.sink, which appends every chunk it is given to
 * the file named by the hop's option, in the order the chunks come.
 *
 * Open and Close run on the command thread; Write on the read thread of the
 * source's root, or on the command thread for a root fed from the network;
 * snapshots on any thread. fsink_lock guards the table and the counters,
 * and is never held across a system call: a Write marks its device busy and
 * writes outside the lock; a Close that finds the device busy leaves the
 * closing of the file to that Write. So a slow disk holds up only the
 * session that writes to it.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include "sample_drivers.h"
#include "sample_internal.h"

typedef struct fsink_dev {
  int32_t xfd; /* 0: slot free */
  int busy;    /* Writes working on fd outside the lock */
  int closed;  /* Close came while busy: the last Write closes fd */
  int fd;
} fsink_dev;

static pthread_mutex_t fsink_lock = PTHREAD_MUTEX_INITIALIZER;
static fsink_dev fsink_devs[SAMPLE_MAX_OPEN];
static int32_t fsink_next_xfd = 1;
static sample_totals fsink_total;
static DeviceCallback fsink_callback; /* kept, not used by this driver */

/* The open device of descriptor xfd, or NULL. Call with fsink_lock held. */
static fsink_dev* fsink_find(int32_t xfd) {
  for (int i = 0; i < SAMPLE_MAX_OPEN; i++)
    if (xfd > 0 && fsink_devs[i].xfd == xfd && !fsink_devs[i].closed)
      return &fsink_devs[i];
  return NULL;
}

/* SetCallback, Retrieve, GetObjectInfo: as for file.source. */
static int32_t fsink_set_callback(DeviceCallback callback) {
  fsink_callback = callback;
  return 0;
}
static const char* fsink_retrieve(void) { return "file.sink"; }
static const char* fsink_object_info(void) { return "Type=file;Role=sink;"; }

/*
 * Open: called on the command thread; option is the path of the file to
 * write, created or truncated. Opened without blocking, so that a pipe
 * without a reader fails here instead of holding the command thread. No
 * read thread. Returns the descriptor, or -1 after one line on stderr.
 */
static int32_t fsink_open(const char* name, const char* option,
                          uint32_t* threading) {
  (void)threading;
  if (!option || !*option) {
    fprintf(stderr,
            "file.sink: the hop's option must name the file to write\n");
    return -1;
  }
  int fd = open(option, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC,
                0644);
  if (fd < 0) {
    fprintf(stderr, "file.sink: cannot write %s: %s\n", option,
            strerror(errno));
    return -1;
  }

  int32_t xfd = -1;
  pthread_mutex_lock(&fsink_lock);
  for (int i = 0; i < SAMPLE_MAX_OPEN; i++) {
    if (fsink_devs[i].xfd != 0) continue;
    fsink_devs[i] = (fsink_dev){.xfd = fsink_next_xfd++, .fd = fd};
    xfd = fsink_devs[i].xfd;
    fsink_total.opens++;
    break;
  }
  pthread_mutex_unlock(&fsink_lock);

  if (xfd < 0) {
    fprintf(stderr, "file.sink: %d files open already; close one first\n",
            SAMPLE_MAX_OPEN);
    close(fd);
    return -1;
  }
  if (atomic_load(&sample_verbose))
    fprintf(stderr, "file.sink: Open(%s) -> %d: writing %s\n", name, xfd,
            option);
  return xfd;
}

/* Close: called on the command thread or the timed queue's worker; never
 * waits for a Write in progress (see the top of the file). */
static int32_t fsink_close(int32_t xfd) {
  pthread_mutex_lock(&fsink_lock);
  fsink_dev* dev = fsink_find(xfd);
  if (dev) {
    fsink_total.closes++;
    if (dev->busy) {
      dev->closed = 1;
    } else {
      close(dev->fd);
      dev->xfd = 0;
    }
  }
  pthread_mutex_unlock(&fsink_lock);
  return 0;
}

/* DoEvent: commands and in-band events; a file has no use for them. */
static int32_t fsink_do_event(const char* name, int32_t xfd,
                              const char* text) {
  (void)name, (void)xfd, (void)text;
  return 0;
}

/*
 * Write: data is the engine's, valid for the call only. Writes all of it,
 * going on after a partial write. Returns size; the bytes written when the
 * file takes no more (a full pipe, a full disk), which the engine logs as a
 * short write and does not retry; or -1 for an unknown descriptor or a
 * failed write.
 */
static int32_t fsink_write(int32_t xfd, const void* data, uint32_t size,
                           uint32_t flags) {
  (void)flags;
  pthread_mutex_lock(&fsink_lock);
  fsink_dev* dev = fsink_find(xfd);
  if (!dev) {
    pthread_mutex_unlock(&fsink_lock);
    return -1;
  }
  dev->busy++;
  int fd = dev->fd;
  pthread_mutex_unlock(&fsink_lock);

  uint32_t done = 0;
  int error = 0;
  while (done < size) {
    ssize_t n = write(fd, (const char*)data + done, size - done);
    if (n > 0) {
      done += (uint32_t)n;
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      error = n < 0 && errno != EAGAIN;
      break;
    }
  }

  pthread_mutex_lock(&fsink_lock);
  if (--dev->busy == 0 && dev->closed) {
    close(dev->fd);
    dev->xfd = 0;
    dev->closed = 0;
  }
  if (done > 0) {
    fsink_total.chunks++;
    fsink_total.bytes += done;
  }
  if (error || done < size) fsink_total.failures++;
  pthread_mutex_unlock(&fsink_lock);
  return error && done == 0 ? -1 : (int32_t)done;
}

/* The class record; the engine keeps its address while the library runs. */
static cdef fsink_class = {
    NULL,               /* Reserved */
    fsink_set_callback, /* SetCallback */
    fsink_retrieve,     /* Retrieve */
    fsink_object_info,  /* GetObjectInfo */
    fsink_open,         /* Open */
    fsink_close,        /* Close */
    fsink_do_event,     /* DoEvent */
    fsink_write,        /* Write */
    NULL,               /* Read: a sink is never read */
    NULL,               /* Convert: not a transform */
};

cdef* file_sink_class(void) { return &fsink_class; }

sample_totals file_sink_snapshot(void) {
  pthread_mutex_lock(&fsink_lock);
  sample_totals copy = fsink_total;
  pthread_mutex_unlock(&fsink_lock);
  copy.open_devices = copy.opens - copy.closes;
  return copy;
}
