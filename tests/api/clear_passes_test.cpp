// Every pass of the clear picture against its double-precision twin, each from what it was given: frames of a noisy scene in
// which something moves, seen by a camera that pans, rolls and zooms.
#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <random>

#include "gl/engine/passes.h"
#include "support/clear_engine.h"

namespace noxel {
namespace {

using reference::Canvas;
using reference::Cell;
using reference::Difference;
using reference::Plane;

constexpr int kWidth = 96;
constexpr int kHeight = 64;
constexpr int kColumns = kWidth / 2;
constexpr int kRows = kHeight / 2;
constexpr double kSigma = 5;
constexpr double kChromaSigma = 3;

// At most `max` off everywhere, and by no more than `mean` on the whole.
testing::AssertionResult isClose(const Plane& actual, const Plane& expected, double max, double mean) {
  double sum = 0, worst = 0;
  int at = 0;
  const int count = actual.width * actual.height;
  for (int i = 0; i < count; ++i) {
    const double off =
        std::abs(actual.at(i % actual.width, i / actual.width) - expected.at(i % actual.width, i / actual.width));
    sum += off;
    if (off > worst) worst = off, at = i;
  }
  if (actual.width == expected.width && actual.height == expected.height && worst <= max && sum / count <= mean)
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << worst << " off at " << at % actual.width << ", " << at / actual.width << " ("
                                     << max << " allowed), mean " << sum / count << " (" << mean << ")";
}

Plane planeOf(int width, int height, const std::function<double(int, int)>& value) {
  Plane plane(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) plane.at(x, y) = value(x, y);
  }
  return plane;
}

double toned(const float (&table)[256], double level) {
  const int i = std::min(static_cast<int>(level), 254);
  return std::lerp(static_cast<double>(table[i]), static_cast<double>(table[i + 1]), level - i);
}

constexpr int kRolls = 4;  // the camera pans, and from this frame on it rolls and zooms, too

View sceneFromFrame(int n) {
  const int turns = std::max(n + 1 - kRolls, 0);
  return turned(0.008 * turns, 1 + 0.004 * turns, kWidth / 2.0, kHeight / 2.0, 5.3 * n, -2.4 * n);
}
View previousFromCurrent(int n) {
  return composed(inverted(sceneFromFrame(n - 1)), sceneFromFrame(n));
}
View stabilized(int n) {
  return turned(0.004 * n, 1, kWidth / 2.0, kHeight / 2.0, 1.3 * n, 0.6 * n);
}

TestFrame frameOf(int n) {
  static const Waves scene(5, 6), blue(6, 12), red(7, 12);
  const auto seed = static_cast<unsigned>(n);
  TestFrame frame(kWidth, kHeight, scene.seen(kWidth, kHeight, sceneFromFrame(n), kSigma, seed));
  for (int y = 20; y < 44; ++y) {
    for (int x = 10 + 7 * n; x < 34 + 7 * n && x < kWidth; ++x)
      frame.luma(x, y) = static_cast<unsigned char>(frame.luma(x, y) / 3 + (x / 3 + y / 3) % 2 * 60);
  }
  const View half = composed(sceneFromFrame(n), {2, 0, 0, 0, 2, 0});
  const auto u = blue.seen(kColumns, kRows, half, kChromaSigma, seed + 100);
  const auto v = red.seen(kColumns, kRows, half, kChromaSigma, seed + 200);
  for (int i = 0; i < kColumns * kRows; ++i) {
    frame.u(i % kColumns * 2, i / kColumns * 2) = u[static_cast<size_t>(i)];
    frame.v(i % kColumns * 2, i / kColumns * 2) = v[static_cast<size_t>(i)];
  }
  return frame;
}

constexpr int kBlock = 8;
constexpr int kBlocks = kWidth / kBlock;

// Beside the common motion, and how sure registration is of it: what is less likely than not does not count.
std::vector<float> localMotion() {
  std::vector<float> blocks;
  for (int i = 0; i < kBlocks * kHeight / kBlock; ++i) {
    const int column = i % kBlocks;
    const bool moves = column > 2 && column < 7 && i / kBlocks > 1 && i / kBlocks < 6;
    blocks.insert(blocks.end(), {3.25f, -1.5f, moves ? 0.9f : column == 9 ? 0.4f : 0.0f});
  }
  return blocks;
}

// Fast 0, balanced 1.
class ClearPasses : public testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    if (!engine.isReady()) {
      ASSERT_FALSE(driverRequired()) << "no usable GL driver";
      GTEST_SKIP() << "no usable GL driver";
    }
    for (size_t i = 0; i < 32; ++i) {  // shot noise: it grows with luma
      const double rise = 0.4 + 0.15 * static_cast<double>(i);
      noise.luma[i] = kSigma * kSigma * rise;
      noise.blue[i] = kChromaSigma * kChromaSigma * rise;
      noise.red[i] = kChromaSigma * kChromaSigma * (1.4 - 0.02 * static_cast<double>(i));
      engine.frame.noise.luma[i] = static_cast<float>(noise.luma[i]);
      engine.frame.noise.blue[i] = static_cast<float>(noise.blue[i]);
      engine.frame.noise.red[i] = static_cast<float>(noise.red[i]);
    }
    for (size_t i = 0; i < 256; ++i) {
      levels[i] = static_cast<float>(255 * std::pow(static_cast<double>(i) / 255, 0.7));
      gains[i] = static_cast<float>(1.8 - 0.003 * static_cast<double>(i));
    }
    ASSERT_TRUE(prepareBlends(engine.gpu));
    engine.frame.toneLevels = levels;
    engine.frame.toneChromaGains = gains;
    engine.frame.settings.quality = GetParam();
  }

  void checkPast();
  void checkBlend();
  void checkMerged();
  void checkKept();
  void checkCanvas();
  void checkDenoised();
  void checkShown(const Canvas& picture, bool steadied);
  void checkDelivered(bool steadied);
  Canvas given() const;
  // The motion of its own that a cell of the frame has.
  reference::Place movedAt(int column, int row) const {
    if (engine.frame.localMotion.blocks == nullptr) return {0, 0};
    const int block = std::clamp(2 * row / kBlock, 0, kHeight / kBlock - 1) * kBlocks +
                      std::clamp(2 * column / kBlock, 0, kBlocks - 1);
    const float* motion = engine.frame.localMotion.blocks + 3 * block;
    if (motion[2] < 0.5f) return {0, 0};
    return {static_cast<double>(motion[0]), static_cast<double>(motion[1])};
  }

  const bool fast = GetParam() == 0;
  const reference::Taps taps = fast ? reference::Taps{4, 2} : reference::Taps{6, 4};
  ClearEngine engine{kWidth, kHeight};
  reference::Noise noise = {};
  float levels[256] = {}, gains[256] = {};
  std::vector<uint16_t> kept = std::vector<uint16_t>(blendWords(kWidth, kHeight));
  TestFrame frame{kWidth, kHeight};
};

