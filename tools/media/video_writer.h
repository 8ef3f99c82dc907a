// The clip that `noxel enhance` writes: video by VideoEncoder, and what the input has beside it, copied.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/output_file.h"
#include "media/av_types.h"
#include "media/colour_conversion.h"
#include "media/companions.h"
#include "media/container.h"
#include "media/video_encoder.h"
#include "media/video_reader.h"

namespace noxel::tool {

struct OutputSettings {
  std::string path;  // "-": Y4M on standard output
  EncodingChoice encoding;
  VideoProperties video;
  std::optional<DisplayMatrix> displayMatrix;
  Companions companions;
};

// The file, or all pictures, appear under their names in finish(). One thread. Failures are ToolErrors: kExitUsage when the
// container cannot hold the codec or the audio, else kExitFailed.
class VideoWriter {
 public:
  explicit VideoWriter(const OutputSettings& settings);
  ~VideoWriter();
  VideoWriter(const VideoWriter&) = delete;
  VideoWriter& operator=(const VideoWriter&) = delete;

  void write(const AVFrame& planar, int64_t pts, int64_t duration);  // duration 0: the nominal interval
  void writeBeside(AVPacket& packet);  // stream_index: index into Companions::streams; consumes the packet
  // Says so in the file's comment, where it has one.
  void markPartial(const std::string& comment) { partial_ = comment; }
  void finish();

  const std::string& encoderName() const { return encoder_->name(); }
  std::optional<int> crf() const { return encoder_->crf(); }
  // For the user: what is not as it was asked for, or lost.
  const std::vector<std::string>& notes() const { return notes_; }

 private:
  struct Stamp {
    int64_t pts;
    int64_t duration;
  };

  void addVideo(const OutputSettings& settings);
  void writeHeader();
  int64_t slot(int64_t pts);
  void drainEncoder();
  void writePacket(AVPacket& packet);
  void writePicture(const AVFrame& planar);
  void finishContainer();
  std::string remedy() const;

  const Container& container_;
  std::string path_;
  std::string name_;                                 // for messages
  std::unique_ptr<PendingFile> file_;                // null for standard output and pictures
  std::vector<std::unique_ptr<PendingFile>> files_;  // pictures
  AVFormatContext* format_ = nullptr;
  std::unique_ptr<VideoEncoder> encoder_;
  std::unique_ptr<FilterPass> upright_;  // for pictures: to RGB, turned by the display matrix
  AVStream* video_ = nullptr;
  std::unique_ptr<CompanionStreams> companions_;
  AVRational timeBase_;
  AVRational frameRate_;
  int64_t nominalDuration_;
  // Encoders that count frames take their time stamps from stamps_. The others keep the frames' clock; only durations are
  // looked up by pts.
  int64_t frameCount_ = 0;
  std::deque<Stamp> stamps_;
  std::map<int64_t, int64_t> durations_;
  int64_t lastPts_ = AV_NOPTS_VALUE;
  int64_t lastSlot_ = -1;
  int64_t firstInterval_ = 0;
  bool variableRate_ = false;
  std::string partial_;
  std::vector<std::string> notes_;
};

}  // namespace noxel::tool
