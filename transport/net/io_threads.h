// io_threads.h - an io_context and the threads that run it: the engine of
// each side of the transport (the LAN side, the WAN link).
//
// The threads run until Stop; a handler that throws (out of memory, or the
// engine's callback in C++ form) is logged and the loop goes on, so one bad
// call does not end every connection. Stop may not be called from one of
// these threads, which cannot join themselves.
#ifndef ARBOR_NET_IO_THREADS_H
#define ARBOR_NET_IO_THREADS_H

#include <pthread.h>

#include <asio.hpp>
#include <thread>
#include <vector>

#include "arbor/support.h"

namespace arbor::net {

class IoThreads {
 public:
  // name is for log lines ("LAN", "WAN") and must outlive the object;
  // thread_name (at most 15 characters) is what ps and top show for the
  // threads.
  IoThreads(const char* name, const char* thread_name)
      : name_(name), thread_name_(thread_name), work_(asio::make_work_guard(io_)) {}
  ~IoThreads() { Stop(); }
  IoThreads(const IoThreads&) = delete;
  IoThreads& operator=(const IoThreads&) = delete;

  asio::io_context& io() { return io_; }

  // Starts count threads. Throws (std::system_error) when none can be made.
  void Start(int count) {
    for (int i = 0; i < count; ++i) threads_.emplace_back([this] { Run(); });
  }

  // True on one of these threads.
  bool OnIoThread() const {
    for (const std::thread& t : threads_)
      if (t.get_id() == std::this_thread::get_id()) return true;
    return false;
  }

  // Whether the caller may stop these threads: false, with a level-0 line
  // naming call, on one of them (inside a callback), which cannot join
  // itself.
  bool MayStopFrom(const char* call) const {
    if (!OnIoThread()) return true;
    ARBOR_LOG(0, "%s: called on a transport thread (inside a callback); call it from another "
                 "thread",
              call);
    return false;
  }

  // Stops the loop and joins the threads: no handler runs after it returns.
  // Idempotent; the caller is not one of the threads (OnIoThread).
  void Stop() {
    work_.reset();
    io_.stop();
    for (std::thread& t : threads_) t.join();
    threads_.clear();
  }

 private:
  void Run() {
    pthread_setname_np(pthread_self(), thread_name_);
    for (;;) {
      try {
        io_.run();
        return;
      } catch (const std::exception& e) {
        ARBOR_LOG(0, "%s I/O thread: %s", name_, e.what());
      }
    }
  }

  const char* const name_;
  const char* const thread_name_;
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> work_;
  std::vector<std::thread> threads_;
};

}  // namespace arbor::net

#endif  // ARBOR_NET_IO_THREADS_H
