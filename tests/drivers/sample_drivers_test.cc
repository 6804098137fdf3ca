// file.source, file.sink and null.sink against the slot contract: each table
// is called directly, the way the engine calls it (Open on the command
// thread, Read on a read thread of its own, Close from the command thread
// while that Read runs), including the faults a host meets: a bad option, a
// missing file, a pipe with nobody at the other end.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "sample_drivers.h"

namespace {

using Clock = std::chrono::steady_clock;

// A directory of its own per case, removed at the end.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/arbor-drivers-XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string Pattern(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<char>(i * 7 + i / 251);
  return bytes;
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The counters gathered since before: cases share a process when the
// binary is run by hand. open_devices stays as it is now.
sample_totals Since(const sample_totals& before, sample_totals now) {
  now.chunks -= before.chunks;
  now.bytes -= before.bytes;
  now.failures -= before.failures;
  now.opens -= before.opens;
  now.closes -= before.closes;
  return now;
}

int32_t Open(cdef* cls, const std::string& option, uint32_t* threading) {
  *threading = 0;
  return cls->Open(cls->Retrieve(), option.c_str(), threading);
}

int32_t Read(cdef* cls, int32_t xfd, std::vector<char>& buffer) {
  uint32_t flags = 0;
  return cls->Read(xfd, buffer.data(), static_cast<uint32_t>(buffer.size()),
                   &flags);
}

TEST(FileSource, ReadsTheFileInChunksInOrderThenEndsForGood) {
  TempDir dir;
  const std::string bytes = Pattern(10000);
  WriteFile(dir.File("in"), bytes);
  cdef* cls = file_source_class();
  const sample_totals before = file_source_snapshot();
  uint32_t threading = 0;
  int32_t xfd = Open(cls, dir.File("in") + "|3000", &threading);
  ASSERT_GT(xfd, 0);
  EXPECT_NE(threading, 0u) << "a source asks for a read thread";

  std::vector<char> buffer(SAMPLE_MAX_CHUNK);
  std::string got;
  std::vector<int32_t> sizes;
  for (int32_t n; (n = Read(cls, xfd, buffer)) > 0;) {
    sizes.push_back(n);
    got.append(buffer.data(), static_cast<size_t>(n));
  }
  EXPECT_EQ(got, bytes);
  EXPECT_EQ(sizes, (std::vector<int32_t>{3000, 3000, 3000, 1000}));
  EXPECT_EQ(Read(cls, xfd, buffer), -1) << "the end stays the end";

  // The engine's buffer bounds a chunk even when the option asks for more.
  std::vector<char> small(100);
  int32_t again = Open(cls, dir.File("in"), &threading);
  EXPECT_EQ(Read(cls, again, small), 100);
  cls->Close(again);
  cls->Close(xfd);
  cls->Close(xfd);  // a second Close finds nothing
  sample_totals t = Since(before, file_source_snapshot());
  EXPECT_EQ(t.bytes, 10100u);
  EXPECT_EQ(t.opens, 2u);
  EXPECT_EQ(t.closes, 2u);
  EXPECT_EQ(t.open_devices, 0u);
}

TEST(FileSource, LoopsAtTheEndButNotOverAnEmptyFile) {
  TempDir dir;
  WriteFile(dir.File("in"), "abcdefg");
  WriteFile(dir.File("empty"), "");
  cdef* cls = file_source_class();
  uint32_t threading = 0;
  int32_t xfd = Open(cls, dir.File("in") + "|loop|3|1000/s", &threading);
  ASSERT_GT(xfd, 0);
  std::vector<char> buffer(SAMPLE_MAX_CHUNK);
  std::string got;
  for (int i = 0; i < 6; ++i) {
    int32_t n = Read(cls, xfd, buffer);
    ASSERT_GT(n, 0);
    got.append(buffer.data(), static_cast<size_t>(n));
  }
  EXPECT_EQ(got, "abcdefgabcdefg") << "a chunk ends with the file";
  cls->Close(xfd);

  int32_t empty = Open(cls, dir.File("empty") + "|loop", &threading);
  ASSERT_GT(empty, 0);
  EXPECT_EQ(Read(cls, empty, buffer), -1) << "an empty loop would spin";
  cls->Close(empty);
}

TEST(FileSource, RefusesBadOptionsAndMissingFiles) {
  TempDir dir;
  WriteFile(dir.File("in"), "x");
  cdef* cls = file_source_class();
  const sample_totals before = file_source_snapshot();
  uint32_t threading = 0;
  EXPECT_EQ(cls->Open("file.source", nullptr, &threading), -1);
  for (const std::string& option :
       {std::string(""), dir.File("in") + "|sometimes", dir.File("in") + "|0",
        dir.File("in") + "|63489", dir.File("in") + "|0/s",
        dir.File("in") + "|1|2|3|4", std::string("|loop"), dir.File("missing"),
        dir.File("")}) {
    EXPECT_EQ(Open(cls, option, &threading), -1) << option;
    EXPECT_EQ(threading, 0u) << option;
  }
  EXPECT_EQ(Since(before, file_source_snapshot()).opens, 0u);
  std::vector<char> buffer(16);
  EXPECT_EQ(Read(cls, 12345, buffer), -1) << "an unknown descriptor";
}

// The read thread waits in Read on a pipe with nothing in it while the
// command thread closes the device. Read must come back with -1, and the
// pipe must really be closed whichever of the two finished last.
TEST(FileSource, CloseRacingReadEndsTheReadAndClosesTheFile) {
  signal(SIGPIPE, SIG_IGN);
  TempDir dir;
  const std::string fifo = dir.File("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  cdef* cls = file_source_class();
  const sample_totals before = file_source_snapshot();
  for (int round = 0; round < 10; ++round) {
    uint32_t threading = 0;
    int32_t xfd = Open(cls, fifo, &threading);
    ASSERT_GT(xfd, 0);
    int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(writer, 0);
    std::atomic<bool> reading{false};
    std::atomic<int32_t> last{0};
    std::thread reader([&] {
      std::vector<char> buffer(SAMPLE_MAX_CHUNK);
      reading = true;
      const auto limit = Clock::now() + std::chrono::seconds(5);
      int32_t n = 0;
      while ((n = Read(cls, xfd, buffer)) >= 0 && Clock::now() < limit) {
      }
      last = n;
    });
    while (!reading) std::this_thread::yield();
    // Every other round, Close lands while Read is surely inside poll.
    if (round % 2) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    cls->Close(xfd);
    reader.join();
    EXPECT_EQ(last, -1) << "round " << round;
    EXPECT_EQ(write(writer, "x", 1), -1) << "the read end is still open";
    EXPECT_EQ(errno, EPIPE);
    close(writer);
  }
  sample_totals t = Since(before, file_source_snapshot());
  EXPECT_EQ(t.opens, 10u);
  EXPECT_EQ(t.closes, 10u);
  // Every slot is free again.
  std::vector<int32_t> open_now;
  WriteFile(dir.File("in"), "x");
  uint32_t threading = 0;
  for (int i = 0; i < SAMPLE_MAX_OPEN; ++i)
    open_now.push_back(Open(cls, dir.File("in"), &threading));
  for (int32_t xfd : open_now) EXPECT_GT(xfd, 0);
  EXPECT_EQ(Open(cls, dir.File("in"), &threading), -1) << "table full";
  for (int32_t xfd : open_now) cls->Close(xfd);
}

TEST(FileSink, WritesEveryChunkInOrder) {
  TempDir dir;
  cdef* cls = file_sink_class();
  const sample_totals before = file_sink_snapshot();
  uint32_t threading = 0;
  int32_t xfd = Open(cls, dir.File("out"), &threading);
  ASSERT_GT(xfd, 0);
  EXPECT_EQ(threading, 0u);
  const std::string bytes = Pattern(200000);
  for (size_t at = 0; at < bytes.size(); at += SAMPLE_MAX_CHUNK) {
    uint32_t n = static_cast<uint32_t>(
        std::min<size_t>(SAMPLE_MAX_CHUNK, bytes.size() - at));
    EXPECT_EQ(cls->Write(xfd, bytes.data() + at, n, 0x40000), int32_t(n));
  }
  cls->Close(xfd);
  EXPECT_EQ(cls->Write(xfd, "x", 1, 0), -1) << "written after Close";
  EXPECT_EQ(ReadFile(dir.File("out")), bytes);
  sample_totals t = Since(before, file_sink_snapshot());
  EXPECT_EQ(t.chunks, 4u);
  EXPECT_EQ(t.bytes, bytes.size());
  EXPECT_EQ(t.open_devices, 0u);
}

TEST(FileSink, RefusesWhatItCannotWriteWithoutBlocking) {
  TempDir dir;
  cdef* cls = file_sink_class();
  const sample_totals before = file_sink_snapshot();
  uint32_t threading = 0;
  EXPECT_EQ(cls->Open("file.sink", nullptr, &threading), -1);
  EXPECT_EQ(Open(cls, "", &threading), -1);
  EXPECT_EQ(Open(cls, dir.File("no/such/dir"), &threading), -1);
  // A pipe nobody reads: Open must fail, not wait on the command thread.
  const std::string fifo = dir.File("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(Open(cls, fifo, &threading), -1);
  EXPECT_EQ(Since(before, file_sink_snapshot()).opens, 0u);
}

TEST(NullSink, CountsChunksAndBytesOfOpenDevicesOnly) {
  cdef* cls = null_sink_class();
  const sample_totals before = null_sink_snapshot();
  EXPECT_STREQ(cls->Retrieve(), "null.sink");
  uint32_t threading = 0;
  std::vector<int32_t> xfds;
  for (int i = 0; i < SAMPLE_MAX_OPEN; ++i)
    xfds.push_back(cls->Open("null.sink", nullptr, &threading));
  for (int32_t xfd : xfds) ASSERT_GT(xfd, 0);
  EXPECT_EQ(cls->Open("null.sink", nullptr, &threading), -1) << "table full";
  std::vector<char> chunk(1000);
  for (int32_t xfd : xfds)
    EXPECT_EQ(cls->Write(xfd, chunk.data(), 1000, 0), 1000);
  for (int32_t xfd : xfds) cls->Close(xfd);
  EXPECT_EQ(cls->Write(xfds[0], chunk.data(), 1000, 0), -1);
  sample_totals t = Since(before, null_sink_snapshot());
  EXPECT_EQ(t.chunks, uint64_t(SAMPLE_MAX_OPEN));
  EXPECT_EQ(t.bytes, uint64_t(SAMPLE_MAX_OPEN) * 1000);
  EXPECT_EQ(t.opens, t.closes);
  EXPECT_EQ(t.open_devices, 0u);
}

}  // namespace
