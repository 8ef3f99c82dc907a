// noxelenhance: what goes in comes out, in order and with what it carried, whatever happens to the stream.
#include <gst/controller/controller.h>

#include <numeric>
#include <random>
#include <set>

#include "gstreamer/element_harness.h"
#include "noxel/enhancer.h"

namespace noxel {
namespace {

const Format kFormat = {GST_VIDEO_FORMAT_I420, 64, 48};
// Frames of which the library sees the first 16 before the first comes back.
constexpr int kLeadIn = 16;

std::vector<int> numbers(int first, int count) {
  std::vector<int> result(static_cast<size_t>(count));
  std::iota(result.begin(), result.end(), first);
  return result;
}

// Everything between element and application, in order: "caps 64", "frame 3", "event name", "eos".
class OutputOrder {
 public:
  explicit OutputOrder(ElementHarness& harness) : pad(gst_element_get_static_pad(harness.element(), "src")) {
    const auto types = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM |
                                                    GST_PAD_PROBE_TYPE_EVENT_FLUSH);
    probe = gst_pad_add_probe(pad, types, take, this, nullptr);
  }
  ~OutputOrder() {
    gst_pad_remove_probe(pad, probe);
    gst_object_unref(pad);
  }
  std::vector<std::string> seen;

 private:
  static GstPadProbeReturn take(GstPad*, GstPadProbeInfo* info, gpointer context) {
    auto* self = static_cast<OutputOrder*>(context);
    if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
      GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
      self->seen.push_back("frame " + std::to_string(GST_BUFFER_PTS(buffer) * 25 / GST_SECOND));
      return GST_PAD_PROBE_OK;
    }
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
      GstCaps* caps = nullptr;
      gst_event_parse_caps(event, &caps);
      int width = 0;
      gst_structure_get_int(gst_caps_get_structure(caps, 0), "width", &width);
      self->seen.push_back("caps " + std::to_string(width));
    } else if (GST_EVENT_TYPE(event) == GST_EVENT_CUSTOM_DOWNSTREAM) {
      self->seen.push_back(std::string("event ") + gst_structure_get_name(gst_event_get_structure(event)));
    } else {
      self->seen.push_back(GST_EVENT_TYPE_NAME(event));
    }
    return GST_PAD_PROBE_OK;
  }

  GstPad* pad;
  gulong probe;
};

using NoxelProperties = GstreamerTest;
using NoxelElement = GstreamerTest;
using NoxelLive = GstreamerTest;

TEST_F(NoxelProperties, AreTheLibrarysSettings) {
  const std::unique_ptr<GstElement, Unref> element(gst_element_factory_make("noxelenhance", nullptr));
  ASSERT_NE(element, nullptr);
  gst_object_ref_sink(element.get());
  size_t count = 0;
  const noxel_setting_info* settings = noxel_settings(&count);
  for (size_t i = 0; i < count; ++i) {
    const noxel_setting_info& setting = settings[i];
    SCOPED_TRACE(setting.name);
    GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(element.get()), setting.name);
    ASSERT_NE(spec, nullptr);
    EXPECT_STREQ(g_param_spec_get_blurb(spec), setting.description);
    EXPECT_TRUE((spec->flags & GST_PARAM_CONTROLLABLE) != 0 && (spec->flags & GST_PARAM_MUTABLE_PLAYING) != 0);
    if (setting.type == NOXEL_SETTING_INT) {
      const GParamSpecInt* number = G_PARAM_SPEC_INT(spec);
      EXPECT_EQ(number->minimum, setting.minimum);
      EXPECT_EQ(number->maximum, setting.maximum);
      EXPECT_EQ(number->default_value, setting.initial);
    } else if (setting.type == NOXEL_SETTING_FLOAT) {
      const GParamSpecDouble* number = G_PARAM_SPEC_DOUBLE(spec);
      EXPECT_EQ(number->minimum, setting.minimum);
      EXPECT_EQ(number->maximum, setting.maximum);
      EXPECT_EQ(number->default_value, setting.initial);
    } else if (setting.type == NOXEL_SETTING_BOOL) {
      EXPECT_EQ(G_PARAM_SPEC_BOOLEAN(spec)->default_value != FALSE, setting.initial != 0);
    } else {
      const GParamSpecEnum* choice = G_PARAM_SPEC_ENUM(spec);
      EXPECT_EQ(choice->default_value, setting.initial);
      ASSERT_EQ(choice->enum_class->n_values, static_cast<guint>(setting.maximum - setting.minimum) + 1);
      for (guint j = 0; j < choice->enum_class->n_values; ++j)
        EXPECT_STREQ(choice->enum_class->values[j].value_nick, setting.choices[j]);
    }
  }
  gst_util_set_object_arg(G_OBJECT(element.get()), "quality", "best");
  gst_util_set_object_arg(G_OBJECT(element.get()), "zoom", "2.5");
  int quality = 0;
  double zoom = 0;
  g_object_get(element.get(), "quality", &quality, "zoom", &zoom, nullptr);
  EXPECT_EQ(quality, NOXEL_QUALITY_BEST);
  EXPECT_EQ(zoom, 2.5);
}