Canvas ClearPasses::given() const {
  TestFrame copy = frame;
  return {planeOf(kWidth, kHeight, [&](int x, int y) { return copy.luma(x, y); }),
          planeOf(kColumns, kRows, [&](int x, int y) { return copy.u(2 * x, 2 * y); }),
          planeOf(kColumns, kRows, [&](int x, int y) { return copy.v(2 * x, 2 * y); }), Plane(kColumns, kRows)};
}

reference::Affine affine(const float (&rows)[6]) {
  reference::Affine m;
  std::copy_n(rows, 6, m.begin());
  return m;
}

double level(double drawn) {
  return std::clamp(drawn, 0.0, 255.0);
}

// moved: by which each cell is drawn from elsewhere.
template <typename Moved>
Canvas drawnAll(const Canvas& source, const reference::Affine& m, reference::Taps taps, const Moved& moved) {
  const int columns = kColumns, rows = kRows;
  Canvas result = {{2 * columns, 2 * rows}, {columns, rows}, {columns, rows}, {columns, rows}};
  for (int y = 0; y < rows; ++y) {
    for (int x = 0; x < columns; ++x) {
      const reference::Place by = moved(x, y);
      reference::Affine shifted = m;
      shifted[2] -= m[0] * by.x + m[1] * by.y;
      shifted[5] -= m[3] * by.x + m[4] * by.y;
      const Cell cell = drawn(source, shifted, x, y, taps);
      for (int i = 0; i < 4; ++i)
        result.luma.at(2 * x + i % 2, 2 * y + i / 2) = level(cell.luma[static_cast<size_t>(i)]);
      result.blue.at(x, y) = level(cell.blue);
      result.red.at(x, y) = level(cell.red);
      result.count.at(x, y) = cell.count;
    }
  }
  return result;
}

