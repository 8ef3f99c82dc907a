#include "gl/engine/pass_timer.h"

#include <chrono>

namespace noxel {
namespace {

constexpr GLenum kTimeElapsed = 0x88BF;  // GL_TIME_ELAPSED_EXT
constexpr GLenum kGpuDisjoint = 0x8FBB;  // GL_GPU_DISJOINT_EXT

uint64_t now() {
  const auto sinceEpoch = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count());
}

}  // namespace

PassTimer::~PassTimer() {
  if (queries_[0] != 0) glDeleteQueries(kMaxPasses, queries_);
}

void PassTimer::setUp(EGLEngine* egl) {
  hasQueries_ = egl->HasGLExtension("GL_EXT_disjoint_timer_query") == 1;
}

void PassTimer::beginFrame(PassObserver frameObserver, void* observerContext) {
  observer_ = frameObserver;
  context_ = observerContext;
  count_ = 0;
  if (observer_ == nullptr || !hasQueries_) return;
  if (queries_[0] == 0) glGenQueries(kMaxPasses, queries_);
  GLint disjoint = 0;
  glGetIntegerv(kGpuDisjoint, &disjoint);  // asking clears it
}

void PassTimer::begin(const char* pass) {
  if (!isTiming()) return;
  names_[count_] = pass;
  if (hasQueries_) {
    glBeginQuery(kTimeElapsed, queries_[count_]);
  } else {
    glFinish();
    start_ = now();
  }
}

void PassTimer::end() {
  if (!isTiming()) return;
  if (hasQueries_) {
    glEndQuery(kTimeElapsed);
  } else {
    glFinish();
    nanoseconds_[count_] = now() - start_;
  }
  ++count_;
}

void PassTimer::report() {
  if (observer_ == nullptr) return;
  if (hasQueries_) {
    for (int i = 0; i < count_; ++i) {
      GLuint elapsed = 0;
      glGetQueryObjectuiv(queries_[i], GL_QUERY_RESULT, &elapsed);
      // The value saturates, and the first query of a Mesa context comes back as that: not known.
      nanoseconds_[i] = elapsed == UINT32_MAX ? 0 : elapsed;
    }
    GLint disjoint = 0;  // the clock changed meanwhile: the figures mean nothing, the names do
    glGetIntegerv(kGpuDisjoint, &disjoint);
    for (int i = 0; disjoint != 0 && i < count_; ++i) nanoseconds_[i] = 0;
  }
  for (int i = 0; i < count_; ++i) observer_(context_, names_[i], nanoseconds_[i]);
  observer_ = nullptr;
}

}  // namespace noxel
