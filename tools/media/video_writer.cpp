#include "media/video_writer.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <filesystem>
#include <limits>
#include <numeric>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

constexpr char kY4m[] = "yuv4mpegpipe";
constexpr int kMpeg4Quantiser = 2;  // near lossless; the scale ends at 31
constexpr int64_t kMaxTimescale = 1'000'000'000;

void check(int result, const std::string& what) {
  if (result < 0) throw ToolError(kExitFailed, what + ": " + avErrorText(result));
}

// Start times in an MP4 are exact when the movie's timescale is a multiple of every track's.
int64_t movieTimescale(AVRational videoTimeBase, const std::vector<const AVStream*>& audio) {
  int64_t scale = videoTimeBase.den;
  for (const AVStream* stream : audio) {
    const int64_t both = std::lcm(scale, static_cast<int64_t>(stream->time_base.den));
    if (both <= kMaxTimescale) scale = both;
  }
  return std::max<int64_t>(scale, 1000);
}

}  // namespace

std::string containerOf(const std::string& path) {
  const std::string extension = path == "-" ? ".y4m" : std::filesystem::path(path).extension().string();
  if (extension == ".mp4") return "mp4";
  if (extension == ".mkv") return "matroska";
  if (extension == ".y4m") return kY4m;
  throw ToolError(
      kExitUsage,
      "output " + path +
          " must end in .mp4, .mkv or .y4m (.png for a single picture), or be - for Y4M on standard output");
}

VideoWriter::VideoWriter(const OutputSettings& settings)
    : container_(containerOf(settings.path)),
      name_(settings.path == "-" ? "standard output" : settings.path),
      timeBase_(settings.timeBase),
      nominalDuration_(std::max<int64_t>(1, av_rescale_q(1, av_inv_q(settings.frameRate), settings.timeBase))) {
  check(avformat_alloc_output_context2(&format_, nullptr, container_.c_str(), nullptr), "cannot write " + name_);
  try {
    addVideo(settings);
    addAudio(settings);
    writeHeader(settings);
  } catch (...) {
    if (format_->pb != nullptr) avio_closep(&format_->pb);
    avformat_free_context(format_);
    throw;
  }
}

VideoWriter::~VideoWriter() {
  if (format_->pb != nullptr) avio_closep(&format_->pb);
  avformat_free_context(format_);
}

void VideoWriter::addVideo(const OutputSettings& settings) {
  std::vector<std::string> names;
  if (container_ == kY4m) {
    names = {"wrapped_avframe"};
  } else if (settings.width % 2 == 0 && settings.height % 2 == 0) {
    names = {"libx264", "libopenh264", "mpeg4"};
  } else {
    names = {"mpeg4"};  // H.264 in 4:2:0 needs even sizes
    notes_.push_back("H.264 needs an even size; the video is written as MPEG-4 Part 2");
  }
  for (const std::string& name : names) {
    const AVCodec* codec = avcodec_find_encoder_by_name(name.c_str());
    if (codec != nullptr && openEncoder(codec, settings)) break;
  }
  if (!encoder_) {
    throw ToolError(kExitFailed, "this FFmpeg has no H.264 or MPEG-4 encoder for " + std::to_string(settings.width) +
                                     "x" + std::to_string(settings.height) + "; write .y4m and encode it elsewhere");
  }
  if (encoderName_ != names.front()) notes_.push_back(names.front() + " is not available; encoded by " + encoderName_);

  video_ = allocated(avformat_new_stream(format_, nullptr));
  check(avcodec_parameters_from_context(video_->codecpar, encoder_.get()), "cannot set up the video stream");
  video_->codecpar->chroma_location = settings.tags.chromaLocation;
  video_->time_base = countsFrames_ && container_ == kY4m ? encoder_->time_base : settings.timeBase;
  video_->avg_frame_rate = settings.frameRate;
  video_->sample_aspect_ratio = settings.sampleAspectRatio;
  if (!settings.displayMatrix) return;
  if (container_ == "mp4") {
    uint8_t* data = allocated(av_stream_new_side_data(video_, AV_PKT_DATA_DISPLAYMATRIX, sizeof(DisplayMatrix)));
    std::copy_n(reinterpret_cast<const uint8_t*>(settings.displayMatrix->data()), sizeof(DisplayMatrix), data);
  } else {
    notes_.push_back("this container cannot hold the clip's rotation; .mp4 can");
  }
}