// Levels are stored in 1/256, from sums of 36 products in single precision.
constexpr double kStored = 0.01;

// A cell is drawn out of 8 x 8 pixels. Where a roll or zoom puts one of its pixels beyond what they reach, it is drawn up to
// 3 % of a pixel beside its place.
double drawnWithin(const reference::Affine& m) {
  return m[0] == 1 && m[1] == 0 && m[3] == 0 && m[4] == 1 ? kStored : 3;
}

testing::AssertionResult areClose(const Canvas& actual, const Canvas& expected, double max, double mean) {
  using Member = Plane Canvas::*;
  for (const auto& [name, plane] : {std::pair<const char*, Member>{"luma", &Canvas::luma},
                                    {"blue", &Canvas::blue},
                                    {"red", &Canvas::red},
                                    {"count", &Canvas::count}}) {
    const testing::AssertionResult result = isClose(actual.*plane, expected.*plane, max, mean);
    if (!result) return testing::AssertionFailure() << name << ": " << result.message();
  }
  return testing::AssertionSuccess();
}

void ClearPasses::checkPast() {
  const Canvas past = engine.read(Image::kDrawnPast);
  const auto m = affine(engine.gpu->clearFrame.canvasFromFrame);
  const auto moved = [&](int x, int y) { return movedAt(x, y); };
  EXPECT_TRUE(areClose(past, drawnAll(engine.read(Image::kNextCanvas), m, taps, moved), drawnWithin(m), kStored));

  const Difference difference = differenceOf(given(), past, noise);
  const std::vector<Plane> stored = engine.channels(Image::kDifference);
  const Plane* const planes[] = {&difference.mean, &difference.energy, &difference.blue, &difference.red};
  for (size_t c = 0; c < 4; ++c) {
    const auto code = [&](int x, int y) {
      const double value = planes[c]->at(x, y);
      return std::clamp(c == 1 ? value / 16 : value / 8 + 0.5, 0.0, 1.0) * 255;
    };
    EXPECT_TRUE(isClose(stored[c], planeOf(kColumns, kRows, code), 0.6, 0.3)) << "difference, " << c;  // rounded
  }
  const auto decoded = [&](size_t c, double scale, double zero) {
    return planeOf(kColumns, kRows, [&, c](int x, int y) { return scale * (stored[c].at(x, y) / 255 - zero); });
  };
  const Plane test = reference::refusalTest(
      {decoded(0, 8, 0.5), decoded(1, 16, 0), decoded(2, 8, 0.5), decoded(3, 8, 0.5)}, GetParam() == 0);
  // Linear samples have weights of 8 bits, of a difference of up to 8 and 16 deviations, times up to 3; a code is 1/32.
  const Plane actual = engine.channels(Image::kTest)[0];
  EXPECT_TRUE(
      isClose(planeOf(kColumns, kRows, [&](int x, int y) { return actual.at(x, y) / 255 * 8; }), test, 0.25, 0.03));
}