// What the library takes as the initial value depends on the mode; a property that nobody set must not override it.
TEST_F(NoxelProperties, LeaveTheModesOwnValues) {
  ElementHarness harness(kFormat, "mode=enhance exposure=70 lead-in=false");
  ASSERT_EQ(harness.push(0), GST_FLOW_OK);
  noxel_config config;
  noxel_config_init(&config, sizeof config, kFormat.width, kFormat.height);
  config.mode = NOXEL_MODE_ENHANCE;
  noxel_enhancer* enhancer = nullptr;
  ASSERT_EQ(noxel_create(&config, &enhancer), NOXEL_OK);
  double expected = 0;
  noxel_get(enhancer, NOXEL_STRENGTH, &expected);
  noxel_free(&enhancer);
  int strength = 0;
  int exposure = 0;
  g_object_get(harness.element(), "strength", &strength, "exposure", &exposure, nullptr);
  EXPECT_EQ(strength, expected);
  EXPECT_EQ(exposure, 70);
}

// With strength 0 plain, well-lit frames come out as they went in, give or take 2 levels of rounding. Each frame has
// its own luma, 10 levels from the next one's; U and V are 30 apart.
TEST_F(NoxelElement, KeepsPicturesOfAllFormatsAndSizes) {
  const std::pair<int, int> sizes[] = {{1, 1}, {33, 17}};
  const GstVideoFormat formats[] = {GST_VIDEO_FORMAT_NV12, GST_VIDEO_FORMAT_NV21, GST_VIDEO_FORMAT_I420,
                                    GST_VIDEO_FORMAT_YV12};
  for (size_t i = 0; i < std::size(sizes); ++i) {
    for (const GstVideoFormat videoFormat : formats) {
      const Format format = {videoFormat, sizes[i].first, sizes[i].second};
      SCOPED_TRACE(format.caps());
      ElementHarness harness(format, "strength=0 lead-in=false");
      constexpr int kFrames = 4;
      for (int j = 0; j < kFrames; ++j) {
        // Rows are padded in every other frame; the video meta says so.
        ASSERT_EQ(gst_harness_push(*harness, plainFrame(format, j, {120 + 10 * j, 110, 140}, j % 2 * 12)), GST_FLOW_OK);
      }
      harness.end();
      const std::vector<Buffer> frames = harness.received();
      ASSERT_EQ(frames.size(), static_cast<size_t>(kFrames));
      for (int j = 0; j < kFrames; ++j) {
        const Levels levels = meanLevels(format, frames[static_cast<size_t>(j)].get());
        EXPECT_NEAR(levels.y, 120 + 10 * j, 2);
        EXPECT_NEAR(levels.u, 110, 2);
        EXPECT_NEAR(levels.v, 140, 2);
      }
    }
  }
}

// Dark noise in strong colours, the same in each call.
Buffer noisyFrame(const Format& format, int index) {
  GstBuffer* buffer = plainFrame(format, index, {40, 100, 160});
  GstMapInfo map;
  EXPECT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READWRITE));
  std::minstd_rand random(static_cast<unsigned>(index + 1));
  for (gsize i = 0; i < map.size; ++i) map.data[i] = static_cast<guint8>(map.data[i] + random() % 16);
  gst_buffer_unmap(buffer, &map);
  return Buffer(buffer);
}

