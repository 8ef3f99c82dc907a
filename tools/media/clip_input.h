// A clip frame by frame, as the engine takes it.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "media/av_types.h"
#include "media/colour_conversion.h"
#include "media/tone_map.h"
#include "media/video_reader.h"

namespace noxel::tool {

// Starts at the first frame. An HDR clip is tone-mapped: all its frames here are BT.709 SDR. One thread.
class ClipInput {
 public:
  // "-": standard input. ToolError without a first frame.
  explicit ClipInput(const std::string& path, const TimeRange& range = {}, Fields fields = Fields::kDeinterlaced);

  // Advances. False at the end or when a stop was requested; the last frame stays current.
  bool next();

  // Goes to the keyframe at or before this time, which is current then. False: as VideoReader::seek, or no frame there; the
  // clip is of no more use.
  bool seek(double seconds);

  // Keeps the frames from the current one on; returnToMark() makes that one current again, once.
  void mark();
  void returnToMark();

  // The current frame: as decoded (HDR: tone-mapped); planar in the clip's own colours; padded in the engine's colours.
  const AVFrame& frame() const { return *frame_; }
  const AVFrame& planar() const { return *planar_; }
  const AVFrame& engineFrame() const { return *engineFrame_; }
  // engineFrame() as NV21, nv21Width() x nv21Height(); the caller may change it.
  std::vector<uint8_t>& nv21() { return nv21_; }
  double seconds() const;  // time stamp, as the next
  int64_t microseconds() const;
  // As VideoReader::takeBeside: what was read up to the current frame, at the end all that is left.
  std::vector<PacketPtr> takeBeside() { return reader_.takeBeside(); }

  int width() const { return width_; }  // without the padding
  int height() const { return height_; }
  int nv21Width() const { return nv21Width_; }
  int nv21Height() const { return nv21Height_; }
  const char* hdr() const { return hdr_; }  // PQ, HLG; empty: SDR
  bool highDynamicRange() const { return toneMap_ != nullptr; }
  VideoReader& reader() { return reader_; }
  const VideoReader& reader() const { return reader_; }
  ColourConversion& colours() { return colours_; }
  const ColourConversion& colours() const { return colours_; }

 private:
  FramePtr first();
  FramePtr read();
  void convert();

  VideoReader reader_;
  const char* hdr_ = "";
  std::unique_ptr<ToneMap> toneMap_;  // null for SDR
  bool marked_ = false;
  std::deque<FramePtr> kept_;  // from the mark on
  FramePtr frame_;
  FramePtr planar_;
  FramePtr engineFrame_;
  std::vector<uint8_t> nv21_;
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
