/*
 * init/assert.h - assertions on callers' faults.
 *
 * An assertion guards a promise that the calling code made (a live queue, a
 * non-null key), never input from a peer, the service or a driver: such input
 * is refused where it enters. Assertions stay on in every build type, since
 * carrying on past a broken promise would corrupt shared state. A failed
 * assertion logs "assertion failed: <text>" at level 0 with the place it
 * fired, and aborts. The text is the fixed text that the code's documentation
 * quotes, usually the condition as written.
 */
#ifndef ARBOR_SRC_INIT_ASSERT_H
#define ARBOR_SRC_INIT_ASSERT_H

#ifdef __cplusplus
extern "C" {
#endif

__attribute__((noreturn, visibility("hidden"))) void arbor_assert_fail(
    const char* text, const char* file, const char* function, int line);

#ifdef __cplusplus
}
#endif

#if defined(__FILE_NAME__)
#define ARBOR_ASSERT_FILE __FILE_NAME__
#else
#define ARBOR_ASSERT_FILE __FILE__
#endif

/* Aborts with `text` unless cond holds. */
#define ARBOR_ASSERT(cond, text)                                       \
  do {                                                                 \
    if (__builtin_expect(!(cond), 0))                                  \
      arbor_assert_fail((text), ARBOR_ASSERT_FILE, __func__, __LINE__); \
  } while (0)

#endif /* ARBOR_SRC_INIT_ASSERT_H */
