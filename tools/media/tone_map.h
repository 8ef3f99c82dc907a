// HDR to SDR, before anything measures or brightens the picture: PQ and HLG codes are not proportional to an SDR clip's.
#pragma once

#include <string>

#include "media/av_types.h"
#include "media/colour_conversion.h"

namespace noxel::tool {

// Whether the frame is tagged PQ (SMPTE ST 2084) or HLG (ARIB STD-B67).
bool isHighDynamicRange(const AVFrame& frame);

// By zimg and FFmpeg's tonemap, in linear light. Both sides are read as a display shows them (HLG: at 1000 nits), so that a
// scene gets the codes that an SDR display of the same brightness needs for it:
//
//   L                     of the HDR clip, in units of its diffuse white, 203 nits (ITU-R BT.2408)
//   max(R, G, B) <= 0.5   kept: dim content has the codes L^(1/2.4) (BT.1886) of its SDR twin
//   above                 bent (Moebius) so that the clip's peak comes out as 1; at a peak of 1000 nits diffuse white is 0.77,
//                         89 % of the code range, which leaves the rest to highlights
//
// The peak is what the first frame states (MaxCLL, else the mastering display), else 1000 nits. Untagged matrix and primaries
// are taken as BT.2020's.
class ToneMap {
 public:
  explicit ToneMap(const AVFrame& first);  // a frame that isHighDynamicRange(). ToolError when this FFmpeg cannot do it
  // AV_PIX_FMT_YUV420P, tagged BT.709 in limited range.
  FramePtr run(const AVFrame& frame);

 private:
  ColourTags from_;
  double peakNits_;
  int format_;  // of the frames that pass_ takes
  FilterPass pass_;
};

// For the user.
inline const char* toneMapNote() {
  return "the clip is HDR; it is tone-mapped to BT.709 SDR, 8 bits, before anything else";
}

}  // namespace noxel::tool
