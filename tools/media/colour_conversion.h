// Between the colours of a clip and the engine's: 8-bit 4:2:0, full range, BT.601 matrix.
#pragma once

#include "media/av_types.h"

namespace noxel::tool {

// As tagged in the file; each may be "unspecified".
struct ColourTags {
  AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
  AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
  AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
  AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
  AVChromaLocation chromaLocation = AVCHROMA_LOC_UNSPECIFIED;
};

// A libavfilter graph for frames of one size and format.
class FilterPass {
 public:
  FilterPass(int width, int height, const std::string& filters, AVPixelFormat format = AV_PIX_FMT_YUV420P);
  // For filters that give a frame for each at once.
  FramePtr run(const AVFrame& frame);

  // For those that wait for later ones. Null: no more come.
  void send(const AVFrame* frame);
  FramePtr receive();  // null: more must be sent first

 private:
  AVPixelFormat format_;
  FilterGraphPtr graph_;
  AVFilterContext* source_ = nullptr;  // owned by the graph, as the sink
  AVFilterContext* sink_ = nullptr;
};

//   planar      the clip's frame in 8-bit 4:2:0, with its own size, matrix and range
//   toEngine    a padded planar frame to the engine's colours
//   fromEngine  and back
//
// Untagged: BT.709 from a width of 1280 or a height above 576, else BT.601; limited range, but full for the "yuvj" formats.
// RGB becomes limited range with that matrix. A clip in the engine's own colours passes bit-exactly. Primaries and transfer
// curve are kept: only the matrix changes, on the coded values.
class ColourConversion {
 public:
  // Tags and size from the clip's first frame. ToolError when its format or matrix cannot be converted.
  explicit ColourConversion(const AVFrame& first);

  // Of the output.
  const ColourTags& tags() const { return tags_; }
  AVColorSpace matrix() const { return matrix_; }
  AVColorRange range() const { return range_; }

  FramePtr planar(const AVFrame& frame);
  FramePtr toEngine(const AVFrame& planar);
  FramePtr fromEngine(const AVFrame& planar);

  // A decoded frame as AV_PIX_FMT_RGBA, with its alpha.
  FramePtr rgba(const AVFrame& frame) const;

 private:
  ColourTags tags_;
  AVColorSpace matrix_;
  AVColorRange range_;
  AVPixelFormat scaledFormat_ = AV_PIX_FMT_NONE;
  SwsPtr scaler_;  // for frames of scaledFormat_; null until needed
  // Null when the clip has the engine's colours.
  std::unique_ptr<FilterPass> toEngine_;
  std::unique_ptr<FilterPass> fromEngine_;
};

// A planar frame in the engine's colours to packed RGB, and back.
FramePtr engineToRgb(const AVFrame& planar, AVPixelFormat format = AV_PIX_FMT_RGB24);
FramePtr rgbToEngine(const AVFrame& rgb);

// A planar frame as AV_PIX_FMT_NV12.
FramePtr withPairedChroma(const AVFrame& planar);

// AV_PIX_FMT_RGBA to AV_PIX_FMT_RGB24.
FramePtr withoutAlpha(const AVFrame& rgba);

}  // namespace noxel::tool
