// The GStreamer bridge against the slot contract: gst.source, gst.sink and
// gst.transform called directly, as the engine calls them, with real
// pipelines. A case that needs an element this machine lacks is skipped
// with the element's name; scripts/setup.sh installs them all.
#include <stdlib.h>
#include <unistd.h>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "gst_bridge.h"

namespace {

using Clock = std::chrono::steady_clock;

// GStreamer's leaks tracer follows every element, bus, buffer, sample and
// message; it must be chosen before gst_init, hence here, before main.
// LeakSanitizer cannot see these leaks: GStreamer's own threads keep
// pointers to what we forget.
const bool kLeaksTracer =
    setenv("GST_TRACERS",
           "leaks(filters=\"GstElement,GstBus,GstBuffer,GstSample,GstMessage\","
           "stack-traces-flags=none)",
           1) == 0;

// What the leaks tracer finds alive, as " type/references" each; "" for
// nothing. The tracer hands over its own reference to each object it lists,
// so a list that is not empty is kept, never freed: freeing it would release
// objects that their owners still use.
std::string AliveObjects() {
  GList* tracers = gst_tracing_get_active_tracers();
  GObject* leaks = nullptr;
  for (GList* t = tracers; t; t = t->next)
    if (std::string(G_OBJECT_TYPE_NAME(t->data)) == "GstLeaksTracer")
      leaks = G_OBJECT(t->data);
  GstStructure* info = nullptr;
  if (leaks) g_signal_emit_by_name(leaks, "get-live-objects", &info);
  g_list_free_full(tracers, gst_object_unref);
  if (!info) return " (the leaks tracer did not start)";
  std::string alive;
  const GValue* list = gst_structure_get_value(info, "live-objects-list");
  for (guint i = 0; list && i < gst_value_list_get_size(list); ++i) {
    const GstStructure* object =
        gst_value_get_structure(gst_value_list_get_value(list, i));
    guint refs = 0;
    gst_structure_get_uint(object, "ref-count", &refs);
    alive += std::string(" ") +
             G_VALUE_TYPE_NAME(gst_structure_get_value(object, "object")) +
             "/" + std::to_string(refs);
  }
  if (alive.empty()) gst_structure_free(info);
  return alive;
}

// Each case ends with nothing of GStreamer's left alive: every pipeline the
// bridge built and every buffer it took or gave was released. GStreamer's
// pooled threads may still hold a stopped pipeline for a moment; they are
// stopped first.
class GstBridge : public ::testing::Test {
 protected:
  void TearDown() override {
    ASSERT_TRUE(kLeaksTracer);
    gst_task_cleanup_all();
    EXPECT_EQ(AliveObjects(), "") << "still alive (type/references)";
  }
};

// Skips the case unless every element named is installed.
#define NEED_ELEMENTS(...)                                                  \
  do {                                                                      \
    gst_bridge_init();                                                      \
    for (const char* element : {__VA_ARGS__}) {                             \
      GstElementFactory* factory = gst_element_factory_find(element);       \
      if (!factory)                                                         \
        GTEST_SKIP() << "GStreamer element " << element                     \
                     << " is not installed; scripts/setup.sh installs it";  \
      gst_object_unref(factory);                                            \
    }                                                                       \
  } while (0)

// The counters gathered since before: cases share a process when the
// binary is run by hand. open_devices stays as it is now.
gst_bridge_totals Since(const gst_bridge_totals& before,
                        gst_bridge_totals now) {
  now.chunks -= before.chunks;
  now.bytes -= before.bytes;
  now.samples -= before.samples;
  now.out_bytes -= before.out_bytes;
  now.dropped_chunks -= before.dropped_chunks;
  now.dropped_bytes -= before.dropped_bytes;
  now.opens -= before.opens;
  now.closes -= before.closes;
  now.errors -= before.errors;
  now.ends -= before.ends;
  return now;
}

// Reads xfd until Read fails or the time limit passes; the chunks in order.
std::vector<std::string> ReadAll(cdef* cls, int32_t xfd, int seconds) {
  std::vector<std::string> chunks;
  std::vector<char> buffer(GST_BRIDGE_MAX_CHUNK);
  const auto limit = Clock::now() + std::chrono::seconds(seconds);
  while (Clock::now() < limit) {
    uint32_t flags = 0;
    int32_t n = cls->Read(xfd, buffer.data(), GST_BRIDGE_MAX_CHUNK, &flags);
    if (n < 0) break;
    if (n > 0) chunks.emplace_back(buffer.data(), static_cast<size_t>(n));
  }
  return chunks;
}

// Plays description to its end and counts the buffers reaching the fakesink
// named "count"; -1 on an error or when the end does not come in time.
int CountFrames(const std::string& description) {
  GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
  if (!pipeline) return -1;
  GstElement* count = gst_bin_get_by_name(GST_BIN(pipeline), "count");
  static std::atomic<int> frames;
  frames = 0;
  g_object_set(count, "signal-handoffs", TRUE, nullptr);
  g_signal_connect(count, "handoff",
                   G_CALLBACK(+[](GstElement*, GstBuffer*, GstPad*) {
                     frames++;
                   }),
                   nullptr);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* msg = gst_bus_timed_pop_filtered(
      bus, 10 * GST_SECOND,
      static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  int result = msg && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS ? frames.load()
                                                                : -1;
  if (msg) gst_message_unref(msg);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(count);
  gst_object_unref(pipeline);
  return result;
}

TEST_F(GstBridge, AddRefusesBadNamesAndPipelinesAndListsTheRest) {
  gst_bridge_init();
  const char* good_src = "fakesrc ! appsink name=arbor";
  EXPECT_EQ(gst_source_class()->Retrieve(), nullptr) << "no names yet";
  EXPECT_EQ(gst_bridge_add_source("cam", good_src), 0);
  EXPECT_EQ(gst_bridge_add_source("mic", good_src), 0);
  EXPECT_STREQ(gst_source_class()->Retrieve(), "cam,mic");

  EXPECT_EQ(gst_bridge_add_source("cam", good_src), -1) << "twice";
  EXPECT_EQ(gst_bridge_add_source("x;y", good_src), -1);
  EXPECT_EQ(gst_bridge_add_source("x=y", good_src), -1);
  EXPECT_EQ(gst_bridge_add_source("", good_src), -1);
  EXPECT_EQ(gst_bridge_add_source(std::string(64, 'n').c_str(), good_src), -1);
  EXPECT_EQ(gst_bridge_add_source("bad", "nosuchelement ! appsink"), -1);
  EXPECT_EQ(gst_bridge_add_source("bad", "fakesrc ! fakesink"), -1)
      << "a source needs an appsink";
  EXPECT_EQ(gst_bridge_add_sink("bad", "fakesrc ! fakesink"), -1)
      << "a sink needs an appsrc";
  EXPECT_EQ(gst_bridge_add_transform("bad", "appsrc ! fakesink"), -1)
      << "a transform needs both";
  // The engine finds a class by part of its list of names.
  EXPECT_EQ(gst_bridge_add_sink("cam.rec", "appsrc ! fakesink"), -1);
  EXPECT_EQ(gst_bridge_add_sink("rec", "appsrc ! fakesink"), 0);
  EXPECT_EQ(gst_bridge_add_source("cam2", good_src), 0) << "same class";
  EXPECT_STREQ(gst_source_class()->Retrieve(), "cam,mic,cam2");
  EXPECT_STREQ(gst_sink_class()->Retrieve(), "rec");

  uint32_t threading = 0;
  EXPECT_EQ(gst_source_class()->Open("nosuch", nullptr, &threading), -1);
  EXPECT_EQ(gst_sink_class()->Open("cam", nullptr, &threading), -1)
      << "a name of another class";
  EXPECT_EQ(gst_source_class()->Read(77, nullptr, 0, &threading), -1);
  EXPECT_EQ(gst_sink_class()->Write(77, "x", 1, 0), -1);
}

// A short H.264 stream, with key frames larger than one chunk, from
// gst.source through gst.sink into a Matroska file; decoding the file gives
// back every frame, so the chunks carried the stream whole and in order and
// Close let the muxer finish.
TEST_F(GstBridge, H264StreamFromSourceToSinkDecodesWhole) {
  NEED_ELEMENTS("x264enc", "h264parse", "avdec_h264", "matroskamux",
                "matroskademux");
  constexpr int kFrames = 30;
  char dir_pattern[] = "/tmp/arbor-gst-XXXXXX";
  const std::string dir = mkdtemp(dir_pattern);
  const std::string mkv = dir + "/out.mkv";
  ASSERT_EQ(gst_bridge_add_source(
                "h264.test",
                ("videotestsrc num-buffers=" + std::to_string(kFrames) +
                 " pattern=snow ! video/x-raw,width=640,height=480 ! "
                 "x264enc tune=zerolatency speed-preset=ultrafast ! "
                 "h264parse config-interval=-1 ! "
                 "video/x-h264,stream-format=byte-stream,alignment=au ! "
                 "appsink name=arbor")
                    .c_str()),
            0);
  ASSERT_EQ(gst_bridge_add_sink(
                "mkv.test",
                ("appsrc name=arbor caps=video/x-h264,stream-format=byte-stream"
                 " ! h264parse ! matroskamux ! filesink location=" + mkv)
                    .c_str()),
            0);
  cdef* source = gst_source_class();
  cdef* sink = gst_sink_class();
  const gst_bridge_totals src0 = gst_source_snapshot();
  const gst_bridge_totals snk0 = gst_sink_snapshot();
  uint32_t threading = 0;
  int32_t in = source->Open("h264.test", nullptr, &threading);
  ASSERT_GT(in, 0);
  EXPECT_NE(threading, 0u);
  threading = 0;
  int32_t out = sink->Open("mkv.test", nullptr, &threading);
  ASSERT_GT(out, 0);
  EXPECT_EQ(threading, 0u);

  std::vector<std::string> chunks = ReadAll(source, in, 20);
  size_t full = 0, bytes = 0;
  for (const std::string& chunk : chunks) {
    full += chunk.size() == GST_BRIDGE_MAX_CHUNK;
    bytes += chunk.size();
    EXPECT_EQ(sink->Write(out, chunk.data(), uint32_t(chunk.size()), 0x40000),
              int32_t(chunk.size()));
  }
  EXPECT_GT(full, 0u) << "no sample was large enough to be split";
  source->Close(in);
  sink->Close(out);

  gst_bridge_totals src = Since(src0, gst_source_snapshot());
  gst_bridge_totals snk = Since(snk0, gst_sink_snapshot());
  EXPECT_EQ(src.ends, 1u) << "the end of the stream was reported";
  EXPECT_EQ(src.samples, uint64_t(kFrames));
  EXPECT_EQ(src.bytes, bytes);
  EXPECT_EQ(snk.bytes, bytes);
  EXPECT_EQ(snk.dropped_chunks, 0u);
  EXPECT_EQ(src.errors + snk.errors, 0u);
  EXPECT_EQ(src.open_devices + snk.open_devices, 0u);
  EXPECT_EQ(CountFrames("filesrc location=" + mkv +
                        " ! matroskademux ! h264parse ! avdec_h264 ! "
                        "fakesink name=count"),
            kFrames);
  std::system(("rm -rf '" + dir + "'").c_str());
}

// The read thread waits in Read on a slow live pipeline while the command
// thread closes the device: Read returns -1 at once and no end of stream is
// reported for a pipeline that was stopped.
TEST_F(GstBridge, CloseRacingReadStopsTheReadAtOnce) {
  gst_bridge_init();
  ASSERT_EQ(gst_bridge_add_source(
                "slow", "videotestsrc is-live=true ! "
                        "video/x-raw,width=64,height=48,framerate=2/1 ! "
                        "appsink name=arbor"),
            0);
  cdef* source = gst_source_class();
  const gst_bridge_totals before = gst_source_snapshot();
  for (int round = 0; round < 5; ++round) {
    uint32_t threading = 0;
    int32_t xfd = source->Open("slow", nullptr, &threading);
    ASSERT_GT(xfd, 0);
    std::atomic<bool> reading{false};
    std::thread reader([&] {
      reading = true;
      ReadAll(source, xfd, 5);  // until Read fails
    });
    while (!reading) std::this_thread::yield();
    const auto start = Clock::now();
    source->Close(xfd);
    reader.join();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2))
        << "Read did not notice the Close";
  }
  gst_bridge_totals t = Since(before, gst_source_snapshot());
  EXPECT_EQ(t.opens, 5u);
  EXPECT_EQ(t.closes, 5u);
  EXPECT_EQ(t.ends + t.errors, 0u);
}

