#include "gl/engine/sequences.h"

namespace noxel {
namespace {

// Modes 1 and 3: a light frame is denoised by itself, the others are blended with all that came before.
constexpr Step kSpatial[] = {
    {kStepSmoothLuma, Image::kSmoothedLuma, {Image::kPackedLuma}},
    {kPassPackedYuv, Image::kOut, {Image::kSmoothedLuma, Image::kChroma}, Mapping::kZoom, Tone::kExposure},
};
constexpr Step kHistoryStart[] = {
    {kPassBicubicYuv, Image::kNext, {Image::kLuma, Image::kChroma}, Mapping::kZoom},
    {kPassTone, Image::kOut, {Image::kNext}, Mapping::kIdentity, Tone::kExposure},
};
constexpr Step kTemporal[] = {
    {kPassBicubicYuv, Image::kCurrent, {Image::kLuma, Image::kChroma}, Mapping::kStabilized},
    {kPassGhostMask, Image::kRawMask, {Image::kPast, Image::kCurrent}, Mapping::kMotion},
    {kStepShapeMask, Image::kMask, {Image::kRawMask}},
    {kPassDeghostMix, Image::kNext, {Image::kPast, Image::kCurrent, Image::kMask}, Mapping::kMotion},
    {kPassTone, Image::kOut, {Image::kNext}, Mapping::kIdentity, Tone::kExposure},
};

// Mode 2: stabilised and sharpened, no history.
constexpr Step kStabilizedOnly[] = {
    {kPassBicubicYuv, Image::kCurrent, {Image::kLuma, Image::kChroma}, Mapping::kStabilized},
    {kPassSharpen, Image::kOut, {Image::kCurrent}},
};

// Mode 0: a light frame is smoothed along its edges; of the others the last three are averaged. The ring holds frames as
// they came, so that each is drawn between its pixels once, not once more with every blend. The second frame of a sequence
// is blended on its own grid, as kr_w10 reads the new picture unwarped, and stabilised with the sharpening.
constexpr Step kLightFrame[] = {
    {kPassPackedYuv, Image::kCurrent, {Image::kPackedLuma, Image::kChroma}},
    {kPassEdgeAware, Image::kSmoothed, {Image::kCurrent}},
    {kPassSharpen, Image::kOut, {Image::kSmoothed}, Mapping::kZoom},
};
constexpr Step kFirstOfThree[] = {
    {kPassBicubicYuv, Image::kNext, {Image::kLuma, Image::kChroma}},
    {kPassTone, Image::kMean, {Image::kNext}, Mapping::kStabilized},
    {kPassSharpen, Image::kOut, {Image::kMean}},
};
constexpr Step kSecondOfThree[] = {
    {kPassBicubicYuv, Image::kNext, {Image::kLuma, Image::kChroma}},
    {kPassRecursiveBlend, Image::kMean, {Image::kPast, Image::kNext}, Mapping::kPrevious},
    {kPassSharpen, Image::kOut, {Image::kMean}, Mapping::kStabilized},
};
constexpr Step kMeanOfThree[] = {
    {kPassBicubicYuv, Image::kNext, {Image::kLuma, Image::kChroma}},
    {kPassThreeFrameMean, Image::kMean, {Image::kPast, Image::kNext, Image::kOldest}, Mapping::kThreeFrames},
    {kPassSharpen, Image::kOut, {Image::kMean}},
};

constexpr ModePlan kPlans[] = {
    {kLightFrame, kFirstOfThree, kSecondOfThree, kMeanOfThree, 3, false, true},
    {kSpatial, kHistoryStart, kTemporal, kTemporal, 2, true, false},
    {kSpatial, kStabilizedOnly, kStabilizedOnly, kStabilizedOnly, 2, false, true},
    {kSpatial, kHistoryStart, kTemporal, kTemporal, 2, true, false},
};
constexpr ModePlan kNoPlan = {{}, {}, {}, {}, 2, false, false};

}  // namespace

const ModePlan& modePlan(int mode) {
  return mode >= 0 && mode < static_cast<int>(std::size(kPlans)) ? kPlans[mode] : kNoPlan;
}

std::span<const Step> frameSequence(const ModePlan& plan, int historyCount) {
  if (historyCount < 0) return plan.light;
  return historyCount == 0 ? plan.first : historyCount == 1 ? plan.second : plan.later;
}

}  // namespace noxel
