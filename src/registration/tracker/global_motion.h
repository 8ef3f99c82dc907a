// The motion of the whole picture, and the equations that all blocks together give for it.
#pragma once

namespace noxel::tracker {

// Displacement of the point (x, y), relative to the picture's centre: six parameters, all in pixels of the registration
// image. The linear part is scaled to a point one `radius` (half the diagonal) away, so that all six have similar
// magnitudes.
//
//   dx = p[0] + p[1] u + p[2] v        u = x / radius
//   dy = p[3] + p[4] u + p[5] v        v = y / radius
struct GlobalMotion {
  double p[6] = {};

  double dx(double u, double v) const { return p[0] + p[1] * u + p[2] * v; }
  double dy(double u, double v) const { return p[3] + p[4] * u + p[5] * v; }
  bool operator==(const GlobalMotion&) const = default;
};

// One block's contribution: b = rhs at the current motion, and falls by `slope` times what is added to the motion.
struct MotionEquation {
  double u;
  double v;
  double slope[3];  // xx, xy, yy of a symmetric 2 x 2 matrix
  double noise[3];  // covariance of b likewise, up to a factor common to all blocks
  double rhs[2];
  double weight;
};

// What a block says of a change of exposure between its picture I and the other, J = I + offset + gain I.
struct ExposureEquation {
  double samples[3];   // sums over the block of 1, I, I I
  double slope[2][2];  // of gx, gy; of gx I, gy I: of `rhs` per sample of displacement
  double rhs[2];       // of I - J; of I (I - J)
};

// How far two pictures determine a similarity (tx, ty, a, b), whatever their exposures. In the basis of the generalised
// eigenvectors v of
//
//   shared v = share own v,   v^T own v = 1
//
// a direction's share is the part of the texture along it that both pictures have: near 1 for a picture with texture,
// 0 where there is only noise, as along an edge, or where a change of exposure would look the same.
struct Determinacy {
  int followed = 0;  // directions in which the motion follows the picture, the first ones; 4: all
  double rows[4][4] = {};        // own v
  double leastShare = 0.0;       // of all directions
  double noise = 1.0;            // variance of b, relative to what the patches' median says
  double values[4] = {};         // (own v)^T similarity, as the pictures have it
  double variances[4] = {};      // of the values, which are independent
};

// A direction is followed when its share exceeds 0.2 of the largest one, within the first two bounds, and, when another
// one is held, its deviation stays below the third (pixels, rms over the corners). Measured: shares of 0.1 and more on
// photos, also at a contrast of 8 % under noise of 8 levels; below 0.05 along edges and in soft shading, or 0.1 to 0.3
// where only the width of an edge tells a zoom, which then deviates by pixels.
inline constexpr double kMinShare = 0.08;
inline constexpr double kSafeShare = 0.15;
inline constexpr double kMinRelativeShare = 0.2;
inline constexpr double kMaxDirectionDeviation = 0.5;
inline constexpr double kMaxWeakDeviation = 1.5;  // when all have a share, but edges prevail
// Part of a direction's square that is a shift. Without a direction of more, as for a slope of light, which tells only a
// roll, nothing is determined.
inline constexpr double kMinShift = 0.02;

// Noise of neighbouring samples is correlated, by the smoothing; along a straight edge it adds up. Variance of b there,
// relative to what the patches' median says: measured 2 to 3, and 7 at most, in soft shading. A picture is taken for one of edges when its least share is less
// than this part of the largest.
inline constexpr double kEdgeNoise = 5.0;
inline constexpr double kEdgeShare = 0.4;

// What a hand does between two frames, standard deviations in pixels: shift, and zoom and roll at one radius.
inline constexpr double kHandShift = 8.0;
inline constexpr double kHandTurn = 1.0;

// Sums of weighted equations, and their solutions.
class MotionEquations {
 public:
  void add(const MotionEquation& equation);

  // Both move *motion from where the equations were taken to their solution. False, and *motion untouched, when they do
  // not determine one.
  //
  // Translation, rotation and zoom only:
  bool solveSimilarity(GlobalMotion* motion) const;
  // All six parameters. The part beyond the similarity is shrunk by how little it stands out of the noise, whose factor
  // is noiseVariance. *covariance: of the solution.
  bool solve(double noiseVariance, GlobalMotion* motion, double (*covariance)[6][6]) const;

  // The same for sums that `determine` needs besides; both pictures' slopes only.
  void addExposure(const MotionEquation& equation, const ExposureEquation& exposure);

  // Around `motion`, where the equations were taken. noiseVariance as above; scale: pixels per sample. False without
  // texture.
  bool determine(const GlobalMotion& motion, double noiseVariance, double scale, Determinacy* determinacy) const;

 private:
  // Sums over equations of slope x (1, u, v)^T (1, u, v): three entries times six distinct products.
  struct Sums {
    double entries[3][6] = {};
    void expand(double (*matrix)[6][6]) const;
  };

  Sums slopeSums_;
  Sums noiseSums_;
  double rhs_[6] = {};

  // Those of addExposure. By squared weights, so that patches of mere noise, which get a weight by chance, count for little.
  Sums sharedSums_;
  Sums ownSums_;
  double sharedRhs_[6] = {};
  double exposureSums_[3] = {};
  double exposureSlopes_[2][6] = {};
  double exposureRhs_[2] = {};
};

// The similarity nearest to `held`, by what a hand does, of those that follow the picture in the directions it
// determines. *followed: covariance from the noise; *covariance: with what is unknown along the directions held.
// *significance: chi-squared against no motion. False when the directions are not independent.
bool followDetermined(const Determinacy& determinacy, const GlobalMotion& held, GlobalMotion* motion,
                      double (*followed)[6][6], double (*covariance)[6][6], double* significance);

// Chi-squared of a motion with this covariance against no motion; 0 when the covariance is singular, as between equal
// frames.
double significance(const GlobalMotion& motion, const double (&covariance)[6][6]);

}  // namespace noxel::tracker
