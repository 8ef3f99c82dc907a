// A clip frame by frame, in the form the engine takes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "av_types.h"
#include "colour_conversion.h"
#include "video_reader.h"

namespace noxel::tool {

// One thread. Stands on the first frame from the start.
class ClipInput {
 public:
  // ToolError with kExitUnreadable when there is no first frame, with kExitFailed when the user stopped before it.
  explicit ClipInput(const std::string& path);  // "-": Y4M on standard input

  // To the next frame; false after the last or when a stop was requested. ToolError when it has another size.
  bool next();

  // Of the frame in hand: padded, in the engine's colours, nv21Width() x nv21Height().
  const std::vector<uint8_t>& nv21() const { return nv21_; }
  double seconds() const;  // time stamp in the clip

  int width() const { return width_; }  // without the padding
  int height() const { return height_; }
  int nv21Width() const { return nv21Width_; }
  int nv21Height() const { return nv21Height_; }
  bool highDynamicRange() const { return highDynamicRange_; }
  const VideoReader& reader() const { return reader_; }

 private:
  void pack();

  VideoReader reader_;
  FramePtr frame_;  // the one in hand
  const int width_;
  const int height_;
  const int nv21Width_;
  const int nv21Height_;
  const bool highDynamicRange_;
  ColourConversion colours_;
  std::vector<uint8_t> nv21_;
  int64_t index_ = 0;
};

// As checkMayWrite; a usage error, too, when `output` is the clip itself.
void checkMayWriteBeside(const std::string& input, const std::string& output, bool overwrite);

}  // namespace noxel::tool