// What the library makes of the frames by itself, in place.
void enhanceDirectly(const Format& format, int libraryFormat, int range, int matrix, std::vector<Buffer>& frames) {
  noxel_config config;
  noxel_config_init(&config, sizeof config, format.width, format.height);
  config.mode = NOXEL_MODE_ENHANCE;
  config.lead_in = 0;
  config.frame_interval_us = 40000;
  noxel_enhancer* enhancer = nullptr;
  ASSERT_EQ(noxel_create(&config, &enhancer), NOXEL_OK);
  for (size_t i = 0; i < frames.size(); ++i) {
    const GstVideoMeta* planes = gst_buffer_get_video_meta(frames[i].get());
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(frames[i].get(), &map, GST_MAP_READWRITE));
    noxel_frame frame;
    noxel_frame_init(&frame, sizeof frame);
    frame.format = libraryFormat;
    frame.range = range;
    frame.matrix = matrix;
    for (guint plane = 0; plane < planes->n_planes; ++plane) {
      frame.planes[plane] = map.data + planes->offset[plane];
      frame.strides[plane] = planes->stride[plane];
    }
    frame.time_us = static_cast<int64_t>(i) * 40000;
    EXPECT_EQ(noxel_send(enhancer, &frame), NOXEL_OK);
    EXPECT_EQ(noxel_receive(enhancer, &frame, nullptr), NOXEL_OK);
    gst_buffer_unmap(frames[i].get(), &map);
  }
  noxel_free(&enhancer);
}

TEST_F(NoxelElement, GivesTheLibrarysPicturesInTheCapsColours) {
  const struct {
    GstVideoFormat format;
    const char* colorimetry;
    int libraryFormat, range, matrix;
  } cases[] = {
      {GST_VIDEO_FORMAT_NV12, "bt601", NOXEL_PLANES_NV12, NOXEL_RANGE_LIMITED, NOXEL_MATRIX_BT601},
      {GST_VIDEO_FORMAT_NV21, "bt709", NOXEL_PLANES_NV21, NOXEL_RANGE_LIMITED, NOXEL_MATRIX_BT709},
      {GST_VIDEO_FORMAT_I420, "1:4:0:0", NOXEL_PLANES_I420, NOXEL_RANGE_FULL, NOXEL_MATRIX_BT601},
      {GST_VIDEO_FORMAT_YV12, "1:3:0:0", NOXEL_PLANES_YV12, NOXEL_RANGE_FULL, NOXEL_MATRIX_BT709},
  };
  for (const auto& one : cases) {
    const Format format = {one.format, 64, 48, 25, one.colorimetry};
    SCOPED_TRACE(format.caps());
    // A mode that works in RGB, where matrix and order of the chroma planes count.
    ElementHarness harness(format, "mode=enhance lead-in=false");
    std::vector<Buffer> expected;
    for (int i = 0; i < 5; ++i) {
      expected.push_back(noisyFrame(format, i));
      ASSERT_EQ(gst_harness_push(*harness, noisyFrame(format, i).release()), GST_FLOW_OK);
    }
    enhanceDirectly(format, one.libraryFormat, one.range, one.matrix, expected);
    const std::vector<Buffer> frames = harness.received();
    ASSERT_EQ(frames.size(), expected.size());
    for (size_t i = 0; i < frames.size(); ++i) {
      GstMapInfo map;
      ASSERT_TRUE(gst_buffer_map(expected[i].get(), &map, GST_MAP_READ));
      EXPECT_EQ(gst_buffer_memcmp(frames[i].get(), 0, map.data, 64 * 48 * 3 / 2), 0) << "frame " << i;
      gst_buffer_unmap(expected[i].get(), &map);
    }
  }
}

