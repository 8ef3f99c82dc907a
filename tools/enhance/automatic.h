// What is done to a clip when nobody says how much: chosen from what was found in it.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "findings/findings.h"

namespace noxel::tool {

struct EnhanceOptions;

struct Choice {
  Findings found;
  double lookSeconds = 0;  // wall time
  int strength = 0;
  bool leaveAlone = false;           // frames stay as they came: strength 0, neutral tone
  std::vector<std::string> reasons;  // a line each
};

// Mode 5's strength for noise of this sigma; 0 where there is none.
int strengthFor(double noiseSigma);

// Options that were given win; modes other than 5 keep their own strength.
Choice choose(const Findings& found, const EnhanceOptions& options);
// As it chose.
EnhanceOptions applied(const Choice& choice, const EnhanceOptions& options);

nlohmann::ordered_json jsonOf(const Choice& choice);  // "chosen"
std::string leftAloneNote(bool copied);

// Copies the file of a clip that is left alone, byte by byte, so that nothing is lost. False, and nothing is written: it has to
// be encoded, as an option asks for it or the output's extension is another one.
bool copyLeftAlone(const EnhanceOptions& options);

}  // namespace noxel::tool
