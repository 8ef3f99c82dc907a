
#include <cmath>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <tuple>
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

// The right quarter moves by 8 pixels beside the rest, whose motion is the common one. At half size
// blocks are 16 x 16 pixels of the file.
TEST_F(Register, WritesWhatMovesBesideTheCommonMotion) {
  for (const auto& [width, height, side] : {std::tuple{320, 180, 8}, {1030, 178, 16}}) {
    const Waves far(7, 2.0 * side), near(8, 2.0 * side);
    std::vector<uint8_t> planes;
    for (int i = 0; i < 3; ++i) {
      auto plane = far.seen(width, height, shifted(-2 * i, i), 1.5, static_cast<unsigned>(i));
      const auto other = near.seen(width, height, shifted(-10 * i, i), 1.5, static_cast<unsigned>(i));
      for (size_t at = 0; at < plane.size(); ++at) {
        if (static_cast<int>(at) % width > width * 3 / 4 + 10 * i) plane[at] = other[at];
      }
      planes.insert(planes.end(), plane.begin(), plane.end());
    }
    writeFile(folder_.file("planes"), planes);
    std::ostringstream arguments;
    arguments << folder_.file("planes") << ' ' << width << ' ' << height << " 3 --field " << folder_.file("field");
    ASSERT_EQ(run(arguments.str()), kExitFine) << error_;
    const int factor = side / 8, columns = (width / factor + 7) / 8, rows = (height / factor + 7) / 8;
    const std::string bytes = contents(folder_.file("field"));
    ASSERT_EQ(bytes.size(), static_cast<size_t>(2 * columns * rows) * 12);
    int moving = 0, found = 0, still = 0, left = 0;
    for (size_t i = 0; i < bytes.size() / 12; ++i) {
      float block[3];
      std::memcpy(block, &bytes[12 * i], sizeof(block));  // tests run on little-endian machines
      const int x = static_cast<int>(i) % columns * side;
      const bool inside = x > width * 3 / 4 + 40 && x < width - 3 * side;
      moving += inside;
      found += inside && std::hypot(block[0] - 8, block[1]) < 1 && block[2] >= 0.5f;
      still += x < width * 3 / 4 - 4 * side;
      left += x < width * 3 / 4 - 4 * side && block[0] == 0 && block[1] == 0 && block[2] == 0;
    }
    EXPECT_GT(found, moving * 0.9) << width;
    EXPECT_GT(left, still * 0.99) << width;

    // A full disk, by way of a limit on the size of files.
    const Outcome full = runCommand(NOXEL_REGISTER_EXECUTABLE, arguments.str(), "trap '' XFSZ; ulimit -f 2;");
    EXPECT_EQ(full.exitCode, kExitFailed);
    EXPECT_NE(full.error.find("cannot write " + folder_.file("field")), std::string::npos) << full.error;
    EXPECT_EQ(contents(folder_.file("field")), bytes) << "the complete file is gone";
  }
}

TEST_F(Register, FlatFramesCannotBeRegistered) {
  writeFile(folder_.file("flat"), std::string(3 * 64 * 48, '\x40'));
  ASSERT_EQ(run(folder_.file("flat") + " 64 48 3 --field " + folder_.file("field")), kExitFine) << error_;
  EXPECT_EQ(contents(folder_.file("field")), std::string(2 * 8 * 6 * 12, '\0'));
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
                                               {planes + " --field " + folder_.file("none/field"), kExitUsage},
                                               {planes + " --field /dev/full", kExitUsage},
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
