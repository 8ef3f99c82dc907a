#include "analyze/analysis_plot.h"

#include <cairo.h>

extern "C" {
#include <libavutil/avstring.h>
}

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <numeric>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

constexpr uint32_t kText = 0x202428;
constexpr uint32_t kGrid = 0xe4e7ea;
constexpr double kTextSize = 13;
constexpr double kTitleSize = 19;

struct CairoDeleter {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
  void operator()(cairo_t* canvas) const { cairo_destroy(canvas); }
};

// Invalid UTF-8 puts a Cairo context into an error state.
std::string validUtf8(const std::string& text) {
  std::string result;
  const auto* at = reinterpret_cast<const uint8_t*>(text.data());
  const uint8_t* const end = at + text.size();
  while (at < end) {
    const uint8_t* const start = at;
    int32_t code = 0;
    const bool valid = av_utf8_decode(&code, &at, end, AV_UTF8_FLAG_EXCLUDE_XML_INVALID_CONTROL_CODES) >= 0;
    result += valid ? std::string(start, at) : "?";
  }
  return result;
}

std::string formatted(const char* format, double first, double second = 0) {
  char text[80];
  std::snprintf(text, sizeof(text), format, first, second);
  return text;
}

// 1, 2 or 5 times a power of ten, for at most five steps.
double niceStep(double range) {
  const double power = std::pow(10.0, std::floor(std::log10(range / 5)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (5 * factor * power >= range) return factor * power;
  }
  return 10 * power;
}

enum class Align { kLeft, kCentre, kRight };

class Canvas {
 public:
  Canvas()
      : surface_(cairo_image_surface_create(CAIRO_FORMAT_RGB24, kPlotWidth, kPlotHeight)),
        cairo_(cairo_create(surface_.get())) {
    colour(0xffffff);
    cairo_paint(c());
    cairo_set_line_join(c(), CAIRO_LINE_JOIN_ROUND);
  }

  cairo_t* c() const { return cairo_.get(); }

  void colour(uint32_t rgb) {
    cairo_set_source_rgb(c(), (rgb >> 16) / 255.0, (rgb >> 8 & 255) / 255.0, (rgb & 255) / 255.0);
  }

  void font(double size, bool bold) {
    cairo_select_font_face(c(), "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(c(), size);
  }

  double textWidth(const std::string& text) const {
    cairo_text_extents_t extents;
    cairo_text_extents(c(), text.c_str(), &extents);
    return extents.x_advance;
  }

  // `y` is the baseline.
  void text(double x, double y, const std::string& text, Align align) {
    const double shift = align == Align::kLeft ? 0 : align == Align::kCentre ? 0.5 : 1;
    cairo_move_to(c(), x - shift * textWidth(text), y);
    cairo_show_text(c(), text.c_str());
  }

  void textUpwards(double x, double middle, const std::string& upwards) {
    cairo_save(c());
    cairo_translate(c(), x, middle);
    cairo_rotate(c(), -M_PI / 2);
    text(0, 0, upwards, Align::kCentre);
    cairo_restore(c());
  }

  // Truncated to `width`, with an ellipsis.
  std::string fitted(std::string text, double width) const {
    if (textWidth(text) <= width) return text;
    while (!text.empty() && textWidth(text + "…") > width) {
      while (!text.empty() && (static_cast<uint8_t>(text.back()) & 0xc0) == 0x80) text.pop_back();
      if (!text.empty()) text.pop_back();
    }
    return text + "…";
  }

  void stroke(uint32_t rgb, double width, bool dashed = false) {
    constexpr double kDash[] = {6, 5};
    colour(rgb);
    cairo_set_line_width(c(), width);
    cairo_set_dash(c(), kDash, dashed ? 2 : 0, 0);
    cairo_stroke(c());
  }

  std::vector<uint8_t> png() const {
    std::vector<uint8_t> bytes;
    const auto append = [](void* to, const unsigned char* data, unsigned size) {
      static_cast<std::vector<uint8_t>*>(to)->insert(static_cast<std::vector<uint8_t>*>(to)->end(), data, data + size);
      return CAIRO_STATUS_SUCCESS;
    };
    cairo_status_t status = cairo_status(c());
    if (status == CAIRO_STATUS_SUCCESS) status = cairo_surface_write_to_png_stream(surface_.get(), append, &bytes);
    if (status != CAIRO_STATUS_SUCCESS) {
      throw ToolError(kExitFailed, std::string("cannot draw the plot: ") + cairo_status_to_string(status));
    }
    return bytes;
  }

 private:
  const std::unique_ptr<cairo_surface_t, CairoDeleter> surface_;
  const std::unique_ptr<cairo_t, CairoDeleter> cairo_;
};

// Every 32nd level and the last.
std::vector<int> levelTicks() {
  std::vector<int> ticks;
  for (int level = 0; level < kLevels; level += 32) ticks.push_back(level);
  ticks.push_back(kLevels - 1);
  return ticks;
}

void drawLine(Canvas& canvas, double fromX, double fromY, double toX, double toY) {
  cairo_move_to(canvas.c(), fromX, fromY);
  cairo_line_to(canvas.c(), toX, toY);
}

void drawLevelAxis(Canvas& canvas, const PlotArea& area) {
  for (const int level : levelTicks()) {
    drawLine(canvas, area.x(level), area.top, area.x(level), area.y(0) + 5);
    canvas.stroke(kGrid, 1);
    canvas.colour(kText);
    canvas.text(area.x(level), area.y(0) + 19, std::to_string(level), Align::kCentre);
  }
}

void drawValueLine(Canvas& canvas, const PlotArea& area, double share, const std::string& number) {
  drawLine(canvas, area.left - 5, area.y(share), area.left + area.width, area.y(share));
  canvas.stroke(kGrid, 1);
  canvas.colour(kText);
  canvas.text(area.left - 9, area.y(share) + 4.5, number, Align::kRight);
}

void drawFrame(Canvas& canvas, const PlotArea& area) {
  cairo_rectangle(canvas.c(), area.left, area.top, area.width, area.height);
  canvas.stroke(0x80868c, 1);
}

struct LegendEntry {
  std::string text;
  uint32_t colour;
  enum Kind { kLine, kDashedLine, kArea } kind;
};

void drawLegend(Canvas& canvas, const PlotArea& area, const std::vector<LegendEntry>& entries) {
  double x = area.left;
  const double y = area.top - 13;  // baseline
  for (const LegendEntry& entry : entries) {
    if (entry.kind == LegendEntry::kArea) {
      cairo_rectangle(canvas.c(), x, y - 10, 26, 11);
      canvas.colour(entry.colour);
      cairo_fill(canvas.c());
    } else {
      drawLine(canvas, x, y - 4.5, x + 26, y - 4.5);
      canvas.stroke(entry.colour, 2.5, entry.kind == LegendEntry::kDashedLine);
    }
    canvas.colour(kText);
    canvas.text(x + 33, y, entry.text, Align::kLeft);
    x += 33 + canvas.textWidth(entry.text) + 28;
  }
}

// `levels` of 0..255 for each input level.
void drawCurve(Canvas& canvas, const double (&levels)[kLevels], uint32_t colour) {
  for (int i = 0; i < kLevels; ++i) {
    cairo_line_to(canvas.c(), kCurveArea.x(i), kCurveArea.y(levels[i] / (kLevels - 1)));
  }
  canvas.stroke(colour, 2.5);
}

void drawCurves(Canvas& canvas, const AnalysisPlot& plot) {
  drawLevelAxis(canvas, kCurveArea);
  for (const int level : levelTicks()) {
    drawValueLine(canvas, kCurveArea, level / (kLevels - 1.0), std::to_string(level));
  }
  canvas.textUpwards(20, kCurveArea.y(0.5), "output level");
  drawFrame(canvas, kCurveArea);

  drawLine(canvas, kCurveArea.x(0), kCurveArea.y(0), kCurveArea.x(kLevels - 1), kCurveArea.y(1));
  canvas.stroke(kIdentityColour, 1.5, true);
  double toned[kLevels];
  for (int i = 0; i < kLevels; ++i) {
    toned[i] = std::min(255.0, 255 * std::pow(plot.gain * i / 255, plot.gamma));
  }
  drawCurve(canvas, toned, kPairColour);
  drawCurve(canvas, plot.suggested, kSuggestedColour);
  drawLegend(
      canvas, kCurveArea,
      {{formatted("exposure pair: gamma %.3f, gain %.3f", plot.gamma, plot.gain), kPairColour, LegendEntry::kLine},
       {formatted("suggested curve, strength %g", plot.strength), kSuggestedColour, LegendEntry::kLine},
       {"identity", kIdentityColour, LegendEntry::kDashedLine}});
}

// Scaled to the smoothed histogram: one tall bar, often black, would flatten all others. The tallest clipped bar has its
// share written beside it.
void drawHistogram(Canvas& canvas, const AnalysisPlot& plot) {
  const double percent = 100 / std::max(histogramMass(plot.histogram), 1.0);
  const double* const tallest = std::max_element(plot.histogram.bins, plot.histogram.bins + kLevels);
  const double peak = percent * *std::max_element(plot.smoothed.bins, plot.smoothed.bins + kLevels);
  const double range = std::max(1.15 * peak, 0.01);
  const double step = niceStep(range);
  const double top = std::ceil(range / step) * step;

  const PlotArea& area = kHistogramArea;
  drawLevelAxis(canvas, area);
  for (double value = 0; value < top + step / 2; value += step) {
    drawValueLine(canvas, area, value / top, formatted("%g", value));
  }
  canvas.textUpwards(20, area.y(0.5), "share of pixels, %");
  const double halfBar = area.width / kLevels / 2;
  const auto height = [&](double bin) { return area.y(std::min(1.0, percent * bin / top)); };
  cairo_move_to(canvas.c(), area.left, area.y(0));
  for (int i = 0; i < kLevels; ++i) {
    cairo_line_to(canvas.c(), area.x(i) - halfBar, height(plot.histogram.bins[i]));
    cairo_line_to(canvas.c(), area.x(i) + halfBar, height(plot.histogram.bins[i]));
  }
  cairo_line_to(canvas.c(), area.left + area.width, area.y(0));
  canvas.colour(kHistogramColour);
  cairo_fill(canvas.c());
  for (int i = 0; i < kLevels; ++i) cairo_line_to(canvas.c(), area.x(i), height(plot.smoothed.bins[i]));
  canvas.stroke(kSmoothedColour, 2);
  drawFrame(canvas, area);

  if (percent * *tallest > top) {
    const auto level = static_cast<int>(tallest - plot.histogram.bins);
    const bool right = level < kLevels / 2;
    canvas.colour(kText);
    canvas.text(area.x(level) + (right ? 8 : -8), area.top + 17,
                formatted("level %.0f: %.1f %%", level, percent * *tallest), right ? Align::kLeft : Align::kRight);
  }
  drawLegend(canvas, area,
             {{"histogram", kHistogramColour, LegendEntry::kArea}, {"smoothed", kSmoothedColour, LegendEntry::kLine}});
}

// Where the clip has hardly any pixels, the noise follows from its other lumas: dashed.
void drawNoise(Canvas& canvas, const AnalysisPlot& plot) {
  constexpr double kFewPixels = 0.001;  // of all
  constexpr int kLevelsPerEntry = kLevels / NoiseCurve::kEntries;
  const double pixels = std::max(histogramMass(plot.histogram), 1.0);
  const PlotArea& area = kNoiseArea;
  double sigma[NoiseCurve::kEntries];
  bool seen[NoiseCurve::kEntries];
  for (int i = 0; i < NoiseCurve::kEntries; ++i) {
    const double* bins = plot.histogram.bins + i * kLevelsPerEntry;
    seen[i] = std::accumulate(bins, bins + kLevelsPerEntry, 0.0) > kFewPixels * pixels;
    sigma[i] = std::sqrt(static_cast<double>(plot.noise.variance[i]));
  }
  const double range = std::max(1.15 * *std::max_element(sigma, sigma + NoiseCurve::kEntries), 0.5);
  const double step = niceStep(range);
  const double top = std::ceil(range / step) * step;
  drawLevelAxis(canvas, area);
  for (double value = 0; value < top + step / 2; value += step) {
    drawValueLine(canvas, area, value / top, formatted("%g", value));
  }
  canvas.textUpwards(20, area.y(0.5), "noise, levels");
  canvas.text(area.left + area.width / 2, area.y(0) + 42, "input level (luma, full range)", Align::kCentre);
  if (plot.noise.known) {
    for (int i = 0; i + 1 < NoiseCurve::kEntries; ++i) {
      const auto x = [&](int entry) { return area.x(kLevelsPerEntry * (entry + 0.5) - 0.5); };
      drawLine(canvas, x(i), area.y(sigma[i] / top), x(i + 1), area.y(sigma[i + 1] / top));
      const bool both = seen[i] && seen[i + 1];
      canvas.stroke(kNoiseColour, both ? 2.5 : 1.5, !both);
    }
  }
  drawFrame(canvas, area);
  drawLegend(canvas, area,
             {{"standard deviation of the noise", kNoiseColour, LegendEntry::kLine},
              {"the same where there are hardly any pixels", kNoiseColour, LegendEntry::kDashedLine}});
}

}  // namespace

std::vector<uint8_t> drawAnalysis(const AnalysisPlot& plot) {
  Canvas canvas;
  canvas.colour(kText);
  canvas.font(kTitleSize, true);
  canvas.text(kCurveArea.left, 36, canvas.fitted(validUtf8(plot.title), kCurveArea.width), Align::kLeft);
  canvas.font(kTextSize, false);
  canvas.text(kCurveArea.left, 62, canvas.fitted(validUtf8(plot.subtitle), kCurveArea.width), Align::kLeft);
  drawCurves(canvas, plot);
  drawHistogram(canvas, plot);
  drawNoise(canvas, plot);
  return canvas.png();
}

}  // namespace noxel::tool
