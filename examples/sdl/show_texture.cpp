// Shows raw NV12 frames, enhanced, in a window of SDL. The enhancer draws into a texture of the window's context, so
// that no enhanced picture leaves the GPU:
//
//     ffmpeg -i night.mp4 -f rawvideo -pix_fmt nv12 - | show_texture 640 360
#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <SDL.h>
#include <noxel/enhancer.h>

#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

namespace {

// A triangle that covers the window; its texture coordinate is (0, 0) at the top left.
constexpr char kVertexShader[] = R"(#version 300 es
out vec2 place;
void main() {
  vec2 corner = vec2((gl_VertexID & 1) * 4 - 1, (gl_VertexID & 2) * 2 - 1);
  place = vec2(corner.x + 1.0, 1.0 - corner.y) * 0.5;
  gl_Position = vec4(corner, 0.0, 1.0);
})";

constexpr char kFragmentShader[] = R"(#version 300 es
precision mediump float;
uniform sampler2D picture;
in vec2 place;
out vec4 colour;
void main() { colour = texture(picture, place); })";

[[noreturn]] void fail(const char* what, const char* why) {
  std::fprintf(stderr, "%s: %s\n", what, why);
  std::exit(1);
}

GLuint linkedProgram() {
  const GLuint program = glCreateProgram();
  for (const auto& [kind, text] : {std::pair{GL_VERTEX_SHADER, kVertexShader}, {GL_FRAGMENT_SHADER, kFragmentShader}}) {
    const GLuint shader = glCreateShader(kind);
    glShaderSource(shader, 1, &text, nullptr);
    glCompileShader(shader);
    glAttachShader(program, shader);
    glDeleteShader(shader);
  }
  glLinkProgram(program);
  GLint linked = 0;
  glGetProgramiv(program, GL_LINK_STATUS, &linked);
  if (linked == 0) fail("the shaders", "do not link");
  return program;
}

GLuint makeTexture(int width, int height) {
  GLuint texture = 0;
  glGenTextures(1, &texture);
  glBindTexture(GL_TEXTURE_2D, texture);
  glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, width, height);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  return texture;
}

noxel_enhancer* makeEnhancer(int width, int height) {
  noxel_config config;
  noxel_config_init(&config, sizeof(config), width, height);
  config.share_display = eglGetCurrentDisplay();
  config.share_context = eglGetCurrentContext();
  noxel_enhancer* enhancer = nullptr;
  const int result = noxel_create(&config, &enhancer);
  if (result != NOXEL_OK) fail("noxel", noxel_error_text(result));
  return enhancer;
}

bool windowIsOpen() {
  SDL_Event event;
  while (SDL_PollEvent(&event)) {
    if (event.type == SDL_QUIT) return false;
  }
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  const int width = count == 3 ? std::atoi(arguments[1]) : 0;
  const int height = count == 3 ? std::atoi(arguments[2]) : 0;
  if (width < 1 || height < 1) {
    std::fprintf(stderr, "usage: show_texture WIDTH HEIGHT < frames.nv12\n");
    return 2;
  }
  SDL_SetHint(SDL_HINT_VIDEO_X11_FORCE_EGL, "1");  // by default SDL makes X11's contexts with GLX
  SDL_SetHint(SDL_HINT_OPENGL_ES_DRIVER, "1");
  if (SDL_Init(SDL_INIT_VIDEO) != 0) fail("SDL", SDL_GetError());
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_PROFILE_MASK, SDL_GL_CONTEXT_PROFILE_ES);
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_MAJOR_VERSION, 3);
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_MINOR_VERSION, 0);
  SDL_Window* window = SDL_CreateWindow("show_texture", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, width, height,
                                        SDL_WINDOW_OPENGL);
  const SDL_GLContext context = window != nullptr ? SDL_GL_CreateContext(window) : nullptr;
  if (context == nullptr) fail("SDL", SDL_GetError());

  const GLuint program = linkedProgram();
  const GLuint texture = makeTexture(width, height);
  noxel_enhancer* enhancer = makeEnhancer(width, height);

  const int row = (width + 1) / 2 * 2;  // bytes of a row of U,V pairs
  const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
  std::vector<unsigned char> planes(luma + static_cast<size_t>(row) * static_cast<size_t>((height + 1) / 2));
  noxel_frame frame;
  noxel_frame_init(&frame, sizeof(frame));
  frame.format = NOXEL_PLANES_NV12;
  frame.planes[0] = planes.data();
  frame.planes[1] = planes.data() + luma;
  frame.strides[0] = width;
  frame.strides[1] = row;

  bool more = true;
  while (windowIsOpen() && more) {
    more = std::fread(planes.data(), 1, planes.size(), stdin) == planes.size();
    if (more) {
      noxel_send(enhancer, &frame);
    } else {
      noxel_flush(enhancer);
    }
    int result;
    while ((result = noxel_render_texture(enhancer, texture, width, height, nullptr)) == NOXEL_OK) {
      glUseProgram(program);
      glBindTexture(GL_TEXTURE_2D, texture);
      glDrawArrays(GL_TRIANGLES, 0, 3);
      SDL_GL_SwapWindow(window);
    }
    if (result < 0) fail("noxel", noxel_error_text(result));
  }

  noxel_free(&enhancer);
  glDeleteTextures(1, &texture);
  glDeleteProgram(program);
  SDL_GL_DeleteContext(context);
  SDL_DestroyWindow(window);
  SDL_Quit();
  return 0;
}
