/*
 * support/log.cc - LOG_Print, the one road for every log line of the engine,
 * the transports and the drivers.
 *
 * It is called from every thread, also with locks held, so it never takes a
 * lock before deciding to write: the threshold is one relaxed atomic load.
 * A line that passes is formatted on the stack (on the heap when it is
 * longer; a long message is never cut, short of memory) and handed out under
 * one mutex, either to the host's sink or to standard error in one write(2).
 * The mutex keeps sink calls serial and lines whole; its cost, a short
 * contention between threads that log at the same time, is paid only by
 * lines that are written.
 *
 * The threshold starts from ARBOR_LOG_LEVEL, read at the first call that
 * needs it rather than at load time, so a program may set the variable in
 * main before it logs. Timestamps are UTC: gmtime_r takes no lock and reads
 * no time-zone files, which matters in a function called under locks.
 */
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <system_error>

#include "arbor/support.h"

namespace {

// The threshold before anyone read the environment or set it.
constexpr int kLogUnread = INT_MIN;
// Lines up to this size, prefix included, need no allocation.
constexpr size_t kLogStackLine = 1024;

std::atomic<int> log_threshold_value{kLogUnread};

// Guards the sink and serialises output. Constant-initialised and trivially
// destroyed, so it is usable from any constructor and at unload.
std::mutex log_mutex;
LOG_Sink log_sink = nullptr;       // guarded by log_mutex
void* log_sink_context = nullptr;  // guarded by log_mutex

// Set while this thread is inside the sink: a sink that logs (which it must
// not) would otherwise deadlock on log_mutex.
thread_local bool log_in_sink = false;

// ARBOR_LOG_LEVEL as a whole decimal number; 0 when unset or not a number.
int log_level_from_env() {
  const char* text = std::getenv("ARBOR_LOG_LEVEL");
  if (text == nullptr) return 0;
  const char* end = text + std::strlen(text);
  int level = 0;
  auto [ptr, ec] = std::from_chars(text, end, level);
  if (ec != std::errc() || ptr != end || level == kLogUnread) return 0;
  return level;
}

int log_threshold() {
  int level = log_threshold_value.load(std::memory_order_relaxed);
  if (level != kLogUnread) [[likely]]
    return level;
  // First use: concurrent first callers read the same environment; one of
  // them, or a concurrent LOG_SetLevel, wins.
  int expected = kLogUnread;
  level = log_level_from_env();
  if (!log_threshold_value.compare_exchange_strong(expected, level,
                                                   std::memory_order_relaxed))
    level = expected;
  return level;
}

// Writes all of [data, data + len) to fd, going on after a short write or an
// interruption and giving up on any other error. Cannot fail otherwise.
void log_write_all(int fd, const char* data, size_t len) {
  while (len > 0) {
    const ssize_t n = ::write(fd, data, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    data += n;
    len -= static_cast<size_t>(n);
  }
}

// Hands one line (without line end; line[len] may be overwritten) to the
// sink or to standard error. Cannot fail.
void log_output(int level, char* line, size_t len) {
  if (log_in_sink) {  // a sink that logs: keep the line, avoid the deadlock
    line[len] = '\n';
    log_write_all(STDERR_FILENO, line, len + 1);
    return;
  }
  std::lock_guard<std::mutex> lock(log_mutex);
  if (log_sink != nullptr) {
    line[len] = '\0';
    log_in_sink = true;
    log_sink(log_sink_context, level, line, len);
    log_in_sink = false;
  } else {
    line[len] = '\n';
    log_write_all(STDERR_FILENO, line, len + 1);
  }
}

struct LogHead {
  struct tm tm;
  long usec;
  int level;
  long tid;
  const char* file;
  const char* function;
  int line;
};

// Formats the prefix into [buf, buf + cap); returns snprintf's count.
int log_format_head(char* buf, size_t cap, const LogHead& h) {
  return std::snprintf(buf, cap,
                       "%04d-%02d-%02d %02d:%02d:%02d.%06ld L%d [%ld] %s:%d "
                       "%s: ",
                       h.tm.tm_year + 1900, h.tm.tm_mon + 1, h.tm.tm_mday,
                       h.tm.tm_hour, h.tm.tm_min, h.tm.tm_sec, h.usec, h.level,
                       h.tid, h.file, h.line, h.function);
}

// Formats and writes one line. Cannot fail: without memory for a long line,
// the part that fits the stack buffer is written.
__attribute__((format(printf, 5, 0))) void log_emit(int level, const char* file,
                                                    const char* function,
                                                    int line,
                                                    const char* format,
                                                    va_list args) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  LogHead head{};
  gmtime_r(&now.tv_sec, &head.tm);
  head.usec = now.tv_nsec / 1000;
  head.level = level;
  head.tid = static_cast<long>(syscall(SYS_gettid));
  head.file = file ? file : "?";
  head.function = function ? function : "?";
  head.line = line;

  char stack[kLogStackLine];
  va_list again;
  va_copy(again, args);
  const int head_len = log_format_head(stack, sizeof(stack), head);
  const size_t head_used = head_len < 0 ? 0 : static_cast<size_t>(head_len);
  const size_t room = head_used < sizeof(stack) ? sizeof(stack) - head_used : 0;
  int body_len =
      std::vsnprintf(stack + sizeof(stack) - room, room, format, args);
  if (body_len < 0) body_len = 0;  // a broken format: the prefix alone
  // The text, one byte for the line end or the sink's NUL, one for
  // vsnprintf's NUL.
  size_t len = head_used + static_cast<size_t>(body_len);
  char* text = stack;
  std::unique_ptr<char, decltype(&std::free)> heap(nullptr, &std::free);
  if (len + 2 > sizeof(stack)) {
    heap.reset(static_cast<char*>(std::malloc(len + 2)));
    if (heap) {
      text = heap.get();
      log_format_head(text, len + 2, head);
      std::vsnprintf(text + head_used, len + 2 - head_used, format, again);
    } else {
      len = sizeof(stack) - 2;
    }
  }
  va_end(again);
  // One call is one line: a format that ends in a newline does not add an
  // empty one.
  if (len > head_used && text[len - 1] == '\n') --len;
  log_output(level, text, len);
}

}  // namespace

extern "C" {

/* 1 when the line was written, 0 when filtered. Cannot fail. */
ARBOR_EXPORT int LOG_Print(int level, const char* file, const char* function,
                           int line, const char* format, ...) {
  if (level > log_threshold()) return 0;
  va_list args;
  va_start(args, format);
  log_emit(level, file, function, line, format ? format : "", args);
  va_end(args);
  return 1;
}

/*
 * The previous threshold. Cannot fail. INT_MIN is taken as INT_MIN + 1,
 * which lets through the same levels but for INT_MIN itself.
 */
ARBOR_EXPORT int LOG_SetLevel(int level) {
  if (level == kLogUnread) level = kLogUnread + 1;
  const int previous = log_threshold_value.exchange(level);
  return previous == kLogUnread ? log_level_from_env() : previous;
}

/* Cannot fail. */
ARBOR_EXPORT int LOG_GetLevel(void) { return log_threshold(); }

/* Cannot fail. Ignored when called from inside the sink. */
ARBOR_EXPORT void LOG_SetSink(LOG_Sink sink, void* context) {
  if (log_in_sink) return;
  std::lock_guard<std::mutex> lock(log_mutex);
  log_sink = sink;
  log_sink_context = context;
}

}  // extern "C"
