#include "report/report.h"

extern "C" {
#include <libavutil/base64.h>
#include <libavutil/display.h>
}

#include <algorithm>
#include <cmath>
#include <limits>
#include <regex>

#include "browser.h"
#include "clips.h"

namespace noxel::tool {
namespace {

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

TEST(Series, StaysBoundedAndLosesNoFrame) {
  Series series({"ramp", "sometimes"});
  constexpr int kFrames = 100'000;  // about an hour
  for (int i = 0; i < kFrames; ++i) series.add(0.04 * i, {double(i % 1000), i < 64'000 ? kUnknown : 5});
  EXPECT_EQ(series.framesPerBin(), 128) << "the first power of two that makes 1000 bins of them";
  const auto json = series.json();
  const size_t bins = (kFrames + 127) / 128;
  for (const char* of : {"mean", "min", "max"}) EXPECT_EQ(json["ramp"][of].size(), bins);
  EXPECT_EQ(json["time"].size(), bins);
  // Frames 896..1023, of which the last 24 begin the ramp anew.
  EXPECT_EQ(json["time"][7], 38.38);
  EXPECT_EQ(json["ramp"]["min"][7], 0);
  EXPECT_EQ(json["ramp"]["max"][7], 999);
  EXPECT_NEAR(json["ramp"]["mean"][7], ((896 + 999) / 2.0 * 104 + 23 / 2.0 * 24) / 128, 1e-3);
  EXPECT_EQ(json["sometimes"]["mean"][499], nullptr);
  EXPECT_EQ(json["sometimes"]["mean"][500], 5);
  EXPECT_EQ(series.all("ramp").count, kFrames);
  EXPECT_DOUBLE_EQ(series.all("ramp").mean(), 499.5);
  EXPECT_EQ(series.all("sometimes").count, 36'000);
}

TEST(Series, EachFrameOfAShortRunIsAPoint) {
  Series series({"level"});
  for (const double level : {3.0, kUnknown, 1.0}) series.add(0, {level});
  EXPECT_EQ(series.json()["level"], nlohmann::ordered_json::parse(R"({"mean": [3, null, 1]})"));
}

// A run of 2500 frames, so that each point stands for four. Of frames 400 to 439 the motion was lost, from 1000 on the
// noise is known.
constexpr int kFrames = 2500, kPoints = 625;

Look stabilized() {
  Look look;
  look.stabilize = true;
  return look;
}

FrameStatistics frameOf(int i) {
  FrameStatistics frame;
  frame.seconds = 0.04 * i;
  frame.lumaBefore = 20 + i % 4;
  frame.lumaAfter = 120;
  frame.noiseSigma = 3;
  frame.totalMs = i == 7 ? 40 : 10;
  frame.report.noise.known = i >= 1000;
  frame.report.status = i == 0 || (i >= 400 && i < 440) ? 0 : 1;
  frame.report.startsSequence = i == 0;
  // A turn by half a degree about the first pixel's corner, which is (32, 24) from the middle.
  const auto sine = static_cast<float>(std::sin(0.5 / 180 * M_PI)),
             cosine = static_cast<float>(std::cos(0.5 / 180 * M_PI));
  const float turn[9] = {cosine, -sine, 0, sine, cosine, 0, 0, 0, 1};
  std::copy_n(turn, 9, frame.report.previousFromCurrent);
  for (int level = 0; level < 256; ++level)
    frame.report.toneLevels[level] = static_cast<float>(std::min(255, 3 * level));
  return frame;
}

// 64 x 48 pixels that are twice as wide as high, displayed turned to the right by 90 degrees.
std::string reportOfARun() {
  DisplayMatrix matrix;
  av_display_rotation_set(matrix.data(), 90);
  Report report(stabilized(), {64, 48, {2, 1}, matrix});
  for (int i = 0; i < kFrames; ++i) {
    const FrameStatistics frame = frameOf(i);
    if (report.wantsPictures(i)) {
      FramePtr before = flatPlanar(64, 48, 40, 128, 128);
      for (int y = 0; y < 24; ++y) std::fill_n(&sample(*before, 0, 0, y), 64, static_cast<uint8_t>(80));
      report.addPictures(i, frame.seconds, *before, *flatPlanar(64, 48, 160, 128, 128));
    }
    report.add(frame);
  }
  report.addNote("</script><img src=x onerror=alert(1)>");
  nlohmann::ordered_json about = {
      {"noxel", "1"},
      {"input", {{"file", "<b>.mp4"}, {"codec", "h264"}, {"width", 64}, {"height", 48}, {"frame_rate", 25}}},
      {"output", {{"file", "out.mp4"}, {"encoder", "libx264"}, {"stopped_early", false}}},
      {"settings", settingsOf(stabilized(), {"--stabilize"})},
      {"found", {{"mean_luma", 21.5}, {"dark", true}}},
      {"chosen", {{"strength", 40}, {"reasons", {"noise of 3 levels"}}}}};
  return report.page(about, {{{"pass", "draw"}, {"ms_mean", 1.5}, {"share", 1}}}, 100);
}

TEST(Report, HoldsFiguresAndPicturesOfTheWholeRun) {
  const auto data = dataOf(reportOfARun());
  EXPECT_EQ(data["run"], nlohmann::json::parse(R"({"frames": 2500, "seconds": 100, "fps": 25, "lost": 40})"));
  EXPECT_EQ(data["frames_per_point"], 4);
  const auto& series = data["series"];
  EXPECT_EQ(series["luma_before"]["mean"][3], 21.5);
  EXPECT_EQ(series["luma_before"]["min"][3], 20);
  EXPECT_EQ(series["luma_before"]["max"][3], 23);
  // A turn by a about a point at a distance of 40 moves by 2 sin(a / 2) of it.
  EXPECT_NEAR(series["motion"]["mean"][99], 2 * 40 * std::sin(0.25 / 180 * M_PI), 2e-3) << "single precision";
  EXPECT_EQ(series["motion"]["mean"][100], nullptr);
  EXPECT_EQ(series["correction"]["mean"][100], 0);
  EXPECT_EQ(series["tone_32"]["mean"][0], 96);
  EXPECT_EQ(data["times"][3]["max"], 40);
  EXPECT_NEAR(data["times"][3]["mean"], 10 + 30.0 / kFrames, 1e-9);

  std::vector<int> frames;
  for (const auto& pictures : data["pictures"]) frames.push_back(pictures["frame"]);
  EXPECT_EQ(frames, (std::vector{0, 512, 1024, 1536, 2048}));
  const auto picture = [&](const char* which) {
    const std::string uri = data["pictures"][4][which], start = "data:image/jpeg;base64,";
    EXPECT_EQ(uri.rfind(start, 0), 0u);
    std::vector<uint8_t> bytes(uri.size());
    bytes.resize(static_cast<size_t>(
        av_base64_decode(bytes.data(), uri.c_str() + start.size(), static_cast<int>(bytes.size()))));
    const TemporaryDirectory folder;
    writeFile(folder.file("picture.jpg"), bytes);
    return VideoReader(folder.file("picture.jpg")).first();
  };
  const FramePtr before = picture("before"), after = picture("after");
  ASSERT_TRUE(before->width == 48 && before->height == 128) << before->width << " x " << before->height;
  // A JPEG of flat halves, 1 level. What was above is at the right.
  EXPECT_NEAR(sample(*before, 0, 8, 64), 40, 1);
  EXPECT_NEAR(sample(*before, 0, 40, 64), 80, 1);
  EXPECT_NEAR(sample(*after, 0, 24, 64), 160, 1);
}

TEST(Report, StaysSmallWhateverThePicturesShow) {
  Report report({}, {960, 540, {0, 1}, std::nullopt});
  const FramePtr noise = flatPlanar(960, 540, 0, 128, 128);
  uint32_t random = 1;
  for (int y = 0; y < 540; ++y) {
    for (int x = 0; x < 960; ++x)
      sample(*noise, 0, x, y) = static_cast<uint8_t>((random = random * 1664525 + 1013904223) >> 24);
  }
  for (int i = 0; i < Report::kMaxPictures; ++i) report.addPictures(i, i, *noise, *noise);
  const std::string page = report.page({}, nlohmann::ordered_json::array(), 1);
  EXPECT_EQ(dataOf(page)["pictures"].size(), 6u);
  EXPECT_LT(page.size(), 3'000'000u);
}

// How often the pattern is in the text.
int64_t countOf(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  return std::distance(std::sregex_iterator(text.begin(), text.end(), regex), {});
}

// The attribute of the first element whose tag matches.
std::string attribute(const std::string& page, const std::string& tag, const std::string& name) {
  std::smatch found;
  if (!std::regex_search(page, found, std::regex("<" + tag + "[^>]*>"))) return "no " + tag;
  const std::string element = found.str();
  return std::regex_search(element, found, std::regex(" " + name + "=\"([^\"]*)\"")) ? found[1].str() : "none";
}

class ReportPage : public testing::Test {
 protected:
  // The elements without the long texts of data and pictures.
  OpenedPage open(const std::string& page) {
    writeFile(folder_.file("report.html"), page);
    OpenedPage opened = openPage(folder_.file("report.html"));
    const size_t from = opened.elements.find("<script type=\"application/json\"");
    opened.elements = opened.elements.substr(0, from);
    for (size_t at = 0; (at = opened.elements.find("base64,", at)) != std::string::npos; at += 7) {
      opened.elements.erase(at + 7, opened.elements.find('"', at) - at - 7);
    }
    return opened;
  }

  const TemporaryDirectory folder_;
  const std::string page_ = reportOfARun();
};

TEST_F(ReportPage, ShowsPicturesPlotsAndTablesInABrowser) {
  NEEDS_BROWSER();
  const OpenedPage opened = open(page_);
  const std::string& elements = opened.elements;
  EXPECT_FALSE(opened.complains()) << opened.console;
  for (const char* which : {"before", "after"}) {
    const std::string image = std::string("img id=\"") + which + "\"";
    // Written when the picture was loaded, from its natural size.
    EXPECT_EQ(attribute(elements, image, "width"), "48");
    EXPECT_EQ(attribute(elements, image, "height"), "128");
    EXPECT_NE(attribute(elements, image, "alt"), "");
  }
  EXPECT_EQ(attribute(elements, "input type=\"range\"", "max"), "100");
  EXPECT_EQ(countOf(elements, "<button "), 5) << "one for each frame";

  // A command for each point that is known, each run of them begun by an M.
  const auto points = [&](const std::string& key) {
    const std::string path = attribute(elements, "path class=\"curve\" data-key=\"" + key + "\"", "d");
    return std::pair(countOf(path, "[ML]"), countOf(path, "M"));
  };
  for (const char* whole : {"luma_before", "luma_after", "correction", "tone_16", "tone_32", "tone_64", "tone_128"}) {
    EXPECT_EQ(points(whole), std::pair(int64_t{kPoints}, int64_t{1})) << whole;
  }
  EXPECT_EQ(points("motion"), std::pair(int64_t{kPoints - 10}, int64_t{2}));
  EXPECT_EQ(points("noise"), std::pair(int64_t{kPoints - 250}, int64_t{1}));
  EXPECT_EQ(countOf(elements, "class=\"band\""), 9);
  EXPECT_EQ(countOf(elements, "<svg role=\"img\" tabindex=\"0\" aria-label=\"[^\"]+ on average"), 4);

  for (const char* text : {"&lt;b&gt;.mp4", "Each point stands for 4 frames", "<td>asked for</td>", "<td>chosen</td>",
                           "<td>mean luma</td><td>21.5</td>", "noise of 3 levels", "drawing and read-back",
                           "25.0 a second", "&lt;/script&gt;&lt;img src=x", "The motion into 40 of 2500 frames"}) {
    EXPECT_NE(elements.find(text), std::string::npos) << text;
  }
}

TEST_F(ReportPage, FollowsTheKeyboardAndReachesNoNetwork) {
  NEEDS_BROWSER();
  // What a page would load by itself is refused by its policy and told on the console: so the page above loaded
  // nothing.
  EXPECT_EQ(countOf(page_, "https?://(?!www.w3.org/2000/svg')"), 0);
  const OpenedPage opened = open(page_ + R"(<img src="http://127.0.0.1:9/x"><script>
    const slider = document.getElementById('slider');
    slider.value = 20;
    slider.dispatchEvent(new Event('input'));
    document.querySelector('#choice button:last-child').click();
    const plot = document.querySelector('#luma svg');
    for (const key of ['End', 'ArrowLeft']) plot.dispatchEvent(new KeyboardEvent('keydown', {key}));
  </script>)");
  EXPECT_TRUE(opened.complains()) << "of the policy";
  EXPECT_NE(opened.console.find("Content Security Policy"), std::string::npos) << opened.console;
  EXPECT_EQ(attribute(opened.elements, "div class=\"stage\"", "style").rfind("--at: 20%", 0), 0u);
  EXPECT_EQ(attribute(opened.elements, "img id=\"after\"", "alt"), "Frame 2048, enhanced");
  // Frames 2492 to 2495.
  EXPECT_NE(opened.elements.find("99.74 s:  before 22 (20 to 23),  after 120"), std::string::npos);
}

}  // namespace
}  // namespace noxel::tool
