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

 private:
  // Sums over equations of slope x (1, u, v)^T (1, u, v): three entries times six distinct products.
  struct Sums {
    double entries[3][6] = {};
    void expand(double (*matrix)[6][6]) const;
  };

  Sums slopeSums_;
  Sums noiseSums_;
  double rhs_[6] = {};
};

// Chi-squared of a motion with this covariance against no motion; 0 when the covariance is singular, as between equal
// frames.
double significance(const GlobalMotion& motion, const double (&covariance)[6][6]);

}  // namespace noxel::tracker
