#include "findings/findings.h"

#include <cmath>
#include <random>

#include "clips.h"
#include "common/interrupt.h"
#include "enhance/automatic.h"
#include "findings/clip_meter.h"
#include "idle_enhancer.h"
#include "run_command.h"
#include "support/waves.h"

namespace noxel::tool {
namespace {

constexpr int kWidth = 160, kHeight = 96;

struct Scene {
  double brightness = 1;            // of a scene with a mean of 110
  double noise = 0;                 // levels
  double shake = 0;                 // pixels, alternately right and left of a steady pan of 2 pixels a frame
  std::vector<int64_t> times = {};  // milliseconds; none: 25 frames a second
  int frames = 10;                  // then
};

class Clips : public testing::Test {
 protected:
  std::string clip(const Scene& scene, const std::string& name = "in.mkv") {
    const Waves waves(5, 12);
    ClipSpec spec;
    spec.width = kWidth;
    spec.height = kHeight;
    spec.video = AV_CODEC_ID_FFV1;
    spec.times = scene.times;
    for (int i = 0; scene.times.empty() && i < scene.frames; ++i) spec.times.push_back(40 * i);
    spec.picture = [&](int frame) {
      const auto seen = waves.seen(kWidth, kHeight, shifted(2 * frame + (frame % 2 == 0 ? 1 : -1) * scene.shake, 0));
      std::mt19937 random(static_cast<unsigned>(frame));
      std::normal_distribution<double> noise(0, 1);
      FramePtr picture = flatPlanar(kWidth, kHeight, 0, 128, 128);
      for (int i = 0; i < kWidth * kHeight; ++i) {
        const double level = seen[static_cast<size_t>(i)] * scene.brightness + scene.noise * noise(random);
        sample(*picture, 0, i % kWidth, i / kWidth) = static_cast<uint8_t>(std::clamp(std::lround(level), 0L, 255L));
      }
      return picture;
    };
    writeClip(folder_.file(name), spec);
    return folder_.file(name);
  }
  Findings found(const Scene& scene) { return lookAtFile(clip(scene)); }

