#include "gstreamer/element_harness.h"

#include <cstdlib>
#include <filesystem>

#include "noxel/enhancer.h"
#include "support/driver_required.h"

namespace noxel {
namespace {

// Before the first test: the plugin that was built, with a registry and a cache of shader programs of its own.
class GstreamerEnvironment : public ::testing::Environment {
  void SetUp() override {
    const std::string folder = NOXEL_GSTREAMER_SCRATCH;
    std::filesystem::create_directories(folder);
    setenv("GST_REGISTRY", (folder + "/registry.bin").c_str(), 1);
    setenv("XDG_CACHE_HOME", folder.c_str(), 1);
    // Not caps and factories: plugins that are loaded during a test add theirs to the registry.
    setenv("GST_TRACERS",
           "leaks(filters=\"GstBuffer,GstMemory,GstBufferPool,GstEvent,GstQuery,GstMessage,GstPad,GstElement\")", 1);
    gst_init(nullptr, nullptr);
    // Not by way of GST_PLUGIN_PATH: GStreamer's scanner could not load a plugin with a sanitizer in it.
    GstPlugin* plugin = gst_plugin_load_file(NOXEL_PLUGIN, nullptr);
    ASSERT_NE(plugin, nullptr);
    gst_object_unref(plugin);
  }
};

const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new GstreamerEnvironment);

// Objects that the leaks tracer has seen and that are still there.
std::map<std::string, int> liveObjects() {
  std::map<std::string, int> result;
  GList* tracers = gst_tracing_get_active_tracers();
  EXPECT_NE(tracers, nullptr) << "no leaks tracer";
  for (GList* tracer = tracers; tracer != nullptr; tracer = tracer->next) {
    GstStructure* live = nullptr;
    g_signal_emit_by_name(tracer->data, "get-live-objects", &live);
    const GValue* list = gst_structure_get_value(live, "live-objects-list");
    for (guint i = 0; i < gst_value_list_get_size(list); ++i) {
      const GstStructure* object = gst_value_get_structure(gst_value_list_get_value(list, i));
      const GValue* value = gst_structure_get_value(object, "object");
      ++result[g_type_name(value->g_type)];
    }
    gst_structure_free(live);
  }
  g_list_free_full(tracers, gst_object_unref);
  return result;
}

std::string missingDriver() {
  noxel_config config;
  noxel_config_init(&config, sizeof config, 16, 16);
  noxel_enhancer* enhancer = nullptr;
  const int result = noxel_create(&config, &enhancer);
  noxel_free(&enhancer);
  return result == NOXEL_OK ? "" : noxel_error_text(result);
}

GstVideoInfo videoInfo(const Format& format) {
  GstVideoInfo info;
  const std::unique_ptr<GstCaps, Unref> caps(gst_caps_from_string(format.caps().c_str()));
  EXPECT_TRUE(gst_video_info_from_caps(&info, caps.get()));
  return info;
}

}  // namespace

void GstreamerTest::SetUp() {
  static const std::string missing = missingDriver();
  if (!missing.empty()) {
    if (driverRequired()) FAIL() << missing;
    GTEST_SKIP() << missing;
  }
  liveBefore = liveObjects();
}

void GstreamerTest::TearDown() {
  if (HasFatalFailure() || IsSkipped()) return;
  for (const auto& [type, count] : liveObjects()) EXPECT_LE(count, liveBefore[type]) << type << " left behind";
}

std::string Format::caps() const {
  return "video/x-raw,format=" + std::string(gst_video_format_to_string(format)) + ",width=" + std::to_string(width) +
         ",height=" + std::to_string(height) + ",framerate=" + std::to_string(framesPerSecond) +
         "/1,colorimetry=" + colorimetry;
}

