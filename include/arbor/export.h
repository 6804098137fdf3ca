/*
 * arbor/export.h - symbol visibility and C linkage for Arbor's public headers.
 *
 * Audience: hosts, drivers and transports, through the headers that include it;
 * nothing here is called.
 *
 * Every library of the project is built with -fvisibility=hidden; a name is
 * part of a library's interface only when its declaration carries
 * ARBOR_EXPORT. The same macro serves the engine, the support library and the
 * transports, so a replacement library built from these headers exports the
 * same names.
 *
 * Public headers wrap their declarations in ARBOR_BEGIN_DECLS /
 * ARBOR_END_DECLS so that they compile as C and give C linkage in C++.
 */
#ifndef ARBOR_EXPORT_H
#define ARBOR_EXPORT_H

#if defined(__GNUC__)
#define ARBOR_EXPORT __attribute__((visibility("default")))
#define ARBOR_PRINTF(fmt_index, first_arg) \
  __attribute__((format(printf, fmt_index, first_arg)))
#else
#define ARBOR_EXPORT
#define ARBOR_PRINTF(fmt_index, first_arg)
#endif

#ifdef __cplusplus
#define ARBOR_BEGIN_DECLS extern "C" {
#define ARBOR_END_DECLS }
#else
#define ARBOR_BEGIN_DECLS
#define ARBOR_END_DECLS
#endif

/*
 * Pins the layout of a record that crosses a library boundary. Checked in
 * C++ and in C11 or later; C99 has no static assertion, so there the check
 * expands to nothing (every build of the libraries themselves checks it).
 */
#if defined(__cplusplus)
#define ARBOR_RECORD_ASSERT(cond, what) static_assert(cond, what)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define ARBOR_RECORD_ASSERT(cond, what) _Static_assert(cond, what)
#else
#define ARBOR_RECORD_ASSERT(cond, what) struct arbor_record_assert_unused_
#endif

#endif /* ARBOR_EXPORT_H */
