// Frames of a clip or camera as the viewer's engine takes them: NV21, upright, padded.
#pragma once

#include <memory>
#include <string>

#include "media/colour_conversion.h"
#include "media/tone_map.h"
#include "media/video_reader.h"

namespace noxel::tool {

// Holds one decoded frame, initially the first. One thread; every failure is a ToolError.
class ViewSource {
 public:
  // `format`: an FFmpeg input format; empty: detected, with v4l2 for /dev/video...
  ViewSource(const std::string& input, const std::string& format);

  // A device, whose frames are shown as they come; else a clip, whose frames are due at their time stamps.
  bool live() const { return reader_->live(); }
  bool canRestart() const { return input_ != "-" && !live(); }

  // With padding: up to three columns on the right and one row at the bottom.
  int width() const { return width_; }
  int height() const { return height_; }
  int displayWidth() const { return displayWidth_; }  // for square pixels, as the next
  int displayHeight() const { return displayHeight_; }

  int64_t timeUs() const;  // of the current frame
  int64_t intervalUs() const { return reader_->nominalIntervalUs(); }

  // False at the end or when a stop was requested; the last frame stays current.
  bool advance();
  void restart();

  // Converts the current frame; nv21Size(width(), height()) bytes. Skipped frames need not be packed.
  void pack(uint8_t* nv21);

 private:
  void open();
  void measure();
  FramePtr shown();  // the current frame, in SDR

  const std::string input_;
  const std::string format_;
  std::unique_ptr<VideoReader> reader_;
  FramePtr frame_;
  std::unique_ptr<ToneMap> toneMap_;  // null for SDR
  std::unique_ptr<ColourConversion> colours_;
  std::unique_ptr<FilterPass> rotation_;  // null for an upright clip
  int clipWidth_ = 0;
  int clipHeight_ = 0;
  int width_ = 0;
  int height_ = 0;
  int displayWidth_ = 0;
  int displayHeight_ = 0;
};

}  // namespace noxel::tool
