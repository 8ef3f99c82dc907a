// Damaged clips of many kinds through everything that `noxel enhance` does but the engine. scripts/mutate-clips makes the clips.
//
//   noxel_clip_mutations FOLDER COUNT [NAME NUMBER]
//
// Each clip of the folder is damaged COUNT times, in a way that its name and the number decide; NAME and NUMBER repeat one. A run
// is to end with a stated exit code and leave a whole file or none; whoever watches for memory errors is the sanitizer. Prints a
// line a clip: how many runs ended with which code.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <new>
#include <random>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "common/tool_error.h"
#include "support/temporary_directory.h"
#include "tools/idle_enhancer.h"

namespace noxel::tool {
namespace {

constexpr unsigned kSecondsAtMost = 120;  // of a run under a sanitizer; longer is a hang
constexpr const char* kOutputs[] = {"out.mkv", "out.mp4", "out.mov", "out.y4m", "out.avi", "out.webm"};

std::string read(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class Damage {
 public:
  Damage(const std::string& name, unsigned number) : random_(seedOf(name, number)) {}

  std::string to(std::string bytes) {
    for (unsigned left = below(3) > 0 ? 1 : 3; left > 0 && !bytes.empty(); --left) once(&bytes);
    return bytes;
  }
  unsigned below(size_t limit) { return static_cast<unsigned>(random_() % limit); }

 private:
  static std::mt19937 seedOf(const std::string& name, unsigned number) {
    std::vector<unsigned> seeds(name.begin(), name.end());
    seeds.push_back(number);
    std::seed_seq sequence(seeds.begin(), seeds.end());
    return std::mt19937(sequence);
  }
  void once(std::string* bytes) {
    // A third of the damage is to headers, which decide more than what they frame.
    const size_t reach = below(3) == 0 ? std::min<size_t>(bytes->size(), 600) : bytes->size();
    const size_t at = below(reach), length = 1 + below(std::min<size_t>(bytes->size() - at, 200));
    const auto place = bytes->begin() + static_cast<ptrdiff_t>(at);
    switch (below(6)) {
      case 0:
        bytes->resize(at);
        break;
      case 1:
        for (unsigned flips = 1 + below(12); flips > 0; --flips)
          (*bytes)[std::min(at + below(64), bytes->size() - 1)] = static_cast<char>(random_());
        break;
      case 2:
        std::fill_n(place, length, below(2) == 0 ? '\0' : '\xff');
        break;
      case 3:
        bytes->erase(at, length);
        break;
      case 4:
        bytes->insert(at, bytes->substr(below(bytes->size()), length));
        break;
      default:
        (*bytes)[at] = static_cast<char>((*bytes)[at] ^ (1 << below(8)));
    }
  }

  std::mt19937 random_;
};

int enhance(const std::string& input, const std::string& output) {
  EnhanceOptions options;
  options.input = input;
  options.output = output;
  options.quiet = true;
  try {
    return runWith<Idle>(options);
  } catch (const ToolError& error) {
    return error.code();
  } catch (const std::bad_alloc&) {  // of a size that the clip claims; as the tool does
    return kExitFailed;
  }
}

[[noreturn]] void fail(const std::string& name, unsigned number, const std::string& reason) {
  std::fprintf(stderr, "%s %u: %s\n", name.c_str(), number, reason.c_str());
  std::exit(1);
}

int runOne(const std::string& bytes, const std::string& name, unsigned number) {
  const TemporaryDirectory folder;
  Damage damage(name, number);
  const std::string input = folder.file(name);
  std::ofstream(input, std::ios::binary) << damage.to(bytes);
  const std::string output = folder.file(kOutputs[damage.below(std::size(kOutputs))]);
  alarm(kSecondsAtMost);
  const int code = enhance(input, output);
  alarm(0);
  if (code != kExitFine && code != kExitFailed && code != kExitUnreadable && code != kExitUsage)
    fail(name, number, "exit code " + std::to_string(code));
  const auto files = std::distance(std::filesystem::directory_iterator(folder.file("")), {});
  if (files != (code == kExitFine ? 2 : 1)) fail(name, number, "left " + std::to_string(files) + " files");
  return code;
}

int run(const std::string& folder, unsigned count) {
  std::vector<std::filesystem::path> clips;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) clips.push_back(entry.path());
  std::sort(clips.begin(), clips.end());
  for (const std::filesystem::path& clip : clips) {
    const std::string bytes = read(clip), name = clip.filename().string();
    std::map<int, unsigned> codes;
    for (unsigned number = 0; number < count; ++number) {
      // The last line names the run that did not come back.
      std::fprintf(stderr, "\r%s %u", name.c_str(), number);
      ++codes[runOne(bytes, name, number)];
    }
    std::printf("\r%-24s", name.c_str());
    for (const auto& [code, runs] : codes) std::printf("  code %d: %5u", code, runs);
    std::printf("\n");
    std::fflush(stdout);
  }
  return clips.empty() ? 1 : 0;
}

}  // namespace
}  // namespace noxel::tool

int main(int argc, char** argv) {
  if (argc != 3 && argc != 5) {
    std::fprintf(stderr, "usage: noxel_clip_mutations FOLDER COUNT [NAME NUMBER]\n");
    return 2;
  }
  av_log_set_level(AV_LOG_QUIET);
  using namespace noxel::tool;
  if (argc == 3) return run(argv[1], static_cast<unsigned>(std::atoi(argv[2])));
  const std::string bytes = read(std::filesystem::path(argv[1]) / argv[3]);
  std::printf("code %d\n", runOne(bytes, argv[3], static_cast<unsigned>(std::atoi(argv[4]))));
  return 0;
}