bool VideoWriter::openEncoder(const AVCodec* codec, const OutputSettings& settings) {
  CodecPtr encoder(allocated(avcodec_alloc_context3(codec)));
  const std::string name = codec->name;
  countsFrames_ = name == "mpeg4" || name == "wrapped_avframe";
  encoder->width = settings.width;
  encoder->height = settings.height;
  encoder->pix_fmt = AV_PIX_FMT_YUV420P;
  encoder->sample_aspect_ratio = settings.sampleAspectRatio;
  encoder->colorspace = settings.tags.matrix;
  encoder->color_range = settings.tags.range;
  encoder->color_primaries = settings.tags.primaries;
  encoder->color_trc = settings.tags.transfer;
  encoder->chroma_sample_location = settings.tags.chromaLocation;
  encoder->framerate = settings.frameRate;
  encoder->time_base = settings.timeBase;
  if (countsFrames_) {
    // MPEG-4 has a 16-bit clock.
    AVRational rate = settings.frameRate;
    if (name == "mpeg4") av_reduce(&rate.num, &rate.den, rate.num, rate.den, 65535);
    encoder->time_base = av_inv_q(rate);
    encoder->max_b_frames = 0;
  }
  if (name == "mpeg4") {
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = FF_QP2LAMBDA * kMpeg4Quantiser;
  } else if (name == "libx264") {
    av_opt_set_int(encoder->priv_data, "crf", settings.crf, 0);
  }
  encoder->thread_count = 0;
  if ((format_->oformat->flags & AVFMT_GLOBALHEADER) != 0) encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  if (avcodec_open2(encoder.get(), codec, nullptr) < 0) return false;
  encoder_ = std::move(encoder);
  encoderName_ = name;
  return true;
}

void VideoWriter::addAudio(const OutputSettings& settings) {
  if (settings.audio.empty()) return;
  if (container_ == kY4m) {
    notes_.push_back("Y4M cannot hold audio; it is dropped");
    return;
  }
  for (const AVStream* source : settings.audio) {
    audioTimeBases_.push_back(source->time_base);
    audioTimes_.push_back(std::numeric_limits<int64_t>::min());
    const AVCodecID id = source->codecpar->codec_id;
    if (id == AV_CODEC_ID_NONE || source->codecpar->sample_rate <= 0 || source->codecpar->ch_layout.nb_channels <= 0) {
      notes_.push_back("an audio stream without codec, sample rate or channels is dropped");
      audio_.push_back(nullptr);
      continue;
    }
    if (avformat_query_codec(format_->oformat, id, FF_COMPLIANCE_NORMAL) == 0) {
      throw ToolError(kExitUsage, std::string("audio in ") + avcodec_get_name(id) + " cannot be stored in " +
                                      format_->oformat->name + "; write an .mkv instead");
    }
    AVStream* stream = allocated(avformat_new_stream(format_, nullptr));
    check(avcodec_parameters_copy(stream->codecpar, source->codecpar), "cannot set up the audio stream");
    stream->codecpar->codec_tag = 0;  // drop the input container's; the muxer finds its own
    stream->time_base = source->time_base;
    stream->disposition = source->disposition;
    av_dict_copy(&stream->metadata, source->metadata, 0);
    audio_.push_back(stream);
  }
}

void VideoWriter::writeHeader(const OutputSettings& settings) {
  av_dict_copy(&format_->metadata, settings.metadata, 0);
  for (const char* key : {"major_brand", "minor_version", "compatible_brands", "encoder"}) {
    av_dict_set(&format_->metadata, key, nullptr, 0);  // describe the input's container
  }
  std::string url = "pipe:1";
  if (settings.path != "-") {
    file_ = std::make_unique<PendingFile>(settings.path);
    url = "file:" + file_->temporaryPath();
  }
  check(avio_open(&format_->pb, url.c_str(), AVIO_FLAG_WRITE), "cannot write " + name_);
  // Audio that starts before zero (encoder priming) must not shift the video.
  format_->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
  AVDictionary* options = nullptr;
  if (container_ == "mp4") {
    av_dict_set_int(&options, "movie_timescale", movieTimescale(settings.timeBase, settings.audio), 0);
    // H.264 carries its colour tags itself.
    if (encoderName_ == "mpeg4") av_dict_set(&options, "movflags", "+write_colr", 0);
  }
  const int result = avformat_write_header(format_, &options);
  av_dict_free(&options);
  if (result >= 0) return;
  const char* remedy = container_ == "mp4" && !audio_.empty() ? "; an .mkv may hold the audio" : "";
  throw ToolError(kExitFailed, "cannot start " + name_ + ": " + avErrorText(result) + remedy);
}

