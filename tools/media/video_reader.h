// A video file, a device, or standard input, frame by frame, with the packets of its other streams.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/tool_error.h"
#include "media/av_types.h"
#include "media/companions.h"
#include "media/deinterlace.h"
#include "media/standard_input.h"
#include "media/time_range.h"

namespace noxel::tool {

using DisplayMatrix = std::array<int32_t, 9>;

// libavfilter filters that turn a picture with this matrix upright (empty if it is), and whether they swap width and height.
// Angles are rounded to quarter turns.
struct Uprighting {
  std::string filters;
  bool swapsSides;
};
Uprighting uprighting(const std::optional<DisplayMatrix>& matrix);

// One thread. Every failure is a ToolError, kExitUnreadable unless stated.
class VideoReader {
 public:
  // "-": standard input. `format`: an FFmpeg input format or device; empty: detected. Of a range with a start the first frame,
  // and with it everything else, is at time 0.
  explicit VideoReader(const std::string& path, const std::string& format = "", const TimeRange& range = {},
                       Fields fields = Fields::kDeinterlaced);
  ~VideoReader();
  VideoReader(const VideoReader&) = delete;
  VideoReader& operator=(const VideoReader&) = delete;

  // The next frame in presentation order; null at the end or when a stop was requested. `pts` is in timeBase() and strictly
  // increasing; `pkt_duration` is in timeBase(), 0 when unknown. A change of size is a ToolError, kExitFailed. Interlaced
  // frames are deinterlaced, unless asked otherwise: by their flags or, where the clip says nothing, as its first frames look.
  FramePtr next();
  // The first frame, never null: ToolError, kExitFailed when stopped by the user, kExitUsage without a frame in the range.
  FramePtr first();

  // Of a whole clip: the next frame is the keyframe at or before this time. False: this input cannot, or only by reading
  // through it.
  bool seek(double seconds);

  // Instead of decoding: the frames in the range, by reading it to its end, or by the index of an MP4 or MOV.
  int64_t countFrames();

  // After the first frame: packets of other streams read since the last call; `stream_index` is an index into
  // companions().streams.
  std::vector<PacketPtr> takeBeside();

  AVRational timeBase() const { return stream_->time_base; }
  AVRational frameRate() const { return frameRate_; }
  int64_t nominalIntervalUs() const;
  // Of the range. 0: unknown; an estimate where the container has only its own duration.
  int64_t expectedFrames() const;
  // At the end: whether the clip promised more than it had. Of the video where its own length is stated, else of the whole
  // file; `frames` were read.
  bool isCutShort(int64_t frames) const;
  AVRational sampleAspectRatio(const AVFrame& frame) const;
  std::optional<DisplayMatrix> displayMatrix() const;  // the stream's, else the first frame's (photos)
  // All that is beside the video. Second videos are there, but not read.
  Companions companions() const;
  size_t audioStreams() const;
  AVCodecID codec() const { return stream_->codecpar->codec_id; }
  std::string codecName() const { return avcodec_get_name(stream_->codecpar->codec_id); }
  bool interlaced() const { return deinterlacer_ != nullptr; }  // found so far
  int damagedPackets() const { return damagedPackets_; }
  bool lateAudio() const { return lateAudio_; }  // audio that starts in mid-clip was dropped
  bool live() const;                             // a camera or screen

 private:
  void openClip();
  void open();
  void selectStreams();
  void openDecoder();
  FramePtr decode();
  FramePtr inRange();
  void begin();
  FramePtr asRead();
  bool readPacket(AVPacket& packet);
  void feedDecoder();
  void keepBeside(AVPacket& packet);
  void stamp(AVFrame& frame);
  void checkSize(const AVFrame& frame);
  int64_t statedFrames() const;
  int64_t statedLengthUs() const;
  ToolError nothingInRange() const;

  // The range. Times are the file's own, in microseconds, unless they are in timeBase().
  int64_t originUs() const;
  int64_t startUs() const { return av_sat_add64(originUs(), range_.startUs); }
  std::optional<int64_t> endUs() const;
  int64_t rangePts(int64_t us) const;
  void goTo(int step);
  bool landedLate(const AVFrame* frame);
  void findShownSubtitles();
  void readBesideToEnd();
  bool cut(AVPacket& packet) const;
  void cutChapters();

  const std::string path_;
  const std::string inputFormat_;
  const TimeRange range_;
  std::string name_;                              // for messages
  std::unique_ptr<StandardInput> standardInput_;  // null for a file; outlives format_
  AVFormatContext* format_ = nullptr;
  AVStream* stream_ = nullptr;  // owned by format_, as beside_
  CodecPtr decoder_;
  AVRational frameRate_ = {25, 1};
  std::vector<const AVStream*> beside_;
  std::vector<int> place_;  // in beside_, by stream index of the input; -1: not there
  std::vector<PacketPtr> packets_;
  int step_ = 0;                     // how far back the latest seek went
  bool awaitsKey_ = false;           // after a seek, before the decoder has a keyframe
  bool landed_ = false;              // the frame after that was not too late
  bool subtitlesFound_ = false;      // those shown at the start are known
  std::optional<int64_t> firstPts_;  // of the first frame in the range, as the file has it
  bool ended_ = false;               // the range, before the clip
  std::vector<AVChapter> chapters_;  // cut to the range; their metadata is format_'s
  bool drained_ = false;
  bool begun_ = false;
  std::deque<FramePtr> ahead_;  // decoded, not yet handed out or deinterlaced
  const Fields fields_;
  std::unique_ptr<Deinterlacer> deinterlacer_;  // null: progressive so far
  bool deinterlacerDrained_ = false;
  bool lateAudio_ = false;
  int64_t readUs_ = 0;  // where the packets read so far end
  int damagedPackets_ = 0;
  std::optional<int64_t> lastPts_;
  int64_t framesRead_ = 0;
  int width_ = 0;  // of the first frame
  int height_ = 0;
  std::optional<DisplayMatrix> frameMatrix_;  // likewise
};

}  // namespace noxel::tool
