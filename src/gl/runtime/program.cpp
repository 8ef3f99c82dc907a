#include "gl/runtime/program.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "gl/runtime/shader_dialect.h"
#include "platform/log.h"

namespace noxel {
namespace {

constexpr char kVersionLine[] = "#version 300 es\n";

// Null without memory, or when the driver has no log.
char* fetchShaderLog(GLuint shader, GLint length) {
  char* log = length > 0 ? static_cast<char*>(std::malloc(static_cast<size_t>(length))) : nullptr;
  if (log != nullptr) glGetShaderInfoLog(shader, length, nullptr, log);
  return log;
}

GLuint CompileShader(GLenum type, const char* text) {
  const GLuint shader = glCreateShader(type);
  if (shader == 0) {
    NOXEL_LOG_ERROR("Could not create shader");
    return 0;
  }
  glShaderSource(shader, 1, &text, nullptr);
  glCompileShader(shader);
  GLint compiled = 0;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &compiled);
  if (compiled != 0) return shader;

  NOXEL_LOG_ERROR("Could not compile shader");
  GLint length = 0;
  glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &length);
  if (length == 0) return shader;  // the link reports it
  if (char* log = fetchShaderLog(shader, length); log != nullptr) {
    NOXEL_LOG_ERROR("Could not compile shader %d:\n%s\n", static_cast<int>(type), log);
    NOXEL_LOG_ERROR("%s ", text);
    std::free(log);
  }
  glDeleteShader(shader);
  return 0;
}

GLuint compileDialect(GLenum type, const char* source) {
  Text text(kVersionLine);
  text.append(source);
  const Text translated = TranslateShader(text.c_str());
  if (text.failed() || translated.failed()) {
    NOXEL_LOG_ERROR("Could not compile shader: no memory for its text");
    return 0;
  }
  return CompileShader(type, translated.c_str());
}

GLuint newProgramName() {
  const GLuint program = glCreateProgram();
  if (program == 0) NOXEL_LOG_ERROR("Could not create program");
  return program;
}

void logLinkFailure(GLuint program) {
  NOXEL_LOG_ERROR("Could not link program");
  GLint length = 0;
  glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
  char* log = length > 0 ? static_cast<char*>(std::malloc(static_cast<size_t>(length))) : nullptr;
  if (log == nullptr) return;
  glGetProgramInfoLog(program, length, nullptr, log);
  NOXEL_LOG_ERROR("Could not link program:\n%s\n", log);
  std::free(log);
}

}  // namespace

Program::Program(const char* fragmentSource, const char* vertexSource, const char* cacheName,
                 const CacheDirectory& directory)
    : cacheReadable(directory.readable) {
  SetCacheDirectory(directory.path);
  initialized = initialize(fragmentSource, vertexSource, cacheName != nullptr ? cacheName : "");
}

Program::~Program() {
  if (id != 0) glDeleteProgram(id);
}

Program::Program(Program&& other) noexcept {
  *this = std::move(other);
}

Program& Program::operator=(Program&& other) noexcept {
  std::swap(initialized, other.initialized);
  std::swap(id, other.id);
  std::swap(cacheDirectory, other.cacheDirectory);
  std::swap(cacheReadable, other.cacheReadable);
  std::swap(locations, other.locations);
  std::swap(locationCount, other.locationCount);
  return *this;
}

void Program::SetCacheDirectory(const char* directory) {
  cacheDirectory = Text(directory);
  if (!cacheDirectory.empty() && directory[cacheDirectory.length() - 1] != '/') cacheDirectory.append("/");
}

int Program::initialize(const char* fragmentSource, const char* vertexSource, const char* cacheName) {
  if (cacheName[0] == '\0') return CreateProgram(fragmentSource, vertexSource);
  Text path = GetCacheDirectory();
  path.append(cacheName);
  if (path.failed()) {
    NOXEL_LOG_ERROR("no memory for the path of program %s: it is not kept", cacheName);
    return CreateProgram(fragmentSource, vertexSource);
  }
  if (cacheReadable && LoadBinary(path.c_str())) return 1;
  if (!CreateProgram(fragmentSource, vertexSource)) return 0;
  SaveBinary(path.c_str());
  return 1;
}

int Program::CreateProgram(const char* fragmentSource, const char* vertexSource) {
  const GLuint vertexShader = compileDialect(GL_VERTEX_SHADER, vertexSource);
  const GLuint fragmentShader = compileDialect(GL_FRAGMENT_SHADER, fragmentSource);
  id = vertexShader != 0 && fragmentShader != 0 ? newProgramName() : 0;
  if (id == 0) {
    glDeleteShader(vertexShader);  // 0 is ignored
    glDeleteShader(fragmentShader);
    return 0;
  }
  glAttachShader(id, vertexShader);
  glAttachShader(id, fragmentShader);
  glLinkProgram(id);
  GLint linked = GL_FALSE;
  glGetProgramiv(id, GL_LINK_STATUS, &linked);
  glDetachShader(id, vertexShader);
  glDetachShader(id, fragmentShader);
  glDeleteShader(vertexShader);
  glDeleteShader(fragmentShader);
  if (linked == GL_TRUE) return 1;
  logLinkFailure(id);
  glDeleteProgram(id);
  id = 0;
  return 0;
}

