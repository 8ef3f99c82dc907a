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

// FFmpeg's name of the container an output is written in; usage error for an extension that is none of ours.
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

// The file stands under its name after finish() and not before. One thread. Failures are ToolErrors: kExitUsage when
// the container cannot hold the audio, else kExitFailed.
class VideoWriter {
 public:
  explicit VideoWriter(const OutputSettings& settings);
  ~VideoWriter();
  VideoWriter(const VideoWriter&) = delete;
  VideoWriter& operator=(const VideoWriter&) = delete;

  void write(const AVFrame& planar, int64_t pts, int64_t duration);  // duration 0: the nominal interval
  void writeAudio(AVPacket& packet);  // stream_index: place in settings.audio; takes the packet's contents
  void finish();

  const std::string& encoderName() const { return encoderName_; }
  // What the output could not take over, for the user.
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
  std::string name_;                   // as error messages call it
  std::unique_ptr<PendingFile> file_;  // null for standard output
  AVFormatContext* format_ = nullptr;
  CodecPtr encoder_;
  std::string encoderName_;
  AVStream* video_ = nullptr;
  std::vector<AVStream*> audio_;            // empty where all audio is left out, null for a stream that is
  std::vector<AVRational> audioTimeBases_;  // of the packets handed in
  std::vector<int64_t> audioTimes_;         // each stream's earliest for its next packet
  AVRational timeBase_;
  int64_t nominalDuration_;
  // Encoders that need a clock of their own count frames: their packets come in the order of the frames and take the
  // stamps back from here. The others keep the frames' own clock, and only durations are looked up by time.
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
