// A child process for the cross-process tests and the benchmarks: started
// with its standard input and output on pipes, read line by line with a
// time limit, and killed and reaped by the destructor whatever happened, so
// a failing case never leaves a process behind. The child also gets SIGKILL
// from the kernel when its parent dies (PR_SET_PDEATHSIG, set between fork
// and exec), so not even a crash of the parent leaves one running.
#ifndef ARBOR_TESTS_PROCESS_CHILD_PROCESS_H
#define ARBOR_TESTS_PROCESS_CHILD_PROCESS_H

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

class ChildProcess {
 public:
  // Starts argv[0] (a path) with argv; stderr stays the parent's.
  explicit ChildProcess(const std::vector<std::string>& argv) {
    int in[2], out[2];
    if (pipe(in) != 0) return;
    if (pipe(out) != 0) {
      close(in[0]);
      close(in[1]);
      return;
    }
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(127);  // the parent died before prctl
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      close(in[0]);
      close(in[1]);
      close(out[0]);
      close(out[1]);
      std::vector<char*> args;
      for (const std::string& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
      args.push_back(nullptr);
      execv(args[0], args.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    if (pid_ < 0) {
      close(in[1]);
      close(out[0]);
      return;
    }
    stdin_ = in[1];
    stdout_ = out[0];
  }
  ~ChildProcess() {
    Kill();
    if (stdin_ >= 0) close(stdin_);
    if (stdout_ >= 0) close(stdout_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }

  // Sends SIGKILL without waiting, so that several children can be
  // stopped at once; Kill or the destructor reaps.
  void Signal() {
    if (pid_ > 0 && !reaped_) kill(pid_, SIGKILL);
  }

  // Stops (SIGSTOP) or continues (SIGCONT) the child, for a benchmark
  // that measures two groups of processes in turns on the same cores.
  void Pause(bool paused) {
    if (pid_ > 0 && !reaped_) kill(pid_, paused ? SIGSTOP : SIGCONT);
  }

  // The first line holding needle that the child printed so far or prints
  // before `limit` passes; "" on time-out or end of output.
  std::string WaitForLine(const std::string& needle, std::chrono::milliseconds limit) {
    auto match = [&]() -> const std::string* {
      for (const std::string& l : lines_)
        if (l.find(needle) != std::string::npos) return &l;
      return nullptr;
    };
    return ReadUntil([&] { return match() != nullptr; }, limit) ? *match() : "";
  }

  // The port of the "listening <port>" line a serving child prints first,
  // or 0 when none comes within 10 s.
  int ListeningPort() {
    const std::string line = WaitForLine("listening ", std::chrono::seconds(10));
    return line.empty() ? 0 : std::stoi(line.substr(line.find(' ') + 1));
  }

  // Whether `count` lines equal to line are printed before `limit` passes.
  bool WaitForLines(const std::string& line, size_t count, std::chrono::milliseconds limit) {
    return ReadUntil(
        [&] { return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), line)) >= count; },
        limit);
  }

  void Send(const std::string& line) {
    const std::string text = line + "\n";
    [[maybe_unused]] ssize_t n = write(stdin_, text.data(), text.size());
  }

  // Waits up to limit for the child to exit (reading what it prints on the
  // way). Its exit status, or -1 when it did not exit or was killed.
  int Wait(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!reaped_) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped_ = true;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        break;
      }
      if (std::chrono::steady_clock::now() > end) return -1;
      ReadSome(10);
    }
    while (ReadSome(0)) {
    }
    return status_;
  }

  void Kill() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      reaped_ = true;
    }
  }

  std::string Output() const {
    std::string all;
    for (const std::string& line : lines_) all += line + "\n";
    return all;
  }

 private:
  // Reads what the child prints until done() holds; false when `limit`
  // passes or the output ends first.
  template <typename Done>
  bool ReadUntil(Done done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      if (left.count() <= 0 || !ReadSome(static_cast<int>(left.count()))) return false;
    }
    return true;
  }

  // Reads what is there within ms; false at end of output or time-out.
  bool ReadSome(int ms) {
    pollfd fd{stdout_, POLLIN, 0};
    if (poll(&fd, 1, ms) <= 0) return false;
    char buffer[4096];
    const ssize_t n = read(stdout_, buffer, sizeof buffer);
    if (n <= 0) return false;
    partial_.append(buffer, static_cast<size_t>(n));
    for (size_t nl; (nl = partial_.find('\n')) != std::string::npos;) {
      lines_.push_back(partial_.substr(0, nl));
      partial_.erase(0, nl + 1);
    }
    return true;
  }

  pid_t pid_ = -1;
  int stdin_ = -1, stdout_ = -1;
  bool reaped_ = false;
  int status_ = -1;
  std::string partial_;
  std::vector<std::string> lines_;
};

#endif  // ARBOR_TESTS_PROCESS_CHILD_PROCESS_H
