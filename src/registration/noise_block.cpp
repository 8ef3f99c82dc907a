#include "registration/noise_block.h"

#include <algorithm>
#include <cstring>

#include "registration/tracker/lanes.h"

namespace noxel::noise {

using tracker::NativeLanes;
using tracker::PlainLanes;

template <class Lanes>
HalfSums sumHalf(Pixels current, Pixels previous, int rows) {
  static constexpr int16_t kOnes[kHalfSide] = {1, 1, 1, 1, 1, 1, 1, 1};
  const Lanes one = Lanes::load(kOnes);
  typename Lanes::Sum s, gx, gy, d, ss, sgx, sgy, gxgx, gxgy, gygy, sd, gxd, gyd, dd, step, bendX, bendY;
  const auto bend = [](const Lanes& before, const Lanes& at, const Lanes& after) {
    return before.plus(after).minus(at.plus(at));
  };
  const uint8_t* i = current.at;
  const uint8_t* j = previous.at;
  Lanes aboveI = Lanes::loadBytes(i - current.stride);
  Lanes aboveJ = Lanes::loadBytes(j - previous.stride);
  Lanes hereI = Lanes::loadBytes(i);
  Lanes hereJ = Lanes::loadBytes(j);
  for (int y = 0; y < rows; ++y) {
    const Lanes leftI = Lanes::loadBytes(i - 1);
    const Lanes leftJ = Lanes::loadBytes(j - 1);
    const Lanes rightI = Lanes::loadBytes(i + 1);
    const Lanes rightJ = Lanes::loadBytes(j + 1);
    i += current.stride;
    j += previous.stride;
    const Lanes belowI = Lanes::loadBytes(i);
    const Lanes belowJ = Lanes::loadBytes(j);
    const Lanes here = hereI.plus(hereJ);
    const Lanes slopeX = rightI.plus(rightJ).minus(leftI.plus(leftJ));
    const Lanes slopeY = belowI.plus(belowJ).minus(aboveI.plus(aboveJ));
    const Lanes difference = hereI.minus(hereJ);
    const Lanes change = difference.minus(aboveI.minus(aboveJ));
    s.addProducts(here, one);
    gx.addProducts(slopeX, one);
    gy.addProducts(slopeY, one);
    d.addProducts(difference, one);
    ss.addProducts(here, here);
    sgx.addProducts(here, slopeX);
    sgy.addProducts(here, slopeY);
    gxgx.addProducts(slopeX, slopeX);
    gxgy.addProducts(slopeX, slopeY);
    gygy.addProducts(slopeY, slopeY);
    sd.addProducts(here, difference);
    gxd.addProducts(slopeX, difference);
    gyd.addProducts(slopeY, difference);
    dd.addProducts(difference, difference);
    step.addProducts(change, change);
    bendX.addProducts(bend(leftI, hereI, rightI), bend(leftJ, hereJ, rightJ));
    bendY.addProducts(bend(aboveI, hereI, belowI), bend(aboveJ, hereJ, belowJ));
    aboveI = hereI;
    aboveJ = hereJ;
    hereI = belowI;
    hereJ = belowJ;
  }
  return {s.total(),   gx.total(),   gy.total(),   d.total(),     ss.total(),   sgx.total(),
          sgy.total(), gxgx.total(), gxgy.total(), gygy.total(),  sd.total(),   gxd.total(),
          gyd.total(), dd.total(),   step.total(), bendX.total(), bendY.total()};
}

template HalfSums sumHalf<NativeLanes>(Pixels, Pixels, int);
#if defined(__SSE2__) || defined(__ARM_NEON)
template HalfSums sumHalf<PlainLanes>(Pixels, Pixels, int);
#endif

double residual(const HalfSums& a, int rows) {
  const int area = kHalfSide * rows;
  constexpr double kSmallest = 1;  // sum of squares below which a regressor is as good as constant
  const auto centred = [area](int32_t product, int32_t first, int32_t second) {
    return static_cast<double>(int64_t{product} * area - int64_t{first} * second) / area;
  };
  // Lower triangle over s, gx, gy and d; eliminated column by column.
  double m[4][4] = {
      {centred(a.ss, a.s, a.s)},
      {centred(a.sgx, a.s, a.gx), centred(a.gxgx, a.gx, a.gx)},
      {centred(a.sgy, a.s, a.gy), centred(a.gxgy, a.gx, a.gy), centred(a.gygy, a.gy, a.gy)},
      {centred(a.sd, a.s, a.d), centred(a.gxd, a.gx, a.d), centred(a.gyd, a.gy, a.d), centred(a.dd, a.d, a.d)}};
  for (int k = 0; k < 3; ++k) {
    if (!(m[k][k] > kSmallest)) continue;
    for (int i = k + 1; i < 4; ++i) {
      const double share = m[i][k] / m[k][k];
      for (int j = k + 1; j <= i; ++j) m[i][j] -= share * m[j][k];
    }
  }
  return std::max(m[3][3], 0.0);
}

bool furtherMotion(const HalfSums (&halves)[2], float* dx, float* dy) {
  constexpr float kOneDirection = 0.01f;  // of the product of the diagonal: the texture has one direction only
  const HalfSums& a = halves[0];
  const HalfSums& b = halves[1];
  const auto centred = [&](int32_t HalfSums::*product, int32_t HalfSums::*first, int32_t HalfSums::*second) {
    constexpr int kArea = 2 * kHalfArea;
    const int64_t sums = (int64_t{a.*first} + b.*first) * (int64_t{a.*second} + b.*second);
    return static_cast<float>((int64_t{a.*product} + b.*product) * kArea - sums) / kArea;
  };
  const float xx = centred(&HalfSums::gxgx, &HalfSums::gx, &HalfSums::gx);
  const float xy = centred(&HalfSums::gxgy, &HalfSums::gx, &HalfSums::gy);
  const float yy = centred(&HalfSums::gygy, &HalfSums::gy, &HalfSums::gy);
  const float bx = centred(&HalfSums::gxd, &HalfSums::gx, &HalfSums::d);
  const float by = centred(&HalfSums::gyd, &HalfSums::gy, &HalfSums::d);
  const float determinant = xx * yy - xy * xy;
  if (!(determinant > kOneDirection * xx * yy)) return false;
  *dx = 4 * (yy * bx - xy * by) / determinant;
  *dy = 4 * (xx * by - xy * bx) / determinant;
  return true;
}

Alone readAlone(Pixels block) {
  constexpr int kCount = kHalfSide * kHalfSide;
  constexpr int kSpread = kCount * (kCount - 1) / 3;  // sum of (2 x - 7)^2
  constexpr int kBendGain = 36;                       // (1 + 4 + 1)^2
  int sum = 0;
  int squares = 0;
  int across = 0;
  int down = 0;
  int fine = 0;
  const uint8_t* pixels = block.at;
  const ptrdiff_t stride = block.stride;
  for (int y = 0; y < kHalfSide; ++y, pixels += stride) {
    for (int x = 0; x < kHalfSide; ++x) {
      const int v = pixels[x];
      sum += v;
      squares += v * v;
      across += v * (2 * x - kHalfSide + 1);
      down += v * (2 * y - kHalfSide + 1);
      const auto bend = [&](ptrdiff_t at) { return pixels[at - 1] - 2 * pixels[at] + pixels[at + 1]; };
      const int bends = bend(x - stride) - 2 * bend(x) + bend(x + stride);
      fine += bends * bends;
    }
  }
  const double centred = squares - static_cast<double>(sum) * sum / kCount;
  const double plane = (static_cast<double>(across) * across + static_cast<double>(down) * down) / kSpread;
  return {static_cast<float>(sum) / kCount, static_cast<float>(std::max(centred - plane, 0.0) / (kCount - 3)),
          static_cast<float>(fine) / (kBendGain * kCount), fine == 0};
}

Equality compareExactly(Pixels current, Pixels previous) {
  uint64_t columns[2] = {};
  bool row = false;
  for (int y = 0; y < kSide; ++y, current.at += current.stride, previous.at += previous.stride) {
    uint64_t a[2];
    uint64_t b[2];
    static_assert(sizeof(a) == kSide);
    std::memcpy(a, current.at, sizeof(a));
    std::memcpy(b, previous.at, sizeof(b));
    const uint64_t left = a[0] ^ b[0];
    const uint64_t right = a[1] ^ b[1];
    row = row || (left | right) == 0;
    columns[0] |= left;
    columns[1] |= right;
  }
  const auto hasZeroByte = [](uint64_t v) { return ((v - 0x0101010101010101u) & ~v & 0x8080808080808080u) != 0; };
  if ((columns[0] | columns[1]) == 0) return Equality::kAll;
  return row || hasZeroByte(columns[0]) || hasZeroByte(columns[1]) ? Equality::kLine : Equality::kNone;
}

}  // namespace noxel::noise
