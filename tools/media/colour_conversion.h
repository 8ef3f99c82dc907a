// Between the colours of a clip and the engine's: 8-bit 4:2:0, full range, BT.601 matrix.
#pragma once

#include "media/av_types.h"

namespace noxel::tool {

// As a file states them; each may be "unspecified".
struct ColourTags {
  AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
  AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
  AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
  AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
  AVChromaLocation chromaLocation = AVCHROMA_LOC_UNSPECIFIED;
};

// A graph of libavfilter's through which frames of one size and format pass one by one.
class FilterPass {
 public:
  FilterPass(int width, int height, const std::string& filters, AVPixelFormat format = AV_PIX_FMT_YUV420P);
  FramePtr run(const AVFrame& frame);

 private:
  AVPixelFormat format_;
  FilterGraphPtr graph_;
  AVFilterContext* source_ = nullptr;  // owned by the graph, as the sink
  AVFilterContext* sink_ = nullptr;
};

//   planar     the clip's frame in 8-bit 4:2:0, otherwise its own size, matrix and range
//   toEngine   a padded planar frame to the engine's colours
//   fromEngine the way back
//
// A matrix that is not stated is BT.709 for a width of 1280 and more or a height above 576, else BT.601; a range that
// is not stated is limited, but full for the "yuvj" formats. RGB becomes limited range with that matrix. A clip in the
// engine's own colours passes bit-exactly. Primaries and transfer curve stay what they are: the matrix alone is
// changed, on the coded values.
class ColourConversion {
 public:
  // Takes tags and size from the clip's first frame; ToolError for a format or matrix that cannot be converted.
  explicit ColourConversion(const AVFrame& first);

  // What the output is tagged with.
  const ColourTags& tags() const { return tags_; }
  AVColorSpace matrix() const { return matrix_; }
  AVColorRange range() const { return range_; }

  FramePtr planar(const AVFrame& frame);
  FramePtr toEngine(const AVFrame& planar);
  FramePtr fromEngine(const AVFrame& planar);

  // Of a frame as it was decoded, with its alpha: AV_PIX_FMT_RGBA.
  FramePtr rgba(const AVFrame& frame) const;

 private:
  ColourTags tags_;
  AVColorSpace matrix_;
  AVColorRange range_;
  AVPixelFormat scaledFormat_ = AV_PIX_FMT_NONE;
  SwsPtr scaler_;  // for frames of scaledFormat_; null until one needs it
  // Null where the clip has the engine's colours.
  std::unique_ptr<FilterPass> toEngine_;
  std::unique_ptr<FilterPass> fromEngine_;
};

// A planar frame in the engine's colours as packed RGB, and the way back.
FramePtr engineToRgb(const AVFrame& planar, AVPixelFormat format = AV_PIX_FMT_RGB24);
FramePtr rgbToEngine(const AVFrame& rgb);

// AV_PIX_FMT_RGB24 of AV_PIX_FMT_RGBA.
FramePtr withoutAlpha(const AVFrame& rgba);

}  // namespace noxel::tool
