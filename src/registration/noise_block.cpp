#include "registration/noise_block.h"

#include <algorithm>
#include <cstring>

#include "registration/tracker/lanes.h"

namespace noxel::noise {

using tracker::NativeLanes;
using tracker::PlainLanes;

template <class Lanes>
HalfSums sumHalf(const uint8_t* current, const uint8_t* previous, ptrdiff_t stride) {
  static constexpr int16_t kOnes[kHalfSide] = {1, 1, 1, 1, 1, 1, 1, 1};
  const Lanes one = Lanes::load(kOnes);
  typename Lanes::Sum s, gx, gy, d, ss, sgx, sgy, gxgx, gxgy, gygy, sd, gxd, gyd, dd, lag;
  const auto sum = [&](ptrdiff_t at) { return Lanes::loadBytes(current + at).plus(Lanes::loadBytes(previous + at)); };
  const auto minus = [&](ptrdiff_t at) {
    return Lanes::loadBytes(current + at).minus(Lanes::loadBytes(previous + at));
  };
  Lanes above = sum(-stride);
  Lanes here = sum(0);
  Lanes last = minus(-stride);
  for (int y = 0; y < kSide; ++y, current += stride, previous += stride) {
    const Lanes below = sum(stride);
    const Lanes slopeX = sum(1).minus(sum(-1));
    const Lanes slopeY = below.minus(above);
    const Lanes difference = minus(0);
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
    lag.addProducts(difference, last);
    above = here;
    here = below;
    last = difference;
  }
  return {s.total(),    gx.total(),   gy.total(), d.total(),   ss.total(),  sgx.total(), sgy.total(), gxgx.total(),
          gxgy.total(), gygy.total(), sd.total(), gxd.total(), gyd.total(), dd.total(),  lag.total()};
}

template HalfSums sumHalf<NativeLanes>(const uint8_t*, const uint8_t*, ptrdiff_t);
#if defined(__SSE2__) || defined(__ARM_NEON)
template HalfSums sumHalf<PlainLanes>(const uint8_t*, const uint8_t*, ptrdiff_t);
#endif

double residual(const HalfSums& a) {
  constexpr double kSmallest = 1;  // sum of squares below which a regressor is as good as constant
  const auto centred = [](int32_t product, int32_t first, int32_t second) {
    return static_cast<double>(int64_t{product} * kHalfArea - int64_t{first} * second) / kHalfArea;
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

Alone readAlone(const uint8_t* pixels, ptrdiff_t stride) {
  constexpr int kCount = kHalfSide * kHalfSide;
  constexpr int kSpread = kCount * (kCount - 1) / 3;  // sum of (2 x - 7)^2
  constexpr int kBendGain = 36;                       // (1 + 4 + 1)^2
  int sum = 0;
  int squares = 0;
  int across = 0;
  int down = 0;
  int fine = 0;
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

Equality compareExactly(const uint8_t* current, const uint8_t* previous, ptrdiff_t stride) {
  uint64_t columns[2] = {};
  bool row = false;
  for (int y = 0; y < kSide; ++y, current += stride, previous += stride) {
    uint64_t a[2];
    uint64_t b[2];
    static_assert(sizeof(a) == kSide);
    std::memcpy(a, current, sizeof(a));
    std::memcpy(b, previous, sizeof(b));
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