TEST_F(NoxelElement, ReturnsEachBufferWithWhatItCarried) {
  ElementHarness harness(kFormat);
  const std::unique_ptr<GstCaps, Unref> reference(gst_caps_from_string("timestamp/x-test"));
  constexpr int kFrames = 40;
  for (int i = 0; i < kFrames; ++i) {
    GstBuffer* buffer = plainFrame(kFormat, i, {100, 110, 140});
    GST_BUFFER_PTS(buffer) += static_cast<GstClockTime>(i * 7919 % 1000);  // uneven
    GST_BUFFER_DTS(buffer) = static_cast<GstClockTime>(i);
    GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(1000 + i);
    GST_BUFFER_OFFSET(buffer) = static_cast<guint64>(500 + i);
    GST_BUFFER_OFFSET_END(buffer) = static_cast<guint64>(501 + i);
    if (i % 3 == 0) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_MARKER);
    gst_buffer_add_reference_timestamp_meta(buffer, reference.get(), static_cast<GstClockTime>(i), GST_CLOCK_TIME_NONE);
    gst_buffer_add_video_region_of_interest_meta(buffer, "face", static_cast<guint>(i), 1, 2, 3);
    ASSERT_EQ(gst_harness_push(*harness, buffer), GST_FLOW_OK);
  }
  harness.end();
  const std::vector<Buffer> frames = harness.received();
  ASSERT_EQ(frames.size(), static_cast<size_t>(kFrames));
  for (int i = 0; i < kFrames; ++i) {
    SCOPED_TRACE(i);
    GstBuffer* buffer = frames[static_cast<size_t>(i)].get();
    EXPECT_EQ(GST_BUFFER_PTS(buffer),
              static_cast<GstClockTime>(i) * GST_SECOND / 25 + static_cast<GstClockTime>(i * 7919 % 1000));
    EXPECT_EQ(GST_BUFFER_DTS(buffer), static_cast<GstClockTime>(i));
    EXPECT_EQ(GST_BUFFER_DURATION(buffer), static_cast<GstClockTime>(1000 + i));
    EXPECT_EQ(GST_BUFFER_OFFSET(buffer), static_cast<guint64>(500 + i));
    EXPECT_EQ(GST_BUFFER_OFFSET_END(buffer), static_cast<guint64>(501 + i));
    EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_MARKER) != 0, i % 3 == 0);
    const GstReferenceTimestampMeta* time = gst_buffer_get_reference_timestamp_meta(buffer, reference.get());
    ASSERT_NE(time, nullptr);
    EXPECT_EQ(time->timestamp, static_cast<GstClockTime>(i));
    gpointer state = nullptr;
    const GstMeta* region =
        gst_buffer_iterate_meta_filtered(buffer, &state, GST_VIDEO_REGION_OF_INTEREST_META_API_TYPE);
    ASSERT_NE(region, nullptr);
    EXPECT_EQ(reinterpret_cast<const GstVideoRegionOfInterestMeta*>(region)->x, static_cast<guint>(i));
  }
}

TEST_F(NoxelElement, WritesIntoBuffersOfAPool) {
  ElementHarness harness(kFormat, "lead-in=false");
  GstAllocationParams aligned = {};
  aligned.align = 255;  // bytes less one, as downstream asks for
  gst_harness_set_propose_allocator(*harness, nullptr, &aligned);
  harness.changeFormat({GST_VIDEO_FORMAT_NV12, 32, 24});
  std::set<GstMemory*> memories;
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(harness.push(i), GST_FLOW_OK);
    for (const Buffer& buffer : harness.received()) {
      EXPECT_NE(buffer->pool, nullptr);
      GstMapInfo map;
      ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READ));
      EXPECT_EQ(reinterpret_cast<uintptr_t>(map.data) % 256, 0u);
      gst_buffer_unmap(buffer.get(), &map);
      memories.insert(gst_buffer_peek_memory(buffer.get(), 0));
    }
  }
  EXPECT_LE(memories.size(), 4u) << "buffers are not used again";
}

TEST_F(NoxelElement, EndOfStreamBringsOutEveryFrame) {
  for (const int frames : {0, 1, 5, kLeadIn, 20}) {
    SCOPED_TRACE(frames);
    ElementHarness harness(kFormat);
    OutputOrder order(harness);
    harness.pushMany(0, frames);
    EXPECT_EQ(gst_harness_buffers_received(*harness), frames < kLeadIn ? 0u : static_cast<guint>(frames));
    harness.end();
    EXPECT_EQ(harness.receivedNumbers(), numbers(0, frames));
    EXPECT_EQ(order.seen.back(), "eos");
  }
}

