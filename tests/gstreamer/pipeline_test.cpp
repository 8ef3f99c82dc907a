// noxelenhance in whole pipelines.
#include "gstreamer/element_harness.h"
#include "support/temporary_directory.h"

namespace noxel {
namespace {

using NoxelPipeline = GstreamerTest;

// Runs to its end, as many times as told. Returns how many buffers came to the element named `counted`.
int run(const std::string& description, const char* counted, int rounds = 1) {
  GError* error = nullptr;
  const std::unique_ptr<GstElement, Unref> pipeline(gst_parse_launch(description.c_str(), &error));
  EXPECT_EQ(error, nullptr) << error->message;
  if (error != nullptr) {
    g_error_free(error);
    return -1;
  }
  int count = 0;
  const std::unique_ptr<GstElement, Unref> sink(gst_bin_get_by_name(GST_BIN(pipeline.get()), counted));
  GstPad* pad = gst_element_get_static_pad(sink.get(), "sink");
  gst_pad_add_probe(
      pad, GST_PAD_PROBE_TYPE_BUFFER,
      [](GstPad*, GstPadProbeInfo*, gpointer context) {
        ++*static_cast<int*>(context);
        return GST_PAD_PROBE_OK;
      },
      &count, nullptr);
  gst_object_unref(pad);
  const std::unique_ptr<GstBus, Unref> bus(gst_element_get_bus(pipeline.get()));
  for (int round = 0; round < rounds; ++round) {
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    const Message message(gst_bus_timed_pop_filtered(bus.get(), 50 * GST_SECOND,
                                                     static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    if (message == nullptr) {
      ADD_FAILURE() << "the pipeline stands still: " << description;
    } else if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
      gchar* details = nullptr;
      gst_message_parse_error(message.get(), &error, &details);
      ADD_FAILURE() << error->message << "\n" << details;
      g_error_free(error);
      g_free(details);
    }
    gst_element_set_state(pipeline.get(), GST_STATE_READY);
  }
  gst_element_set_state(pipeline.get(), GST_STATE_NULL);
  return count;
}

const std::string kSource = "videotestsrc num-buffers=30 pattern=ball ! video/x-raw,width=64,height=48,framerate=25/1 ";

TEST_F(NoxelPipeline, SeveralElementsWorkSideBySide) {
  EXPECT_EQ(run(kSource + "! tee name=t ! queue ! noxelenhance ! noxelenhance quality=fast ! fakesink name=counted "
                          "t. ! queue ! noxelenhance mode=enhance ! fakesink",
                "counted"),
            30);
}

TEST_F(NoxelPipeline, StartsAnewAfterAStop) {
  EXPECT_EQ(run(kSource + "! noxelenhance ! fakesink name=counted", "counted", 3), 90);
}

TEST_F(NoxelPipeline, APlayedSourceIsLive) {
  const int frames =
      run("videotestsrc is-live=true num-buffers=30 ! video/x-raw,width=64,height=48,framerate=25/1 "
          "! noxelenhance ! fakesink name=counted sync=true",
          "counted");
  EXPECT_GT(frames, 5);
  EXPECT_LE(frames, 30);
}

// The sound waits in its queue while the picture's lead-in is collected; both reach the new file.
TEST_F(NoxelPipeline, AFileKeepsItsSound) {
  const TemporaryDirectory folder;
  const std::string before = folder.file("before.mkv");
  const std::string after = folder.file("after.mkv");
  run("matroskamux name=mux ! filesink name=counted location=" + before + " " + kSource +
          "! theoraenc ! queue ! mux. audiotestsrc num-buffers=52 ! vorbisenc ! queue ! mux.",
      "counted");
  run("filesrc location=" + before +
          " ! decodebin name=d matroskamux name=mux ! filesink name=counted location=" + after +
          " d. ! queue ! videoconvert ! noxelenhance ! theoraenc ! queue ! mux. "
          "d. ! queue ! audioconvert ! vorbisenc ! queue ! mux.",
      "counted");
  const std::string decoded =
      " ! decodebin name=d d. ! queue ! videoconvert ! fakesink name=video "
      "d. ! queue ! audioconvert ! fakesink name=audio";
  EXPECT_EQ(run("filesrc location=" + after + decoded, "video"), 30);
  const int sound = run("filesrc location=" + before + decoded, "audio");
  EXPECT_GT(sound, 10);
  EXPECT_NEAR(run("filesrc location=" + after + decoded, "audio"), sound, 2);  // Vorbis's blocks are cut anew
}

}  // namespace
}  // namespace noxel