// A pipeline that takes a buffer a tenth of a second: Writes never wait for
// it; what does not fit in the appsrc is dropped and counted, and Close
// still ends the pipeline within its bound.
TEST_F(GstBridge, SlowSinkDropsInsteadOfBlocking) {
  gst_bridge_init();
  ASSERT_EQ(gst_bridge_add_sink("lagging",
                                "appsrc name=arbor max-bytes=30000 ! "
                                "identity sleep-time=100000 ! fakesink"),
            0);
  cdef* sink = gst_sink_class();
  const gst_bridge_totals before = gst_sink_snapshot();
  uint32_t threading = 0;
  int32_t xfd = sink->Open("lagging", nullptr, &threading);
  ASSERT_GT(xfd, 0);
  std::vector<char> chunk(10000, 'v');
  for (int i = 0; i < 40; ++i)
    EXPECT_EQ(sink->Write(xfd, chunk.data(), 10000, 0), 10000);
  gst_bridge_totals t = Since(before, gst_sink_snapshot());
  EXPECT_GE(t.dropped_chunks, 30u);
  EXPECT_EQ(t.dropped_bytes, t.dropped_chunks * 10000);
  EXPECT_EQ(t.chunks + t.dropped_chunks, 40u);
  sink->Close(xfd);
  EXPECT_EQ(sink->Write(xfd, chunk.data(), 10000, 0), -1);
  EXPECT_EQ(gst_sink_snapshot().open_devices, 0u);
}

