// What the process tests of arbor-peer share: starting it with its error
// lines joined to its output, signalling it, reading its lines, a private
// temporary directory.
#ifndef ARBOR_TESTS_TOOLS_PEER_PROCESS_H
#define ARBOR_TESTS_TOOLS_PEER_PROCESS_H

#include <signal.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "child_process.h"

namespace peer_process {

using std::chrono::seconds;

inline const std::string kPeer = ARBOR_PEER_PATH;

// arbor-peer with its standard error joined to its standard output, so a
// case reads error lines too. The shell first says its pid, which stays
// arbor-peer's through the exec: the case signals it. Arguments hold no
// quote.
inline std::vector<std::string> Peer(const std::vector<std::string>& args) {
  std::string command = "echo \"pid $$\"; exec '" + kPeer + "'";
  for (const std::string& arg : args) command += " '" + arg + "'";
  return {"/bin/sh", "-c", command + " 2>&1"};
}

// Sends signal to the arbor-peer of child.
inline void Signal(ChildProcess& child, int signal) {
  const std::string line = child.WaitForLine("pid ", seconds(10));
  ASSERT_FALSE(line.empty());
  ASSERT_EQ(kill(std::stoi(line.substr(4)), signal), 0);
}

// What arbor-peer printed, line by line (without the shell's pid line).
inline std::vector<std::string> Lines(const ChildProcess& child) {
  std::vector<std::string> lines;
  const std::string all = child.Output();
  for (size_t start = 0, end; (end = all.find('\n', start)) != std::string::npos; start = end + 1)
    if (all.compare(start, 4, "pid ") != 0) lines.push_back(all.substr(start, end - start));
  return lines;
}

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/arbor-peer-case-XXXXXX";
    path_ = mkdtemp(pattern) != nullptr ? pattern : "/tmp";
  }
  ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The port a serving arbor-peer says it listens on, or 0 when it did not
// come up.
inline int StartServe(ChildProcess& serve) {
  const std::string line = serve.WaitForLine("listening ", seconds(20));
  return line.empty() ? 0 : std::stoi(line.substr(line.find(' ') + 1));
}

// The number on the summary line "  <key> <n>", or -1.
inline long long Summary(const ChildProcess& child, const std::string& key) {
  for (const std::string& line : Lines(child))
    if (line.rfind("  " + key + " ", 0) == 0) return std::atoll(line.c_str() + key.size() + 2);
  return -1;
}

// The sid of "dialled <chain> on <peer>: session <sid>".
inline std::string DialledSid(ChildProcess& dial) {
  const std::string line = dial.WaitForLine("dialled ", seconds(20));
  const size_t at = line.rfind("session ");
  return at == std::string::npos ? "" : line.substr(at + 8);
}


}  // namespace peer_process

#endif  // ARBOR_TESTS_TOOLS_PEER_PROCESS_H
