// The engine's modes as the tool offers them.

#include <nlohmann/json.hpp>

#include "clips.h"
#include "enhance/enhance.h"
#include "enhance/rgba_session.h"
#include "media/nv21_frame.h"
#include "media/picture.h"
#include "run_command.h"

namespace noxel::tool {
namespace {

TEST(EngineModes, AQuadIsDrawnWhereItsCornersAre) {
  NEEDS_DRIVER();
  EnhancerSettings settings;
  settings.width = 64;
  settings.height = 32;
  settings.look.engineMode = NOXEL_MODE_ENHANCE;
  settings.look.untouchedQuad = {-1, 1, -1, 0, 0, 1, 0, 0};  // upper left quarter
  EnhancerSession session(settings);
  std::vector<uint8_t> nv21(nv21Size(64, 32), 128);
  std::fill_n(nv21.begin(), 64 * 32, 60);
  enhanceOne(session, nv21.data(), 0);
  EXPECT_NEAR(nv21[4 * 64 + 8], 60, 1);
  for (const int at : {4 * 64 + 56, 28 * 64 + 8, 28 * 64 + 56}) EXPECT_GT(nv21[static_cast<size_t>(at)], 90) << at;
}

TEST(EngineModes, RgbaFramesKeepTheirColoursAndGainContrast) {
  NEEDS_DRIVER();
  EnhancerSettings settings;
  settings.width = 64;
  settings.height = 32;
  settings.look.engineMode = NOXEL_MODE_PICTURE;
  for (const int contrast : {0, 80}) {
    settings.look.contrast = contrast;
    RgbaSession session(settings);
    std::vector<uint8_t> nv21(nv21Size(64, 32));
    packNv21(*flatPlanar(64, 32, 90, 110, 150), nv21.data());
    enhanceOne(session, nv21.data(), 0);
    // A flat picture has no detail; without contrast only the two conversions round, in 8-bit RGB.
    if (contrast == 0) {
      EXPECT_NEAR(nv21[300], 90, 2);
      EXPECT_NEAR(nv21[64 * 32], 150, 2);
      EXPECT_NEAR(nv21[64 * 32 + 1], 110, 2);
    } else {
      EXPECT_LT(nv21[300], 80) << "below the middle levels get darker";
    }
  }
}

TEST(EngineModes, PassesOfEveryModeAreTimed) {
  NEEDS_DRIVER();
  const TemporaryDirectory folder;
  EnhanceOptions options;
  options.input = folder.file("in.mkv");
  options.output = folder.file("out.y4m");
  options.statsFile = folder.file("run.json");
  options.quiet = options.overwrite = true;
  writeClip(options.input, {});
  for (options.look.engineMode = 0; options.look.engineMode <= 5; ++options.look.engineMode) {
    SCOPED_TRACE(options.look.engineMode);
    ASSERT_EQ(runEnhance(options), kExitFine);
    const auto passes = nlohmann::json::parse(contents(options.statsFile))["passes"];
    ASSERT_GE(passes.size(), 3u);
    EXPECT_EQ(passes.front()["drawn"], 6) << "without the warm-up";
    EXPECT_EQ(passes.back()["drawn"], 6);
    for (const auto& pass : passes) EXPECT_GT(pass["ms_p50"], 0) << pass;
  }
}

TEST(EngineModes, APictureGoesFromPngToPngWithItsAlpha) {
  NEEDS_DRIVER();
  const TemporaryDirectory folder;
  constexpr int kWidth = 33, kHeight = 17;
  const FramePtr picture = makePicture(kWidth, kHeight, AV_PIX_FMT_RGBA);
  const auto pixel = [](const AVFrame& frame, int x, int y) { return &sample(frame, 0, 4 * x, y); };
  for (int i = 0; i < kWidth * kHeight; ++i) {
    const int x = i % kWidth;
    const uint8_t bar = x == 16 ? 160 : 100;
    const uint8_t values[4] = {bar, 60, 30, static_cast<uint8_t>(x * 7)};
    std::copy_n(values, 4, pixel(*picture, x, i / kWidth));
  }
  EnhanceOptions options;
  options.input = folder.file("in.png");
  options.output = folder.file("out.png");
  options.look.engineMode = NOXEL_MODE_PICTURE;
  options.look.contrast = 0;
  options.quiet = true;
  writeFile(options.input, encodePng(*picture));
  ASSERT_EQ(runEnhance(options), kExitFine);

  const FramePtr result = VideoReader(options.output).next();
  ASSERT_EQ(result->format, AV_PIX_FMT_RGBA);
  ASSERT_TRUE(result->width == kWidth && result->height == kHeight);
  for (int x = 0; x < kWidth; ++x) ASSERT_EQ(pixel(*result, x, 5)[3], x * 7) << x;
  EXPECT_GT(pixel(*result, 16, 5)[0], 163) << "the bar stands out more";
  for (const int x : {2, 30}) {
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(pixel(*result, x, 5)[c], pixel(*picture, x, 5)[c], 1) << x << ", " << c;
  }

  options.input = folder.file("clip.mkv");
  options.overwrite = true;
  writeClip(options.input, {});
  EXPECT_THROW(runEnhance(options), ToolError) << "not a single picture";
}

}  // namespace
}  // namespace noxel::tool
