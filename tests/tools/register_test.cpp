
#include <cstdint>
#include <sstream>
#include <vector>

#include "run_command.h"
#include "support/waves.h"

namespace noxel::tool {
namespace {

struct Line {
  int valid;
  double m[6];
  double ms;
};

class Register : public testing::Test {
 protected:
  // Runs the command; fills lines_ and error_.
  int run(const std::string& arguments) {
    const Outcome outcome = runCommand(NOXEL_REGISTER_EXECUTABLE, arguments);
    lines_.clear();
    std::istringstream out(outcome.out);
    for (Line line; out >> line.valid;) {
      for (double& value : line.m) out >> value;
      out >> line.ms;
      lines_.push_back(line);
    }
    error_ = outcome.error;
    return outcome.exitCode;
  }

  // Planes of a scene that moves by (dx, dy) pixels per frame, with noise: without it all points move exactly alike, and a fit
  // with a shear of exactly 0 counts as failed. Returns "FILE W H N".
  std::string writePlanes(int width, int height, int frames, int dx, int dy) {
    const Waves scene(7, 8);
    std::vector<uint8_t> planes;
    for (int i = 0; i < frames; ++i) {
      const auto plane = scene.seen(width, height, shifted(-dx * i, -dy * i), 1.5, static_cast<unsigned>(i));
      planes.insert(planes.end(), plane.begin(), plane.end());
    }
    writeFile(folder_.file("planes"), planes);
    std::ostringstream arguments;
    arguments << folder_.file("planes") << ' ' << width << ' ' << height << ' ' << frames;
    return arguments.str();
  }

  void expectTranslation(size_t count, double dx, double dy, int width, int height, double tolerance) {
    ASSERT_EQ(lines_.size(), count) << error_;
    for (const Line& line : lines_) {
      EXPECT_EQ(line.valid, 1);
      EXPECT_GT(line.ms, 0);
      EXPECT_LT(cornerError(line.m, shifted(dx, dy), width, height), tolerance);
    }
  }

  const TemporaryDirectory folder_;
  std::vector<Line> lines_;
  std::string error_;
};

// In strong texture the error is below 0.05 pixel; a reversed motion is off by 6 and more.
TEST_F(Register, MapsPixelsOfThePreviousFrame) {
  ASSERT_EQ(run(writePlanes(320, 180, 4, 4, -3) + " --threads 1 --stats"), kExitFine) << error_;
  expectTranslation(3, 4, -3, 320, 180, 0.1);
  EXPECT_EQ(error_.rfind("3 frames, 0 lost, ", 0), 0u) << error_;
}

// Registered at half size, the error in full pixels doubles.
TEST_F(Register, MeasuresLargeFramesAtHalfSizeInFullPixels) {
  const std::string planes = writePlanes(1024, 160, 3, -6, 2);
  ASSERT_EQ(run(planes), kExitFine) << error_;
  expectTranslation(2, -6, 2, 1024, 160, 0.2);
  const double half = lines_[0].m[2];
  ASSERT_EQ(run(planes + " --full --threads 0"), kExitFine) << error_;
  expectTranslation(2, -6, 2, 1024, 160, 0.1);
  EXPECT_NE(lines_[0].m[2], half) << "--full has no effect";
}

TEST_F(Register, FlatFramesCannotBeRegistered) {
  writeFile(folder_.file("flat"), std::string(3 * 64 * 48, '\x40'));
  ASSERT_EQ(run(folder_.file("flat") + " 64 48 3"), kExitFine) << error_;
  ASSERT_EQ(lines_.size(), 2u);
  const std::vector<double> identity = {1, 0, 0, 0, 1, 0};
  for (const Line& line : lines_) {
    EXPECT_EQ(line.valid, 0);
    EXPECT_EQ(std::vector<double>(line.m, line.m + 6), identity);
  }
}

TEST_F(Register, ReportsUsageErrorsAndUnreadableFiles) {
  const std::string planes = writePlanes(32, 16, 2, 0, 0);
  const std::string file = folder_.file("planes");
  const std::pair<std::string, int> cases[] = {{"", kExitUsage},
                                               {file + " 32 16", kExitUsage},
                                               {file + " 0 16 2", kExitUsage},
                                               {planes + " --threads -1", kExitUsage},
                                               {planes + " --speed 1", kExitUsage},
                                               {file + " 100000 100000 2", kExitUsage},
                                               {folder_.file("missing") + " 32 16 2", kExitUnreadable},
                                               {file + " 32 16 3", kExitUnreadable}};
  for (const auto& [arguments, code] : cases) {
    EXPECT_EQ(run(arguments), code) << arguments;
    EXPECT_EQ(error_.rfind("noxel-register: ", 0), 0u) << error_;
  }
  EXPECT_EQ(run("--help"), kExitFine);
}

}  // namespace
}  // namespace noxel::tool
