// The page of `noxel enhance --report`: what a run did, to be looked at in a browser.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "enhance/look.h"
#include "enhance/statistics.h"
#include "media/av_types.h"
#include "media/video_reader.h"
#include "report/series.h"

namespace noxel::tool {

// Collects while the run goes on; needs a few MB, however long that takes. One thread.
class Report {
 public:
  static constexpr int kMaxPictures = 6;

  // How the frames are to be shown. `width`, `height`: as they are coded.
  struct Shape {
    int width;
    int height;
    AVRational sampleAspectRatio;
    std::optional<DisplayMatrix> matrix;
  };
  Report(const Look& look, const Shape& shape);

  // Frames at doubling distances are kept: asked for each frame in turn, from 0.
  bool wantsPictures(int64_t frame) const { return frame % pictureStep_ == 0; }
  // Planar, in the engine's colours, of the coded size.
  void addPictures(int64_t frame, double seconds, const AVFrame& before, const AVFrame& after);
  void add(const FrameStatistics& frame);
  void addNote(const std::string& text);

  // `about`: "noxel", "input", "output" and "settings", and where the tool looked at the clip beforehand "found" and
  // "chosen". `passes`: as PassTimes::json(). `seconds`: wall-clock time.
  std::string page(nlohmann::ordered_json about, nlohmann::ordered_json passes, double seconds) const;

 private:
  struct Pictures {
    int64_t frame;
    double seconds;
    std::string before;  // as a data URI
    std::string after;
  };
  std::vector<uint8_t> encoded(const AVFrame& planar) const;
  std::string dataUri(const AVFrame& planar) const;

  const Look look_;
  const Shape shape_;
  Series series_;
  Spread motionMs_, uploadMs_, gpuMs_, totalMs_;
  int64_t frames_ = 0;
  int64_t lost_ = 0;
  int64_t pictureStep_ = 1;
  std::vector<Pictures> pictures_;
  std::vector<std::string> notes_;
};

// A row of the page's settings. `given`: on the command line.
nlohmann::ordered_json settingsOf(const Look& look, const std::vector<std::string>& given);

}  // namespace noxel::tool
