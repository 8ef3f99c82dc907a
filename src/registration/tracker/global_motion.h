// The motion of the whole picture, and the equations that many blocks give for it together.
#pragma once

namespace noxel::tracker {

// Displacement of the point (x, y), measured from the picture's centre: six numbers, all in pixels of the registration
// image. The linear part is for a point one `radius` (half the diagonal) away, so that the six are of one size.
//
//   dx = p[0] + p[1] u + p[2] v        u = x / radius
//   dy = p[3] + p[4] u + p[5] v        v = y / radius
struct GlobalMotion {
  double p[6] = {};

  double dx(double u, double v) const { return p[0] + p[1] * u + p[2] * v; }
  double dy(double u, double v) const { return p[3] + p[4] * u + p[5] * v; }
  bool operator==(const GlobalMotion&) const = default;
};

// What one block contributes: b = rhs when the motion is `at`, and falls by `slope` times what is added to it.
struct MotionEquation {
  double u;
  double v;
  double slope[3];  // xx, xy, yy of a symmetric 2 x 2
  double noise[3];  // the same of the covariance of b, up to a factor that all blocks share
  double rhs[2];
  double weight;
};

// Sums of weighted equations, and their solutions.
class MotionEquations {
 public:
  void add(const MotionEquation& equation);

  // *motion is where the equations were taken, and is moved to their solution. False when they do not determine one, and
  // *motion is untouched.
  //
  // Translation, rotation and zoom only; of an affine the rest is dropped:
  bool solveSimilarity(GlobalMotion* motion) const;
  // All six. What the solution has beyond the similarity is taken as far as it stands out of the noise, whose factor is
  // `noiseVariance`; *covariance is the variance of the solution.
  bool solve(double noiseVariance, GlobalMotion* motion, double (*covariance)[6][6]) const;

 private:
  // Sums over equations of slope x (1, u, v)^T (1, u, v): three entries by the six different products.
  struct Sums {
    double entries[3][6] = {};
    void expand(double (*matrix)[6][6]) const;
  };

  Sums slopeSums_;
  Sums noiseSums_;
  double rhs_[6] = {};
};

// Chi-squared of a motion with this covariance against none; 0 when nothing is uncertain, as between equal frames.
double significance(const GlobalMotion& motion, const double (&covariance)[6][6]);

}  // namespace noxel::tracker
