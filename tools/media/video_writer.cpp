#include "media/video_writer.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "common/tool_error.h"
#include "media/nv21_frame.h"
#include "media/picture.h"
#include "media/remux.h"

namespace noxel::tool {
namespace {

constexpr AVRational kCentiseconds = {1, 100};  // the clock of a GIF

void check(int result, const std::string& what) {
  if (result < 0) throw ToolError(kExitFailed, what + ": " + avErrorText(result));
}

bool isGif(const Container& container) {
  return container.muxer == std::string("gif");
}

}  // namespace

VideoWriter::VideoWriter(const OutputSettings& settings)
    : container_(containerOf(settings.path)),
      path_(settings.path),
      name_(settings.path == "-" ? "standard output" : settings.path),
      timeBase_(settings.video.timeBase),
      frameRate_(settings.video.frameRate),
      nominalDuration_(
          std::max<int64_t>(1, av_rescale_q(1, av_inv_q(settings.video.frameRate), settings.video.timeBase))) {
  check(avformat_alloc_output_context2(&format_, nullptr, container_.muxer, nullptr), "cannot write " + name_);
  try {
    addVideo(settings);
    companions_ = std::make_unique<CompanionStreams>(*format_, container_, settings.companions);
    std::string lost = companions_->leftOut();
    if (settings.displayMatrix && !container_.rotation)
      lost += (lost.empty() ? "" : ", ") + std::string("the rotation");
    if (!lost.empty()) {
      notes_.push_back((path_ == "-" ? "Y4M" : std::string(container_.extension)) + " cannot hold, left out: " + lost);
    }
    if (!isPictures(container_)) writeHeader();
    for (const PacketPtr& cover : companions_->takeCovers()) writePacket(*cover);
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
  VideoProperties video = settings.video;
  if (isGif(container_)) video.timeBase = kCentiseconds;
  const std::string turn = uprighting(settings.displayMatrix).filters;
  if (isGif(container_) || isPictures(container_)) {
    std::string filters =
        isPictures(container_) ? "scale=flags=accurate_rnd+full_chroma_int+bicubic,format=rgb24" : "null";
    if (!turn.empty()) filters += "," + turn;
    upright_ = std::make_unique<FilterPass>(video.width, video.height, filters);
    if (uprighting(settings.displayMatrix).swapsSides) {
      std::swap(video.width, video.height);
      if (video.sampleAspectRatio.num > 0) video.sampleAspectRatio = av_inv_q(video.sampleAspectRatio);
    }
  }
  encoder_ = std::make_unique<VideoEncoder>(settings.encoding, video, *format_->oformat, container_);
  notes_ = encoder_->notes();
  video_ = allocated(avformat_new_stream(format_, nullptr));
  AVCodecParameters& codec = *video_->codecpar;
  check(avcodec_parameters_from_context(&codec, &encoder_->context()), "cannot set up the video stream");
  codec.chroma_location = settings.video.tags.chromaLocation;
  // Apple's players know HEVC under this tag only.
  const bool quickTime = container_.muxer == std::string("mp4") || container_.muxer == std::string("mov");
  if (quickTime && codec.codec_id == AV_CODEC_ID_HEVC) codec.codec_tag = MKTAG('h', 'v', 'c', '1');
  video_->time_base = container_.countsFrames || isGif(container_) ? encoder_->context().time_base : timeBase_;
  video_->avg_frame_rate = frameRate_;
  video_->sample_aspect_ratio = video.sampleAspectRatio;
  if (!settings.displayMatrix || !quickTime) return;
  uint8_t* data = allocated(av_stream_new_side_data(video_, AV_PKT_DATA_DISPLAYMATRIX, sizeof(DisplayMatrix)));
  std::copy_n(reinterpret_cast<const uint8_t*>(settings.displayMatrix->data()), sizeof(DisplayMatrix), data);
}

void VideoWriter::writeHeader() {
  std::string url = "pipe:1";
  if (path_ != "-") {
    file_ = std::make_unique<PendingFile>(path_);
    url = "file:" + file_->temporaryPath();
  }
  check(avio_open(&format_->pb, url.c_str(), AVIO_FLAG_WRITE), "cannot write " + name_);
  // Audio that starts before zero (encoder priming) must not shift the video.
  format_->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
  AVDictionary* options = nullptr;
  if (container_.marksLate) {
    av_dict_set_int(&options, "movie_timescale", companions_->movieTimescale(timeBase_), 0);
    std::string flags = companions_->needsKeys() ? "+use_metadata_tags" : "";
    // The other codecs carry their colour tags themselves.
    if (encoder_->name() == "mpeg4" || encoder_->name() == "ffv1") flags += "+write_colr";
    if (!flags.empty()) av_dict_set(&options, "movflags", flags.c_str(), 0);
  }
  const int result = avformat_write_header(format_, &options);
  av_dict_free(&options);
  if (result < 0) throw ToolError(kExitFailed, "cannot start " + name_ + ": " + avErrorText(result) + remedy());
}

std::string VideoWriter::remedy() const {
  return container_.muxer != std::string("matroska") && companions_->hasAudio() ? "; an .mkv may hold the audio" : "";
}

// The number of a frame at a fixed rate; a gap skips numbers.
int64_t VideoWriter::slot(int64_t pts) {
  lastSlot_ = std::max(lastSlot_ + 1, av_rescale_q(pts, timeBase_, av_inv_q(frameRate_)));
  return lastSlot_;
}

void VideoWriter::write(const AVFrame& planar, int64_t pts, int64_t duration) {
  const int64_t interval = lastPts_ == AV_NOPTS_VALUE ? 0 : pts - lastPts_;
  if (firstInterval_ == 0) firstInterval_ = interval;
  // Allow a tick of rounding.
  variableRate_ = variableRate_ || interval > firstInterval_ + 1 || interval + 1 < firstInterval_;
  lastPts_ = pts;
  if (isPictures(container_)) {
    writePicture(planar);
    return;
  }
  const Stamp stamp = {pts, duration > 0 ? duration : nominalDuration_};
  FramePtr frame = share(planar);
  if (upright_) frame = upright_->run(*frame);
  if (isGif(container_)) {
    lastSlot_ = std::max(lastSlot_ + 1, av_rescale_q(pts, timeBase_, kCentiseconds));
    frame->pts = lastSlot_;
    durations_[lastSlot_] = std::max<int64_t>(1, av_rescale_q(stamp.duration, timeBase_, kCentiseconds));
  } else if (encoder_->countsFrames()) {
    frame->pts = frameCount_;
    const bool fixed = container_.countsFrames;
    stamps_.push_back(fixed ? Stamp{isY4m(container_) ? frameCount_ : slot(pts), 1} : stamp);
  } else {
    frame->pts = pts;
    durations_[pts] = stamp.duration;
  }
  ++frameCount_;
  encoder_->send(std::move(frame));
  drainEncoder();
}

void VideoWriter::writePicture(const AVFrame& planar) {
  const std::string path = numberedPath(path_, static_cast<int>(++frameCount_));
  const FramePtr given = share(planar);
  given->colorspace = encoder_->context().colorspace;
  given->color_range = encoder_->context().color_range;
  const std::vector<uint8_t> png = encodePng(*upright_->run(*given));
  files_.push_back(std::make_unique<PendingFile>(path));
  writeBytes(files_.back()->temporaryPath(), png.data(), png.size(), path);
}

void VideoWriter::drainEncoder() {
  const PacketPtr packet = makePacket();
  while (encoder_->receive(*packet)) {
    packet->stream_index = video_->index;
    AVRational clock = isGif(container_) ? kCentiseconds : timeBase_;
    if (encoder_->countsFrames()) {
      packet->pts = packet->dts = stamps_.front().pts;
      packet->duration = stamps_.front().duration;
      stamps_.pop_front();
      if (container_.countsFrames) clock = av_inv_q(frameRate_);
    } else if (const auto found = durations_.find(packet->pts); found != durations_.end()) {
      packet->duration = found->second;
      durations_.erase(found);
    }
    av_packet_rescale_ts(packet.get(), clock, video_->time_base);
    writePacket(*packet);
  }
}

void VideoWriter::writeBeside(AVPacket& packet) {
  if (companions_->convert(packet)) writePacket(packet);
}

void VideoWriter::writePacket(AVPacket& packet) {
  const int result = av_interleaved_write_frame(format_, &packet);
  // On a full disk Matroska's muxer reports no error until the end.
  check(format_->pb->error, "cannot write " + name_);
  if (result < 0) throw ToolError(kExitFailed, "cannot write " + name_ + ": " + avErrorText(result) + remedy());
}

void VideoWriter::finish() {
  if (isPictures(container_)) {
    for (const std::unique_ptr<PendingFile>& file : files_) file->commit();
    return;
  }
  encoder_->send(nullptr);
  drainEncoder();
  finishContainer();
  if (container_.countsFrames && variableRate_) {
    notes_.push_back(std::string(container_.extension + 1) +
                     " has a fixed frame rate; the clip's variable time stamps are lost, .mp4 or .mkv keeps them");
  }
}

void VideoWriter::finishContainer() {
  if (!partial_.empty() && container_.marksLate) addComment(format_->metadata, partial_);
  check(av_write_trailer(format_), "cannot finish " + name_);
  check(avio_closep(&format_->pb), "cannot finish " + name_);
  if (!file_) return;
  if (!partial_.empty() && !container_.marksLate && container_.metadata != MetadataKept::kNone) {
    // Its metadata comes first: the file is copied with the comment. Without space for it, it stays without.
    auto commented = std::make_unique<PendingFile>(path_);
    if (copyWithComment(file_->temporaryPath(), commented->temporaryPath(), container_, partial_)) {
      file_ = std::move(commented);
    }
  }
  file_->commit();
}

}  // namespace noxel::tool