void VideoWriter::write(const AVFrame& planar, int64_t pts, int64_t duration) {
  const int64_t interval = lastPts_ == AV_NOPTS_VALUE ? 0 : pts - lastPts_;
  if (firstInterval_ == 0) firstInterval_ = interval;
  // Allow a tick of rounding.
  variableRate_ = variableRate_ || interval > firstInterval_ + 1 || interval + 1 < firstInterval_;
  lastPts_ = pts;

  const Stamp stamp = {pts, duration > 0 ? duration : nominalDuration_};
  FramePtr frame = share(planar);
  frame->pts = pts;
  frame->pict_type = AV_PICTURE_TYPE_NONE;  // the encoder decides
  frame->colorspace = encoder_->colorspace;
  frame->color_range = encoder_->color_range;
  frame->color_primaries = encoder_->color_primaries;
  frame->color_trc = encoder_->color_trc;
  frame->sample_aspect_ratio = encoder_->sample_aspect_ratio;
  if (countsFrames_) {
    frame->pts = frameCount_;
    stamps_.push_back(stamp);
  } else {
    durations_[pts] = stamp.duration;
  }
  ++frameCount_;
  check(avcodec_send_frame(encoder_.get(), frame.get()), "encoding failed");
  drainEncoder();
}

void VideoWriter::drainEncoder() {
  const PacketPtr packet = makePacket();
  for (;;) {
    const int result = avcodec_receive_packet(encoder_.get(), packet.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
    check(result, "encoding failed");
    packet->stream_index = video_->index;
    if (container_ == kY4m) {
      packet->duration = 1;
      av_packet_rescale_ts(packet.get(), encoder_->time_base, video_->time_base);
    } else {
      if (countsFrames_) {
        packet->pts = packet->dts = stamps_.front().pts;
        packet->duration = stamps_.front().duration;
        stamps_.pop_front();
      } else if (const auto found = durations_.find(packet->pts); found != durations_.end()) {
        packet->duration = found->second;
        durations_.erase(found);
      }
      av_packet_rescale_ts(packet.get(), timeBase_, video_->time_base);
    }
    writePacket(*packet);
  }
}

void VideoWriter::writeAudio(AVPacket& packet) {
  if (audio_.empty()) return;
  const auto place = static_cast<size_t>(packet.stream_index);
  AVStream* stream = audio_.at(place);
  if (stream == nullptr) return;
  av_packet_rescale_ts(&packet, audioTimeBases_.at(place), stream->time_base);
  // Damaged or joined clips have missing or decreasing time stamps, which no container accepts.
  int64_t& next = audioTimes_.at(place);
  if (packet.dts == AV_NOPTS_VALUE) packet.dts = packet.pts;
  packet.dts = packet.dts == AV_NOPTS_VALUE ? std::max<int64_t>(next, 0) : std::max(packet.dts, next);
  packet.pts = packet.pts == AV_NOPTS_VALUE ? packet.dts : std::max(packet.pts, packet.dts);
  next = packet.dts + 1;
  packet.stream_index = stream->index;
  packet.pos = -1;
  writePacket(packet);
}

void VideoWriter::writePacket(AVPacket& packet) {
  const int result = av_interleaved_write_frame(format_, &packet);
  // On a full disk Matroska's muxer reports no error until the end.
  check(format_->pb->error, "cannot write " + name_);
  if (result >= 0) return;
  const char* remedy = container_ == "mp4" && !audio_.empty() ? "; an .mkv may hold the audio" : "";
  throw ToolError(kExitFailed, "cannot write " + name_ + ": " + avErrorText(result) + remedy);
}

void VideoWriter::finish() {
  check(avcodec_send_frame(encoder_.get(), nullptr), "encoding failed");
  drainEncoder();
  check(av_write_trailer(format_), "cannot finish " + name_);
  check(avio_closep(&format_->pb), "cannot finish " + name_);
  if (file_) file_->commit();
  if (container_ == kY4m && variableRate_) {
    notes_.push_back("Y4M has a fixed frame rate; the clip's variable time stamps are lost, .mp4 or .mkv keeps them");
  }
}

}  // namespace noxel::tool