TEST_F(NoxelElement, AFlushForgetsWhatWasOnItsWay) {
  ElementHarness harness(kFormat);
  for (const int first : {0, 300, 100}) {  // seeks to and fro
    harness.pushMany(first, 5);
    harness.event(gst_event_new_flush_start());
    harness.event(gst_event_new_flush_stop(TRUE));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    harness.event(gst_event_new_segment(&segment));
  }
  EXPECT_EQ(gst_harness_buffers_received(*harness), 0u);
  harness.pushMany(50, 20);
  harness.end();
  EXPECT_EQ(harness.receivedNumbers(), numbers(50, 20));
}

TEST_F(NoxelElement, AStopForgetsWhatWasOnItsWay) {
  ElementHarness harness(kFormat);
  harness.pushMany(0, 5);
  gst_element_set_state(harness.element(), GST_STATE_READY);
  gst_element_set_state(harness.element(), GST_STATE_PLAYING);
  harness.event(gst_event_new_stream_start("again"));
  harness.changeFormat(kFormat);
  harness.pushMany(70, 5);
  harness.end();
  EXPECT_EQ(harness.receivedNumbers(), numbers(70, 5));
}

TEST_F(NoxelElement, ADiscontinuityBeginsASequence) {
  ElementHarness harness(kFormat);
  harness.pushMany(0, 20);
  EXPECT_EQ(harness.receivedNumbers(), numbers(0, 20));
  GstBuffer* buffer = plainFrame(kFormat, 20, {100, 110, 140});
  GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
  ASSERT_EQ(gst_harness_push(*harness, buffer), GST_FLOW_OK);
  harness.pushMany(21, 3);
  EXPECT_EQ(harness.receivedNumbers(), numbers(0, 0)) << "no lead-in: not a new sequence";
  harness.end();
  const std::vector<Buffer> rest = harness.received();
  ASSERT_EQ(rest.size(), 4u);
  EXPECT_TRUE(GST_BUFFER_IS_DISCONT(rest[0].get()));
  EXPECT_FALSE(GST_BUFFER_IS_DISCONT(rest[1].get()));
}

TEST_F(NoxelElement, CapsChangeBehindTheFramesBeforeThem) {
  ElementHarness harness(kFormat);
  OutputOrder order(harness);
  harness.pushMany(0, 3);
  harness.changeFormat({GST_VIDEO_FORMAT_NV12, 33, 17});
  harness.pushMany(3, 2);
  harness.changeFormat({GST_VIDEO_FORMAT_YV12, 128, 96});
  harness.pushMany(5, 1);
  harness.end();
  const std::vector<std::string> expected = {"frame 0", "frame 1",  "frame 2", "caps 33", "frame 3",
                                             "frame 4", "caps 128", "frame 5", "eos"};
  std::vector<std::string> seen;
  for (const std::string& item : order.seen) {
    if (item.starts_with("frame") || item.starts_with("caps") || item == "eos") seen.push_back(item);
  }
  EXPECT_EQ(seen, expected);
  gsize sizes[] = {64 * 48 * 3 / 2,  64 * 48 * 3 / 2,  64 * 48 * 3 / 2,
                   36 * 18 + 36 * 9, 36 * 18 + 36 * 9, 128 * 96 * 3 / 2};
  const std::vector<Buffer> frames = harness.received();
  ASSERT_EQ(frames.size(), std::size(sizes));
  for (size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(gst_buffer_get_size(frames[i].get()), sizes[i]) << i;
}

TEST_F(NoxelElement, EventsKeepTheirPlaceAmongTheFrames) {
  ElementHarness harness(kFormat);
  OutputOrder order(harness);
  harness.pushMany(0, 2);
  harness.event(gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("between")));
  harness.pushMany(2, 1);
  harness.event(gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("last")));
  harness.event(gst_event_new_gap(GST_SECOND, GST_SECOND));  // nothing comes for a while: drained
  const std::vector<std::string> expected = {"frame 0", "frame 1", "event between", "frame 2", "event last", "gap"};
  ASSERT_GE(order.seen.size(), expected.size());
  EXPECT_EQ(std::vector<std::string>(order.seen.end() - static_cast<int>(expected.size()), order.seen.end()), expected);
}

