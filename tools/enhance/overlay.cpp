#include "enhance/overlay.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace noxel::tool {
namespace {

struct Colour {
  int y, u, v;
};

// Full range, BT.601.
constexpr Colour kWhite = {255, 128, 128};
constexpr Colour kGreen = {150, 44, 21};
constexpr Colour kRed = {76, 85, 255};
constexpr Colour kYellow = {226, 1, 149};
constexpr Colour kPurple = {105, 212, 235};

constexpr double kMaskOpacity = 0.5;
constexpr double kMinMask = 0.05;  // rounding of the 8-bit mask stays below
constexpr double kMaxTail = 1e4;   // pixels; longer tracks are wrong and get no tail
constexpr int kMaxTracks = 400;    // more would cover the picture

struct Point {
  double x, y;
};

class Canvas {
 public:
  Canvas(uint8_t* nv21, int width, int height)
      : luma_(nv21), chroma_(nv21 + static_cast<ptrdiff_t>(width) * height), width_(width), height_(height) {}

  int width() const { return width_; }
  int height() const { return height_; }

  // A square around a point, in pixels, clipped to the picture.
  void square(Point centre, int side, Colour colour) {
    const int left = static_cast<int>(std::floor(centre.x - 0.5 * (side - 1)));
    const int top = static_cast<int>(std::floor(centre.y - 0.5 * (side - 1)));
    for (int y = std::max(top, 0); y < std::min(top + side, height_); ++y) {
      for (int x = std::max(left, 0); x < std::min(left + side, width_); ++x) {
        luma_[at(x, y)] = static_cast<uint8_t>(colour.y);
        uint8_t* pair = chroma_ + at(x / 2 * 2, y / 2);
        pair[0] = static_cast<uint8_t>(colour.v);
        pair[1] = static_cast<uint8_t>(colour.u);
      }
    }
  }

  void tintLuma(int x, int y, Colour colour, double opacity) { blend(&luma_[at(x, y)], colour.y, opacity); }

  // x, y: in chroma samples.
  void tintChroma(int x, int y, Colour colour, double opacity) {
    uint8_t* pair = chroma_ + at(2 * x, y);
    blend(&pair[0], colour.v, opacity);
    blend(&pair[1], colour.u, opacity);
  }

 private:
  ptrdiff_t at(int x, int y) const { return static_cast<ptrdiff_t>(y) * width_ + x; }
  static void blend(uint8_t* sample, int value, double opacity) {
    *sample = static_cast<uint8_t>(std::lround(*sample + opacity * (value - *sample)));
  }

  uint8_t* luma_;
  uint8_t* chroma_;  // V, U pairs, rows as long as luma rows
  int width_;
  int height_;
};

// Frame to output picture: stabilisation, then zoom about the centre.
Point inPicture(const FrameReport& report, int width, int height, double frameX, double frameY) {
  const float* s = report.stabilizedFromCurrent;
  const double zoom = static_cast<double>(report.zoom);
  const double x = static_cast<double>(s[0]) * frameX + static_cast<double>(s[1]) * frameY + static_cast<double>(s[2]);
  const double y = static_cast<double>(s[3]) * frameX + static_cast<double>(s[4]) * frameY + static_cast<double>(s[5]);
  return {(x - 0.5 * width) * zoom + 0.5 * width, (y - 0.5 * height) * zoom + 0.5 * height};
}

// The other way. The matrix is a similarity close to the identity.
class ToFrame {
 public:
  ToFrame(const FrameReport& report, int width, int height) : width_(width), height_(height), zoom_(report.zoom) {
    std::copy_n(report.stabilizedFromCurrent, 6, m_);
  }
  Point operator()(double x, double y) const {
    const double u = (x - 0.5 * width_) / zoom_ + 0.5 * width_ - m_[2];
    const double v = (y - 0.5 * height_) / zoom_ + 0.5 * height_ - m_[5];
    const double determinant = m_[0] * m_[4] - m_[1] * m_[3];
    return {(m_[4] * u - m_[1] * v) / determinant, (m_[0] * v - m_[3] * u) / determinant};
  }

