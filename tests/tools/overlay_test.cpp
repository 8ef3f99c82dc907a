#include "enhance/overlay.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "enhance/enhancer_session.h"
#include "media/nv21_frame.h"
#include "run_command.h"
#include "support/waves.h"

namespace noxel::tool {
namespace {

constexpr int kWidth = 64, kHeight = 48, kGrey = 90;

class Picture {
 public:
  Picture() : bytes_(nv21Size(kWidth, kHeight), kGrey) {}
  uint8_t* data() { return bytes_.data(); }
  int luma(int x, int y) const { return bytes_[static_cast<size_t>(y * kWidth + x)]; }
  int u(int x, int y) const { return bytes_[static_cast<size_t>(kWidth * kHeight + y / 2 * kWidth + x / 2 * 2 + 1)]; }
  int v(int x, int y) const { return bytes_[static_cast<size_t>(kWidth * kHeight + y / 2 * kWidth + x / 2 * 2)]; }
  int changedOutside(int left, int top, int right, int bottom) const {  // inclusive bounds
    int count = 0;
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const int x = i % kWidth, y = i / kWidth;
      const bool inside = x >= left && x <= right && y >= top && y <= bottom;
      if (!inside && (luma(x, y) != kGrey || v(x, y) != kGrey)) ++count;
    }
    return count;
  }

