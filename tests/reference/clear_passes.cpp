#include "reference/clear_passes.h"

#include <algorithm>
#include <cmath>

namespace noxel::reference {

double Plane::at(int x, int y) const {
  return values_[static_cast<size_t>(std::clamp(y, 0, height - 1) * width + std::clamp(x, 0, width - 1))];
}

double Plane::atPixel(int x, int y) const {
  const auto within = [](int at, int size) { return 2 * std::clamp(at >> 1, 0, size / 2 - 1) + (at & 1); };
  return at(within(x, width), within(y, height));
}

double Plane::meanOfCell(int column, int row) const {
  return (at(2 * column, 2 * row) + at(2 * column + 1, 2 * row) + at(2 * column, 2 * row + 1) +
          at(2 * column + 1, 2 * row + 1)) /
         4;
}

Place mapped(const Affine& m, double x, double y) {
  return {m[0] * x + m[1] * y + m[2], m[3] * x + m[4] * y + m[5]};
}

double noiseAt(const NoiseByLuma& curve, double level) {
  const double place = std::clamp(level / 8 - 0.5, 0.0, 31.0);
  const int i = std::min(static_cast<int>(place), 30);
  return std::lerp(curve[static_cast<size_t>(i)], curve[static_cast<size_t>(i) + 1], place - i);
}

std::array<double, 6> interpolatorWeights(int taps, double fraction) {
  const double u = fraction - 0.5, q = u * u, v = q - 0.25;
  if (taps == 2) return {1 - fraction, fraction};
  // Even and odd parts of a pair of taps, from the inner pair outwards.
  if (taps == 4) {
    const double e0 = 0.5 - v * (0.46172 - 0.12893 * q), o0 = u * (v * (0.99671 - 0.3065 * q) - 1);
    const double e1 = 0.5 - e0, o1 = -u * v * (0.37293 - 0.12901 * q);
    return {e1 + o1, e0 + o0, e0 - o0, e1 - o1};
  }
  const double e0 = 0.5 - v * (0.52275 - 0.17055 * q), o0 = u * (v * (1.06729 - 0.35542 * q) - 1);
  const double e1 = v * (0.75641 - 0.32995 * q), o1 = -u * v * (0.527 - 0.2358 * q);
  const double e2 = 0.5 - e0 - e1, o2 = u * v * (0.11337 - 0.07858 * q);
  return {e2 + o2, e1 + o1, e0 + o0, e0 - o0, e1 - o1, e2 - o2};
}

namespace {

// `taps` by `taps` around a place that is whole at samples.
template <typename Sample>
double interpolated(const Sample& sample, int taps, Place p) {
  const int left = static_cast<int>(std::floor(p.x)), top = static_cast<int>(std::floor(p.y));
  const auto across = interpolatorWeights(taps, p.x - left), down = interpolatorWeights(taps, p.y - top);
  const int first = 1 - taps / 2;
  double sum = 0;
  for (int j = 0; j < taps; ++j) {
    for (int i = 0; i < taps; ++i)
      sum += across[static_cast<size_t>(i)] * down[static_cast<size_t>(j)] * sample(left + first + i, top + first + j);
  }
  return sum;
}

}  // namespace

Cell drawn(const Canvas& source, const Affine& m, int column, int row, Taps taps) {
  Cell cell = {};
  Place centre = {0, 0};
  const auto luma = [&](int x, int y) { return source.luma.atPixel(x, y); };
  for (int i = 0; i < 4; ++i) {
    const Place p = mapped(m, 2 * column + i % 2 + 0.5, 2 * row + i / 2 + 0.5);
    cell.luma[static_cast<size_t>(i)] = interpolated(luma, taps.luma, {p.x - 0.5, p.y - 0.5});
    centre = {centre.x + p.x / 4, centre.y + p.y / 4};
  }
  const Place place = {centre.x / 2 - 0.5, centre.y / 2 - 0.5};
  const auto colour = [&](const Plane& plane) {
    return interpolated([&](int x, int y) { return plane.at(x, y); }, taps.colour, place);
  };
  cell.blue = colour(source.blue);
  cell.red = colour(source.red);
  const int left = static_cast<int>(std::floor(place.x)), top = static_cast<int>(std::floor(place.y));
  bool known = true;
  for (int i = 0; i < 4; ++i) {
    const double count = source.count.at(left + i % 2, top + i / 2);
    const double x = place.x - left, y = place.y - top;
    known = known && count > 0;
    cell.count += count * (i % 2 == 1 ? x : 1 - x) * (i / 2 == 1 ? y : 1 - y);
  }
  if (!known) cell.count = 0;
  return cell;
}

Difference differenceOf(const Canvas& frame, const Canvas& past, const Noise& noise) {
  const int width = past.count.width, height = past.count.height;
  Difference difference = {{width, height}, {width, height}, {width, height}, {width, height}};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double spread = 1 + 1 / std::max(past.count.at(x, y), 1.0);
      const double level = past.luma.meanOfCell(x, y);
      const double sigma = std::sqrt(noiseAt(noise.luma, level) * spread);
      for (int i = 0; i < 4; ++i) {
        const int px = 2 * x + i % 2, py = 2 * y + i / 2;
        const double unit = (frame.luma.at(px, py) - past.luma.at(px, py)) / sigma;
        difference.mean.at(x, y) += unit / 4;
        difference.energy.at(x, y) += unit * unit / 4;
      }
      difference.blue.at(x, y) =
          (frame.blue.at(x, y) - past.blue.at(x, y)) / std::sqrt(noiseAt(noise.blue, level) * spread);
      difference.red.at(x, y) =
          (frame.red.at(x, y) - past.red.at(x, y)) / std::sqrt(noiseAt(noise.red, level) * spread);
    }
  }
  return difference;
}

