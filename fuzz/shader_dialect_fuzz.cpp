// Shader texts: the translation equals that of a single pass, is terminated, and is idempotent.
#include <string>

#include "fuzz_input.h"
#include "gl/runtime/shader_dialect.h"

namespace {

struct Word {
  const char* neutral;
  const char* glsl;
};

constexpr Word kWords[] = {{"ATTR", "in"},
                           {"IN", "in"},
                           {"OUT", "out"},
                           {"TEXTURE", "texture"},
                           {"vFragColor", "vxFragColor"},
                           {"FRAGC", "out mediump vec4 vxFragColor;\n"}};

// Max growth of one word: five characters to thirty.
constexpr size_t kMaxGrowth = 6;

// The text translated once from left to right. The library replaces one word after the other: both agree, as no
// replacement creates a word, and of two overlapping words (OUTEXTURE) the first is also replaced first.
std::string translatedInOnePass(const std::string& text) {
  std::string result;
  for (size_t at = 0; at < text.size();) {
    const Word* found = nullptr;
    for (const Word& word : kWords) {
      if (text.compare(at, std::strlen(word.neutral), word.neutral) == 0) found = &word;
    }
    if (found != nullptr) {
      result += found->glsl;
      at += std::strlen(found->neutral);
    } else {
      result += text[at++];
    }
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();  // up to the first NUL
  const noxel::Text once = noxel::TranslateShader(text.c_str());
  FUZZ_CHECK(!once.failed() && once.length() == std::strlen(once.c_str()));
  FUZZ_CHECK(once.length() <= kMaxGrowth * text.size());
  FUZZ_CHECK(translatedInOnePass(text) == once.c_str());
  for (const Word& word : kWords) FUZZ_CHECK(std::strstr(once.c_str(), word.neutral) == nullptr);

  const noxel::Text twice = noxel::TranslateShader(once.c_str());
  FUZZ_CHECK(std::strcmp(once.c_str(), twice.c_str()) == 0);
  return 0;
}