void ClearPasses::checkBlend() {
  const Plane stored = engine.channels(Image::kTest)[0];
  const bool hasPast = engine.gpu->clearFrame.hasPast;
  const Canvas frameGiven = given();
  Canvas expected = frameGiven;
  if (hasPast) {
    const Plane test = planeOf(kColumns, kRows, [&](int x, int y) { return stored.at(x, y) / 255 * 8; });
    const Plane moved = planeOf(kColumns, kRows, [&](int x, int y) { return std::abs(movedAt(x, y).x); });
    expected = blended(frameGiven, engine.read(Image::kDrawnPast), test, moved,
                       1 + 15 * std::min(engine.frame.settings.noiseReductionStrength / 50.0, 1.0), GetParam() == 0);
  } else {
    expected.count = planeOf(kColumns, kRows, [](int, int) { return 1.0; });
  }
  // Luma is stored in 1/16. The linear samples' weights of 8 bits move a refusal by a hundredth, and that a mean of two
  // pictures which differ by 200.
  EXPECT_TRUE(areClose(engine.read(Image::kBlend), expected, hasPast ? 1.5 : 0.04, 0.05));
  const std::vector<Plane> cells = engine.channels(Image::kBlend);
  const Plane count = engine.read(Image::kBlend).count;
  for (int i = 0; i < kColumns * kRows; ++i) {
    const int x = i % kColumns, y = i / kColumns;
    ASSERT_NEAR(static_cast<int>(cells[0].at(x, y)) % 16, 3 * std::log2(count.at(x, y)), 0.51) << "the count of a cell";
  }
}

// What a frame may be offered: the next one, with counts from 0 to beyond what a mean may count for.
std::vector<uint16_t> offered(int n) {
  TestFrame next = frameOf(n + 1);
  std::vector<uint16_t> words(blendWords(kWidth, kHeight));
  const auto stored = [](int level) { return static_cast<uint16_t>(level * 256 + 37); };
  for (int i = 0; i < kColumns * kRows; ++i) {
    const int x = i % kColumns, y = i / kColumns;
    uint16_t* const luma = &words[static_cast<size_t>(4 * i)];
    uint16_t* const colour = luma + 4 * kColumns * kRows;
    for (int k = 0; k < 4; ++k) luma[k] = stored(next.luma(2 * x + k % 2, 2 * y + k / 2));
    colour[0] = stored(next.u(2 * x, 2 * y));
    colour[1] = stored(next.v(2 * x, 2 * y));
    colour[2] = static_cast<uint16_t>((x + y) % 20 * 2048);
  }
  return words;
}

void ClearPasses::checkMerged() {
  ASSERT_TRUE(engine.gpu->clearFrame.merges);
  const Canvas expected = merged(engine.read(Image::kBlend), engine.read(Image::kOffered), 16);
  EXPECT_TRUE(areClose(engine.read(Image::kPicture), expected, 0.04, 0.02));  // luma is stored in 1/16
}

// The past as it was drawn, without the frame in what it counts for. What came before this frame stays delivered.
void ClearPasses::checkKept() {
  const std::vector<Plane> luma = engine.channels(Image::kDrawnPast), colour = engine.channels(Image::kDrawnPastColour);
  const Plane count = engine.channels(Image::kBlendColour)[2];
  for (int i = 0; i < kColumns * kRows; ++i) {
    const int x = i % kColumns, y = i / kColumns;
    const uint16_t* const cell = &kept[static_cast<size_t>(4 * i)];
    for (size_t c = 0; c < 4; ++c) ASSERT_EQ(cell[c], luma[c].at(x, y));
    const uint16_t* const colours = cell + 4 * kColumns * kRows;
    for (size_t c = 0; c < 2; ++c) ASSERT_EQ(colours[c], colour[c].at(x, y));
    ASSERT_EQ(colours[2], count.at(x, y) - 2048);
  }
}

