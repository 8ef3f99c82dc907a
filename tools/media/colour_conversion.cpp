#include "media/colour_conversion.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/pixdesc.h>
}

#include "common/tool_error.h"
#include "media/nv21_frame.h"

namespace noxel::tool {
namespace {

constexpr int kScalerFlags = SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT;
constexpr int kScalerUnity = 1 << 16;  // contrast and saturation of 1 in libswscale's fixed point

struct FormatPair {
  AVPixelFormat jpeg;
  AVPixelFormat plain;
};

// For "yuvj" formats libswscale takes the range from the format; here it is always passed explicitly.
constexpr FormatPair kJpegFormats[] = {{AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV420P},
                                       {AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUV422P},
                                       {AV_PIX_FMT_YUVJ444P, AV_PIX_FMT_YUV444P},
                                       {AV_PIX_FMT_YUVJ440P, AV_PIX_FMT_YUV440P},
                                       {AV_PIX_FMT_YUVJ411P, AV_PIX_FMT_YUV411P}};

bool isJpeg(AVPixelFormat format) {
  for (const FormatPair& pair : kJpegFormats) {
    if (pair.jpeg == format) return true;
  }
  return false;
}

AVPixelFormat plainFormat(AVPixelFormat format) {
  for (const FormatPair& pair : kJpegFormats) {
    if (pair.jpeg == format) return pair.plain;
  }
  return format;
}

bool isRgb(AVPixelFormat format) {
  const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
  return descriptor != nullptr && (descriptor->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) != 0;
}

AVColorSpace usualMatrix(int width, int height) {
  return width >= 1280 || height > 576 ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
}

// The matrix's name in libavfilter's colorspace; null if it cannot be converted.
const char* filterName(AVColorSpace matrix) {
  switch (matrix) {
    case AVCOL_SPC_BT709:
      return "bt709";
    case AVCOL_SPC_FCC:
      return "fcc";
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M:
      return "smpte170m";  // BT.601 under two names
    case AVCOL_SPC_SMPTE240M:
      return "smpte240m";
    case AVCOL_SPC_YCGCO:
      return "ycgco";
    case AVCOL_SPC_BT2020_NCL:
      return "bt2020nc";
    default:
      return nullptr;
  }
}

std::string conversion(const std::string& fromMatrix, const char* fromRange, const std::string& toMatrix,
                       const char* toRange) {
  // Equal primaries and curves on both sides reduce it to a matrix on coded values; unspecified ones are refused.
  return "colorspace=ispace=" + fromMatrix + ":irange=" + fromRange + ":iprimaries=bt709:itrc=bt709:space=" + toMatrix +
         ":range=" + toRange + ":primaries=bt709:trc=bt709:format=yuv420p";
}

SwsPtr makeScaler(const AVFrame& from, AVPixelFormat fromFormat, AVPixelFormat toFormat, AVColorSpace matrix,
                  bool fullRange) {
  SwsPtr scaler(sws_getContext(from.width, from.height, fromFormat, from.width, from.height, toFormat, kScalerFlags,
                               nullptr, nullptr, nullptr));
  if (!scaler) {
    throw ToolError(kExitFailed, std::string("pixel format ") + av_get_pix_fmt_name(fromFormat) +
                                     " cannot be converted; convert the clip to yuv420p first");
  }
  const int* coefficients = sws_getCoefficients(matrix);
  const int fromRange = isRgb(fromFormat) ? 1 : fullRange;
  const int toRange = isRgb(toFormat) ? 1 : fullRange;
  sws_setColorspaceDetails(scaler.get(), coefficients, fromRange, coefficients, toRange, 0, kScalerUnity, kScalerUnity);
  return scaler;
}

FramePtr scaled(SwsContext* scaler, const AVFrame& from, AVPixelFormat format) {
  FramePtr result = makePicture(from.width, from.height, format);
  const int rows = sws_scale(scaler, from.data, from.linesize, 0, from.height, result->data, result->linesize);
  if (rows != from.height) throw ToolError(kExitFailed, "the pixel format conversion failed");
  return result;
}

}  // namespace

FilterPass::FilterPass(int width, int height, const std::string& filters, AVPixelFormat format)
    : format_(format), graph_(allocated(avfilter_graph_alloc())) {
  const std::string description = "buffer@in=video_size=" + std::to_string(width) + "x" + std::to_string(height) +
                                  ":pix_fmt=" + av_get_pix_fmt_name(format) + ":time_base=1/1000," + filters +
                                  ",buffersink@out";
  AVFilterInOut* inputs = nullptr;
  AVFilterInOut* outputs = nullptr;
  int result = avfilter_graph_parse2(graph_.get(), description.c_str(), &inputs, &outputs);
  avfilter_inout_free(&inputs);
  avfilter_inout_free(&outputs);
  if (result >= 0) result = avfilter_graph_config(graph_.get(), nullptr);
  if (result < 0) {
    throw ToolError(kExitFailed, "cannot set up the conversion \"" + filters + "\": " + avErrorText(result));
  }
  for (unsigned i = 0; i < graph_->nb_filters; ++i) {
    const std::string kind = graph_->filters[i]->filter->name;
    if (kind == "buffer") source_ = graph_->filters[i];
    if (kind == "buffersink") sink_ = graph_->filters[i];
  }
}

namespace {

void checkFilter(int result) {
  if (result < 0) throw ToolError(kExitFailed, "the conversion failed: " + avErrorText(result));
}

}  // namespace

FramePtr FilterPass::run(const AVFrame& frame) {
  send(&frame);
  FramePtr out = receive();
  if (!out) checkFilter(AVERROR(EAGAIN));
  return out;
}

void FilterPass::send(const AVFrame* frame) {
  FramePtr in;
  if (frame != nullptr) {
    in = share(*frame);
    in->format = format_;
  }
  checkFilter(av_buffersrc_add_frame(source_, in.get()));
}

FramePtr FilterPass::receive() {
  FramePtr out = makeFrame();
  const int result = av_buffersink_get_frame(sink_, out.get());
  if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return nullptr;
  checkFilter(result);
  return out;
}

ColourConversion::ColourConversion(const AVFrame& first)
    : tags_{first.colorspace, first.color_range, first.color_primaries, first.color_trc, first.chroma_location} {
  const auto format = static_cast<AVPixelFormat>(first.format);
  if (isRgb(format)) {
    tags_.matrix = usualMatrix(first.width, first.height);
    tags_.range = AVCOL_RANGE_MPEG;
  } else if (tags_.range == AVCOL_RANGE_UNSPECIFIED && isJpeg(format)) {
    tags_.range = AVCOL_RANGE_JPEG;
  }
  range_ = tags_.range == AVCOL_RANGE_JPEG ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
  const bool stated = tags_.matrix != AVCOL_SPC_UNSPECIFIED && tags_.matrix != AVCOL_SPC_RESERVED;
  matrix_ = stated ? tags_.matrix : usualMatrix(first.width, first.height);

  const char* name = filterName(matrix_);
  if (name == nullptr) {
    const char* tag = av_color_space_name(matrix_);
    throw ToolError(kExitFailed, std::string("colour matrix \"") + (tag != nullptr ? tag : "unknown") +
                                     "\" cannot be converted; convert the clip to BT.709 first");
  }
  const bool full = range_ == AVCOL_RANGE_JPEG;
  if (std::string(name) == "smpte170m" && full) return;
  const int width = paddedWidth(first.width);
  const int height = paddedHeight(first.height);
  const char* range = full ? "pc" : "tv";
  toEngine_ = std::make_unique<FilterPass>(width, height, conversion(name, range, "smpte170m", "pc"));
  fromEngine_ = std::make_unique<FilterPass>(width, height, conversion("smpte170m", "pc", name, range));
}

FramePtr ColourConversion::planar(const AVFrame& frame) {
  const AVPixelFormat format = plainFormat(static_cast<AVPixelFormat>(frame.format));
  FramePtr result;
  if (format == AV_PIX_FMT_YUV420P) {
    result = share(frame);
    result->format = format;
  } else {
    if (!scaler_ || scaledFormat_ != format) {
      scaler_ = makeScaler(frame, format, AV_PIX_FMT_YUV420P, matrix_, range_ == AVCOL_RANGE_JPEG);
      scaledFormat_ = format;
    }
    result = scaled(scaler_.get(), frame, AV_PIX_FMT_YUV420P);
  }
  return result;
}

FramePtr ColourConversion::toEngine(const AVFrame& planar) {
  return toEngine_ ? toEngine_->run(planar) : share(planar);
}

FramePtr ColourConversion::fromEngine(const AVFrame& planar) {
  return fromEngine_ ? fromEngine_->run(planar) : share(planar);
}

FramePtr ColourConversion::rgba(const AVFrame& frame) const {
  const AVPixelFormat format = plainFormat(static_cast<AVPixelFormat>(frame.format));
  return scaled(makeScaler(frame, format, AV_PIX_FMT_RGBA, matrix_, range_ == AVCOL_RANGE_JPEG).get(), frame,
                AV_PIX_FMT_RGBA);
}

FramePtr engineToRgb(const AVFrame& planar, AVPixelFormat format) {
  return scaled(makeScaler(planar, AV_PIX_FMT_YUV420P, format, AVCOL_SPC_SMPTE170M, true).get(), planar, format);
}

FramePtr rgbToEngine(const AVFrame& rgb) {
  const auto format = static_cast<AVPixelFormat>(rgb.format);
  return scaled(makeScaler(rgb, format, AV_PIX_FMT_YUV420P, AVCOL_SPC_SMPTE170M, true).get(), rgb, AV_PIX_FMT_YUV420P);
}

FramePtr withPairedChroma(const AVFrame& planar) {
  return scaled(makeScaler(planar, AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AVCOL_SPC_SMPTE170M, true).get(), planar,
                AV_PIX_FMT_NV12);
}

FramePtr withoutAlpha(const AVFrame& rgba) {
  return scaled(makeScaler(rgba, AV_PIX_FMT_RGBA, AV_PIX_FMT_RGB24, AVCOL_SPC_SMPTE170M, true).get(), rgba,
                AV_PIX_FMT_RGB24);
}

}  // namespace noxel::tool