TEST_F(NoxelElement, ReportsTheLatencyThatItHas) {
  constexpr GstClockTime kFrame = GST_SECOND / 25;
  ElementHarness harness(kFormat);
  gst_harness_set_upstream_latency(*harness, 7 * GST_MSECOND);
  EXPECT_EQ(harness.latency(), 7 * GST_MSECOND) << "before the first frame nothing is known";
  harness.pushMany(0, kLeadIn - 1);
  EXPECT_EQ(gst_harness_buffers_received(*harness), 0u);
  EXPECT_EQ(harness.latency(), 7 * GST_MSECOND + (kLeadIn - 1) * kFrame);
  EXPECT_EQ(harness.countMessages(GST_MESSAGE_LATENCY), 1);

  g_object_set(harness.element(), "quality", NOXEL_QUALITY_BEST, nullptr);
  harness.pushMany(kLeadIn - 1, 1);
  EXPECT_GT(harness.latency(), 7 * GST_MSECOND + (kLeadIn - 1) * kFrame) << "it looks further ahead";
  EXPECT_EQ(harness.countMessages(GST_MESSAGE_LATENCY), 1);

  ElementHarness none(kFormat, "lead-in=false");
  none.pushMany(0, 1);
  EXPECT_EQ(none.latency(), 0u);
  EXPECT_EQ(none.receivedNumbers(), numbers(0, 1));
}

TEST_F(NoxelElement, ModeAndDeliveryChangeWithoutLosingAFrame) {
  ElementHarness harness(kFormat);
  harness.pushMany(0, 20);
  g_object_set(harness.element(), "mode", NOXEL_MODE_STABILIZE, nullptr);
  harness.pushMany(20, 3);
  EXPECT_EQ(harness.latency(), 0u) << "this mode sees no frame ahead";
  gst_util_set_object_arg(G_OBJECT(harness.element()), "mode", "clear");
  harness.pushMany(23, 2);
  g_object_set(harness.element(), "lead-in", FALSE, nullptr);
  harness.pushMany(25, 2);
  EXPECT_EQ(harness.receivedNumbers(), numbers(0, 27));
}

// Columns from 26 of 64 are bright. Column 22 shows what is at 27 once the middle is magnified twice.
TEST_F(NoxelElement, TakesSettingsWhilePlaying) {
  const Format format = {GST_VIDEO_FORMAT_NV12, 64, 64};
  for (const bool controlled : {false, true}) {
    SCOPED_TRACE(controlled ? "by a controller" : "by the application");
    ElementHarness harness(format, "strength=0 lead-in=false");
    if (controlled) {
      GstControlSource* zoom = gst_interpolation_control_source_new();
      g_object_set(zoom, "mode", GST_INTERPOLATION_MODE_NONE, nullptr);
      gst_timed_value_control_source_set(GST_TIMED_VALUE_CONTROL_SOURCE(zoom), 0, 1.0);
      gst_timed_value_control_source_set(GST_TIMED_VALUE_CONTROL_SOURCE(zoom), 4 * GST_SECOND / 25, 2.0);
      gst_object_add_control_binding(GST_OBJECT(harness.element()), gst_direct_control_binding_new_absolute(
                                                                        GST_OBJECT(harness.element()), "zoom", zoom));
      gst_object_unref(zoom);
    }
    int level[2] = {};
    for (int i = 0; i < 8; ++i) {
      if (i == 4 && !controlled) g_object_set(harness.element(), "zoom", 2.0, nullptr);
      GstBuffer* buffer = plainFrame(format, i, {90, 128, 128});
      GstMapInfo map;
      ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_WRITE));
      for (int y = 0; y < 64; ++y) std::fill_n(map.data + y * 64 + 26, 38, guint8{180});
      gst_buffer_unmap(buffer, &map);
      ASSERT_EQ(gst_harness_push(*harness, buffer), GST_FLOW_OK);
      for (const Buffer& frame : harness.received()) {
        ASSERT_TRUE(gst_buffer_map(frame.get(), &map, GST_MAP_READ));
        level[i / 4] = map.data[32 * 64 + 22];
        gst_buffer_unmap(frame.get(), &map);
      }
    }
    EXPECT_LT(level[0], 120);
    EXPECT_GT(level[1], 150);
  }
}

