#include "media/video_encoder.h"

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include "common/low_priority.h"
#include "common/tool_error.h"
#include "media/nv21_frame.h"

namespace noxel::tool {
namespace {

constexpr int kMpeg4Quantiser = 2;     // near lossless; the scale ends at 31
constexpr double kBitsPerPixel = 0.2;  // for encoders that know no quality, only a rate
constexpr int kDeviceFrames = 24;      // in flight in a hardware encoder

struct Codec {
  const char* name;
  AVCodecID id;
  std::vector<const char*> encoders;  // the first one that opens is used
  int crf;                            // default; about the same look. -1: lossless
  int maxCrf;
};

const std::vector<Codec>& codecs() {
  static const std::vector<Codec> kCodecs = {
      {"h264", AV_CODEC_ID_H264, {"libx264", "libopenh264", "mpeg4"}, 18, 51},
      {"hevc", AV_CODEC_ID_HEVC, {"libx265"}, 20, 51},
      {"av1", AV_CODEC_ID_AV1, {"libsvtav1", "libaom-av1"}, 24, 63},
      {"vp9", AV_CODEC_ID_VP9, {"libvpx-vp9"}, 24, 63},
      {"ffv1", AV_CODEC_ID_FFV1, {"ffv1"}, -1, -1},
  };
  return kCodecs;
}

const Codec* codecOf(const std::string& name) {
  for (const Codec& codec : codecs()) {
    if (name == codec.name) return &codec;
  }
  return nullptr;
}

bool holds(const AVOutputFormat& muxer, const Codec& codec) {
  return avformat_query_codec(&muxer, codec.id, FF_COMPLIANCE_NORMAL) == 1;
}

// The codec to write, by name: what was asked for, or the container's own with a note.
std::string chosen(const EncodingChoice& choice, const VideoProperties& video, const AVOutputFormat& muxer,
                   const Container& container, std::vector<std::string>& notes) {
  if (choice.codec.empty()) return container.codec;
  if (choice.codec != kCopyLikeInput) return choice.codec;
  for (const Codec& codec : codecs()) {
    if (codec.id == video.inputCodec && holds(muxer, codec)) return codec.name;
  }
  notes.push_back(std::string("the input's ") + avcodec_get_name(video.inputCodec) + " is not written to " +
                  container.extension + "; the video is " + container.codec);
  return container.codec;
}

// libsvtav1 and libvpx number their presets; by the order of kPresets.
int numbered(const std::string& preset, const int (&numbers)[std::size(kPresets)], int byDefault) {
  const auto place = std::ranges::find(kPresets, preset) - std::begin(kPresets);
  return place < std::ssize(kPresets) ? numbers[place] : byDefault;
}

// Frames that x264 looks ahead by itself, by the order of kPresets.
constexpr int kX264Lookahead[std::size(kPresets)] = {0, 0, 10, 20, 30, 40, 50, 60, 60};

// x264 holds 5 MB for each at 1920 x 1080: 40 took more memory than all else.
int framesAhead(const AVCodecContext& encoder) {
  constexpr int64_t kPixelsAhead = 6LL * 1920 * 1088;
  constexpr int64_t kLeast = 5;
  return static_cast<int>(std::max(kLeast, kPixelsAhead / (int64_t{encoder.width} * encoder.height)));
}

void setOptions(AVCodecContext& encoder, const std::string& name, const std::string& preset, std::optional<int> crf) {
  void* own = encoder.priv_data;
  if (crf && name != "mpeg4") av_opt_set_int(own, "crf", *crf, 0);
  if (name == "libx264" || name == "libx265") {
    if (!preset.empty()) av_opt_set(own, "preset", preset.c_str(), 0);
    const int lookahead = std::min(numbered(preset, kX264Lookahead, 40), framesAhead(encoder));
    if (name == "libx264") av_opt_set_int(own, "rc-lookahead", lookahead, 0);
    if (name == "libx265") av_opt_set(own, "x265-params", "log-level=error", 0);
  } else if (name == "libsvtav1") {
    av_opt_set_int(own, "preset", numbered(preset, {12, 11, 10, 9, 9, 8, 6, 5, 4}, 8), 0);
  } else if (name == "libaom-av1" || name == "libvpx-vp9") {
    av_opt_set_int(own, "cpu-used", numbered(preset, {8, 7, 6, 6, 5, 4, 3, 2, 1}, 4), 0);
    av_opt_set_int(own, "row-mt", 1, 0);
    encoder.bit_rate = 0;  // quality alone decides
  } else if (name == "mpeg4") {
    encoder.flags |= AV_CODEC_FLAG_QSCALE;
    encoder.global_quality = FF_QP2LAMBDA * kMpeg4Quantiser;
  } else if (name.ends_with("_nvenc")) {
    av_opt_set(own, "rc", "vbr", 0);
    if (crf) av_opt_set_double(own, "cq", *crf, 0);
    encoder.bit_rate = 0;
  } else if (name.ends_with("_vaapi")) {
    av_opt_set(own, "rc_mode", "CQP", 0);
    if (crf) encoder.global_quality = *crf;
  } else if (name.ends_with("_v4l2m2m")) {
    encoder.bit_rate = static_cast<int64_t>(kBitsPerPixel * encoder.width * encoder.height * av_q2d(encoder.framerate));
  }
}

bool needsEvenSize(const std::string& name) {
  return name != "mpeg4" && name != "libvpx-vp9" && name != "ffv1" && name != "gif" && name != "wrapped_avframe";
}

// Each frame with its own palette; turned to RGB by the clip's matrix and range.
std::string paletteFilters() {
  return "scale=flags=accurate_rnd+full_chroma_int+bicubic,format=rgb24,split[picture][sample];"
         "[sample]palettegen=stats_mode=single[palette];[picture][palette]paletteuse=new=1";
}

}  // namespace

void checkChoice(const EncodingChoice& choice, const Container& container) {
  const bool fixed = *container.codec == '\0';
  for (const auto& [option, given] : {std::pair{"--codec", !choice.codec.empty()},
                                      {"--preset", !choice.preset.empty()},
                                      {"--crf", choice.crf.has_value()},
                                      {"--hwaccel", !choice.hardware.empty()}}) {
    if (fixed && given) throw ToolError(kExitUsage, std::string(option) + " has no effect on " + container.extension);
  }
  if (fixed || choice.codec == kCopyLikeInput) return;
  const Codec* codec = codecOf(choice.codec.empty() ? container.codec : choice.codec);
  const AVOutputFormat* muxer = av_guess_format(container.muxer, nullptr, nullptr);
  if (codec == nullptr) throw ToolError(kExitUsage, "there is no codec " + choice.codec);
  if (muxer != nullptr && !holds(*muxer, *codec)) {
    std::string others;
    for (const Codec& other : codecs()) {
      if (holds(*muxer, other)) others += std::string(others.empty() ? "" : ", ") + other.name;
    }
    throw ToolError(kExitUsage,
                    std::string(container.extension) + " cannot hold " + codec->name + "; it holds " + others);
  }
  if (codec->crf < 0 && (choice.crf || !choice.preset.empty())) {
    throw ToolError(kExitUsage, std::string(codec->name) + " is lossless: --crf and --preset have no effect");
  }
  if (choice.crf && (*choice.crf < 0 || *choice.crf > codec->maxCrf)) {
    throw ToolError(kExitUsage,
                    "--crf of " + std::string(codec->name) + " is from 0 to " + std::to_string(codec->maxCrf));
  }
}

VideoEncoder::VideoEncoder(const EncodingChoice& choice, const VideoProperties& video, const AVOutputFormat& muxer,
                           const Container& container)
    : countsFrames_(container.countsFrames) {
  checkChoice(choice, container);
  const bool globalHeader = (muxer.flags & AVFMT_GLOBALHEADER) != 0;
  if (isY4m(container) || isPictures(container)) {
    if (!open("wrapped_avframe", {}, video, false)) throw ToolError(kExitFailed, "this FFmpeg cannot pass frames on");
    return;
  }
  if (*container.codec == '\0') {
    if (!open("gif", {}, video, globalHeader)) throw ToolError(kExitFailed, "this FFmpeg has no GIF encoder");
    palette_ = std::make_unique<FilterPass>(video.width, video.height, paletteFilters());
    return;
  }
  const std::string codec = chosen(choice, video, muxer, container, notes_);
  setenv("SVT_LOG", "0", 0);  // libsvtav1 logs by itself; its failures are noted here
  openSoftware(codec, choice, video, muxer);
}

void VideoEncoder::openSoftware(const std::string& codec, const EncodingChoice& choice, const VideoProperties& video,
                                const AVOutputFormat& muxer) {
  const Codec& wanted = *codecOf(codec);
  EncodingChoice settled = choice;
  if (wanted.crf >= 0) {
    settled.crf = std::min(choice.crf.value_or(wanted.crf), wanted.maxCrf);
  } else {
    settled.crf.reset();
  }
  std::vector<std::string> names(wanted.encoders.begin(), wanted.encoders.end());
  const std::string first = names.front();
  if (!choice.hardware.empty()) {
    names.insert(names.begin(), codec + (choice.hardware == "v4l2" ? "_v4l2m2m" : "_" + choice.hardware));
  }
  for (const std::string& name : names) {
    if (!open(name.c_str(), settled, video, (muxer.flags & AVFMT_GLOBALHEADER) != 0)) continue;
    if (!choice.hardware.empty() && name != names.front()) {
      notes_.push_back(choice.hardware + " cannot encode " + codec + " here; encoded by " + name);
    } else if (choice.hardware.empty() && name != first) {
      notes_.push_back(first + " cannot encode this; encoded by " + name);
    }
    if (encoder_->width != video.width || encoder_->height != video.height) {
      notes_.push_back(codec + " needs an even size: the last " +
                       (encoder_->height == video.height ? "column is"
                        : encoder_->width == video.width ? "row is"
                                                         : "column and row are") +
                       " repeated, " + std::to_string(encoder_->width) + "x" + std::to_string(encoder_->height));
    }
    crf_ = settled.crf;
    return;
  }
  throw ToolError(kExitFailed, "this FFmpeg has no encoder of " + codec + " for " + std::to_string(video.width) + "x" +
                                   std::to_string(video.height) + "; write .y4m and encode it elsewhere");
}

bool VideoEncoder::open(const char* encoderName, const EncodingChoice& choice, const VideoProperties& video,
                        bool globalHeader) {
  const AVCodec* codec = avcodec_find_encoder_by_name(encoderName);
  if (codec == nullptr) return false;
  CodecPtr encoder(allocated(avcodec_alloc_context3(codec)));
  const std::string name = codec->name;
  const bool even = needsEvenSize(name);
  encoder->width = even ? (video.width + 1) & ~1 : video.width;
  encoder->height = even ? (video.height + 1) & ~1 : video.height;
  encoder->pix_fmt = name == "gif" ? AV_PIX_FMT_PAL8 : AV_PIX_FMT_YUV420P;
  encoder->sample_aspect_ratio = video.sampleAspectRatio;
  encoder->colorspace = video.tags.matrix;
  encoder->color_range = video.tags.range;
  encoder->color_primaries = video.tags.primaries;
  encoder->color_trc = video.tags.transfer;
  encoder->chroma_sample_location = video.tags.chromaLocation;
  encoder->framerate = video.frameRate;
  encoder->time_base = video.timeBase;
  const bool counts = countsFrames_ || name == "mpeg4";
  if (counts) {
    AVRational rate = video.frameRate;
    if (name == "mpeg4") av_reduce(&rate.num, &rate.den, rate.num, rate.den, 65535);  // a 16-bit clock
    encoder->time_base = av_inv_q(rate);
    encoder->max_b_frames = 0;
  }
  setOptions(*encoder, name, choice.preset, choice.crf);
  encoder->thread_count = 0;
  if (globalHeader) encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  const bool uploads = name.ends_with("_vaapi");
  if (uploads && !openDevice(*encoder)) return false;
  // At the engine's priority the encoder holds up its passes, of which each ends when all cores are done: 3 % of the time, on two.
  if (withThreadsOfLowPriority([&] { return avcodec_open2(encoder.get(), codec, nullptr); }) < 0) return false;
  encoder_ = std::move(encoder);
  name_ = name;
  countsFrames_ = counts;
  uploads_ = uploads;
  return true;
}

bool VideoEncoder::openDevice(AVCodecContext& encoder) {
  AVBufferRef* device = nullptr;
  if (av_hwdevice_ctx_create(&device, AV_HWDEVICE_TYPE_VAAPI, nullptr, nullptr, 0) < 0) return false;
  AVBufferRef* frames = av_hwframe_ctx_alloc(device);
  av_buffer_unref(&device);
  if (frames == nullptr) return false;
  auto* context = reinterpret_cast<AVHWFramesContext*>(frames->data);
  context->format = AV_PIX_FMT_VAAPI;
  context->sw_format = AV_PIX_FMT_NV12;
  context->width = encoder.width;
  context->height = encoder.height;
  context->initial_pool_size = kDeviceFrames;
  encoder.pix_fmt = AV_PIX_FMT_VAAPI;
  encoder.hw_frames_ctx = frames;  // freed with the encoder
  return av_hwframe_ctx_init(frames) >= 0;
}

void VideoEncoder::send(FramePtr frame) {
  if (frame) {
    frame->pict_type = AV_PICTURE_TYPE_NONE;  // the encoder decides
    frame->colorspace = encoder_->colorspace;
    frame->color_range = encoder_->color_range;
    frame->color_primaries = encoder_->color_primaries;
    frame->color_trc = encoder_->color_trc;
    frame->sample_aspect_ratio = encoder_->sample_aspect_ratio;
    FramePtr sized = padded(*frame, encoder_->width, encoder_->height);
    if (sized->data[0] != frame->data[0]) av_frame_copy_props(sized.get(), frame.get());
    frame = std::move(sized);
    if (palette_) {
      const int64_t pts = frame->pts;
      frame = palette_->run(*frame);
      frame->pts = pts;
    }
    if (uploads_) {
      const FramePtr pairs = withPairedChroma(*frame);
      FramePtr uploaded = makeFrame();
      int result = av_hwframe_get_buffer(encoder_->hw_frames_ctx, uploaded.get(), 0);
      if (result >= 0) result = av_hwframe_transfer_data(uploaded.get(), pairs.get(), 0);
      if (result >= 0) result = av_frame_copy_props(uploaded.get(), frame.get());
      if (result < 0) throw ToolError(kExitFailed, "encoding failed: " + avErrorText(result));
      frame = std::move(uploaded);
    }
  }
  const int result = avcodec_send_frame(encoder_.get(), frame.get());
  if (result < 0) throw ToolError(kExitFailed, "encoding failed: " + avErrorText(result));
}

bool VideoEncoder::receive(AVPacket& packet) {
  const int result = avcodec_receive_packet(encoder_.get(), &packet);
  if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return false;
  if (result < 0) throw ToolError(kExitFailed, "encoding failed: " + avErrorText(result));
  return true;
}

}  // namespace noxel::tool