void ClearPasses::checkCanvas() {
  const ClearFrame& clear = engine.gpu->clearFrame;
  const Canvas canvas = engine.read(Image::kCanvas), blend = engine.read(Image::kBlend);
  const int columns = canvas.count.width, rows = canvas.count.height;
  ASSERT_EQ(columns, kColumns + kCanvasBorder);
  if (clear.anchors) {
    const int border = kCanvasBorder / 2;
    const auto inside = [&](const Plane& plane, int scale) {
      return planeOf(scale * columns, scale * rows, [&, scale](int x, int y) {
        return scale == 2 ? plane.atPixel(x - 2 * border, y - 2 * border) : plane.at(x - border, y - border);
      });
    };
    const Plane known = planeOf(columns, rows, [&](int x, int y) {
      const bool within = x >= border && y >= border && x < border + kColumns && y < border + kRows;
      return within ? blend.count.at(x - border, y - border) : 0;
    });
    EXPECT_TRUE(areClose(canvas, {inside(blend.luma, 2), inside(blend.blue, 1), inside(blend.red, 1), known}, 0, 0));
    return;
  }
  const Canvas before = engine.read(Image::kNextCanvas);
  Canvas source = given(), shares = source;
  source.count = blend.count;
  shares.count = planeOf(kColumns, kRows, [&](int x, int y) { return 1 / blend.count.at(x, y); });
  const auto m = affine(clear.frameFromCanvas);
  int followed = 0;
  Canvas expected = {{2 * columns, 2 * rows}, {columns, rows}, {columns, rows}, {columns, rows}};
  for (int y = 0; y < rows; ++y) {
    for (int x = 0; x < columns; ++x) {
      const int fromX = x + static_cast<int>(clear.scroll[0]), fromY = y + static_cast<int>(clear.scroll[1]);
      const bool known = fromX >= 0 && fromY >= 0 && fromX < columns && fromY < rows;
      const reference::Place first = reference::mapped(m, 2 * x + 0.5, 2 * y + 0.5);
      const reference::Place last = reference::mapped(m, 2 * x + 1.5, 2 * y + 1.5);
      const bool seen = first.x >= 0.5 && first.y >= 0.5 && last.x <= kWidth - 0.5 && last.y <= kHeight - 0.5;
      // What moved by itself takes the blended picture along.
      const int column = static_cast<int>(std::floor((first.x + last.x) / 4)),
                row = static_cast<int>(std::floor((first.y + last.y) / 4));
      const bool follows = seen && movedAt(column, row).x != 0;
      const Cell now = drawn(follows ? blend : source, m, x, y, taps);
      const double share = follows ? 1 : seen ? drawn(shares, m, x, y, taps).count : 0;
      followed += follows;
      for (int i = 0; i < 4; ++i) {
        const int dx = i % 2, dy = i / 2;
        const double old =
            before.luma.atPixel(2 * std::clamp(fromX, 0, columns - 1) + dx, 2 * std::clamp(fromY, 0, rows - 1) + dy);
        expected.luma.at(2 * x + dx, 2 * y + dy) = level(std::lerp(old, now.luma[static_cast<size_t>(i)], share));
      }
      expected.blue.at(x, y) = level(std::lerp(before.blue.at(fromX, fromY), now.blue, share));
      expected.red.at(x, y) = level(std::lerp(before.red.at(fromX, fromY), now.red, share));
      expected.count.at(x, y) = follows ? blend.count.at(column, row)
                                : seen  ? now.count
                                : known ? before.count.at(fromX, fromY)
                                        : 0;
    }
  }
  EXPECT_TRUE(areClose(canvas, expected, 2 * drawnWithin(m), kStored));
  EXPECT_EQ(followed > 0, engine.frame.localMotion.blocks != nullptr);
}

