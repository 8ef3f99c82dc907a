// A clip frame by frame, as the engine takes it.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "media/av_types.h"
#include "media/colour_conversion.h"
#include "media/tone_map.h"
#include "media/video_reader.h"

namespace noxel::tool {

struct FrameAhead {
  uint8_t* nv21 = nullptr;
  int64_t microseconds = 0;
};

// Starts at the first frame. An HDR clip is tone-mapped: all its frames here are BT.709 SDR. One thread.
class ClipInput {
 public:
  explicit ClipInput(const std::string& path);  // "-": standard input. ToolError without a first frame

  // Advances. False at the end or when a stop was requested; the last frame stays current.
  bool next();

  // The current frame: as decoded (HDR: tone-mapped); planar in the clip's own colours; padded in the engine's colours.
  const AVFrame& frame() const { return *current_.frame; }
  const AVFrame& planar() const { return *current_.planar; }
  const AVFrame& engineFrame() const { return *current_.engineFrame; }
  // engineFrame() as NV21, nv21Width() x nv21Height(); the caller may change it.
  std::vector<uint8_t>& nv21() { return current_.nv21; }
  double seconds() const;  // time stamp, as the next
  int64_t microseconds() const { return microseconds(*current_.frame); }
  // Packets beside the video, read up to the current frame and not taken yet, at the end all that are left; as
  // VideoReader::takeBeside.
  std::vector<PacketPtr> takeBeside();

  // A frame after the current one, which stays what it is. steps: 1 or more. Null nv21: the clip ends before, or a stop was
  // requested. Valid until that frame is the current one.
  FrameAhead ahead(size_t steps);

  int width() const { return width_; }  // without the padding
  int height() const { return height_; }
  int nv21Width() const { return nv21Width_; }
  int nv21Height() const { return nv21Height_; }
  bool highDynamicRange() const { return toneMap_ != nullptr; }
  VideoReader& reader() { return reader_; }
  const VideoReader& reader() const { return reader_; }
  ColourConversion& colours() { return colours_; }
  const ColourConversion& colours() const { return colours_; }

 private:
  struct Converted {
    FramePtr frame = nullptr;
    FramePtr planar = nullptr;
    FramePtr engineFrame = nullptr;
    std::vector<uint8_t> nv21 = {};
    std::vector<PacketPtr> beside = {};  // read with it
  };

  static Converted first(VideoReader& reader, std::unique_ptr<ToneMap>& toneMap);
  void convert(Converted& converted);
  int64_t microseconds(const AVFrame& frame) const;

  VideoReader reader_;
  std::unique_ptr<ToneMap> toneMap_;  // null for SDR
  Converted current_;
  std::deque<Converted> queue_;  // read ahead
  const int width_;
  const int height_;
  const int nv21Width_;
  const int nv21Height_;
  ColourConversion colours_;
};

// checkMayWrite for each; also a usage error when one is the input or two are the same file. Empty names and "-" are
// skipped.
void checkOutputFiles(const std::string& input, const std::vector<std::string>& outputs, bool overwrite);

}  // namespace noxel::tool
