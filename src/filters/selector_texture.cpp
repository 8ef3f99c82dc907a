#include "filters/selector_texture.h"

#include <new>

#include "platform/log.h"

namespace noxel {

Texture* createSelectorTexture() {
  static constexpr unsigned char kTexels[16] = {255, 0, 0, 0, 0, 255, 0, 0, 0, 0, 255, 0, 0, 0, 0, 255};
  auto* texture = new (std::nothrow) Texture;
  if (texture == nullptr) NOXEL_LOG_ERROR("no memory for the selector texture");
  if (texture == nullptr) return nullptr;
  forgetGLErrors();
  texture->Init(4, 1, GL_RGBA, GL_NEAREST, GL_REPEAT, kTexels);
  if (NOXEL_CHECK_GL("createSelectorTexture")) return texture;
  texture->Release();
  delete texture;
  return nullptr;
}

}  // namespace noxel
