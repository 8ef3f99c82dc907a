#include "registration/tracker/consensus.h"

#include <cstdint>

namespace noxel::tracker {
namespace {

constexpr int kHypotheses = 64;
constexpr int kRefits = 4;
constexpr float kMinDistance = 0.2f;  // between the two points, in radii: closer pairs barely determine the linear part

// Numerical Recipes' generator: reproducible on every machine.
class Sequence {
 public:
  int below(int limit) {
    state = state * 1664525u + 1013904223u;
    return static_cast<int>((uint64_t{state} * static_cast<uint64_t>(limit)) >> 32);
  }

 private:
  uint32_t state = 20260411u;
};

// The similarity through both points: with z = u + iv and the displacement as a complex number, displacement = t + m z.
// False when the points are too close.
bool through(const Displaced& a, const Displaced& b, GlobalMotion* motion) {
  const double du = b.u - a.u;
  const double dv = b.v - a.v;
  const double square = du * du + dv * dv;
  if (!(square >= kMinDistance * kMinDistance)) return false;
  const double ddx = b.dx - a.dx;
  const double ddy = b.dy - a.dy;
  const double real = (ddx * du + ddy * dv) / square;
  const double imaginary = (ddy * du - ddx * dv) / square;
  motion->p[1] = motion->p[5] = real;
  motion->p[2] = -imaginary;
  motion->p[4] = imaginary;
  motion->p[0] = a.dx - (real * a.u - imaginary * a.v);
  motion->p[3] = a.dy - (imaginary * a.u + real * a.v);
  return true;
}

// Least squares over the points that agree with a motion.
bool refit(const Displaced* points, int count, float tolerance, GlobalMotion* motion) {
  MotionEquations equations;
  for (int i = 0; i < count; ++i) {
    const Displaced& point = points[i];
    if (!(point.weight > 0.0f) || !agrees(point, *motion, tolerance)) continue;
    equations.add({point.u,
                   point.v,
                   {1.0, 0.0, 1.0},
                   {},
                   {point.dx - motion->dx(point.u, point.v), point.dy - motion->dy(point.u, point.v)},
                   point.weight});
  }
  return equations.solveSimilarity(motion);
}

}  // namespace

bool agrees(const Displaced& point, const GlobalMotion& motion, float tolerance) {
  const auto ex = static_cast<float>(point.dx - motion.dx(point.u, point.v));
  const auto ey = static_cast<float>(point.dy - motion.dy(point.u, point.v));
  return ex * ex + ey * ey <= tolerance * tolerance;
}

GlobalMotion findConsensus(const Displaced* points, int count, float tolerance, const GlobalMotion* known,
                           int knownCount) {
  const auto supportOf = [&](const GlobalMotion& motion) {
    double support = 0.0;
    for (int i = 0; i < count; ++i) {
      if (points[i].weight > 0.0f && agrees(points[i], motion, tolerance)) support += points[i].weight;
    }
    return support;
  };
  GlobalMotion best;
  double bestSupport = 0.0;
  const auto consider = [&](GlobalMotion motion) {
    // A fit to two noisy points improves with the others that agree, and then more of them agree.
    for (int i = 0; i <= kRefits; ++i) {
      const double support = supportOf(motion);
      if (!(support > bestSupport)) return;
      best = motion;
      bestSupport = support;
      if (!refit(points, count, tolerance, &motion)) return;
    }
  };
  for (int i = 0; i < knownCount; ++i) consider(known[i]);
  if (count < 2) return best;
  Sequence sequence;
  for (int i = 0; i < kHypotheses; ++i) {
    GlobalMotion motion;
    // A few tries for a usable pair: both weighted, and far enough apart.
    for (int attempt = 0; attempt < 8; ++attempt) {
      const Displaced& a = points[sequence.below(count)];
      const Displaced& b = points[sequence.below(count)];
      if (a.weight > 0.0f && b.weight > 0.0f && through(a, b, &motion)) {
        consider(motion);
        break;
      }
    }
  }
  return best;
}

}  // namespace noxel::tracker
