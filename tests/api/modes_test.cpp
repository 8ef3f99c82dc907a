// The pictures of the engine modes beside the enhancing one, against double-precision twins of their whole sequences.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kernels/planes.h"
#include "reference/passes.h"
#include "support/reference_frame.h"
#include "support/reference_picture.h"
#include "support/test_engine.h"
#include "support/waves.h"

namespace noxel {
namespace {

using reference::Image;
using reference::Matrix;
using reference::Size;

constexpr int kWidth = 80;
constexpr int kHeight = 48;
constexpr Size kSize = {kWidth, kHeight};
constexpr float kZoom = 1.25f;
constexpr int kSharpening = 20;
constexpr int kContrast = 30;
constexpr double kCurveWidth = 0.38;  // 1/2 - 0.004 * contrast

// The scene from a camera that pans and rolls, with colours that change across it.
TestFrame frameOf(int n) {
  static const Waves scene(5, 8);
  const View pose = turned(0.01 * n, 1, kWidth / 2.0, kHeight / 2.0, 2.25 * n, -0.75 * n);
  TestFrame frame(kWidth, kHeight, scene.seen(kWidth, kHeight, pose, 2.0, static_cast<unsigned>(n)));
  for (int y = 0; y < kHeight; y += 2) {
    for (int x = 0; x < kWidth; x += 2) {
      frame.v(x, y) = static_cast<unsigned char>(104 + (x + 3 * n) % 40);
      frame.u(x, y) = static_cast<unsigned char>(150 - y);
    }
  }
  return frame;
}

// What registration says of frame n: near the truth, and no two frames alike.
View previousFromCurrent(int n) {
  return turned(0.01 + 0.002 * n, 1, kWidth / 2.0, kHeight / 2.0, 2.0 + 0.25 * n, -0.75);
}
View stabilizedFromCurrent(int n) {
  return turned(0.008 * n, 1, kWidth / 2.0, kHeight / 2.0, 1.5 * n, 0.5 * n);
}

// From a coordinate of the picture to pixels of frame n: the crop, then what the stabilisation did, undone.
View frameFromPicture(int n) {
  const View crop = turned(0, 1 / static_cast<double>(kZoom), kWidth / 2.0, kHeight / 2.0, 0, 0);
  return n == 0 ? crop : composed(inverted(stabilizedFromCurrent(n)), crop);
}

Matrix warpOf(const View& view) {
  return noxel::warpOf(view, kSize);
}

void useScene(TestEngine* engine, const int* n) {
  engine->set(kParamLightMode, 0);
  engine->set(kParamStabilization, 1);
  engine->set(kParamSharpening, kSharpening);
  engine->set(kParamContrast, kContrast);
  ASSERT_EQ(KRSetParameter(kParamZoom, &kZoom, engine->handle), 0);
  engine->setMotion([n](bool first, MotionEstimate* estimate) {
    store(estimate->previousFromCurrent, previousFromCurrent(*n));
    store(estimate->currentFromPrevious, inverted(previousFromCurrent(*n)));
    store(estimate->stabilizedFromCurrent, stabilizedFromCurrent(*n));
    return !first;
  });
}

Image sharp(const Image& picture, const Matrix& warp = reference::kIdentity) {
  return sharpenedWithContrast(picture, kSharpening, kCurveWidth, warp);
}

// The last stored image is half a code off at most, 0.29 rms. The sharpening (2.4 times the centre, each neighbour 0.18 times)
// and the curve (slope 1.14) make 0.8 rms of it, and 5 where all neighbours err against the centre.
::testing::AssertionResult matches(const TestFrame& actual, const Image& expected) {
  return closeTo(packed(actual), packed(expected), 5, 0.98, 2);
}

TEST(Modes, ThreeFramesAreAveragedAlongTheirMotion) {
  TestEngine engine(kWidth, kHeight, {.mode = kModeThreeFrames});
  NOXEL_NEEDS_GL(engine);
  int n = 0;
  useScene(&engine, &n);
  std::vector<Image> ring;
  for (n = 0; n < 6; ++n) {
    TestFrame frame = frameOf(n);
    ring.push_back(converted(frame));
    engine.process(&frame);
    const View w = frameFromPicture(n);
    const View previous = previousFromCurrent(n);
    const auto past = [&](int back) -> const Image& { return ring[static_cast<size_t>(n - back)]; };
    if (n == 0) {
      EXPECT_TRUE(matches(frame, sharp(weightedMean({{past(0), warpOf(w), 1}}, kSize)))) << n;
    } else if (n == 1) {
      const Image blend = weightedMean({{past(1), warpOf(previous), 0.8}, {past(0), reference::kIdentity, 0.2}}, kSize);
      EXPECT_TRUE(matches(frame, sharp(blend, warpOf(w)))) << n;
    } else {
      const View second = composed(previous, w);
      const View third = composed(previousFromCurrent(n - 1), second);
      const Image mean = weightedMean(
          {{past(0), warpOf(w), 1 / 3.0}, {past(1), warpOf(second), 1 / 3.0}, {past(2), warpOf(third), 1 / 3.0}},
          kSize);
      EXPECT_TRUE(matches(frame, sharp(mean))) << n;
    }
  }
}

TEST(Modes, ALightFrameIsSmoothedAlongItsEdges) {
  constexpr int kStrength = 40;
  TestEngine engine(kWidth, kHeight, {.mode = kModeThreeFrames});
  NOXEL_NEEDS_GL(engine);
  int n = 0;
  useScene(&engine, &n);
  engine.set(kParamLightMode, 1);
  engine.set(kParamNoiseReductionStrength, kStrength);
  TestFrame frame = frameOf(3);
  TestFrame smoothed = frame;
  std::vector<uint8_t> scratch(kWidth * kHeight);
  // Half the strength is beyond 15 and halved again; one more. No sample moves further than 1 + 40 / 16.
  const kernels::Plane chroma = kernels::packed(&smoothed.bytes[kWidth * kHeight], kWidth, kHeight / 2);
  kernels::smoothChroma(chroma, 11, 4, scratch.data());
  kernels::limitChange(kernels::packed(&frame.bytes[kWidth * kHeight], kWidth, kHeight / 2), 3, chroma);
  engine.process(&frame);

  const Image packedLuma(kWidth / 4, kHeight,
                         std::vector<uint8_t>(smoothed.bytes.begin(), smoothed.bytes.begin() + kWidth * kHeight),
                         reference::Filter::kNearest);
  const Image picture = packedYuvToRgb(packedLuma, chromaOf(smoothed), {}, kWidth, kSize);
  const Image edges = edgeAware(edgeAware(picture, picture, 3, 1), picture, 1, 0.01 * kStrength);
  const View crop = frameFromPicture(0);
  EXPECT_TRUE(matches(frame, sharp(edges, warpOf(crop))));
}

TEST(Modes, StabilizedFramesAreSharpenedAndNothingElse) {
  TestEngine engine(kWidth, kHeight, {.mode = kModeStabilize});
  NOXEL_NEEDS_GL(engine);
  EXPECT_EQ(engine.handle->gpu.useStabilization.load(), 1);
  int n = 0;
  useScene(&engine, &n);
  for (n = 0; n < 3; ++n) {
    TestFrame frame = frameOf(n);
    const Image current = converted(frame, warpOf(frameFromPicture(n)));
    engine.process(&frame);
    EXPECT_TRUE(matches(frame, sharp(current))) << n;
  }
}

TEST(Modes, NeutralExposureIsTheEnhancedPictureBeforeItsTone) {
  TestEngine enhancing(kWidth, kHeight);
  NOXEL_NEEDS_GL(enhancing);
  TestEngine neutral(kWidth, kHeight, {.mode = kModeNeutralExposure});
  int n = 0;
  useScene(&enhancing, &n);
  useScene(&neutral, &n);
  for (n = 0; n < 4; ++n) {
    TestFrame frame = frameOf(n);
    std::fill(frame.bytes.begin() + kWidth * kHeight, frame.bytes.end(),
              128);  // grey: red, green and blue are the luma
    TestFrame enhanced = frame;
    neutral.process(&frame);
    enhancing.process(&enhanced);
    EXPECT_EQ(lastFrameReport(neutral.handle).gamma, 1.0f);
    EXPECT_EQ(lastFrameReport(neutral.handle).gain, 1.0f);
    const FrameReport tone = lastFrameReport(enhancing.handle);
    EXPECT_GT(tone.gain, 1.01f);
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const double toned = 255 * std::pow(frame.bytes[i] / 255.0 * static_cast<double>(tone.gain), tone.gamma);
      // Half a code of the neutral picture and of the other, and the conversion's own, where the slope is at most 1.5.
      ASSERT_NEAR(enhanced.bytes[i], std::min(toned, 255.0), 2) << "frame " << n << ", " << i;
    }
  }
}

TEST(Modes, RgbaGetsItsDetailInPlace) {
  const auto part = [](double share) {
    return Size{static_cast<int>(kWidth * share), static_cast<int>(kHeight * share)};
  };
  const auto copied = [](const Image& from, Size size) { return diagonalBox(from, {0, 0}, size); };
  const Picture given = noisyPicture(kWidth, kHeight, 8);
  Picture shifted(kWidth, kHeight);  // the same colours in the last three bytes of a pixel
  for (size_t i = 0; i < given.rgba.size(); i += 4) std::copy_n(&given.rgba[i], 3, &shifted.rgba[i + 1]);
  const Image image(kWidth, kHeight, given.rgba);
  TestEngine engine(kWidth, kHeight, {.mode = kModeSynchronousRgba});
  NOXEL_NEEDS_GL(engine);
  engine.set(kParamSharpening, 10);
  for (const float magnification : {1.0f, 2.0f}) {
    if (magnification > 1) KRSetParameter(kParamTotalZoom, &magnification, engine.handle);  // not set, it counts as 1
    const double spread = (0.25 + 0.0025 * 10) * static_cast<double>(magnification);
    const Image smooth =
        diagonalBox(copied(copied(image, part(0.75)), part(0.5)), {spread / kWidth, spread / kHeight}, part(0.25));
    for (const int contrast : {0, 35}) {
      for (const int format : {1, 5}) {  // any other than 1 is taken for the shifted one
        engine.set(kParamContrast, contrast);
        engine.set(kParamImageFormat, format);
        Picture frame = format == 1 ? given : shifted;
        ASSERT_EQ(KRProcessFrame(frame.rgba.data(), engine.handle), 0);
        for (size_t i = 0; format != 1 && i < frame.rgba.size(); i += 4) {
          std::rotate(&frame.rgba[i], &frame.rgba[i + 1], &frame.rgba[i] + 4);
        }
        const Image expected = contrast == 0 ? detailed(image, smooth, 0.6)
                                             : detailedWithContrast(image, smooth, 0.6, 0.2862, format == 1 ? 1 : 2);
        // Three smoothed images round a code each, of which the detail takes up to 0.66; the curve's slope is 1.5 at most.
        EXPECT_TRUE(closeTo(frame, toPicture(expected), 3, 0.99, 2)) << contrast << ", format " << format;
      }
    }
  }
}

TEST(Modes, DrawTheirOwnSequences) {
  using Passes = std::vector<std::string>;
  // Modes 1 and 2: light, restart, temporal, stabilised. Mode 0: light; first, second, third and later.
  const std::map<char, Passes> sequences = {
      {'S', {"smooth luma", "refine luma", "light frame to RGB"}},
      {'R', {"frame to RGB", "tone"}},
      {'T',
       {"frame to RGB", "ghost mask", "erode mask across", "erode mask down", "dilate mask 1", "dilate mask 2",
        "dilate mask 3", "halve mask", "blur mask across", "blur mask down", "blend", "tone"}},
      {'B', {"frame to RGB", "sharpen"}},
      {'L', {"light frame to RGB", "smooth wide", "smooth narrow", "sharpen"}},
      {'1', {"frame to RGB", "stabilise", "sharpen"}},
      {'2', {"frame to RGB", "blend two", "sharpen"}},
      {'3', {"frame to RGB", "mean of three", "sharpen"}},
      // Mode 5: with and without a past.
      {'A', {"cells", "blend", "anchor", "patches", "guide", "colour"}},
      {'P', {"cells", "past", "difference", "test", "blend", "accumulate", "patches", "guide", "colour"}}};
  // Letter by letter a frame: its light mode, and whether its motion is known. That of a light frame is not used, and mode 0
  // measures none under a light mode that is neither: the first frame after it starts anew.
  const std::string lightModes = "00000010050500";
  const std::string known = "11110111111111";
  const std::pair<int, std::string> modes[] = {{kModeThreeFrames, "123312L1211112"},
                                               {kModeEnhance, "RTTTRTSRTTTTTT"},
                                               {kModeStabilize, "BBBBBBSBBBBBBB"},
                                               {kModeClear, "APPPAPAAPPPPPP"}};
  for (const auto& [mode, drawn] : modes) {
    TestEngine engine(32, 16, {.mode = mode});
    NOXEL_NEEDS_GL(engine);
    size_t i = 0;
    engine.setMotion([&](bool primes, MotionEstimate*) { return known[i] == '1' && !primes; });
    Passes seen;
    const auto note = [](void* passes, const char* pass, uint64_t) { static_cast<Passes*>(passes)->push_back(pass); };
    ASSERT_EQ(observePasses(engine.handle, note, &seen), 0);
    for (i = 0; i < drawn.size(); ++i) {
      engine.set(kParamLightMode, lightModes[i] - '0');
      TestFrame frame(32, 16, 60);
      ASSERT_EQ(engine.process(&frame), 0);
      Passes expected = sequences.at(drawn[i]);
      const bool clear = mode == kModeClear;
      expected.insert(expected.end(), {clear ? "luma bytes" : "pack luma", clear ? "chroma bytes" : "pack chroma"});
      EXPECT_EQ(std::exchange(seen, {}), expected) << "mode " << mode << ", frame " << i;
    }
  }
}

TEST(Modes, AFrameThatWasSwitchedOffDoesNotUnsteadyTheNext) {
  for (const int mode : {kModeThreeFrames, kModeStabilize}) {
    TestEngine engine(kWidth, kHeight, {.mode = mode});
    NOXEL_NEEDS_GL(engine);
    int n = 0;
    useScene(&engine, &n);
    for (n = 0; n < 4; ++n) {
      engine.set(kParamEnabled, n == 2 ? 0 : 1);
      TestFrame frame = frameOf(n);
      const Image current = converted(frame, warpOf(frameFromPicture(n)));
      engine.process(&frame);
      // Mode 0 samples its B-spline picture once more; unstabilised it is 5 pixels off.
      if (n < 3) continue;
      EXPECT_GT(lumaPsnr(frame, {kWidth, kHeight, lumaOf(sharp(current))}, 8), 28) << "mode " << mode;
    }
  }
}

TEST(Modes, FlipChromaHandsUBackBeforeVWhereItIsRead) {
  for (const int mode : {kModeThreeFrames, kModeEnhance, kModeStabilize, kModeNeutralExposure}) {
    TestEngine engine(32, 16, {.mode = mode});
    NOXEL_NEEDS_GL(engine);
    engine.set(kParamLightMode, 0);
    engine.set(kParamContrast, 0);
    engine.set(kParamFlipChroma, 1);
    TestFrame frame(32, 16, 120, 150, 110);
    engine.process(&frame);
    const bool read = mode == kModeThreeFrames || mode == kModeStabilize;
    // Two codes: one for each conversion's rounding; gain and exponent move the colours of mode 1 by a few more.
    EXPECT_NEAR(read ? frame.u(8, 8) : frame.v(8, 8), 150, 6) << mode;
    EXPECT_NEAR(read ? frame.v(8, 8) : frame.u(8, 8), 110, 6) << mode;
  }
}

}  // namespace
}  // namespace noxel
