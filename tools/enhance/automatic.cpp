#include "enhance/automatic.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "common/interrupt.h"
#include "common/output_file.h"
#include "common/tool_error.h"
#include "enhance/enhance.h"

namespace noxel::tool {
namespace {

// Options that do not ask for anything to be done to the picture, or to be encoded.
constexpr const char* kUnconcerned[] = {"INPUT",   "--output", "--output-dir", "--suffix",  "--jobs",    "--resume",
                                        "--quiet", "--auto",   "--verbose",    "--explain", "--no-auto", "--overwrite"};
// Those that ask for it to be measured, shown, cut or encoded, whatever is done to it.
constexpr const char* kOfTheOutput[] = {"--stats",       "--report",  "--passes", "--picture",  "--picture-frame",
                                        "--dump-frames", "--compare", "--start",  "--duration", "--overlay",
                                        "--codec",       "--preset",  "--crf",    "--hwaccel"};

template <size_t kCount>
bool isAmong(const char* const (&names)[kCount], const std::string& name) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

// docs/decisions/automatic-strength.md has what was measured. Below 0.3, which is what rounding to 8 bits leaves, there is
// nothing to take out.
struct Band {
  double from;  // noise, levels
  int strength;
};
constexpr Band kBands[] = {{kSensorInTheDark, defaultStrength(NOXEL_MODE_CLEAR)}, {kNoisyFrom, 40}, {0.3, 25}, {0, 0}};

const Band& bandFor(double noiseSigma) {
  return *std::ranges::find_if(kBands, [noiseSigma](const Band& band) { return noiseSigma >= band.from; });
}

std::string bandOf(double noiseSigma) {
  char text[64];
  std::snprintf(text, sizeof(text), ", as from %.1f levels on", bandFor(noiseSigma).from);
  return text;
}

bool given(const EnhanceOptions& options, const char* name) {
  return std::ranges::find(options.given, name) != options.given.end();
}

bool asksForAPicture(const EnhanceOptions& options) {
  return std::ranges::any_of(options.given, [](const std::string& name) {
    return !isAmong(kUnconcerned, name) && !isAmong(kOfTheOutput, name);
  });
}

std::string lined(const char* format, double figure, double threshold) {
  char text[160];
  std::snprintf(text, sizeof(text), format, figure, threshold);
  return text;
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

void copyBytes(const std::string& from, const std::string& to, const std::string& name) {
  const FilePtr in(std::fopen(from.c_str(), "rb"));
  if (!in) throw ToolError(kExitUnreadable, "cannot read " + from + ": " + std::strerror(errno));
  FilePtr out(std::fopen(to.c_str(), "wb"));
  std::vector<char> bytes(1 << 20);
  bool written = out != nullptr;
  while (written) {
    if (stopRequested()) throw stoppedBeforeTheFirstFrame();
    const size_t got = std::fread(bytes.data(), 1, bytes.size(), in.get());
    if (got == 0) break;
    written = std::fwrite(bytes.data(), 1, got, out.get()) == got;
  }
  if (std::ferror(in.get()) != 0) throw ToolError(kExitUnreadable, "reading " + from + " failed");
  if (!written || std::fclose(out.release()) != 0) {
    throw ToolError(kExitFailed, "cannot write " + name + ": " + std::strerror(errno));
  }
}

}  // namespace

int strengthFor(double noiseSigma) {
  return bandFor(noiseSigma).strength;
}

Choice choose(const Findings& found, const EnhanceOptions& options) {
  Choice choice;
  choice.found = found;
  choice.strength = options.look.strength;
  choice.leaveAlone = options.look.mode() == NOXEL_MODE_CLEAR && !asksForAPicture(options) && found.needsNothing();
  std::vector<std::string>& reasons = choice.reasons;

  reasons.push_back(found.dark() ? lined("mean luma %.1f, below %.0f: dark", found.meanLuma, kDarkBelow)
                                 : lined("mean luma %.1f, %.0f or more: not dark", found.meanLuma, kDarkBelow));
  if (options.look.mode() == NOXEL_MODE_CLEAR) {
    const double percent = 100 * (found.meanLuma > 0 ? found.meanToned / found.meanLuma - 1 : 0);
    const char* text = found.toneMatters() ? "the tone raises the mean by %.0f %%, %.0f or more: it is wanted"
                                           : "the tone raises the mean by %.0f %%, less than %.0f: it is not missed";
    reasons.push_back(lined(text, percent, 100 * kToneMattersFrom));
  }
  std::string noise = "noise not known";
  if (found.noiseSigma) {
    noise = found.noisy() ? lined("noise %.2f levels, %.1f or more: noisy", *found.noiseSigma, kNoisyFrom)
                          : lined("noise %.2f levels, below %.1f: hardly any", *found.noiseSigma, kNoisyFrom);
  }
  if (options.look.mode() != NOXEL_MODE_CLEAR) {
    noise += "; mode " + std::to_string(options.look.mode()) + " keeps its strength";
  } else if (given(options, "--strength")) {
    noise += "; strength " + std::to_string(choice.strength) + " was asked for";
  } else if (choice.leaveAlone) {
    choice.strength = 0;
  } else if (found.noiseSigma) {
    choice.strength = strengthFor(*found.noiseSigma);
    noise += "; strength " + std::to_string(choice.strength) + bandOf(*found.noiseSigma);
  } else {
    noise += "; strength " + std::to_string(choice.strength) + ", the usual one";
  }
  reasons.push_back(noise);
  if (found.denoised()) {
    reasons.push_back(
        lined("noise %.2f levels in the dark, below the %.1f that a sensor leaves there: already denoised",
              *found.noiseSigma, kSensorInTheDark));
  }
  if (found.shake) {
    const double limit = found.shakyFrom();
    std::string shake = found.shaky() ? lined("shake %.2f pixels, %.2f or more: shaky", *found.shake, limit)
                                      : lined("shake %.2f pixels, below %.2f: steady", *found.shake, limit);
    if (options.look.stabilize) {
      shake += "; stabilised, as asked for";
    } else if (found.shaky()) {
      shake += "; --stabilize steadies it";
    }
    reasons.push_back(shake);
  }
  if (!found.hdr.empty()) reasons.push_back("HDR, by its tag " + found.hdr + ": tone-mapped to BT.709 SDR");
  if (found.interlaced) reasons.emplace_back("interlaced: deinterlaced, one frame for each");
  if (found.variableRate) {
    reasons.push_back(
        lined("frames of %.0f to %.0f ms: variable rate; each keeps its time", found.shortestMs, found.longestMs));
  }
  if (choice.leaveAlone) reasons.emplace_back("neither dark nor noisy: left as it came");
  return choice;
}

EnhanceOptions applied(const Choice& choice, const EnhanceOptions& options) {
  EnhanceOptions chosen = options;
  chosen.look.strength = choice.strength;
  chosen.look.neutralExposure = options.look.neutralExposure || choice.leaveAlone;
  return chosen;
}

nlohmann::ordered_json jsonOf(const Choice& choice) {
  return {{"strength", choice.strength},
          {"left_alone", choice.leaveAlone},
          {"look_seconds", choice.lookSeconds},
          {"reasons", choice.reasons}};
}

std::string leftAloneNote(bool copied) {
  return std::string("the clip is neither dark nor noisy; ") +
         (copied ? "it is copied as it is" : "its frames are left as they came") +
         " (--no-auto enhances it all the same)";
}

bool copyLeftAlone(const EnhanceOptions& options) {
  namespace fs = std::filesystem;
  const bool onlyTheOutput =
      std::ranges::all_of(options.given, [](const std::string& name) { return isAmong(kUnconcerned, name); });
  if (!onlyTheOutput || options.output == "-") return false;
  if (fs::path(options.input).extension() != fs::path(options.output).extension()) return false;
  PendingFile file(options.output);
  copyBytes(options.input, file.temporaryPath(), options.output);
  file.commit();
  return true;
}

}  // namespace noxel::tool