void ClearPasses::checkDenoised() {
  const Canvas blend = engine.read(Image::kPicture);
  const Plane denoised = engine.cells(Image::kDenoised);
  const double strength = engine.frame.settings.noiseReductionStrength / 50.0;
  const std::vector<Plane> cells = engine.channels(Image::kPicture);
  const Plane count =
      planeOf(kColumns, kRows, [&](int x, int y) { return std::exp2(static_cast<int>(cells[0].at(x, y)) % 16 / 3.0); });
  // Weights are powers of 2 in single precision.
  EXPECT_TRUE(isClose(denoised, patchMeans(blend.luma, count, noise.luma, strength, fast ? 1 : 3), 0.05, kStored));

  const std::vector<Plane> stored = engine.channels(Image::kGuide);
  const auto scaled = [&](size_t c) {
    return planeOf(kColumns, kRows, [&](int x, int y) { return stored[c].at(x, y) / 256; });
  };
  const reference::Guide guide = {scaled(2), scaled(0), scaled(1)}, expected = guideOf(blend, denoised);
  EXPECT_TRUE(isClose(guide.blue, expected.blue, kStored, kStored));
  EXPECT_TRUE(isClose(guide.red, expected.red, kStored, kStored));
  EXPECT_TRUE(isClose(guide.luma, expected.luma, kStored, kStored));
  const std::vector<Plane> colour = engine.channels(Image::kColour);
  const bool isBest = engine.frame.settings.quality == 2;
  for (size_t c = 0; c < 2; ++c) {
    const auto own = [&](int x, int y) {
      return guidedColour(blend, guide, noise, strength, fast ? 3 : 4, fast ? 3 : isBest ? 1 : 2, fast, x, y)[c];
    };
    const auto level = [&](int x, int y) { return colour[c].at(x, y) / 256; };
    EXPECT_TRUE(isClose(planeOf(kColumns, kRows, level), planeOf(kColumns, kRows, own), 0.05, kStored));
  }
}

// What a window shows, drawn into an image of the frame's size.
void ClearPasses::checkShown(const Canvas& picture, bool steadied) {
  const Pass& pass = engine.gpu->plan->show[steadied ? 1 : 0];
  const ProgramTexts& texts = programTexts(pass.program);
  Program program(texts.fragment, texts.vertex);
  ASSERT_EQ(program.initialized, 1);
  PassInput input;
  input.context = {engine.gpu->frame.settings, {}, &engine.gpu->frame.noise, &engine.gpu->clearFrame,
                   {kWidth, kHeight},          {}, {kWidth, kHeight}};
  for (size_t i = 0; i < std::size(pass.reads); ++i) input.textures[i] = textureOf(engine.gpu, pass.reads[i]);
  FrameBuffer image = FrameBuffer::make(kWidth, kHeight);
  image.Bind();
  drawPass(pass, input, &program);
  std::vector<unsigned char> pixels(4 * kWidth * kHeight);
  image.ReadPixels(0, 0, kWidth, kHeight, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());

  const auto between = [](const Plane& plane, int x,
                          int y) {  // a pixel lies a quarter of a cell beside its cell's centre
    const int dx = x % 2 == 0 ? -1 : 1, dy = y % 2 == 0 ? -1 : 1;
    const double row = std::lerp(plane.at(x / 2, y / 2), plane.at(x / 2 + dx, y / 2), 0.25);
    return std::lerp(row, std::lerp(plane.at(x / 2, y / 2 + dy), plane.at(x / 2 + dx, y / 2 + dy), 0.25), 0.25) - 128;
  };
  const auto channel = [&](int c) {
    return planeOf(kWidth, kHeight, [&, c](int x, int y) {
      const double level = picture.luma.at(x, y), gain = toned(gains, level);
      const double blue = gain * between(picture.blue, x, y), red = gain * between(picture.red, x, y);
      const double colour[] = {1.402 * red, -0.344136 * blue - 0.714136 * red, 1.772 * blue};
      return std::clamp(toned(levels, level) + colour[c], 0.0, 255.0);
    });
  };
  for (int c = 0; c < 3; ++c) {
    const auto shown = [&](int x, int y) { return pixels[static_cast<size_t>(4 * (y * kWidth + x) + c)]; };
    EXPECT_TRUE(isClose(planeOf(kWidth, kHeight, shown), channel(c), 0.55, 0.3)) << "shown, " << c;  // rounded
  }
}

