#include "registration/tracker/patch_evidence.h"

#include <algorithm>
#include <cmath>

namespace noxel::tracker {

void PatchEvidence::add(const PatchEvidence& part) {
  blocks += part.blocks;
  hxx += part.hxx;
  hxy += part.hxy;
  hyy += part.hyy;
  bx += part.bx;
  by += part.by;
  cxx += part.cxx;
  cxy += part.cxy;
  cyy += part.cyy;
  sum += part.sum;
  otherSum += part.otherSum;
  squares += part.squares;
  otherSquares += part.otherSquares;
  energy += part.energy;
}

float PatchEvidence::shared() const {
  const float texture = hxx + hyy;
  return texture > 0.0f ? std::clamp((cxx + cyy) / texture, 0.0f, 1.0f) : 0.0f;
}

float PatchEvidence::correlation() const {
  const float count = blocks * kBlockArea;
  if (!(count > 0.0f)) return 0.0f;
  const float variance = squares - sum * sum / count;
  const float otherVariance = otherSquares - otherSum * otherSum / count;
  const float covariance = 0.5f * (squares + otherSquares - energy) - sum * otherSum / count;
  const float scale = variance * otherVariance;
  return variance > 0.0f && otherVariance > 0.0f ? std::clamp(covariance / std::sqrt(scale), -1.0f, 1.0f) : 0.0f;
}

float PatchEvidence::surprise() const {
  float dx, dy;
  return displacement(&dx, &dy) ? bx * dx + by * dy : 0.0f;
}

bool PatchEvidence::displacement(float* dx, float* dy) const {
  const float determinant = hxx * hyy - hxy * hxy;
  if (!(determinant > 1e-4f * hxx * hyy)) return false;
  *dx = (hyy * bx - hxy * by) / determinant;
  *dy = (hxx * by - hxy * bx) / determinant;
  return true;
}

PatchEvidence evidenceOf(const BlockTexture& texture, const BlockMatch& match) {
  if (!match.inside) return {};
  return {1.0f,          texture.gxx, texture.gxy, texture.gyy,
          match.bx,      match.by,    match.cxx,   0.5f * (match.cxy + match.cyx),
          match.cyy,     texture.sum, match.sum,   texture.squares,
          match.squares, match.energy};
}

void sumAlongRow(const BlockTexture* textures, const BlockMatch* matches, int count, PatchEvidence* sums) {
  PatchEvidence before = {};
  PatchEvidence here = evidenceOf(textures[0], matches[0]);
  for (int i = 0; i < count; ++i) {
    const PatchEvidence after = i + 1 < count ? evidenceOf(textures[i + 1], matches[i + 1]) : PatchEvidence{};
    sums[i] = here;
    sums[i].add(before);
    sums[i].add(after);
    before = here;
    here = after;
  }
}

}  // namespace noxel::tracker
