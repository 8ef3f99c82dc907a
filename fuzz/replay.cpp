// Runs a fuzz target over the files of the folders it is given, where no fuzzer drives it.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <vector>

#include "fuzz_input.h"

int main(int argc, char** argv) {
  std::set<std::filesystem::path> files;  // in one order everywhere
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      if (entry.is_regular_file()) files.insert(entry.path());
    }
  }
  if (files.empty()) {
    std::fprintf(stderr, "no inputs to replay\n");
    return 1;
  }
  for (const std::filesystem::path& file : files) {
    std::printf("%s\n", file.filename().c_str());
    std::fflush(stdout);  // the last line names the input that ended the run
    std::ifstream stream(file, std::ios::binary);
    if (!stream) return 1;
    const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
    const auto exact = std::make_unique<uint8_t[]>(bytes.size());  // an address sanitizer notices a byte beyond it
    if (!bytes.empty()) std::memcpy(exact.get(), bytes.data(), bytes.size());
    LLVMFuzzerTestOneInput(exact.get(), bytes.size());
  }
  return 0;
}
