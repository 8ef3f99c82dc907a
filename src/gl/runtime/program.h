// A linked GLSL ES 3.00 program, its binary cache, and its setters.
#pragma once

#include "gl/runtime/gl.h"
#include "gl/runtime/program_cache.h"
#include "gl/runtime/text.h"

namespace noxel {

// Shader texts are in the dialect of shader_dialect.h, without a version line. A program with a cache name is loaded from
// <cache directory>/<name> when the driver still accepts what is stored there, and stored there after it was compiled. The
// cache can only miss: a failure of it is no error.
//
// A failed program is logged, keeps id 0 and draws nothing. GPU thread only. Move-only; the destructor deletes the GL
// program, so it runs while the context is current.
class Program {
 public:
  Program() = default;  // no program; makes no GL call
  // `cacheName` null or empty: never cached. `directory` empty: "/data/data/<process name>/korvane/", the private
  // place of an Android application. The texts are not kept; the names given to the setters below must be literals.
  Program(const char* fragmentSource, const char* vertexSource, const char* cacheName = nullptr,
          const CacheDirectory& directory = nullptr);
  ~Program();
  Program(Program&& other) noexcept;
  Program& operator=(Program&& other) noexcept;

  void Use();
  void draw(int vertexCount);  // a triangle strip

  // Location of an attribute or uniform, asked of GL once per name; -1, and a log line on every call, when there is none.
  GLint GetLocation(const char* name);
  bool Has(const char* name);  // whether there is one, without a log line

  // Tightly packed floats, `components` a vertex; an attribute the program lacks is skipped.
  void SetAttribute(const float* data, int components, bool normalized, int stride, const char* name);
  void SetTexture(int unit, GLuint texture, GLenum target, const char* name);
  void SetTexture(int unit, GLuint texture, const char* name);  // GL_TEXTURE_2D
  void SetFloat(float value, const char* name);
  void SetVector(const float* values, int count, int components, const char* name);  // components 2 to 4, else ignored
  void SetVector(const float* values, int components, const char* name);
  void SetMatrix(const float* values, int elements, bool transpose, const char* name);  // 4, 9 or 16, else ignored

  int initialized = 0;  // 1: linked, or loaded from the cache
  GLuint id = 0;

 private:
  struct Location {
    const char* name;
    GLint location;
  };
  static constexpr int kMaxLocations = 24;  // names asked for, absent ones too: at most 19; later ones are not cached

  void SetCacheDirectory(const char* directory);
  int initialize(const char* fragmentSource, const char* vertexSource, const char* cacheName);
  int CreateProgram(const char* fragmentSource, const char* vertexSource);
  GLint findLocation(const char* name);
  Text GetCacheDirectory();
  int LoadBinary(const char* path);
  void SaveBinary(const char* path);

  Text cacheDirectory;  // ends with '/' unless empty
  bool cacheReadable = true;
  Location locations[kMaxLocations] = {};
  int locationCount = 0;
};

}  // namespace noxel
