#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "gl/runtime/gl_filter.h"
#include "gl/runtime/program.h"
#include "gl/runtime/program_cache.h"
#include "gl/runtime/shader_dialect.h"
#include "support/gl_fixture.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"

namespace noxel {
namespace {

namespace fs = std::filesystem;

constexpr char kVertex[] =
    "ATTR vec2 a_Position;\nOUT highp vec2 v_TexCoord;\n"
    "void main() { gl_Position = vec4(a_Position, 0.0, 1.0); v_TexCoord = (a_Position + 1.0) * 0.5; }\n";
constexpr char kFragment[] =
    "precision highp float;\nFRAGC\nuniform vec4 u_Colour;\nuniform float u_Gain;\nuniform mat2 u_Matrix;\n"
    "IN highp vec2 v_TexCoord;\n"
    "void main() { vFragColor = u_Colour * u_Gain + vec4(u_Matrix * v_TexCoord, 0.0, 0.0); }\n";

void drawSquare(Program& program) {
  program.SetAttribute(gSquareVertices, 2, false, 0, "a_Position");
  program.draw(4);
}

TEST(ShaderDialect, TranslatesEveryKeyEverywhereAndOnce) {
  EXPECT_STREQ(TranslateShader("ATTR vec2 a_Position;\nOUT vec2 v_texCoord;").c_str(),
               "in vec2 a_Position;\nout vec2 v_texCoord;");
  EXPECT_STREQ(
      TranslateShader("IN vec2 v;\nFRAGC\nvoid main() { vFragColor = TEXTURE(s, v) + TEXTURE(t, v); }").c_str(),
      "in vec2 v;\nout mediump vec4 vxFragColor;\n\nvoid main() { vxFragColor = texture(s, v) + texture(t, v); }");
  EXPECT_STREQ(TranslateShader("MINIMUM ROUTE").c_str(), "MinIMUM RoutE");
  EXPECT_STREQ(TranslateShader("").c_str(), "");
  for (const char* text : {kVertex, kFragment, "ATTR IN OUT TEXTURE FRAGC vFragColor vxFragColor"}) {
    const Text once = TranslateShader(text);
    EXPECT_STREQ(TranslateShader(once.c_str()).c_str(), once.c_str());
  }
}

class Programs : public GlTest {};

TEST_F(Programs, SettersReachTheShader) {
  Program program(kFragment, kVertex);
  ASSERT_EQ(program.initialized, 1);
  TestTarget target(2, 1);
  target.Bind();
  program.Use();
  const float colour[4] = {0.2f, 0.4f, 0.6f, 1.0f};
  const float matrix[4] = {0.8f, 0.0f, 0.0f, 0.0f};
  program.SetVector(colour, 4, "u_Colour");
  program.SetFloat(0.5f, "u_Gain");
  program.SetMatrix(matrix, 4, false, "u_Matrix");
  drawSquare(program);
  Picture actual = target.read();
  // Red: 0.2 * 0.5 + 0.8 * (0.25 or 0.75).
  EXPECT_NEAR(actual.at(0, 0, 0), 0.3 * 255, 1);
  EXPECT_NEAR(actual.at(1, 0, 0), 0.7 * 255, 1);
  EXPECT_NEAR(actual.at(0, 0, 1), 0.2 * 255, 1);

  // Sizes that no GL call takes leave the values alone, and without a log line: the name is not even looked up.
  const LogCapture log;
  const float other[16] = {};
  program.SetMatrix(other, 6, false, "u_Matrix");
  program.SetVector(other, 1, "u_Colour");
  program.SetVector(other, 5, "u_Nowhere");
  drawSquare(program);
  EXPECT_EQ(target.read().rgba, actual.rgba);
  EXPECT_EQ(log.text(), "");

  EXPECT_EQ(program.GetLocation("u_Nowhere"), -1);
  program.SetAttribute(other, 2, false, 0, "a_Nowhere");
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_TRUE(log.contains("Could not get attrib location for u_Nowhere"));
}

TEST_F(Programs, ABrokenTextIsLoggedAndLeavesNoProgram) {
  const LogCapture log;
  const Program syntax("FRAGC\nvoid main() { vFragColor = nonsense; }", kVertex);
  EXPECT_EQ(syntax.initialized, 0);
  EXPECT_EQ(syntax.id, 0u);
  EXPECT_TRUE(log.contains("Could not compile shader " + std::to_string(GL_FRAGMENT_SHADER) + ":\n"));
  EXPECT_TRUE(log.contains("#version 300 es\nout mediump vec4 vxFragColor;\n")) << "the translated text follows";

  const Program interface(
      "precision highp float;\nFRAGC\nIN vec3 v_TexCoord;\nvoid main() { vFragColor = vec4(v_TexCoord, 1.0); }",
      kVertex);
  EXPECT_EQ(interface.initialized, 0);
  EXPECT_EQ(interface.id, 0u);
  EXPECT_TRUE(log.contains("Could not link program"));
}

void store(const std::string& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

// Every bad cache file is a miss: the program links all the same, and a good file replaces it.
class ProgramCache : public GlTest {
 protected:
  void SetUp() override {
    GlTest::SetUp();
    if (egl == nullptr) return;
    GLint formats = 0;
    glGetIntegerv(GL_NUM_PROGRAM_BINARY_FORMATS, &formats);
    EXPECT_TRUE(links());
    if (formats == 0) {
      EXPECT_TRUE(fs::is_empty(cache.path()));
      GTEST_SKIP() << "this driver keeps no program binaries";
    }
    good = content();
    ASSERT_GT(good.size(), 12u);
  }

  bool links() {
    const Program program(kFragment, kVertex, "kr_test", cache.path().c_str());
    return program.initialized == 1 && program.id != 0;
  }

  std::string content() const {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  const LogCapture quiet;
  const TemporaryDirectory cache;
  const std::string path = cache.path() + "/kr_test";
  std::string good;
};

// Of the blob behind the three words.
uint32_t checksum(const std::string& file) {
  uint32_t sum = 0;
  for (size_t i = 12; i < file.size(); ++i) sum += static_cast<unsigned char>(file[i]);
  return sum;
}

TEST_F(ProgramCache, WritesChecksumVersionAndFormat) {
  uint32_t words[3] = {};
  std::memcpy(words, good.data(), sizeof(words));
  EXPECT_EQ(words[0], checksum(good));
  EXPECT_EQ(words[1], 10u);
  GLint formats[64] = {};
  glGetIntegerv(GL_PROGRAM_BINARY_FORMATS, formats);
  EXPECT_EQ(words[2], static_cast<uint32_t>(formats[0]));
  EXPECT_EQ(std::distance(fs::directory_iterator(cache.path()), {}), 1) << "no temporary file stays behind";
}

TEST_F(ProgramCache, LoadsWhatItStored) {
  for (const std::string& directory : {cache.path(), cache.path() + "/"}) {
    TestTarget target(1, 1);
    target.Bind();
    // Broken texts: only the stored binary can make this program.
    Program loaded("broken", "broken", "kr_test", directory.c_str());
    loaded.Use();
    const float colour[4] = {1, 0.2f, 0, 1};
    loaded.SetVector(colour, 4, "u_Colour");
    loaded.SetFloat(1, "u_Gain");
    drawSquare(loaded);
    EXPECT_EQ(target.read().rgba, (std::vector<uint8_t>{255, 51, 0, 255}));
  }
}

TEST_F(ProgramCache, RewritesWhatIsNoCacheFile) {
  std::string foreign = good;  // a valid file whose blob the driver has to refuse
  foreign[20] = static_cast<char>(foreign[20] ^ 0x10);
  const uint32_t sum = checksum(foreign);
  std::memcpy(foreign.data(), &sum, 4);

  std::vector<std::string> bad = {foreign, good.substr(0, good.size() - 1), good + "x"};
  for (const size_t at : {size_t{0}, size_t{4}, good.size() - 1}) {  // the checksum, the version, the blob
    bad.push_back(good);
    bad.back()[at] = static_cast<char>(good[at] ^ 1);
  }
  for (size_t size = 0; size <= 13; ++size) bad.push_back(good.substr(0, size));
  for (const std::string& bytes : bad) {
    store(path, bytes);
    ProgramBinary binary;
    EXPECT_EQ(binary.read(path.c_str()), bytes == foreign) << bytes.size() << " bytes";
    EXPECT_TRUE(links());
    EXPECT_EQ(content(), good) << bytes.size() << " bytes";
  }
}

TEST_F(ProgramCache, WhatIsNoFileIsLeftAlone) {
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_TRUE(links());
  EXPECT_TRUE(fs::is_directory(path));
  fs::remove(path);

  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);  // opening one for reading waits for a writer: this must return
  EXPECT_TRUE(links());
  EXPECT_EQ(std::distance(fs::directory_iterator(cache.path()), {}), 1) << "no temporary file stays behind";
}

TEST(ProgramCacheDirectory, ServesTheBuildThatFilledItAndNoOther) {
  const LogCapture log;
  // What a process left that was killed at any moment: no fingerprint, half of one, that of another build, with and without
  // programs; last, a cache that is whole.
  for (const char* found : {"", "ne", "old", "newer", "new"}) {
    SCOPED_TRACE(found);
    const TemporaryDirectory cache;
    const std::string fingerprint = cache.file("fingerprint");
    if (found[0] != '\0') store(fingerprint, found);
    store(cache.file("kr_w1"), "a program");
    store(cache.file("clear_blend"), "a program");
    store(cache.file("kr_w2.Xa3b5c"), "half a program");
    store(cache.file("notes"), "of somebody else");
    fs::create_directory(cache.file("kr_directory"));

    const bool own = std::string(found) == "new";
    EXPECT_EQ(openProgramCache(cache.path().c_str(), "new").readable, own);
    std::vector<std::string> left = {"fingerprint", "kr_directory", "notes"};
    if (own) left = {"clear_blend", "fingerprint", "kr_directory", "kr_w1", "kr_w2.Xa3b5c", "notes"};
    EXPECT_EQ(cache.names(), left);
    EXPECT_TRUE(openProgramCache((cache.path() + "/").c_str(), "new").readable);
  }
  EXPECT_EQ(log.text(), "");
}

TEST(ProgramCacheDirectory, BelongsToOneBuildAtATime) {
  const TemporaryDirectory cache;
  const std::string path = cache.path();
  {
    const CacheDirectory first = openProgramCache(path.c_str(), "first");
    store(cache.file("kr_w1"), "a program of the first");
    const CacheDirectory sibling = openProgramCache(path.c_str(), "first");
    EXPECT_TRUE(sibling.readable);
    EXPECT_STREQ(sibling.path, path.c_str());
    EXPECT_STREQ(openProgramCache(path.c_str(), "second").path, "") << "the first still reads and writes programs";
    EXPECT_EQ(cache.names(), (std::vector<std::string>{"fingerprint", "kr_w1"}));
  }
  EXPECT_STREQ(openProgramCache(path.c_str(), "second").path, path.c_str());
  EXPECT_EQ(cache.names(), std::vector<std::string>{"fingerprint"});
}

TEST(ProgramCacheDirectory, ThatCannotBeWrittenIsToldOnceAndNotUsed) {
  const TemporaryDirectory cache;
  store(cache.file("file"), "");
  fs::create_directories(cache.file("taken") + "/fingerprint/of");  // cannot be replaced by a file
  for (const char* name : {"file", "file/below", "missing/below", "taken"}) {
    const LogCapture log;
    EXPECT_STREQ(openProgramCache(cache.file(name).c_str(), "new").path, "") << name;
    ASSERT_EQ(log.lines().size(), 1u) << log.text();
    EXPECT_TRUE(log.contains("the program cache cannot be written")) << log.text();
  }
}

TEST_F(ProgramCache, IsNotOpenedWhereItHoldsNothingOfThisBuild) {
  CacheDirectory foreign(cache.path().c_str());
  foreign.readable = false;
  store(path, "what another build left");
  const LogCapture log;
  const Program program(kFragment, kVertex, "kr_test", foreign);
  EXPECT_EQ(program.initialized, 1);
  EXPECT_EQ(content(), good);
  EXPECT_EQ(log.text(), "");
  const Program broken("broken", "broken", "kr_test", foreign);
  EXPECT_EQ(broken.initialized, 0);
}

TEST_F(ProgramCache, MakesTheLastDirectoryOfItsPathPrivately) {
  const std::string directory = cache.path() + "/one";
  const Program made(kFragment, kVertex, "kr_test", directory.c_str());
  EXPECT_TRUE(fs::exists(directory + "/kr_test"));
  struct stat status = {};
  ASSERT_EQ(stat(directory.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);

  const std::string tooDeep = cache.path() + "/two/three";
  const Program unkept(kFragment, kVertex, "kr_test", tooDeep.c_str());
  EXPECT_EQ(unkept.initialized, 1);
  EXPECT_FALSE(fs::exists(cache.path() + "/two"));
}

TEST_F(ProgramCache, WithoutANameNothingIsKept) {
  fs::remove(path);
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(Program(kFragment, kVertex, name, cache.path().c_str()).initialized, 1);
  }
  EXPECT_TRUE(fs::is_empty(cache.path()));
}

class Textures : public GlTest {};

// What a shader's `sample` makes of it.
Picture drawn(GLuint texture, int width, int height, GLenum kind = GL_TEXTURE_2D, const char* sampler = "sampler2D",
              const char* sample = "v_TexCoord") {
  TestTarget target(width, height);
  Program copy(
      (std::string("precision highp float;\nFRAGC\nuniform highp ") + sampler +
       " s_Texture;\nIN highp vec2 v_TexCoord;\nvoid main() { vFragColor = TEXTURE(s_Texture, " + sample + "); }\n")
          .c_str(),
      kVertex);
  target.Bind();
  copy.Use();
  copy.SetTexture(0, texture, kind, "s_Texture");
  drawSquare(copy);
  return target.read();
}

TEST_F(Textures, RowsOfAnyLengthArriveUnpadded) {
  Texture fresh;
  EXPECT_EQ(fresh.GetId(), ~0u);
  for (const int width : {1, 3, 5, 8}) {
    std::vector<uint8_t> bytes(static_cast<size_t>(width * 3));
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(10 * i + 5);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);  // what GL starts with
    const TestTexture initialised(width, 3, GL_LUMINANCE, bytes, GL_NEAREST);
    Texture loaded;
    loaded.Init(width, 3, GL_LUMINANCE, GL_NEAREST);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    loaded.Load(bytes.data());
    for (const GLuint id : {initialised.GetId(), loaded.GetId()}) {
      const Picture picture = drawn(id, width, 3);
      for (size_t i = 0; i < bytes.size(); ++i) EXPECT_EQ(picture.rgba[4 * i], bytes[i]) << width << ", " << i;
    }
  }
}

TEST_F(Textures, ARectangleIsLoadedWhereItBelongs) {
  Picture picture(4, 3);
  TestTexture texture(picture, GL_NEAREST);
  const std::vector<uint8_t> white(2 * 1 * 4, 255);
  texture.Load(white.data(), 1, 2, 2, 1);
  for (int x : {1, 2}) {
    for (int c = 0; c < 4; ++c) picture.at(x, 2, c) = 255;
  }
  EXPECT_TRUE(closeTo(drawn(texture.GetId(), 4, 3), picture, 0));
}

TEST_F(Textures, VolumesLoadEverySlice) {
  Texture volume;
  volume.Init3D(2, 2, 2, GL_RGBA, GL_NEAREST);
  EXPECT_EQ(volume.is3D, 1);
  std::vector<uint8_t> texels(2 * 2 * 2 * 4, 200);
  std::fill(texels.begin(), texels.begin() + 16, static_cast<uint8_t>(100));
  volume.Load(texels.data());
  const Picture slices = drawn(volume.GetId(), 2, 1, GL_TEXTURE_3D, "sampler3D", "v_TexCoord.xyx");
  EXPECT_EQ(slices.at(0, 0, 2), 100);
  EXPECT_EQ(slices.at(1, 0, 2), 200);
}

class FrameBuffers : public GlTest {};

TEST_F(FrameBuffers, LiveThroughInitAgainReleaseAndInvalidateAndSayWhatIsMissing) {
  FrameBuffer image;
  EXPECT_EQ(image.Init(8, 6, GL_RGBA), 1);
  const GLuint name = image.GetFramebufferId();
  EXPECT_EQ(image.Init(5, 3, GL_RGBA), 1);
  EXPECT_EQ(image.GetFramebufferId(), name);
  EXPECT_EQ(image.GetWidth(), 5);
  GLint viewport[4] = {};
  glViewport(1, 2, 3, 4);
  image.Bind();
  glGetIntegerv(GL_VIEWPORT, viewport);
  EXPECT_EQ(viewport[2], 5);
  EXPECT_EQ(viewport[3], 3);
  EXPECT_TRUE(image.CheckStatus("image"));

  image.Release(egl);
  EXPECT_FALSE(glIsFramebuffer(name));
  EXPECT_EQ(image.GetFramebufferId(), ~0u);
  EXPECT_EQ(image.GetWidth(), 0);

  EXPECT_EQ(image.UseDefaultFramebuffer(7, 7), 1);
  EXPECT_EQ(image.GetFramebufferId(), 0u);
  EXPECT_EQ(image.Invalidate(), 1);
  image.Release(egl);  // of an empty object: nothing to delete

  const LogCapture log;
  GLuint empty = 0;
  glGenFramebuffers(1, &empty);
  glBindFramebuffer(GL_FRAMEBUFFER, empty);
  EXPECT_FALSE(image.CheckStatus("empty"));
  EXPECT_TRUE(log.contains("Framebuffer: empty is INCOMPLETE: missing attachment, 8cd7"));
  glDeleteFramebuffers(1, &empty);
}

TEST_F(FrameBuffers, ReadBackDeliversTheOldestFrameWrittenSinceTheRestart) {
  constexpr int kWidth = 3, kHeight = 2;  // rows of 12 bytes
  for (const int count : {-1, 0, 1, 2, 3, 5}) {
    for (const int mode : {0, 1}) {
      SCOPED_TRACE(testing::Message() << count << " buffers, mode " << mode);
      const int buffers = std::min(count, 3);
      TestTarget target(kWidth, kHeight);
      EXPECT_EQ(target.InitPixelBuffers(kWidth * kHeight * 4, count), 1);
      EXPECT_EQ(target.packBufferCount, buffers);
      int frame = 0;
      for (const int framesUntilRestart : {1, 2, 7, 4}) {
        const int first = frame + 1;
        target.RestartReadBack();
        for (int i = 0; i < framesUntilRestart; ++i) {
          ++frame;
          target.Bind();
          glClearColor(static_cast<float>(frame) / 255, 0, 0, 1);
          glClear(GL_COLOR_BUFFER_BIT);
          std::vector<unsigned char> bytes(kWidth * kHeight * 4, 99);
          EXPECT_EQ(target.ReadPixelsAsync(bytes.data(), mode), buffers > 0);
          const int oldest = std::max(first, frame - (buffers - 1));
          EXPECT_EQ(bytes.front(), buffers <= 0 ? 99 : mode == 1 ? frame : oldest) << "frame " << frame;
          EXPECT_EQ(bytes.back(), buffers > 0 ? 255 : 99);

          EXPECT_EQ(target.FinishReadPixels(bytes.data()), buffers > 0);
          const auto* mapped = static_cast<const unsigned char*>(target.MapReadPixels());
          ASSERT_EQ(mapped != nullptr, buffers > 0);
          if (buffers <= 0) continue;
          EXPECT_EQ(bytes.front(), oldest) << "frame " << frame;
          EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), mapped));
          glUnmapBuffer(GL_PIXEL_PACK_BUFFER);
          glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
        }
      }
    }
  }
}

