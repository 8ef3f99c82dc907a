// The code in the documents is that of the examples, which are built and run.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::filesystem::path kSource = NOXEL_SOURCE_FOLDER;

std::vector<std::string> linesOf(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

// Without the white space before the first word: a block in a document starts at the margin.
std::string trimmed(const std::string& line) {
  const size_t start = line.find_first_not_of(' ');
  return start == std::string::npos ? "" : line.substr(start);
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text = "\n";
  for (const std::string& line : lines) text += trimmed(line) + "\n";
  return text;
}

// Fenced blocks of a language, each as its trimmed lines.
std::vector<std::string> blocksOf(const std::vector<std::string>& document, const std::string& language) {
  std::vector<std::string> blocks;
  std::vector<std::string> block;
  bool inside = false;
  for (const std::string& line : document) {
    if (line.starts_with("```") && inside) {
      blocks.push_back(joined(block));
      inside = false;
    } else if (inside) {
      block.push_back(line);
    } else if (line == "```" + language) {
      inside = true;
      block.clear();
    }
  }
  return blocks;
}

std::string examplesOf(const std::string& extension) {
  std::string text;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(kSource / "examples")) {
    if (entry.path().extension() == extension) text += joined(linesOf(entry.path()));
  }
  return text;
}

TEST(Snippets, AreLinesOfTheExamples) {
  int checked = 0;
  for (const char* document : {"README.md", "docs/integrating.md"}) {
    const std::vector<std::string> lines = linesOf(kSource / document);
    for (const auto& [language, extension] : {std::pair{"c", ".c"}, {"cpp", ".cpp"}, {"python", ".py"}}) {
      const std::string examples = examplesOf(extension);
      for (const std::string& block : blocksOf(lines, language)) {
        if (block.find("Noxel_ProcessFrame") != std::string::npos) continue;  // of the other library
        EXPECT_NE(examples.find(block), std::string::npos) << document << " has code of no example:" << block;
        ++checked;
      }
    }
  }
  EXPECT_GE(checked, 4);  // README's, and one of each language in docs/integrating.md
}

}  // namespace