TEST_F(NoxelElement, SaysWhatWentWrong) {
  {
    ElementHarness harness({GST_VIDEO_FORMAT_I420, 200000, 2});
    EXPECT_EQ(harness.push(0), GST_FLOW_ERROR);
    const Message message = harness.message(GST_MESSAGE_ERROR);
    ASSERT_NE(message, nullptr);
    GError* error = nullptr;
    gchar* details = nullptr;
    gst_message_parse_error(message.get(), &error, &details);
    EXPECT_NE(std::string(error->message).find("Starting failed: "), std::string::npos) << error->message;
    EXPECT_GT(std::string(details).size(), 20u) << details;
    g_error_free(error);
    g_free(details);
  }
  ElementHarness harness(kFormat);
  GstBuffer* small = gst_buffer_new_allocate(nullptr, 100, nullptr);
  EXPECT_EQ(gst_harness_push(*harness, small), GST_FLOW_ERROR);
  EXPECT_NE(harness.message(GST_MESSAGE_ERROR), nullptr);
  harness.pushMany(0, 2);  // and it goes on where the application does
  harness.end();
  EXPECT_EQ(harness.receivedNumbers(), numbers(0, 2));
}

// Frames come faster than a software driver takes them, so some are lost: each is reported, and the next is marked.
TEST_F(NoxelLive, EveryFrameComesOutOrIsReportedLost) {
  const Format format = {GST_VIDEO_FORMAT_NV12, 160, 120};
  ElementHarness harness(format, "strength=0", true);
  constexpr int kFrames = 100;
  for (int i = 0; i < kFrames; ++i) {
    ASSERT_EQ(harness.push(i, {120 + i, 110, 140}), GST_FLOW_OK);
    // After the second frame long enough for both to be ready: the library keeps the newer one.
    g_usleep(i == 1 ? 500000 : i % 4 == 0 ? 5000 : 0);
  }
  EXPECT_EQ(harness.latency(), GST_SECOND / 25);
  harness.end();
  const std::vector<Buffer> frames = harness.received();
  EXPECT_FALSE(frames.empty());
  EXPECT_EQ(static_cast<int>(frames.size()) + harness.countMessages(GST_MESSAGE_QOS), kFrames);
  int before = -1;
  for (const Buffer& frame : frames) {
    const int number = static_cast<int>(GST_BUFFER_PTS(frame.get()) * 25 / GST_SECOND);
    EXPECT_GT(number, before);
    EXPECT_TRUE(number == before + 1 || GST_BUFFER_IS_DISCONT(frame.get())) << number;
    EXPECT_NEAR(meanLevels(format, frame.get()).y, 120 + number, 2) << "another frame's picture";
    before = number;
  }
}

TEST_F(NoxelLive, TheSourceDecidesUnlessThePropertyDoes) {
  ElementHarness complete(kFormat, "live=false", true);
  complete.pushMany(0, 20);
  EXPECT_EQ(complete.receivedNumbers(), numbers(0, 20));
  ElementHarness live(kFormat, "live=true", false);
  live.pushMany(0, 2);
  EXPECT_EQ(live.latency(), GST_SECOND / 25);
}

TEST_F(NoxelLive, SkipsFramesThatAreLate) {
  for (const bool live : {true, false}) {
    SCOPED_TRACE(live);
    ElementHarness harness(kFormat, "lead-in=false", live);
    harness.pushMany(0, 1);
    // Downstream is at 10 frames: those before are late.
    gst_harness_push_upstream_event(*harness, gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 1.0, 0, 10 * GST_SECOND / 25));
    harness.pushMany(1, 9);
    harness.pushMany(11, 1);
    harness.end();
    const std::vector<int> seen = harness.receivedNumbers();
    const auto late = std::count_if(seen.begin(), seen.end(), [](int i) { return i >= 1 && i <= 9; });
    EXPECT_EQ(late, live ? 0 : 9);
    EXPECT_EQ(seen.back(), 11);
  }
}

}  // namespace
}  // namespace noxel