 private:
  int width_;
  int height_;
  double zoom_;
  double m_[6];
};

void drawTrack(Canvas* canvas, Point source, Point target, Colour colour) {
  const int thickness = 1 + canvas->height() / 720;
  const double length = std::hypot(target.x - source.x, target.y - source.y);
  const int steps = length < kMaxTail ? static_cast<int>(std::ceil(length)) : 0;
  for (int i = 0; i < steps; ++i) {
    const double share = static_cast<double>(i) / steps;
    canvas->square({source.x + share * (target.x - source.x), source.y + share * (target.y - source.y)}, thickness,
                   colour);
  }
  canvas->square(target, thickness + 2, colour);
  canvas->square(target, thickness, kWhite);
}

void drawTracks(Canvas* canvas, const Overlay& overlay) {
  const int width = canvas->width();
  const int height = canvas->height();
  const int cell = std::max(1, static_cast<int>(std::sqrt(static_cast<double>(width) * height / kMaxTracks)));
  const int columns = width / cell + 1;
  std::vector<bool> taken(static_cast<size_t>(columns) * static_cast<size_t>(height / cell + 1));
  const auto draw = [&](const std::vector<noxel_track>& tracks, Colour colour) {
    for (const noxel_track& track : tracks) {
      const auto place = [&](float x, float y) {
        return inPicture(overlay.report, width, height, static_cast<double>(x), static_cast<double>(y));
      };
      const Point target = place(track.to_x, track.to_y);
      if (!(target.x >= 0 && target.x < width && target.y >= 0 && target.y < height)) continue;
      const auto index =
          static_cast<size_t>(static_cast<int>(target.y) / cell * columns + static_cast<int>(target.x) / cell);
      if (taken[index]) continue;
      taken[index] = true;
      drawTrack(canvas, place(track.from_x, track.from_y), target, colour);
    }
  };
  draw(overlay.ownTracks, kYellow);
  draw(overlay.tracks, overlay.report.status > 0 ? kGreen : kRed);
}

// The mask at (u, v) in 0..1, bilinear as the blend samples it. 0..1.
double maskAt(const Overlay& overlay, double u, double v) {
  const double x = std::clamp(u * overlay.maskWidth - 0.5, 0.0, overlay.maskWidth - 1.0);
  const double y = std::clamp(v * overlay.maskHeight - 0.5, 0.0, overlay.maskHeight - 1.0);
  const int left = static_cast<int>(x);
  const int top = static_cast<int>(y);
  const int right = std::min(left + 1, overlay.maskWidth - 1);
  const int bottom = std::min(top + 1, overlay.maskHeight - 1);
  const auto texel = [&](int column, int row) {
    return overlay
        .mask[static_cast<size_t>(row) * static_cast<size_t>(overlay.maskWidth) + static_cast<size_t>(column)];
  };
  const double above = std::lerp(texel(left, top), texel(right, top), x - left);
  const double below = std::lerp(texel(left, bottom), texel(right, bottom), x - left);
  return std::lerp(above, below, y - top) / 255;
}

void drawMask(Canvas* canvas, const Overlay& overlay) {
  const ToFrame toFrame(overlay.report, canvas->width(), canvas->height());
  const auto opacityAt = [&](double x, double y) {
    const Point at = overlay.maskInFrame ? toFrame(x, y) : Point{x, y};
    const double held = maskAt(overlay, at.x / canvas->width(), at.y / canvas->height());
    return held < kMinMask ? 0.0 : kMaskOpacity * held;
  };
  for (int y = 0; y < canvas->height(); ++y) {
    for (int x = 0; x < canvas->width(); ++x) canvas->tintLuma(x, y, kPurple, opacityAt(x + 0.5, y + 0.5));
  }
  for (int y = 0; y < canvas->height() / 2; ++y) {
    for (int x = 0; x < canvas->width() / 2; ++x) canvas->tintChroma(x, y, kPurple, opacityAt(2 * x + 1, 2 * y + 1));
  }
}

}  // namespace

void drawOverlay(const Overlay& overlay, uint8_t* nv21, int width, int height) {
  Canvas canvas(nv21, width, height);
  if (!overlay.mask.empty()) drawMask(&canvas, overlay);
  drawTracks(&canvas, overlay);
}

}  // namespace noxel::tool