  const TemporaryDirectory folder_;
};
using ClipFindings = Clips;

TEST_F(ClipFindings, LumaNoiseAndShakeAreMeasured) {
  const Findings dark = found({.brightness = 0.3, .noise = 4, .shake = 1.5});
  EXPECT_NEAR(dark.meanLuma, 33, 3);
  EXPECT_TRUE(dark.dark());
  // Clipping at black takes a little; some hundred blocks.
  ASSERT_TRUE(dark.noiseSigma);
  EXPECT_NEAR(*dark.noiseSigma, 4, 0.6);
  EXPECT_TRUE(dark.noisy());
  EXPECT_FALSE(dark.denoised());
  // Alternating by 1.5, less what a line through eight frames takes; the noise makes the motion uncertain by a tenth.
  ASSERT_TRUE(dark.shake);
  EXPECT_NEAR(*dark.shake, 1.5 * std::sqrt(8.0 / 6.0), 0.4);
  EXPECT_TRUE(dark.shaky());

  const Findings bright = found({});
  EXPECT_FALSE(bright.dark());
  ASSERT_TRUE(bright.noiseSigma);
  EXPECT_LT(*bright.noiseSigma, 0.8);
  EXPECT_FALSE(bright.denoised()) << "only in the dark is that no surprise";
  EXPECT_LT(bright.shake.value(), 0.1) << "a steady pan is none";
  EXPECT_TRUE(bright.needsNothing());
  EXPECT_FALSE(dark.needsNothing());
}

TEST_F(ClipFindings, ADarkPictureWithoutASensorsNoiseWasDenoised) {
  EXPECT_TRUE(found({.brightness = 0.3, .noise = 0.8}).denoised());
  EXPECT_FALSE(found({.brightness = 0.3, .noise = 3}).denoised());
}

TEST_F(ClipFindings, AVariableRateIsMoreThanJitter) {
  EXPECT_FALSE(found({.times = {0, 33, 67, 100, 133, 167, 200, 233}}).variableRate) << "rounded";
  EXPECT_FALSE(found({.times = {0, 41, 80, 119, 160, 201, 240, 279}}).variableRate) << "a camera's clock";
  const Findings variable = found({.times = {0, 33, 67, 100, 150, 200, 250, 300}});
  EXPECT_TRUE(variable.variableRate);
  EXPECT_NEAR(variable.longestMs, 50, 1e-9);
  EXPECT_NE(inWords(variable).find("variable frame rate (33 to 50 ms a frame)"), std::string::npos);
}

TEST_F(ClipFindings, AStreamIsLookedAtAndStillReadWhole) {
  constexpr int kFrames = kLookFrames + 2;
  const std::string path = clip({.brightness = 0.3, .noise = 4, .frames = kFrames});
  ClipInput clip(path), other(path);
  const Findings fromStream = lookAtFirstFrames(clip);
  EXPECT_EQ(fromStream.frames, kLookFrames);
  for (int i = 0; i < kFrames; ++i) {
    EXPECT_EQ(clip.microseconds(), 40'000 * i);
    EXPECT_TRUE(clip.nv21() == other.nv21()) << i;
    EXPECT_EQ(clip.next(), i < kFrames - 1);
    other.next();
  }
}

TEST(Automatic, TheStrengthFollowsTheNoiseUnlessItIsGiven) {
  int last = -1;
  for (const double sigma : {0.1, 0.5, 1.2, 1.7, 6.0}) {
    EXPECT_GE(strengthFor(sigma), last) << sigma;
    last = strengthFor(sigma);
  }
  EXPECT_EQ(strengthFor(0.1), 0);
  EXPECT_EQ(last, defaultStrength(NOXEL_MODE_CLEAR)) << "the best of those measured at 2 levels and more";

  Findings found;
  found.meanLuma = 40;
  found.noiseSigma = 0.5;
  EnhanceOptions options;
  EXPECT_EQ(choose(found, options).strength, strengthFor(0.5));
  options.look.strength = 70;
  options.given = {"--strength"};
  EXPECT_EQ(choose(found, options).strength, 70);
  options.given = {};
  options.look.engineMode = NOXEL_MODE_ENHANCE;
  EXPECT_EQ(choose(found, options).strength, 70) << "another mode keeps its own";
  options = {};
  found.noiseSigma.reset();
  EXPECT_EQ(choose(found, options).strength, defaultStrength(NOXEL_MODE_CLEAR)) << "not known";
}

class LeftAlone : public Clips {
 protected:
  LeftAlone() {
    options_.output = folder_.file("out.mkv");
    options_.automatic = true;
    options_.overwrite = true;
  }
  // What is told.
  std::string run() {
    testing::internal::CaptureStderr();
    EXPECT_EQ(runWith<Idle>(options_), kExitFine);
    return testing::internal::GetCapturedStderr();
  }

  EnhanceOptions options_;
};

TEST_F(LeftAlone, AClipThatNeedsNothingIsTheSameFile) {
  options_.input = clip({});
  EXPECT_NE(run().find("it is copied as it is"), std::string::npos);
  EXPECT_TRUE(contents(options_.output) == contents(options_.input));
  EXPECT_EQ(folder_.names(), (std::vector<std::string>{"in.mkv", "out.mkv"}));

  // Whatever was asked for is done: a file of statistics needs frames, another container an encoder.
  options_.statsFile = folder_.file("run.json");
  options_.given = {"--stats"};
  EXPECT_NE(run().find("its frames are left as they came"), std::string::npos);
  const auto stats = nlohmann::json::parse(contents(options_.statsFile));
  EXPECT_EQ(stats["found"]["dark"], false);
  EXPECT_EQ(stats["chosen"]["left_alone"], true);
  EXPECT_EQ(stats["options"]["strength"], 0);
  EXPECT_EQ(stats["options"]["neutral_exposure"], true);
  options_.statsFile.clear();
  options_.given = {"--exposure"};
  const std::string told = run();
  EXPECT_EQ(told.find("left"), std::string::npos) << told;
  EXPECT_FALSE(contents(options_.output) == contents(options_.input));
}

TEST_F(LeftAlone, ADarkOrNoisyClipIsNot) {
  for (const Scene& scene : {Scene{.brightness = 0.3}, Scene{.noise = 3}}) {
    options_.input = clip(scene);
    options_.explain = true;
    const std::string told = run();
    EXPECT_EQ(told.find("left as"), std::string::npos) << told;
    EXPECT_EQ(told.find("noxel: note: found: mean luma"), 0u) << told;
    EXPECT_NE(told.find(scene.noise > 0 ? "noisy; strength 50" : "below 85: dark"), std::string::npos) << told;
  }
}

TEST_F(LeftAlone, IsSaidByTheCommandUnlessItIsSwitchedOff) {
  const std::string files = "enhance '" + clip({}) + "' -o '" + folder_.file("out.mkv") + "' -y ";
  const Outcome copied = noxel(folder_, files + "--explain");
  EXPECT_EQ(copied.exitCode, kExitFine);
  EXPECT_NE(copied.error.find("noxel: because: mean luma"), std::string::npos) << copied.error;
  EXPECT_NE(copied.error.find("copied as it is"), std::string::npos) << copied.error;
  EXPECT_EQ(noxel(folder_, files + "--quiet").error, "");
  EXPECT_EQ(noxel(folder_, files + "--no-auto --explain").exitCode, kExitUsage);
}

}  // namespace
}  // namespace noxel::tool
