// A clip frame by frame, in the form the engine takes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "media/av_types.h"
#include "media/colour_conversion.h"
#include "media/video_reader.h"

namespace noxel::tool {

// One thread. Stands on the first frame from the start.
class ClipInput {
 public:
  // ToolError when there is no first frame.
  explicit ClipInput(const std::string& path);  // "-": Y4M on standard input

  // To the next frame; false after the last or when a stop was requested: the last one stays in hand.
  bool next();

  // The frame in hand: as it was decoded; planar in the clip's own colours; and padded, in the engine's colours.
  const AVFrame& frame() const { return *frame_; }
  const AVFrame& planar() const { return *planar_; }
  const AVFrame& engineFrame() const { return *engineFrame_; }
  // The last as NV21, nv21Width() x nv21Height(); the caller's to change until next().
  std::vector<uint8_t>& nv21() { return nv21_; }
  double seconds() const;  // time stamp in the clip, as the next
  int64_t microseconds() const;

  int width() const { return width_; }  // without the padding
  int height() const { return height_; }
  int nv21Width() const { return nv21Width_; }
  int nv21Height() const { return nv21Height_; }
  bool highDynamicRange() const { return highDynamicRange_; }
  VideoReader& reader() { return reader_; }
  const VideoReader& reader() const { return reader_; }
  ColourConversion& colours() { return colours_; }
  const ColourConversion& colours() const { return colours_; }

 private:
  void convert();

  VideoReader reader_;
  FramePtr frame_;
  const int width_;
  const int height_;
  const int nv21Width_;
  const int nv21Height_;
  const bool highDynamicRange_;
  ColourConversion colours_;
  FramePtr planar_;
  FramePtr engineFrame_;
  std::vector<uint8_t> nv21_;
};

// As checkMayWrite for each; a usage error, too, when one is the clip itself or two are the same file. Empty names and "-"
// are no files.
void checkOutputFiles(const std::string& input, const std::vector<std::string>& outputs, bool overwrite);

}  // namespace noxel::tool
