// The frames of a clip or camera as the viewer's engine takes them: NV21, upright, padded.
#pragma once

#include <memory>
#include <string>

#include "media/colour_conversion.h"
#include "media/video_reader.h"

namespace noxel::tool {

// Holds one decoded frame, at first the first. One thread; every failure is a ToolError.
class ViewSource {
 public:
  // `format` names one of FFmpeg's inputs, empty to tell by the input; /dev/video... is a camera.
  ViewSource(const std::string& input, const std::string& format);

  // A device that gives its frames when it has them; else a clip, whose frames are due at their times.
  bool live() const { return reader_->live(); }
  bool canRestart() const { return input_ != "-" && !live(); }

  // Of the engine's frames: up to three columns and one row at the right and bottom edges are repeated ones.
  int width() const { return width_; }
  int height() const { return height_; }
  int displayWidth() const { return displayWidth_; }  // with the pixels' own shape, as the next
  int displayHeight() const { return displayHeight_; }

  int64_t timeUs() const;  // of the frame that is held
  int64_t intervalUs() const { return reader_->nominalIntervalUs(); }

  // False at the end, or when a stop was requested; the last frame stays.
  bool advance();
  void restart();

  // The frame that is held, nv21Size(width(), height()) bytes. Frames that are skipped need no conversion.
  void pack(uint8_t* nv21);

 private:
  void open();
  void measure();

  const std::string input_;
  const std::string format_;
  std::unique_ptr<VideoReader> reader_;
  FramePtr frame_;
  std::unique_ptr<ColourConversion> colours_;
  std::unique_ptr<FilterPass> rotation_;  // null for a clip that is upright
  int clipWidth_ = 0;
  int clipHeight_ = 0;
  int width_ = 0;
  int height_ = 0;
  int displayWidth_ = 0;
  int displayHeight_ = 0;
};

}  // namespace noxel::tool
