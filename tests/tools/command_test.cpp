#include <nlohmann/json.hpp>

#include "clips.h"
#include "media/nv21_frame.h"
#include "run_command.h"
#include "support/waves.h"

namespace noxel::tool {
namespace {

TEST(Command, HelpAndVersionAreNoErrors) {
  const TemporaryDirectory folder;
  EXPECT_EQ(noxel(folder, "--help").exitCode, kExitFine);
  EXPECT_NE(noxel(folder, "enhance --help").out.find("--neutral-exposure"), std::string::npos);
  const Outcome version = noxel(folder, "--version");
  EXPECT_EQ(version.exitCode, kExitFine);
  EXPECT_EQ(version.out, "noxel " NOXEL_VERSION "\n");
}

TEST(Command, RefusesOptionsThatMakeNoSense) {
  const TemporaryDirectory folder;
  const std::string in = folder.file("in.mp4");
  writeClip(in, {});
  std::ofstream(folder.file("old.mp4")) << "old";
  const std::string enhance = "enhance " + in + ' ', out = " -o " + folder.file("x.mp4");
  std::vector<std::string> wrong = {"",
                                    "bogus",
                                    "enhance - -y -o /dev/null",
                                    enhance,
                                    enhance + "-o " + folder.file("old.mp4"),
                                    enhance + "-o " + folder.file("x.wmv"),
                                    enhance + "-o " + folder.file("x.png"),
                                    enhance + "-y -o " + in,
                                    enhance + out + " --stats " + folder.file("./x.mp4"),
                                    enhance + out + " --picture " + folder.file("missing/p.png"),
                                    enhance + in + out,
                                    enhance + in,
                                    enhance + out + " --output-dir " + folder.file("d")};
  for (const char* options : {"--strength 101",
                              "--denoise both",
                              "--denoise spatial --stabilize",
                              "--denoise spatial --overlay",
                              "--sharpening 3",
                              "--engine-mode 0 --exposure 3",
                              "--engine-mode 2 --strength 3",
                              "--deghosting 11",
                              "--deghosting -1",
                              "--engine-mode 0 --deghosting 5",
                              "--deghosting 5",
                              "--engine-mode 1 --quality fast",
                              "--quality good",
                              "--engine-mode 4 --denoise spatial",
                              "--engine-mode 2 --neutral-exposure",
                              "--engine-mode 4 --neutral-exposure",
                              "--start -1",
                              "--duration 0",
                              "--jobs 2",
                              "--suffix x",
                              "--untouched-quad 0,0,1",
                              "--zoom nan"}) {
    wrong.push_back(enhance + options + out);
  }
  for (const std::string& arguments : wrong) {
    const Outcome outcome = noxel(folder, arguments);
    EXPECT_EQ(outcome.exitCode, kExitUsage) << arguments;
    EXPECT_EQ(outcome.error.rfind("noxel: ", 0), 0u) << outcome.error;
  }
  EXPECT_TRUE(contents(folder.file("old.mp4")) == "old");
}

TEST(Command, DeghostingKeepsMovingObjectsFromLeavingATrail) {
  NEEDS_DRIVER();
  constexpr int kWidth = 384, kHeight = 96, kPatch = 64, kLift = 12;  // the patch is this many levels brighter
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.width = kWidth;
  spec.height = kHeight;
  const std::vector<uint8_t> scene = Waves(3, 10).seen(kWidth, kHeight, kStill);
  spec.picture = [&](int frame) {
    FramePtr picture = flatPlanar(kWidth, kHeight, 0, 128, 128);
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const int x = i % kWidth, y = i / kWidth;
      const bool lifted = x / kPatch == frame && y >= 16 && y < 80;
      sample(*picture, 0, x, y) = static_cast<uint8_t>(scene[static_cast<size_t>(i)] + (lifted ? kLift : 0));
    }
    return picture;
  };
  writeClip(folder.file("in.mkv"), spec);
  const auto enhanced = [&](const std::string& option) {
    const std::string files = folder.file("in.mkv") + " -o " + folder.file("out.y4m");
    EXPECT_EQ(noxel(folder, "enhance -y --engine-mode 3 " + files + option).exitCode, kExitFine);
    return contents(folder.file("out.y4m"));
  };
  // Where the patch was one frame before, in the last frame. The ghost mask's threshold of 0.3 - 0.025 N is below the
  // patch's 3 x 12 / 255 from N = 7 on: unmasked, two blends leave a quarter of it.
  const std::string byDefault = enhanced("");
  VideoReader reader(folder.file("out.y4m"));
  FramePtr last = reader.next();
  while (FramePtr next = reader.next()) last = std::move(next);
  const int x = 4 * kPatch + 16, y = 32;
  EXPECT_NEAR(meanLuma(&sample(*last, 0, x, y), last->linesize[0], 32, 32),
              meanLuma(&scene[static_cast<size_t>(y * kWidth + x)], kWidth, 32, 32), 1);  // the coding error
  EXPECT_TRUE(byDefault == enhanced(" --deghosting 8"));
  EXPECT_FALSE(byDefault == enhanced(" --deghosting 5")) << "the engine's default, not the command's";
}

TEST(Command, InfoIsTheSameAsJson) {
  NEEDS_DRIVER();
  const TemporaryDirectory folder;
  const Outcome text = noxel(folder, "info"), json = noxel(folder, "info --json");
  ASSERT_EQ(json.exitCode, kExitFine) << json.error;
  const auto told = nlohmann::json::parse(json.out);
  EXPECT_EQ(text.out.substr(0, text.out.find("\n")), "noxel           " + told["noxel"].get<std::string>());
  EXPECT_NE(text.out.find("GL renderer     " + told["gl"]["renderer"].get<std::string>() + "\n"), std::string::npos);
  EXPECT_EQ(told["program_cache"], folder.file("cache") + "/noxel/");
  const Outcome none = noxel(folder, "info --json", "__EGL_VENDOR_LIBRARY_FILENAMES=/nonexistent");
  if (none.exitCode == kExitFine) GTEST_SKIP() << "this EGL has no dispatcher in front of its driver";
  EXPECT_EQ(none.exitCode, kExitNoGl);
  EXPECT_EQ(nlohmann::json::parse(none.out)["gl"], nullptr);
}

TEST(Command, ReportsUnreadableInput) {
  const TemporaryDirectory folder;
  std::ofstream(folder.file("text.mp4")) << "no video";
  for (const std::string& input : {folder.file("text.mp4"), folder.file("missing.mp4"), std::string("-")}) {
    const Outcome outcome = noxel(folder, "enhance " + input + " -o " + folder.file("x.mp4"));
    EXPECT_EQ(outcome.exitCode, kExitUnreadable) << input;
    EXPECT_EQ(outcome.error.rfind("noxel: ", 0), 0u) << outcome.error;
  }
}

TEST(Command, ReportsMissingGl) {
  const TemporaryDirectory folder;
  writeClip(folder.file("in.mp4"), {});
  // The EGL dispatcher finds no driver.
  const Outcome enhance = noxel(folder, "enhance " + folder.file("in.mp4") + " -o " + folder.file("x.mp4"),
                                "__EGL_VENDOR_LIBRARY_FILENAMES=/nonexistent");
  if (enhance.exitCode == kExitFine) GTEST_SKIP() << "this EGL has no dispatcher in front of its driver";
  EXPECT_EQ(enhance.exitCode, kExitNoGl);
  EXPECT_NE(enhance.error.find("noxel: no usable OpenGL ES 3.0"), std::string::npos) << enhance.error;
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"cache", "in.mp4"}));
}

}  // namespace
}  // namespace noxel::tool