Text Program::GetCacheDirectory() {
  Text directory;
  if (cacheDirectory.failed()) return static_cast<Text&&>(cacheDirectory);  // not known, which is not the default
  if (!cacheDirectory.empty()) {
    directory.append(cacheDirectory.c_str());
  } else {
    directory.append("/data/data/").append(processName().c_str()).append("/korvane/");
  }
  if (!directory.failed()) ensureDirectory(directory.c_str());
  return directory;
}

int Program::LoadBinary(const char* path) {
  ProgramBinary binary;
  if (!binary.read(path)) return 0;
  id = newProgramName();
  if (id == 0) return 0;
  glProgramBinary(id, binary.format, binary.blob, static_cast<GLsizei>(binary.size));
  GLint linked = GL_FALSE;
  glGetProgramiv(id, GL_LINK_STATUS, &linked);
  if (linked == GL_TRUE) return 1;
  NOXEL_LOG_VERBOSE("glProgramBinary refused what is stored:\n\t%s\n", path);
  // A driver update makes old binaries foreign; what it says about them is no error of ours.
  forgetGLErrors();
  glDeleteProgram(id);
  id = 0;
  return 0;
}

void Program::SaveBinary(const char* path) {
  GLint length = -1;
  glGetProgramiv(id, GL_PROGRAM_BINARY_LENGTH, &length);
  ProgramBinary binary;
  if (length <= 0 || !binary.allocate(static_cast<size_t>(length))) return;
  GLsizei returnedLength = 0;
  GLenum format = 0;
  glGetProgramBinary(id, length, &returnedLength, &format, binary.blob);
  binary.format = format;
  if (returnedLength > 0) (void)binary.write(path);
}

void Program::Use() {
  glUseProgram(id);
}

void Program::draw(int vertexCount) {
  glDrawArrays(GL_TRIANGLE_STRIP, 0, vertexCount);
}

GLint Program::findLocation(const char* name) {
  for (int i = 0; i < locationCount; ++i) {
    // The same literal in two translation units need not have one address.
    if (locations[i].name == name || std::strcmp(locations[i].name, name) == 0) return locations[i].location;
  }
  GLint location = glGetAttribLocation(id, name);
  if (location == -1) location = glGetUniformLocation(id, name);
  if (locationCount < kMaxLocations) locations[locationCount++] = {name, location};
  return location;
}

GLint Program::GetLocation(const char* name) {
  const GLint location = findLocation(name);
  if (location == -1) NOXEL_LOG_ERROR("Could not get attrib location for %s", name);
  return location;
}

bool Program::Has(const char* name) {
  return findLocation(name) != -1;
}

void Program::SetAttribute(const float* data, int components, bool normalized, int stride, const char* name) {
  const GLint location = GetLocation(name);
  if (location == -1) return;
  const auto index = static_cast<GLuint>(location);
  glVertexAttribPointer(index, components, GL_FLOAT, normalized ? GL_TRUE : GL_FALSE, stride, data);
  glEnableVertexAttribArray(index);
}

void Program::SetTexture(int unit, GLuint texture, GLenum target, const char* name) {
  glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(unit));
  glBindTexture(target, texture);
  glUniform1i(GetLocation(name), unit);
}

void Program::SetTexture(int unit, GLuint texture, const char* name) {
  SetTexture(unit, texture, GL_TEXTURE_2D, name);
}

void Program::SetFloat(float value, const char* name) {
  glUniform1f(GetLocation(name), value);
}

void Program::SetVector(const float* values, int count, int components, const char* name) {
  if (components == 2) glUniform2fv(GetLocation(name), count, values);
  if (components == 3) glUniform3fv(GetLocation(name), count, values);
  if (components == 4) glUniform4fv(GetLocation(name), count, values);
}

void Program::SetVector(const float* values, int components, const char* name) {
  SetVector(values, 1, components, name);
}

void Program::SetMatrix(const float* values, int elements, bool transpose, const char* name) {
  const GLboolean transposed = transpose ? GL_TRUE : GL_FALSE;
  if (elements == 4) glUniformMatrix2fv(GetLocation(name), 1, transposed, values);
  if (elements == 9) glUniformMatrix3fv(GetLocation(name), 1, transposed, values);
  if (elements == 16) glUniformMatrix4fv(GetLocation(name), 1, transposed, values);
}

}  // namespace noxel