class Engines : public GlTest {};

TEST_F(Engines, ReleaseLetsGoOfItsOwnContextAlone) {
  EGLEngine never;
  EXPECT_EQ(never.Release(), 1);
  EXPECT_EQ(eglGetCurrentContext(), egl->context);

  EGLEngine second;
  {
    const LogCapture quiet;
    ASSERT_EQ(second.Initialize(64, 64), 1);
  }
  EXPECT_EQ(second.Release(), 1);
  EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
  ASSERT_EQ(egl->MakeCurrent(egl->surface, egl->surface), EGL_SUCCESS);
}

TEST_F(Engines, ExtensionsAreMatchedAsWholeWords) {
  const char* all = reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS));
  ASSERT_NE(all, nullptr);
  const std::string first(all, std::strcspn(all, " "));
  EXPECT_EQ(egl->HasGLExtension(first.c_str()), 1);
  EXPECT_EQ(egl->HasGLExtension(first.substr(0, first.size() - 1).c_str()), 0);
  EXPECT_EQ(egl->HasGLExtension((first + "x").c_str()), 0);
  EXPECT_EQ(egl->HasGLExtension(""), 0);
}

TEST_F(Engines, MissingEntryPointsAnswerNothing) {
  EGLEngine bare;
  int attributes[] = {EGL_NONE};
  EXPECT_EQ(bare.CreateImage(0, nullptr, attributes), nullptr);
  EXPECT_EQ(bare.DestroyImage(&bare), 0);
  EXPECT_EQ(bare.CreateSync(0, attributes), nullptr);
  EXPECT_EQ(bare.ClientWaitSync(nullptr, 0, 0), 0);
  EXPECT_EQ(bare.DestroySync(nullptr), 0);
  EXPECT_EQ(bare.SetPresentationTime(nullptr, 0), 0);
  EXPECT_EQ(egl->DestroyImage(nullptr), 0);
}

}  // namespace
}  // namespace noxel