void ClearPasses::checkDelivered(bool steadied) {
  Canvas picture = {engine.cells(Image::kDenoised), {}, {}, Plane(kColumns, kRows)};
  const std::vector<Plane> colour = engine.channels(Image::kColour);
  picture.blue = planeOf(kColumns, kRows, [&](int x, int y) { return colour[0].at(x, y) / 256; });
  picture.red = planeOf(kColumns, kRows, [&](int x, int y) { return colour[1].at(x, y) / 256; });
  if (steadied) {
    Canvas steady = engine.read(Image::kSteady);
    steady.count = picture.count;
    const auto m = affine(engine.gpu->clearFrame.frameFromPicture);
    const auto still = [](int, int) { return reference::Place{0, 0}; };
    EXPECT_TRUE(areClose(steady, drawnAll(picture, m, {}, still), drawnWithin(m), 2 * kStored));
    picture = steady;
  }
  TestFrame shown = engine.output;
  const auto luma = [&](int x, int y) { return toned(levels, picture.luma.at(x, y)); };
  EXPECT_TRUE(isClose(planeOf(kWidth, kHeight, [&](int x, int y) { return shown.luma(x, y); }),
                      planeOf(kWidth, kHeight, luma), 0.52, 0.3));  // rounded
  const auto colourOf = [&](const Plane& plane) {
    return planeOf(kColumns, kRows, [&](int x, int y) {
      return std::clamp(128 + (plane.at(x, y) - 128) * toned(gains, picture.luma.meanOfCell(x, y)), 0.0, 255.0);
    });
  };
  EXPECT_TRUE(isClose(planeOf(kColumns, kRows, [&](int x, int y) { return shown.u(2 * x, 2 * y); }),
                      colourOf(picture.blue), 0.54, 0.3));
  EXPECT_TRUE(isClose(planeOf(kColumns, kRows, [&](int x, int y) { return shown.v(2 * x, 2 * y); }),
                      colourOf(picture.red), 0.54, 0.3));
  checkShown(picture, steadied);
}

TEST_P(ClearPasses, EachOfAMovingNoisySceneIsItsTwins) {
  int anchored = 0, scrolled = 0;
  const std::vector<float> local = localMotion();
  for (int n = 0; n < 9; ++n) {
    SCOPED_TRACE(testing::Message() << "frame " << n);
    frame = frameOf(n);
    const View motion = previousFromCurrent(n);
    const bool steadied = n % 3 == 2;
    engine.frame.settings.noiseReductionStrength = n % 2 == 0 ? 50 : n == 5 ? 3 : 80;
    engine.frame.localMotion = {n % 4 == 3 ? local.data() : nullptr, kBlocks, kHeight / kBlock, kBlock, 1};
    const bool merges = n == 0 || n == 3 || n == 7, keeps = n == 4;
    engine.frame.settings.quality = merges && GetParam() == 1 ? 2 : GetParam();
    const std::vector<uint16_t> next = offered(n);
    if (merges) engine.notes.offeredBlend = next.data();
    if (keeps) engine.notes.keptBlend = kept.data();
    const std::vector<unsigned char> before = engine.output.bytes;
    engine.draw(frame, n > 0 ? &motion : nullptr, steadied ? stabilized(n) : kStill);
    const ClearFrame& clear = engine.gpu->clearFrame;
    ASSERT_EQ(clear.hasPast, n > 0);
    anchored += clear.anchors;
    scrolled += clear.scroll[0] != 0 || clear.scroll[1] != 0;
    const std::vector<unsigned char> luma(frame.bytes.begin(), frame.bytes.begin() + kWidth * kHeight);
    EXPECT_TRUE(isClose(engine.cells(Image::kCells), given().luma, 0, 0));
    if (!steadied) {  // which is drawn where the past was
      if (n > 0) checkPast();
      checkBlend();
    }
    checkCanvas();
    if (keeps) {
      checkKept();
      EXPECT_EQ(engine.output.bytes, before) << "a kept frame is not delivered";
      continue;
    }
    if (merges) checkMerged();
    checkDenoised();
    checkDelivered(steadied);
    if (HasFailure()) return;
  }
  EXPECT_GE(anchored, 2) << "rolled far enough for a new canvas";
  EXPECT_GE(scrolled, 1);
}