// Convert as the engine calls it: a sizing call, then the copy. Bytes come
// out in order and whole, at most one chunk per call, later than they went
// in.
TEST_F(GstBridge, TransformHandsOnEveryByteInOrderAcrossCalls) {
  gst_bridge_init();
  ASSERT_EQ(gst_bridge_add_transform(
                "copy", "appsrc name=arbor-in ! identity ! "
                        "appsink name=arbor-out"),
            0);
  cdef* tf = gst_transform_class();
  const gst_bridge_totals before = gst_transform_snapshot();
  uint32_t threading = 0;
  int32_t xfd = tf->Open("copy", nullptr, &threading);
  ASSERT_GT(xfd, 0);
  EXPECT_EQ(threading, 0u);

  std::string input(300000, '\0');
  for (size_t i = 0; i < input.size(); ++i) input[i] = char(i % 253);
  std::string output;
  auto convert = [&](const char* in, uint32_t size) {
    uint32_t in_size = size, out_size = 0, flags = 0x40000;
    ASSERT_EQ(tf->Convert(xfd, in, &in_size, nullptr, &out_size, &flags), 0);
    EXPECT_EQ(in_size, size) << "all input is taken";
    EXPECT_LE(out_size, uint32_t(GST_BRIDGE_MAX_CHUNK));
    if (out_size == 0) return;
    std::vector<char> out(out_size);
    in_size = size;
    ASSERT_EQ(tf->Convert(xfd, in, &in_size, out.data(), &out_size, &flags),
              0);
    output.append(out.data(), out_size);
  };
  for (size_t at = 0; at < input.size(); at += 50000)
    convert(input.data() + at, 50000);
  // No more input: empty calls collect what is still inside.
  const auto limit = Clock::now() + std::chrono::seconds(5);
  while (output.size() < input.size() && Clock::now() < limit)
    convert(nullptr, 0);
  EXPECT_EQ(output, input);
  tf->Close(xfd);
  uint32_t zero = 0;
  EXPECT_EQ(tf->Convert(xfd, nullptr, &zero, nullptr, &zero, &zero), -1);
  gst_bridge_totals t = Since(before, gst_transform_snapshot());
  EXPECT_EQ(t.bytes, input.size());
  EXPECT_EQ(t.out_bytes, input.size());
  EXPECT_EQ(t.dropped_chunks + t.errors, 0u);
}

