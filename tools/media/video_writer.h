// An .mp4 or .mkv with H.264 and copied audio, or Y4M.
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
#include "media/video_reader.h"

namespace noxel::tool {

// FFmpeg's name of the container, by extension; usage error for an unknown one.
std::string containerOf(const std::string& path);

struct OutputSettings {
  std::string path;  // "-": Y4M on standard output
  int crf = 18;      // 0..51, of libx264
  int width = 0;
  int height = 0;
  AVRational timeBase = {1, 25};   // of the frames' pts
  AVRational frameRate = {25, 1};  // nominal
  AVRational sampleAspectRatio = {0, 1};
  ColourTags tags;
  std::optional<DisplayMatrix> displayMatrix;
  std::vector<const AVStream*> audio;  // read during construction only, as metadata
  const AVDictionary* metadata = nullptr;
};

// The file appears under its name in finish(). One thread. Failures are ToolErrors: kExitUsage when the container cannot
// hold the audio, else kExitFailed.
class VideoWriter {
 public:
  explicit VideoWriter(const OutputSettings& settings);
  ~VideoWriter();
  VideoWriter(const VideoWriter&) = delete;
  VideoWriter& operator=(const VideoWriter&) = delete;

  void write(const AVFrame& planar, int64_t pts, int64_t duration);  // duration 0: the nominal interval
  void writeAudio(AVPacket& packet);  // stream_index: index into settings.audio; consumes the packet
  void finish();

  const std::string& encoderName() const { return encoderName_; }
  // For the user: what the output cannot hold.
  const std::vector<std::string>& notes() const { return notes_; }

 private:
  struct Stamp {
    int64_t pts;
    int64_t duration;
  };

  void addVideo(const OutputSettings& settings);
  bool openEncoder(const AVCodec* codec, const OutputSettings& settings);
  void addAudio(const OutputSettings& settings);
  void writeHeader(const OutputSettings& settings);
  void drainEncoder();
  void writePacket(AVPacket& packet);

  std::string container_;
  std::string name_;                   // for messages
  std::unique_ptr<PendingFile> file_;  // null for standard output
  AVFormatContext* format_ = nullptr;
  CodecPtr encoder_;
  std::string encoderName_;
  AVStream* video_ = nullptr;
  std::vector<AVStream*> audio_;            // empty when all audio is dropped, null for a dropped stream
  std::vector<AVRational> audioTimeBases_;  // of the input packets
  std::vector<int64_t> audioTimes_;         // min dts of each stream's next packet
  AVRational timeBase_;
  int64_t nominalDuration_;
  // Encoders with a fixed frame rate count frames: packets come in frame order and take their time stamps from stamps_. The
  // others keep the frames' clock; only durations are looked up by pts.
  bool countsFrames_ = false;
  int64_t frameCount_ = 0;
  std::deque<Stamp> stamps_;
  std::map<int64_t, int64_t> durations_;
  int64_t lastPts_ = AV_NOPTS_VALUE;
  int64_t firstInterval_ = 0;
  bool variableRate_ = false;
  std::vector<std::string> notes_;
};

}  // namespace noxel::tool