 private:
  std::vector<uint8_t> bytes_;
};

Overlay oneTrack(int status) {
  Overlay overlay;
  overlay.report.status = status;
  overlay.tracks = {{20.5f, 30.5f, 32.5f, 30.5f}};
  return overlay;
}

TEST(OverlayTracks, HaveADotAtTheTargetAndATailToTheSource) {
  Picture kept, lost;
  drawOverlay(oneTrack(1), kept.data(), kWidth, kHeight);
  drawOverlay(oneTrack(0), lost.data(), kWidth, kHeight);
  EXPECT_EQ(kept.luma(32, 30), 255);
  EXPECT_NE(kept.luma(31, 29), kGrey) << "the rim of the dot";
  EXPECT_NE(kept.luma(20, 30), kGrey);
  EXPECT_EQ(kept.luma(20, 29), kGrey) << "the tail's end is thin";
  EXPECT_LT(kept.v(24, 30), kGrey) << "green";
  EXPECT_GT(lost.v(24, 30), kGrey) << "red";
  // Chroma is 2 x 2 pixels.
  EXPECT_EQ(kept.changedOutside(20, 28, 33, 31), 0);
}

TEST(OverlayTracks, AreYellowAndComeFirstWhereABlockMovesOnItsOwn) {
  Overlay overlay = oneTrack(1);
  overlay.ownTracks = {{33.5f, 18.5f, 33.5f, 30.5f}};  // ends in the same cell
  Picture picture;
  drawOverlay(overlay, picture.data(), kWidth, kHeight);
  EXPECT_EQ(picture.luma(33, 30), 255);
  EXPECT_TRUE(picture.u(33, 22) < 10 && picture.v(33, 22) > 140 && picture.luma(33, 22) > 200) << "yellow";
  EXPECT_EQ(picture.changedOutside(32, 18, 35, 31), 0) << "the common motion's track is left out";
}

TEST(OverlayTracks, FollowStabilizationAndZoom) {
  Overlay overlay = oneTrack(1);
  overlay.report.zoom = 1.25f;
  overlay.report.stabilizedFromCurrent[2] = 4.0f;   // x
  overlay.report.stabilizedFromCurrent[5] = -2.0f;  // y
  Picture picture;
  drawOverlay(overlay, picture.data(), kWidth, kHeight);
  // (32.5 + 4 - 32) * 1.25 + 32 = 37.625 and (30.5 - 2 - 24) * 1.25 + 24 = 29.625; the source at 22.625.
  EXPECT_EQ(picture.luma(37, 29), 255);
  EXPECT_NE(picture.luma(22, 29), kGrey);
  EXPECT_EQ(picture.changedOutside(22, 28, 39, 31), 0);

  overlay.tracks = {
      {-1e9f, 0, 1e9f, 0}, {NAN, NAN, NAN, NAN}, {-30, 20, 2, 20}};  // only the last one ends in the picture
  Picture edge;
  drawOverlay(overlay, edge.data(), kWidth, kHeight);
  EXPECT_EQ(edge.changedOutside(0, 16, 3, 19), 0);
}

TEST(OverlayMask, TintsOnlyWhatIsMasked) {
  Overlay overlay;
  overlay.report.status = 1;
  overlay.maskWidth = 8;
  overlay.maskHeight = 6;
  overlay.mask.assign(48, 6);  // below the display threshold
  overlay.mask[2 * 8 + 3] = 255;
  Picture picture;
  drawOverlay(overlay, picture.data(), kWidth, kHeight);
  // The texel's centre is (28, 20), an eighth of a texel from the chroma sample's in x and y.
  const double held = 7.0 / 8 * 7.0 / 8;
  EXPECT_NEAR(picture.v(27, 19), kGrey + 0.5 * held * (235 - kGrey), 1) << "half purple";
  EXPECT_NE(picture.luma(27, 19), kGrey);
  // Bilinear: fades over one texel of 8 pixels.
  EXPECT_EQ(picture.changedOutside(20, 12, 35, 27), 0);
}

TEST(OverlayMask, OfTheFrameIsDrawnWhereStabilizationAndZoomShowIt) {
  Overlay overlay;
  overlay.maskInFrame = true;
  overlay.report.zoom = 1.25f;
  overlay.report.stabilizedFromCurrent[2] = 6.0f;   // x
  overlay.report.stabilizedFromCurrent[5] = -3.0f;  // y
  overlay.maskWidth = kWidth / 2;
  overlay.maskHeight = kHeight / 2;
  overlay.mask.assign(static_cast<size_t>(kWidth * kHeight / 4), 0);
  for (int y = 12; y < 16; ++y) std::fill_n(&overlay.mask[static_cast<size_t>(y * kWidth / 2 + 8)], 4, uint8_t{255});
  Picture picture;
  drawOverlay(overlay, picture.data(), kWidth, kHeight);
  // Pixels 16..24 x 24..32 of the frame: (16 + 6 - 32) * 1.25 + 32 = 19.5 to 29.5, and (24 - 3 - 24) * 1.25 + 24 = 20.25 to
  // 30.25; the edges fade over a cell, two pixels of chroma.
  EXPECT_NE(picture.luma(24, 25), kGrey);
  EXPECT_EQ(picture.changedOutside(16, 16, 33, 33), 0);
}

// A still scene, and a part of it, 96 x 64, that moves on its own by 5 pixels a frame.
TEST(OverlayOfTheClearPicture, TracksWhatMovesOnItsOwn) {
  constexpr int kSceneWidth = 320, kSceneHeight = 180, kStep = 5;
  EnhancerSettings settings;
  settings.width = kSceneWidth;
  settings.height = kSceneHeight;
  settings.look.neutralExposure = true;
  settings.overlay = true;
  settings.warmUp = false;
  NEEDS_DRIVER();
  EnhancerSession session(settings);
  const Waves scene(3, 10), subject(4, 10);
  int found = 0;
  for (int frame = 0; frame < 4; ++frame) {
    std::vector<uint8_t> nv21 = scene.seen(kSceneWidth, kSceneHeight, kStill, 3, static_cast<unsigned>(frame));
    const std::vector<uint8_t> moving = subject.seen(kSceneWidth, kSceneHeight, shifted(-kStep * frame, 0));
    const int left = 100 + kStep * frame;
    for (int y = 60; y < 124; ++y)
      std::copy_n(&moving[static_cast<size_t>(y * kSceneWidth + left)], 96,
                  &nv21[static_cast<size_t>(y * kSceneWidth + left)]);
    nv21.resize(nv21Size(kSceneWidth, kSceneHeight), 128);
    enhanceOne(session, nv21.data(), frame * int64_t{33'000});
    const Overlay overlay = session.overlay();
    EXPECT_EQ(overlay.ownTracks.empty(), frame == 0);
    for (const noxel_track& track : overlay.tracks) ASSERT_NEAR(track.to_x - track.from_x, 0, 0.1);
    for (const noxel_track& track : overlay.ownTracks) {
      // Blocks on its edge, and windows of 3 x 3 of them, reach beyond it.
      const bool inside =
          std::abs(track.to_x - static_cast<float>(left + 48)) < 48 + 16 && std::abs(track.to_y - 92) < 32 + 16;
      const bool alike = std::hypot(track.to_x - track.from_x - kStep, track.to_y - track.from_y) < 1;
      EXPECT_TRUE(inside) << track.to_x << ", " << track.to_y;
      found += inside && alike;
    }
  }
  EXPECT_GT(found, 3 * 96 * 64 / 64 * 2 / 3) << "two thirds of its blocks";
}

// A textured scene that moves by (1.25, -0.75) pixels per frame, with a bright square in the last frame only.
std::vector<uint8_t> sceneFrame(int width, int height, int frame) {
  std::vector<uint8_t> nv21 = Waves(3, 10).seen(width, height, shifted(-1.25 * frame, 0.75 * frame));
  nv21.resize(nv21Size(width, height), 128);
  for (int y = 32; y < 64 && frame == 3; ++y)
    std::fill_n(&nv21[static_cast<size_t>(y * width + 256)], 32, uint8_t{250});
  return nv21;
}

class OverlayOfTheEngine : public testing::TestWithParam<int> {};

TEST_P(OverlayOfTheEngine, TracksTheSceneAndMasksWhatChanged) {
  constexpr int kSceneWidth = 320, kSceneHeight = 96;
  EnhancerSettings settings;
  settings.look.engineMode = GetParam();
  settings.width = kSceneWidth;
  settings.height = kSceneHeight;
  settings.look.neutralExposure = true;
  settings.overlay = true;
  settings.warmUp = false;
  NEEDS_DRIVER();
  EnhancerSession session(settings);
  Overlay overlay;
  for (int frame = 0; frame < 4; ++frame) {
    std::vector<uint8_t> nv21 = sceneFrame(kSceneWidth, kSceneHeight, frame);
    enhanceOne(session, nv21.data(), frame * int64_t{33'000});
    overlay = session.overlay();
    EXPECT_EQ(overlay.report.startsSequence, frame == 0);
    EXPECT_EQ(overlay.mask.empty(), frame == 0) << "a first frame is not blended";
  }
  ASSERT_EQ(overlay.report.status, 1);
  EXPECT_NEAR(overlay.report.previousFromCurrent[2], -1.25, 0.5);
  EXPECT_TRUE(overlay.report.gpuMs > 0 && overlay.report.uploadMs > 0 && overlay.report.pointsKept > 0);
  EXPECT_GE(overlay.report.pointsTracked, overlay.report.pointsKept);
  ASSERT_EQ(overlay.tracks.size(), static_cast<size_t>(overlay.report.pointsKept));
  for (const noxel_track& track : overlay.tracks) {
    // A reversed track is off by 2.5.
    ASSERT_NEAR(track.to_x - track.from_x, 1.25, 0.6);
    ASSERT_NEAR(track.to_y - track.from_y, -0.75, 0.6);
    ASSERT_TRUE(track.to_x > 0 && track.to_x < kSceneWidth && track.to_y > 0 && track.to_y < kSceneHeight);
  }
  const int cell = GetParam() == NOXEL_MODE_CLEAR ? 2 : 8;
  ASSERT_TRUE(overlay.maskWidth == kSceneWidth / cell && overlay.maskHeight == kSceneHeight / cell);
  const auto maskAt = [&](int x, int y) {
    return overlay.mask[static_cast<size_t>(y / cell * overlay.maskWidth + x / cell)];
  };
  // In mode 5 it tells the count of frames: nothing but the newest one where it was refused, else three of
  // sixteen or more.
  EXPECT_GT(maskAt(272, 48), GetParam() == NOXEL_MODE_CLEAR ? 250 : 200);
  EXPECT_LT(maskAt(100, 48), GetParam() == NOXEL_MODE_CLEAR ? 225 : 13) << "would be drawn";
}

INSTANTIATE_TEST_SUITE_P(Modes, OverlayOfTheEngine, testing::Values(NOXEL_MODE_NEUTRAL_EXPOSURE, NOXEL_MODE_CLEAR));

}  // namespace
}  // namespace noxel::tool
