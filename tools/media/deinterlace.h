// Interlaced video to whole frames.
#pragma once

#include <deque>
#include <optional>
#include <vector>

#include "media/av_types.h"
#include "media/colour_conversion.h"

namespace noxel::tool {

enum class FieldOrder { kTopFirst, kBottomFirst };

// By FFmpeg's idet, for clips that do not state it: some consecutive frames, of one size and format. Nothing: progressive, too few
// frames, or they do not say, as where nothing moves or all is noise. Stripes as fine as lines, over all of the picture, may be
// taken for combs where they move.
std::optional<FieldOrder> detectFieldOrder(const std::vector<FramePtr>& frames);

// Frames from 8 x 8 pixels on.
bool canDeinterlace(const AVFrame& frame);

// Whether interlaced frames are made progressive as they are read.
enum class Fields { kDeinterlaced, kAsTheyAre };

// By FFmpeg's bwdif: one frame for each, at its time, one frame later. Frames that are not flagged interlaced pass as they are.
class Deinterlacer {
 public:
  // `assumed`: the order of frames that are not flagged, too.
  Deinterlacer(const AVFrame& first, std::optional<FieldOrder> assumed);

  void send(const AVFrame& frame);
  void finish();       // no more come, until restart()
  FramePtr receive();  // null: more must be sent first
  void restart();

 private:
  struct Time {
    int64_t pts;
    int64_t duration;
  };

  FilterPass makePass() const;

  const std::optional<FieldOrder> assumed_;
  int width_;
  int height_;
  AVPixelFormat format_;
  FilterPass pass_;
  std::deque<Time> times_;        // of the frames in the filter
  std::deque<FramePtr> leavers_;  // of the format before
};

// For the user.
inline const char* deinterlaceNote() {
  return "the clip is interlaced; it is deinterlaced, one frame for each";
}

}  // namespace noxel::tool
