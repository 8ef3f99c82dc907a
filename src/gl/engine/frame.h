#pragma once
namespace noxel {
struct FrameSettings {
  int noiseReductionStrength = 65;  // 0..100
  int deghosting = 5;
  float sharpening = 2.0f;  // 0..100
  float contrast = 30.0f;   // 0..100
  int flipChroma = 0;
  float totalzoom = -1.0f;
  int imageFormat = 17;
};
}  // namespace noxel
