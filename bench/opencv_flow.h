// Dense optical flow from OpenCV, for comparison. Compiled only when OpenCV is found.
#pragma once

#include <cstdint>
#include <vector>

namespace noxel::scenes {

enum class FlowMethod { DisMedium, DisUltrafast, Farneback };

// Where each pixel of a frame was in the previous one: x and y displacement in pixels, interleaved. One thread.
class OpenCvFlow {
 public:
  explicit OpenCvFlow(FlowMethod method);
  ~OpenCvFlow();
  OpenCvFlow(const OpenCvFlow&) = delete;
  OpenCvFlow& operator=(const OpenCvFlow&) = delete;

  // Smooths both frames by a Gaussian of sigma pixels (0: not at all) and stretches them to a mean of 110.
  void prepare(const std::vector<uint8_t>& previous, const std::vector<uint8_t>& current, int width, int height,
               double sigma);
  void measure();
  const float* flow() const;

 private:
  struct State;
  State* state_;
};

}  // namespace noxel::scenes
