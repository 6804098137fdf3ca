/*
 * support/rwlock.cc - the read-write lock that guards each session tree.
 *
 * The lock is a pthread_rwlock_t living in the caller's QVRWLock storage, so
 * a tree carries its lock without a separate allocation. It keeps the
 * default attributes, which on glibc prefer readers: a thread that holds the
 * lock shared may take it shared again even while a writer waits, which the
 * tree walk relies on. The known cost is that a steady stream of readers can
 * hold off a writer indefinitely.
 *
 * A pthread error here is the caller's fault (an uninitialised lock, an
 * exclusive holder locking again): it is logged at level 0 and returned,
 * never raised.
 */
#include <pthread.h>

#include <cerrno>
#include <new>

#include "arbor/support.h"

static_assert(sizeof(pthread_rwlock_t) <= sizeof(QVRWLock::storage),
              "pthread_rwlock_t must fit the QVRWLock storage");
static_assert(alignof(pthread_rwlock_t) <= alignof(QVRWLock),
              "QVRWLock must be aligned for pthread_rwlock_t");

namespace {

pthread_rwlock_t* rwlock_of(QVRWLock* lock) {
  return std::launder(reinterpret_cast<pthread_rwlock_t*>(lock->storage));
}

// Passes rc through, logging it when it is an error.
int rwlock_check(int rc, const char* function, const QVRWLock* lock) {
  if (rc != 0) {
    ARBOR_LOG(0, "%s(%p): error %d", function, static_cast<const void*>(lock),
              rc);
  }
  return rc;
}

}  // namespace

extern "C" {

/* 0, or a pthread error number (logged), e.g. EINVAL for a null lock. */
ARBOR_EXPORT int QVInitRWLock(QVRWLock* lock) {
  if (lock == nullptr) return rwlock_check(EINVAL, __func__, lock);
  // Begins the pthread_rwlock_t's lifetime in the storage.
  auto* rw = new (lock->storage) pthread_rwlock_t;
  return rwlock_check(pthread_rwlock_init(rw, nullptr), __func__, lock);
}

/* 0, or a pthread error number (logged). */
ARBOR_EXPORT int QVUNInitRWLock(QVRWLock* lock) {
  if (lock == nullptr) return rwlock_check(EINVAL, __func__, lock);
  return rwlock_check(pthread_rwlock_destroy(rwlock_of(lock)), __func__, lock);
}

/* 0 once held shared, or a pthread error number (logged) without the lock. */
ARBOR_EXPORT int QVRLock(QVRWLock* lock) {
  if (lock == nullptr) return rwlock_check(EINVAL, __func__, lock);
  return rwlock_check(pthread_rwlock_rdlock(rwlock_of(lock)), __func__, lock);
}

/* 0 once held exclusive, or a pthread error number (logged) without it. */
ARBOR_EXPORT int QVWLock(QVRWLock* lock) {
  if (lock == nullptr) return rwlock_check(EINVAL, __func__, lock);
  return rwlock_check(pthread_rwlock_wrlock(rwlock_of(lock)), __func__, lock);
}

/* 0, or a pthread error number (logged). */
ARBOR_EXPORT int QVXUNLock(QVRWLock* lock) {
  if (lock == nullptr) return rwlock_check(EINVAL, __func__, lock);
  return rwlock_check(pthread_rwlock_unlock(rwlock_of(lock)), __func__, lock);
}

}  // extern "C"
