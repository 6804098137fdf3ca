// What the sanitizers must know about GStreamer in drivers_gst_test. These
// are the suppressions of that test, compiled in, so that ctest needs no
// environment; a plain build ignores them.
//
// ThreadSanitizer: GLib's GMutex and GCond are built on futexes on Linux,
// which ThreadSanitizer cannot see, so every hand-off inside GStreamer (a
// buffer from one streaming thread to the next, a task started from a pool)
// would look like a race. Interceptors called from GLib, GStreamer and the
// plugins the tests load are therefore ignored. Our own code stays checked:
// the bridge shares state with GStreamer's threads only under pthread
// mutexes of its own (gst_common.h), and allocates its own records with
// malloc, not g_malloc.
//
// LeakSanitizer: GLib allocates a block in a library constructor when it is
// loaded and keeps it for the life of the process. Only allocations made
// under _dl_init are suppressed; to see that frame, stacks are unwound
// fully at malloc. A leak of our own malloc'd records still fails. A
// forgotten GStreamer object escapes LeakSanitizer whatever it is told
// (GStreamer's threads keep pointers to it): GStreamer's leaks tracer finds
// those, at the end of every case of gst_bridge_test.cc.
#define ARBOR_SANITIZER_HOOK extern "C" __attribute__((visibility("default")))

ARBOR_SANITIZER_HOOK const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\n"
         "called_from_lib:libgstreamer-1.0.so\n"
         "called_from_lib:libgstbase-1.0.so\n"
         "called_from_lib:libgstapp-1.0.so\n"
         "called_from_lib:libgstvideo-1.0.so\n"
         "called_from_lib:libgstaudio-1.0.so\n"
         "called_from_lib:libgstcoreelements.so\n"
         "called_from_lib:libgstvideotestsrc.so\n"
         "called_from_lib:libgsttypefindfunctions.so\n"
         "called_from_lib:libgstx264.so\n"
         "called_from_lib:libgstvideoparsersbad.so\n"
         "called_from_lib:libgstlibav.so\n"
         "called_from_lib:libgstmatroska.so\n"
         "called_from_lib:libx264.so\n"
         "called_from_lib:libavcodec.so\n"
         "called_from_lib:libavutil.so\n"
         "called_from_lib:liborc-0.4.so\n";
}

ARBOR_SANITIZER_HOOK const char* __lsan_default_suppressions() {
  return "leak:_dl_init\n";
}

ARBOR_SANITIZER_HOOK const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0";
}
