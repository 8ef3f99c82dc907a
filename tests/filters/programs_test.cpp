#include "filters/programs.h"

#include <set>

#include "filters/shader_texts.h"
#include "gl/engine/sequences.h"
#include "gl/runtime/shader_dialect.h"
#include "support/gl_fixture.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"

namespace noxel {
namespace {

class FilterPrograms : public GlTest {
 protected:
  static bool keepsBinaries() {
    GLint formats = 0;
    glGetIntegerv(GL_NUM_PROGRAM_BINARY_FORMATS, &formats);
    return formats > 0;
  }
};

TEST_F(FilterPrograms, ABuildSetIsBuiltAndCachedAndNothingElse) {
  std::set<int> all;
  for (int n = 1; n <= 27; ++n) all.insert(n);
  const struct {
    bool syncMode, reducedPrograms;
    std::set<int> programs;  // kr_w<n>
  } kSets[] = {{true, false, {1, 2, 3, 4, 5, 6, 7}},
               {false, true, {1, 8, 14, 15, 17, 18, 20, 21, 22, 23, 24}},
               {false, false, all}};
  for (const auto& set : kSets) {
    SCOPED_TRACE(testing::Message() << set.programs.size() << " programs");
    const TemporaryDirectory cache;
    LowLightFilter filter;
    filter.syncMode = set.syncMode;
    filter.reducedPrograms = set.reducedPrograms;
    {
      const LogCapture log;
      EXPECT_TRUE(filter.setupPrograms(cache.path().c_str()));
      for (const LogLine& line : log.lines()) {
        EXPECT_EQ(line.message.find("Unable to open file"), 0u) << line.message;  // the empty cache's, and nothing else
      }
    }
    std::set<std::string> names;
    for (int id = kr_w1; id <= kr_w27; ++id) {
      EXPECT_EQ(filter.program(static_cast<ProgramId>(id)) != nullptr, set.programs.contains(id + 1)) << id;
      if (set.programs.contains(id + 1)) names.insert("kr_w" + std::to_string(id + 1));
    }
    EXPECT_TRUE(!keepsBinaries() || cache.names() == std::vector<std::string>(names.begin(), names.end()));
    filter.Release();
    EXPECT_EQ(filter.program(kr_w1), nullptr);
  }
}

TEST_F(FilterPrograms, TheOtherFiltersCacheUnderTheirNames) {
  const TemporaryDirectory cache;
  const LogCapture log;
  EXPECT_TRUE(BilateralFilter().setupPrograms(nullptr) && BilateralFilter().setupPrograms(""));
  EXPECT_EQ(log.text(), "") << "a cache that misses says so";
  BilateralFilter bilateral;
  RgbToYuvFilter toYuv;
  YuvToRgbFilter toRgb;
  const char* path = cache.path().c_str();
  EXPECT_TRUE(bilateral.setupPrograms(path) && toYuv.setupPrograms(path) && toRgb.setupPrograms(path));
  std::set<std::string> names = {"kr_bl1", "kr_bl2", "kr_convr1", "kr_convr2", "kr_convr3", "kr_r1", "kr_r2", "kr_r3"};
  const auto areCached = [&] { return cache.names() == std::vector<std::string>(names.begin(), names.end()); };
  EXPECT_TRUE(!keepsBinaries() || areCached());
  // Of the clear picture's ways out an engine has one.
  for (const bool intoWindow : {true, false}) {
    ClearFilter clear;
    EXPECT_TRUE(clear.setupPrograms(intoWindow, path));
    for (int id = clear_split; id < kProgramCount; ++id) {
      const bool packs = id == clear_luma_bytes || id == clear_chroma_bytes;
      const bool wanted = id == clear_show ? intoWindow : !packs || !intoWindow;
      const auto program = static_cast<ProgramId>(id);
      EXPECT_EQ(clear.program(program) != nullptr, wanted) << programTexts(program).name;
      if (wanted) names.insert(programTexts(program).name);
    }
    EXPECT_TRUE(!keepsBinaries() || areCached());
  }
}

// Texts of no build set would otherwise rot unseen.
TEST_F(FilterPrograms, EveryShaderTextCompiles) {
  for (const shaders::ShaderText& shader : shaders::kShaderTexts) {
    const bool vertex = std::string(shader.file).ends_with(".vert");
    const Text text = TranslateShader((std::string("#version 300 es\n") + shader.text).c_str());
    const char* source = text.c_str();
    const GLuint id = glCreateShader(vertex ? GL_VERTEX_SHADER : GL_FRAGMENT_SHADER);
    glShaderSource(id, 1, &source, nullptr);
    glCompileShader(id);
    GLint compiled = GL_FALSE;
    glGetShaderiv(id, GL_COMPILE_STATUS, &compiled);
    char log[1024] = "";
    glGetShaderInfoLog(id, sizeof(log), nullptr, log);
    EXPECT_EQ(compiled, GL_TRUE) << shader.file << ": " << log;
    glDeleteShader(id);
  }
}

// Half floats have 11 bits: what addresses texels must not be kept in them.
TEST(ShaderTexts, CoordinatesOfMediumPrecisionTextsAreHighp) {
  for (const shaders::ShaderText& shader : shaders::kShaderTexts) {
    const std::string text = shader.text;
    EXPECT_EQ(text.find("#version"), std::string::npos) << shader.file;
    if (text.find("precision mediump") == std::string::npos) continue;
    for (size_t at = text.find("\nIN "); at != std::string::npos; at = text.find("\nIN ", at + 1)) {
      EXPECT_EQ(text.compare(at, 10, "\nIN highp "), 0) << shader.file << text.substr(at, 40);
    }
    for (const char* name : {"u_PixelSize", "uPixelSize", "u_step"}) {
      const size_t declared = text.find(std::string(name) + ";");
      const size_t line = text.rfind('\n', declared);
      if (declared != std::string::npos) {
        EXPECT_EQ(text.compare(line, 15, "\nuniform highp "), 0) << shader.file << ": " << name;
      }
    }
  }
}

TEST(ContrastCurve, IsInterpolatedAndClamped) {
  const std::pair<float, float> cases[] = {{-1, 0.5f},     {0, 0.5f},   {10, 0.4269f}, {35, 0.2862f},
                                           {95, 0.10875f}, {100, 0.1f}, {101, 0.1f},   {99.99999f, 0.1f}};
  for (const auto& [contrast, width] : cases) EXPECT_NEAR(contrastCurve(contrast), width, 1e-6);  // float arithmetic
}

}  // namespace
}  // namespace noxel