namespace {

// Three linear samples a direction, 1.2 texels apart, each of which takes two texels as 4 : 1.
double smoothed(const Plane& plane, int x, int y, double side) {
  const double taps[] = {0.2 * side, 0.8 * side, 1 - 2 * side, 0.8 * side, 0.2 * side};
  double sum = 0;
  for (int j = -2; j <= 2; ++j) {
    for (int i = -2; i <= 2; ++i) sum += taps[i + 2] * taps[j + 2] * plane.at(x + i, y + j);
  }
  return sum;
}

// 0.375, 0.25, 0.375 in each direction.
double around(const Plane& plane, int x, int y) {
  constexpr double kWeights[] = {0.375, 0.25, 0.375};
  double sum = 0;
  for (int i = 0; i < 9; ++i) sum += kWeights[i % 3] * kWeights[i / 3] * plane.at(x + i % 3 - 1, y + i / 3 - 1);
  return sum;
}

}  // namespace

Plane refusalTest(const Difference& difference, bool fast) {
  Plane test(difference.mean.width, difference.mean.height);
  for (int y = 0; y < test.height; ++y) {
    for (int x = 0; x < test.width; ++x) {
      const auto wide = [&](const Plane& plane, double side) {
        return fast ? around(plane, x, y) : smoothed(plane, x, y, side);
      };
      const double middle = fast ? std::lerp(difference.mean.at(x, y), around(difference.mean, x, y), 0.35)
                                 : smoothed(difference.mean, x, y, 0.103);
      const double mean = std::abs(middle) / (fast ? 0.29 : 0.34);
      const double energy = 2 + (wide(difference.energy, 0.3125) - 1.5) * 1.5;
      const double chroma = fast ? 0.55 : 0.42;
      const double blue = 0.8 * std::abs(wide(difference.blue, 0.3333)) / chroma;
      const double red = 0.8 * std::abs(wide(difference.red, 0.3333)) / chroma;
      test.at(x, y) = std::clamp(std::max({mean, energy, blue, red}), 0.0, 8.0);
    }
  }
  return test;
}

Canvas blended(const Canvas& frame, const Canvas& past, const Plane& test, const Plane& moved, double most, bool fast) {
  Canvas blend = past;
  for (int y = 0; y < test.height; ++y) {
    for (int x = 0; x < test.width; ++x) {
      const bool followed = moved.at(x, y) > 0;
      const double near = fast ? around(test, x, y) : smoothed(test, x, y, 0.3125);
      const double refused = std::clamp(near / 2 * (followed ? 1.6 : 1) - 1, 0.0, 1.0);
      const double count = 1 + std::min(past.count.at(x, y), (followed ? 8 : most) - 1) * (1 - refused);
      const auto mean = [count](double old, double now) { return old + (now - old) / count; };
      for (int i = 0; i < 4; ++i) {
        const int px = 2 * x + i % 2, py = 2 * y + i / 2;
        blend.luma.at(px, py) = mean(past.luma.at(px, py), frame.luma.at(px, py));
      }
      blend.blue.at(x, y) = mean(past.blue.at(x, y), frame.blue.at(x, y));
      blend.red.at(x, y) = mean(past.red.at(x, y), frame.red.at(x, y));
      blend.count.at(x, y) = count;
    }
  }
  return blend;
}

Canvas merged(const Canvas& blend, const Canvas& offered, double most) {
  Canvas mean = blend;
  for (int y = 0; y < blend.count.height; ++y) {
    for (int x = 0; x < blend.count.width; ++x) {
      const double theirs = std::min(offered.count.at(x, y), most - 1);
      mean.count.at(x, y) += theirs;
      const double share = theirs / mean.count.at(x, y);
      for (int i = 0; i < 4; ++i) {
        double& luma = mean.luma.at(2 * x + i % 2, 2 * y + i / 2);
        luma = std::lerp(luma, offered.luma.at(2 * x + i % 2, 2 * y + i / 2), share);
      }
      mean.blue.at(x, y) = std::lerp(blend.blue.at(x, y), offered.blue.at(x, y), share);
      mean.red.at(x, y) = std::lerp(blend.red.at(x, y), offered.red.at(x, y), share);
    }
  }
  return mean;
}

