// Runs noxelenhance between two pads of GStreamer's harness, without a pipeline.
#pragma once

#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace noxel {

// For GStreamer's reference counts: std::unique_ptr<GstBuffer, Unref>.
struct Unref {
  void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
  void operator()(GstEvent* event) const { gst_event_unref(event); }
  void operator()(GstMessage* message) const { gst_message_unref(message); }
  void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
  void operator()(GstElement* element) const { gst_object_unref(element); }
  void operator()(GstBus* bus) const { gst_object_unref(bus); }
};
using Buffer = std::unique_ptr<GstBuffer, Unref>;
using Message = std::unique_ptr<GstMessage, Unref>;

// Skipped without a GL driver, or failed where the environment requires one. A GStreamer object that a test leaves
// behind fails it.
class GstreamerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  std::map<std::string, int> liveBefore;  // objects by type
};

// Levels of a plain frame.
struct Levels {
  int y, u, v;
};

struct Format {
  GstVideoFormat format;
  int width, height;
  int framesPerSecond = 25;
  std::string colorimetry = "bt601";
  std::string caps() const;
};

// A plain frame of frame number `index`, whose time stamp is index / framesPerSecond. paddedBy: bytes behind each row.
GstBuffer* plainFrame(const Format& format, int index, Levels levels, int paddedBy = 0);
Levels meanLevels(const Format& format, GstBuffer* buffer);

class ElementHarness {
 public:
  // `properties` as in gst-launch. The element is not live unless liveSource.
  explicit ElementHarness(const Format& format, const std::string& properties = "", bool liveSource = false);
  ~ElementHarness();
  ElementHarness(const ElementHarness&) = delete;
  ElementHarness& operator=(const ElementHarness&) = delete;

  GstHarness* operator*() const { return harness; }
  GstElement* element() const { return element_; }
  GstFlowReturn push(int index, Levels levels = {100, 110, 140}) {
    return gst_harness_push(harness, plainFrame(format, index, levels));
  }
  void pushMany(int first, int count) {
    for (int i = first; i < first + count; ++i) ASSERT_EQ(push(i), GST_FLOW_OK) << "frame " << i;
  }
  void event(GstEvent* event) { EXPECT_TRUE(gst_harness_push_event(harness, event)); }
  void end() { event(gst_event_new_eos()); }
  void changeFormat(const Format& next);

  std::vector<Buffer> received();          // since the last call
  std::vector<int> receivedNumbers();      // of frames, by their time stamps
  GstClockTime latency() const;            // as downstream sees it
  int countMessages(GstMessageType type);  // since the last call, of that type; drops the others
  Message message(GstMessageType type);    // the next of that type; null: none

 private:
  Format format;
  GstElement* element_;
  GstHarness* harness;
  std::unique_ptr<GstBus, Unref> bus;
};

}  // namespace noxel
