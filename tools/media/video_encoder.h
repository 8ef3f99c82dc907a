// The encoders that `noxel enhance` may use, by codec.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "media/av_types.h"
#include "media/colour_conversion.h"
#include "media/container.h"

namespace noxel::tool {

constexpr const char* kCodecNames[] = {"h264", "hevc", "av1", "vp9", "ffv1"};
constexpr char kCopyLikeInput[] = "copy-like-input";
constexpr const char* kPresets[] = {"ultrafast", "superfast", "veryfast", "faster",  "fast",
                                    "medium",    "slow",      "slower",   "veryslow"};
constexpr const char* kHardware[] = {"vaapi", "v4l2", "nvenc"};

struct EncodingChoice {
  std::string codec;       // one of kCodecNames or kCopyLikeInput; empty: the container's default
  std::string preset;      // one of kPresets; empty: the encoder's default
  std::optional<int> crf;  // none: the codec's default
  std::string hardware;    // one of kHardware; empty: none
};

struct VideoProperties {
  int width = 0;
  int height = 0;
  AVRational timeBase = {1, 25};   // of the frames' pts
  AVRational frameRate = {25, 1};  // nominal
  AVRational sampleAspectRatio = {0, 1};
  ColourTags tags;
  AVCodecID inputCodec = AV_CODEC_ID_NONE;
};

// Usage error when the choice makes no sense for the container, or the quality is outside of the codec's range.
void checkChoice(const EncodingChoice& choice, const Container& container);

// Encodes planar frames. H.264, HEVC and AV1 in 4:2:0 need even sizes: for those an odd last column or row is repeated. One
// thread. ToolErrors: kExitUsage as checkChoice, else kExitFailed.
class VideoEncoder {
 public:
  VideoEncoder(const EncodingChoice& choice, const VideoProperties& video, const AVOutputFormat& muxer,
               const Container& container);

  void send(FramePtr frame);       // null: no more
  bool receive(AVPacket& packet);  // false: send more, or the end

  const AVCodecContext& context() const { return *encoder_; }
  const std::string& name() const { return name_; }
  std::optional<int> crf() const { return crf_; }
  bool countsFrames() const { return countsFrames_; }  // time stamps are frame numbers, packets come in frame order
  // For the user: what is not as it was asked for.
  const std::vector<std::string>& notes() const { return notes_; }

 private:
  bool open(const char* encoder, const EncodingChoice& choice, const VideoProperties& video, bool globalHeader);
  void openSoftware(const std::string& codec, const EncodingChoice& choice, const VideoProperties& video,
                    const AVOutputFormat& muxer);
  bool openDevice(AVCodecContext& encoder);

  CodecPtr encoder_;
  std::string name_;
  std::optional<int> crf_;
  bool countsFrames_;
  bool uploads_ = false;                 // frames go to the memory of a VAAPI device
  std::unique_ptr<FilterPass> palette_;  // of a GIF
  std::vector<std::string> notes_;
};

}  // namespace noxel::tool
