// Scenes that determine a motion only partly or not at all, and what a camera lays over every frame without moving with
// the scene. Any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "scenes/scenes.h"

namespace noxel::scenes {

enum class Sparse {
  Horizon,   // one edge across, tilted by a degree
  DoorEdge,  // one edge from top to bottom
  Gradient,  // a sky: levels rise linearly
  Vignette,  // a wall that darkens towards the corners
  Glow,      // a soft light on a wall
  Bars,      // vertical bars of one period
  Corridor,  // lines towards one point: zooming about it changes nothing
};
inline constexpr Sparse kSparse[] = {Sparse::Horizon, Sparse::DoorEdge, Sparse::Gradient, Sparse::Vignette,
                                     Sparse::Glow,    Sparse::Bars,     Sparse::Corridor};
const char* nameOf(Sparse scene);

// In 8-bit levels, neither rounded nor clamped. The frame shows the scene's point sceneFromFrame(pixel).
std::vector<float> renderSparse(Sparse scene, const Affine& sceneFromFrame, int width, int height);

// Adds noise of `sigma` levels and rounds to 8 bits.
std::vector<uint8_t> shootWithNoise(const std::vector<float>& frame, double sigma, uint64_t seed);

enum class Fixed {
  Nothing,
  Pattern,     // of the sensor: each pixel by 4 levels, each row by 3, and 0.3 % hot pixels
  Letterbox,   // black above and below, a tenth of the height each
  PillarBars,  // black beside a picture of 9 : 16
  Logo,        // a bright one in a corner
  Dirt,        // dark spots
};
inline constexpr Fixed kFixed[] = {Fixed::Nothing,    Fixed::Pattern, Fixed::Letterbox,
                                   Fixed::PillarBars, Fixed::Logo,    Fixed::Dirt};
const char* nameOf(Fixed what);

// Lays it over a frame before its noise.
void layOver(Fixed what, uint64_t seed, int width, int height, std::vector<float>* frame);

// Light that flickers with the mains under a rolling shutter: two dark bands a frame, by 30 %.
void addBanding(double phase, int width, int height, std::vector<float>* frame);

}  // namespace noxel::scenes