Plane patchMeans(const Plane& luma, const Plane& count, const NoiseByLuma& noise, double strength, int reach) {
  Plane result(luma.width, luma.height);
  const auto pixel = [&](int x, int y) { return luma.atPixel(x, y); };
  const auto known = [&](int x, int y) { return count.at(x >> 1, y >> 1); };
  for (int y = 0; y < luma.height; ++y) {
    for (int x = 0; x < luma.width; ++x) {
      double mean = 0;
      for (int j = -2; j < 4; ++j) {
        for (int i = -2; i < 4; ++i) mean += pixel((x & ~1) + i, (y & ~1) + j) / 36;
      }
      const double variance = std::max(noiseAt(noise, mean) * strength, 1e-3), own = known(x, y);
      double total = 0, weights = 0, most = 1e-3;
      for (int dy = -reach; dy <= reach; ++dy) {
        for (int dx = -reach; dx <= reach; ++dx) {
          if (dx == 0 && dy == 0) continue;
          double distance = 0;
          for (int i = 0; i < 9; ++i) {
            const int px = x + i % 3 - 1, py = y + i / 3 - 1;
            const double apart = pixel(px, py) - pixel(px + dx, py + dy);
            distance += apart * apart / 9;
          }
          // The count is that of the cell around the first pixel's place.
          const double theirs = known((x & ~1) + dx, (y & ~1) + dy);
          const double both = variance * (1 / own + 1 / theirs);
          const double alike = std::exp2(-4 * std::max(distance / both - 1, 0.0));
          total += alike * theirs * pixel(x + dx, y + dy);
          weights += alike * theirs;
          most = std::max(most, alike);
        }
      }
      result.at(x, y) = (total + most * own * pixel(x, y)) / (weights + most * own);
    }
  }
  return result;
}

Guide guideOf(const Canvas& blend, const Plane& denoised) {
  const int width = blend.blue.width, height = blend.blue.height;
  Guide guide = {{width, height}, {width, height}, {width, height}};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int i = 0; i < 9; ++i) {
        const int dx = i % 3 - 1, dy = i / 3 - 1;
        const double weight = (2 - std::abs(dx)) * (2 - std::abs(dy)) / 16.0;
        guide.blue.at(x, y) += weight * blend.blue.at(x + dx, y + dy);
        guide.red.at(x, y) += weight * blend.red.at(x + dx, y + dy);
      }
      guide.luma.at(x, y) = denoised.meanOfCell(x, y);
    }
  }
  return guide;
}

std::array<double, 2> guidedColour(const Canvas& blend, const Guide& guide, const Noise& noise, double strength,
                                   int reach, int step, bool fast, int x, int y) {
  const double luma = guide.luma.at(x, y), own = blend.count.at(x, y);
  const double variance[] = {noiseAt(noise.blue, luma) * strength + 1e-3, noiseAt(noise.red, luma) * strength + 1e-3};
  const bool isWide = step == 1;
  const double raw = isWide ? 0.5 : 0;  // share of the blend in a neighbour
  const auto of = [raw, x, y](const Plane& given, const Plane& smooth, int dx, int dy) {
    return std::lerp(smooth.at(x + dx, y + dy), given.at(x + dx, y + dy), raw);
  };
  const double smoothed = isWide ? 2 * own : 0;
  double weights = isWide ? own : own / 4;
  double blue = weights * blend.blue.at(x, y) + smoothed * guide.blue.at(x, y);
  double red = weights * blend.red.at(x, y) + smoothed * guide.red.at(x, y);
  weights += smoothed;
  for (int dy = -reach; dy <= reach; dy += step) {
    for (int dx = -reach; dx <= reach; dx += step) {
      if (fast && dx != 0 && dy != 0) continue;
      if (isWide && dx == 0 && dy == 0) continue;
      const double theirs = blend.count.at(x + dx, y + dy);
      const double apart[] = {guide.blue.at(x + dx, y + dy) - guide.blue.at(x, y),
                              guide.red.at(x + dx, y + dy) - guide.red.at(x, y)};
      double unlike = std::pow((guide.luma.at(x + dx, y + dy) - luma) / 3, 2);
      for (int c = 0; c < 2; ++c) {
        const double both = 1.5 * variance[c] * (1 / own + 1 / theirs);
        unlike += std::max(apart[c] * apart[c] / both - (isWide ? 0.25 : 0.5), 0.0);
      }
      const double weight = std::exp(-unlike) * theirs;
      blue += weight * of(blend.blue, guide.blue, dx, dy);
      red += weight * of(blend.red, guide.red, dx, dy);
      weights += weight;
    }
  }
  const double share = std::min(8 * strength, 1.0);
  return {std::lerp(blend.blue.at(x, y), blue / weights, share), std::lerp(blend.red.at(x, y), red / weights, share)};
}

}  // namespace noxel::reference