// A picture with the power of photos, falling with the square of the frequency, under a lens (1/e at 0.6 cycles a pixel) and
// without aliasing: what lies between its pixels is known.
class Photo {
 public:
  Photo() {
    std::mt19937 random(3);
    std::uniform_real_distribution<double> share(0, 1);
    double power = 0;
    for (Wave& wave : waves_) {
      const double frequency = 0.5 * std::pow(64.0, share(random) - 1),
                   direction = 2 * std::numbers::pi * share(random);
      wave = {std::exp(-std::pow(frequency / 0.6, 2)), 2 * std::numbers::pi * frequency * std::cos(direction),
              2 * std::numbers::pi * frequency * std::sin(direction), 7 * share(random)};
      power += wave.amplitude * wave.amplitude / 2;
    }
    for (Wave& wave : waves_) wave.amplitude *= 30 / std::sqrt(power);
  }
  double at(double x, double y) const {
    double level = 125;
    for (const Wave& wave : waves_) level += wave.amplitude * std::cos(wave.x * x + wave.y * y + wave.phase);
    return level;
  }

 private:
  struct Wave {
    double amplitude, x, y, phase;
  };
  std::array<Wave, 300> waves_;
};

using Kernel = std::function<double(double)>;

double catmullRom(double d) {
  d = std::abs(d);
  return d < 1 ? 1 - 2.5 * d * d + 1.5 * d * d * d : d < 2 ? 2 - 4 * d + 2.5 * d * d - 0.5 * d * d * d : 0;
}

// The interpolating cubic B-spline: a pole at sqrt(3) - 2 and the spline.
double cardinalSpline(double d) {
  const double z = std::sqrt(3.0) - 2;
  double value = 0;
  for (int k = -12; k <= 12; ++k) {
    const double x = std::abs(d - k), coefficient = -6 * z / (1 - z * z) * std::pow(z, std::abs(k));
    value += coefficient * (x < 1 ? 2.0 / 3 - x * x + x * x * x / 2 : x < 2 ? std::pow(2 - x, 3) / 6 : 0);
  }
  return value;
}

TEST_P(ClearPasses, TheirKernelComesNearToWhatLiesBetweenPixels) {
  const Photo photo;
  TestFrame pixels(kWidth, kHeight);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) pixels.luma(x, y) = static_cast<unsigned char>(std::lround(photo.at(x, y)));
  }
  constexpr int kMargin = 14;
  double ours = 0, spline = 0, cubic = 0;
  for (const auto& [dx, dy] : {std::pair{0.5, 0.5}, {0.25, 0.5}, {0.125, 0.0}, {0.375, 0.75}, {0.0, 0.5}}) {
    engine.draw(pixels, nullptr);
    const View motion = shifted(dx, dy);
    engine.draw(pixels, &motion);
    const Plane drawn = engine.cells(Image::kDrawnPast);
    const auto by = [&, right = dx, down = dy](const Kernel& kernel) {
      double across[26], along[26];
      for (int i = 0; i < 26; ++i) {
        across[i] = kernel(i - 12 - right);
        along[i] = kernel(i - 12 - down);
      }
      return planeOf(kWidth, kHeight, [&](int x, int y) {
        double sum = 0;
        if (x < kMargin || y < kMargin || x >= kWidth - kMargin || y >= kHeight - kMargin) return sum;
        for (int i = 0; i < 26 * 26; ++i)
          sum += across[i % 26] * along[i / 26] * pixels.luma(x + i % 26 - 12, y + i / 26 - 12);
        return sum;
      });
    };
    const Plane bySpline = by(cardinalSpline), byCubic = by(catmullRom);
    for (int y = kMargin; y < kHeight - kMargin; y += 2) {
      for (int x = kMargin; x < kWidth - kMargin; ++x) {
        const double truth = photo.at(x + dx, y + dy);
        ours += std::pow(drawn.at(x, y) - truth, 2);
        spline += std::pow(bySpline.at(x, y) - truth, 2);
        cubic += std::pow(byCubic.at(x, y) - truth, 2);
      }
    }
  }
  EXPECT_LT(ours, fast ? 0.9 * cubic : 0.85 * spline);  // four taps are the best four
  EXPECT_GT(cubic, spline) << "Catmull-Rom would pass for it";
}

INSTANTIATE_TEST_SUITE_P(Quality, ClearPasses, testing::Values(0, 1));

}  // namespace
}  // namespace noxel
