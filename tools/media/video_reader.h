// A video file, a device, or Y4M on standard input, frame by frame, with the packets of its audio streams.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "media/av_types.h"

namespace noxel::tool {

using DisplayMatrix = std::array<int32_t, 9>;

// The libavfilter filters that bring a picture with this matrix upright, and whether they trade width and height; no filters
// for one that is. Angles between quarter turns are taken as the nearest one.
struct Uprighting {
  std::string filters;
  bool swapsSides;
};
Uprighting uprighting(const std::optional<DisplayMatrix>& matrix);

// One thread. Every failure is a ToolError, where nothing else is said with kExitUnreadable.
class VideoReader {
 public:
  // "-": Y4M on standard input. `format`: FFmpeg's name of the input's kind, devices included; empty: told by the path.
  explicit VideoReader(const std::string& path, const std::string& format = "");
  ~VideoReader();
  VideoReader(const VideoReader&) = delete;
  VideoReader& operator=(const VideoReader&) = delete;

  // The next frame in order of presentation, null at the end or when a stop was requested. `pts` is in timeBase() and
  // rises from frame to frame; `pkt_duration` is in timeBase() too, 0 when unknown. All have one size: another is a
  // ToolError with kExitFailed.
  FramePtr next();
  // The same for a caller that cannot do without one: ToolError, with kExitFailed when the user stopped before it.
  FramePtr first();

  // The audio packets that were met since the last call, `stream_index` being the place in audioStreams().
  std::vector<PacketPtr> takeAudio();

  AVRational timeBase() const { return stream_->time_base; }
  AVRational frameRate() const { return frameRate_; }
  int64_t nominalIntervalUs() const;
  int64_t expectedFrames() const;  // 0: unknown
  AVRational sampleAspectRatio(const AVFrame& frame) const;
  std::optional<DisplayMatrix> displayMatrix() const;  // the stream's, else the first frame's, as photos have it
  const std::vector<const AVStream*>& audioStreams() const { return audioStreams_; }
  const AVDictionary* metadata() const { return format_->metadata; }
  std::string codecName() const { return avcodec_get_name(stream_->codecpar->codec_id); }
  int damagedPackets() const { return damagedPackets_; }
  bool lateAudio() const { return lateAudio_; }  // audio was met that begins in mid-clip, and passed over
  bool live() const;                             // a camera or screen, which gives a frame when it has one

 private:
  void open(const std::string& path, const std::string& format);
  void selectStreams();
  void openDecoder();
  void feedDecoder();
  void stamp(AVFrame& frame);
  void checkSize(const AVFrame& frame);

  std::string name_;  // as error messages call it
  AVFormatContext* format_ = nullptr;
  AVStream* stream_ = nullptr;  // owned by format_, as audioStreams_
  CodecPtr decoder_;
  AVRational frameRate_ = {25, 1};
  std::vector<const AVStream*> audioStreams_;
  std::vector<int> audioPlace_;  // by stream index of the input; -1: not audio
  std::vector<PacketPtr> audioPackets_;
  bool drained_ = false;
  bool lateAudio_ = false;
  int damagedPackets_ = 0;
  std::optional<int64_t> lastPts_;
  int64_t framesRead_ = 0;
  int width_ = 0;  // of the first frame
  int height_ = 0;
  std::optional<DisplayMatrix> frameMatrix_;  // likewise
};

}  // namespace noxel::tool