GstBuffer* plainFrame(const Format& format, int index, Levels levels, int paddedBy) {
  GstVideoInfo info = videoInfo(format);
  gsize end = 0;
  for (guint plane = 0; plane < GST_VIDEO_INFO_N_PLANES(&info); ++plane) {
    GST_VIDEO_INFO_PLANE_STRIDE(&info, plane) += paddedBy;
    GST_VIDEO_INFO_PLANE_OFFSET(&info, plane) = end;
    const int rows = plane == 0 ? format.height : (format.height + 1) / 2;
    end += static_cast<gsize>(GST_VIDEO_INFO_PLANE_STRIDE(&info, plane)) * static_cast<gsize>(rows);
  }
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, std::max(end, GST_VIDEO_INFO_SIZE(&info)), nullptr);
  gst_buffer_memset(buffer, 0, 0, gst_buffer_get_size(buffer));
  gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, format.format, static_cast<guint>(format.width),
                                 static_cast<guint>(format.height), GST_VIDEO_INFO_N_PLANES(&info), info.offset,
                                 info.stride);
  GstVideoFrame frame;
  EXPECT_TRUE(gst_video_frame_map(&frame, &info, buffer, GST_MAP_WRITE));
  const int values[] = {levels.y, levels.u, levels.v};
  for (guint component = 0; component < 3; ++component) {
    auto* row = static_cast<guint8*>(GST_VIDEO_FRAME_COMP_DATA(&frame, component));
    for (int y = 0; y < GST_VIDEO_FRAME_COMP_HEIGHT(&frame, component); ++y) {
      for (int x = 0; x < GST_VIDEO_FRAME_COMP_WIDTH(&frame, component); ++x)
        row[x * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, component)] = static_cast<guint8>(values[component]);
      row += GST_VIDEO_FRAME_COMP_STRIDE(&frame, component);
    }
  }
  gst_video_frame_unmap(&frame);
  const GstClockTime duration = GST_SECOND / static_cast<GstClockTime>(format.framesPerSecond);
  GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(index) * duration;
  GST_BUFFER_DURATION(buffer) = duration;
  return buffer;
}

Levels meanLevels(const Format& format, GstBuffer* buffer) {
  const GstVideoInfo info = videoInfo(format);
  GstVideoFrame frame;
  EXPECT_TRUE(gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ));
  int means[3] = {};
  for (guint component = 0; component < 3; ++component) {
    const auto* row = static_cast<const guint8*>(GST_VIDEO_FRAME_COMP_DATA(&frame, component));
    const int width = GST_VIDEO_FRAME_COMP_WIDTH(&frame, component);
    const int height = GST_VIDEO_FRAME_COMP_HEIGHT(&frame, component);
    long sum = 0;
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) sum += row[x * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, component)];
      row += GST_VIDEO_FRAME_COMP_STRIDE(&frame, component);
    }
    means[component] = static_cast<int>((sum + width * height / 2) / (width * height));
  }
  gst_video_frame_unmap(&frame);
  return {means[0], means[1], means[2]};
}

ElementHarness::ElementHarness(const Format& first, const std::string& properties, bool liveSource)
    : format(first),
      element_(gst_parse_launch(("noxelenhance " + properties).c_str(), nullptr)),
      harness(gst_harness_new_with_element(element_, "sink", "src")),
      bus(gst_bus_new()) {
  gst_element_set_bus(element_, bus.get());
  gst_harness_set_live(harness, liveSource ? TRUE : FALSE);
  gst_harness_set_src_caps_str(harness, format.caps().c_str());
}

ElementHarness::~ElementHarness() {
  gst_harness_teardown(harness);
  gst_element_set_bus(element_, nullptr);
  gst_bus_set_flushing(bus.get(), TRUE);
  gst_object_unref(element_);
}

void ElementHarness::changeFormat(const Format& next) {
  format = next;
  gst_harness_set_src_caps_str(harness, format.caps().c_str());
}

std::vector<Buffer> ElementHarness::received() {
  std::vector<Buffer> result;
  while (GstBuffer* buffer = gst_harness_try_pull(harness)) result.emplace_back(buffer);
  return result;
}

std::vector<int> ElementHarness::receivedNumbers() {
  std::vector<int> result;
  for (const Buffer& buffer : received()) {
    const GstClockTime duration = GST_SECOND / static_cast<GstClockTime>(format.framesPerSecond);
    result.push_back(static_cast<int>(GST_BUFFER_PTS(buffer.get()) / duration));
  }
  return result;
}

GstClockTime ElementHarness::latency() const {
  return gst_harness_query_latency(harness);
}

int ElementHarness::countMessages(GstMessageType type) {
  int count = 0;
  while (message(type) != nullptr) ++count;
  return count;
}

Message ElementHarness::message(GstMessageType type) {
  return Message(gst_bus_pop_filtered(bus.get(), type));
}

}  // namespace noxel