// Pipelines that fail. One that cannot start fails Open; one that fails
// while streaming (typefind meets bytes it cannot name) makes Read return
// -1, and the error is counted once however often Read is called.
TEST_F(GstBridge, SourceErrorsFailOpenOrEndReadsCountedOnce) {
  gst_bridge_init();
  ASSERT_EQ(gst_bridge_add_source("missing", "filesrc location=/nonexistent ! "
                                             "appsink name=arbor"),
            0);
  ASSERT_EQ(gst_bridge_add_source("garbage", "fakesrc num-buffers=1 ! "
                                             "typefind ! appsink name=arbor"),
            0);
  cdef* source = gst_source_class();
  const gst_bridge_totals before = gst_source_snapshot();
  uint32_t threading = 0;
  EXPECT_EQ(source->Open("missing", nullptr, &threading), -1);
  threading = 0;
  int32_t xfd = source->Open("garbage", nullptr, &threading);
  ASSERT_GT(xfd, 0);
  EXPECT_TRUE(ReadAll(source, xfd, 5).empty());
  std::vector<char> buffer(16);
  EXPECT_EQ(source->Read(xfd, buffer.data(), 16, &threading), -1);
  source->Close(xfd);
  gst_bridge_totals t = Since(before, gst_source_snapshot());
  EXPECT_EQ(t.errors, 2u) << "one error per pipeline, whatever the Reads";
  EXPECT_EQ(t.ends, 0u);
  EXPECT_EQ(t.opens, 1u);
  EXPECT_EQ(t.open_devices, 0u);
}

}  // namespace
