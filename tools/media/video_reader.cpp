#include "media/video_reader.h"

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/avstring.h>
#include <libavutil/display.h>
#include <libavutil/parseutils.h>
}

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common/interrupt.h"
#include "common/tool_error.h"

namespace noxel::tool {
namespace {

constexpr size_t kFramesToJudge = 8;  // by which a clip that does not say so is found interlaced
constexpr double kMaxRate = 1000.0;   // frames per second; higher rates are clock rates

// Seeks to a range's start: there, then this much before, then the clip is decoded from its beginning.
constexpr int64_t kSeekBackUs[] = {0, 10'000'000};
// Streams lie at most this far apart in a file: FFmpeg's muxers wait no longer for a stream.
constexpr int64_t kInterleavingUs = 10'000'000;

int onInterrupt(void*) {
  return stopRequested() ? 1 : 0;
}

bool plausible(AVRational rate) {
  return rate.num > 0 && rate.den > 0 && av_q2d(rate) <= kMaxRate;
}

// Decoders pass on invalid tags of damaged clips. Loading such a value as its enum is undefined: read it as an int.
template <typename Tag>
void keepKnown(Tag& tag, Tag count, Tag unspecified) {
  int number = 0;
  static_assert(sizeof(number) == sizeof(tag));
  std::memcpy(&number, &tag, sizeof(tag));
  if (number < 0 || number >= static_cast<int>(count)) tag = unspecified;
}

void keepKnownTags(AVFrame& frame) {
  keepKnown(frame.colorspace, AVCOL_SPC_NB, AVCOL_SPC_UNSPECIFIED);
  keepKnown(frame.color_range, AVCOL_RANGE_NB, AVCOL_RANGE_UNSPECIFIED);
  keepKnown(frame.color_primaries, AVCOL_PRI_NB, AVCOL_PRI_UNSPECIFIED);
  keepKnown(frame.color_trc, AVCOL_TRC_NB, AVCOL_TRC_UNSPECIFIED);
  keepKnown(frame.chroma_location, AVCHROMA_LOC_NB, AVCHROMA_LOC_UNSPECIFIED);
}

// All demuxers but those that open other files: a clip is one file.
std::string singleFileFormats() {
  static constexpr const char* kLists = "concat,dash,hls,imf,mlv,rtp,rtsp,sdp,vobsub,webm_dash_manifest";
  std::string names;
  void* state = nullptr;
  while (const AVInputFormat* format = av_demuxer_iterate(&state)) {
    if (av_match_list(format->name, kLists, ',') == 0) names += std::string(names.empty() ? "" : ",") + format->name;
  }
  return names;
}

std::optional<DisplayMatrix> matrixOf(const uint8_t* data, size_t size) {
  DisplayMatrix matrix;
  if (size < sizeof(matrix)) return std::nullopt;
  std::copy_n(data, sizeof(matrix), reinterpret_cast<uint8_t*>(matrix.data()));
  return matrix;
}

}  // namespace

VideoReader::VideoReader(const std::string& path, const std::string& format, const TimeRange& range, Fields fields)
    : path_(path), inputFormat_(format), range_(range), name_(path == "-" ? "standard input" : path), fields_(fields) {
  try {
    openClip();
    if (range_.startUs > 0 && !standardInput_ && !live()) goTo(0);
  } catch (...) {
    avformat_close_input(&format_);
    throw;
  }
}

VideoReader::~VideoReader() {
  avformat_close_input(&format_);
}

void VideoReader::openClip() {
  open();
  selectStreams();
  openDecoder();
}

void VideoReader::open() {
  const std::string &path = path_, &format = inputFormat_;
  if (path == "-") standardInput_ = std::make_unique<StandardInput>();
  const bool y4m = standardInput_ && standardInput_->isY4m();
  const AVInputFormat* forced = y4m ? av_find_input_format("yuv4mpegpipe") : nullptr;
  if (!format.empty()) {
    avdevice_register_all();
    forced = av_find_input_format(format.c_str());
    if (forced == nullptr) throw ToolError(kExitUnreadable, "this FFmpeg has no input format " + format);
  }
  format_ = allocated(avformat_alloc_context());
  format_->interrupt_callback.callback = onInterrupt;
  std::error_code ignored;
  // An existing file with a colon in its name is not a URL; a device's name is not a path.
  const bool device = forced != nullptr && (forced->flags & AVFMT_NOFILE) != 0;
  const bool file = !device && std::filesystem::exists(path, ignored);
  if (standardInput_) format_->pb = standardInput_->io();
  const std::string url = standardInput_ ? "" : file ? "file:" + path : path;
  if ((file || standardInput_) && forced == nullptr) format_->format_whitelist = av_strdup(singleFileFormats().c_str());
  int result = avformat_open_input(&format_, url.c_str(), forced, nullptr);
  if (result >= 0) result = avformat_find_stream_info(format_, nullptr);
  if (result >= 0) return;
  if (stopRequested()) throw stoppedBeforeTheFirstFrame();
  // For a bad header some demuxers return arbitrary numbers, which may be some other system error.
  const bool opened = path == "-" || (file && access(path.c_str(), R_OK) == 0);
  const bool ofReading =
      result == AVERROR(EIO) || result == AVERROR(ENOMEM) || result == AVERROR(EBADF) || result == AVERROR(EISDIR);
  if (opened && !ofReading) result = AVERROR_INVALIDDATA;
  const char* remedy = "";
  if ((file || standardInput_) && format.empty() && result == AVERROR_INVALIDDATA) remedy = "; is it a video file?";
  throw ToolError(kExitUnreadable, "cannot read " + name_ + ": " + avErrorText(result) + remedy);
}

void VideoReader::selectStreams() {
  const int best = av_find_best_stream(format_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (best < 0 || (format_->streams[best]->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) {
    throw ToolError(kExitUnreadable, name_ + " has no video stream");
  }
  beside_.clear();
  place_.assign(format_->nb_streams, -1);
  for (unsigned i = 0; i < format_->nb_streams; ++i) {
    AVStream* stream = format_->streams[i];
    if (static_cast<int>(i) == best) {
      stream_ = stream;
    } else if (stream->discard != AVDISCARD_ALL) {  // else FFmpeg knows its content otherwise, as of a MOV's chapters
      place_[i] = static_cast<int>(beside_.size());
      beside_.push_back(stream);
      const bool cover = (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
      if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !cover) stream->discard = AVDISCARD_ALL;
    }
  }
  const AVRational guess = av_guess_frame_rate(format_, stream_, nullptr);
  if (plausible(guess)) {
    frameRate_ = guess;
  } else if (plausible(stream_->avg_frame_rate)) {
    frameRate_ = stream_->avg_frame_rate;
  }
}

void VideoReader::openDecoder() {
  if (stream_->codecpar->codec_id == AV_CODEC_ID_NONE) {
    throw ToolError(kExitUnreadable, name_ + ": unknown video codec");
  }
  const AVCodec* codec = avcodec_find_decoder(stream_->codecpar->codec_id);
  if (codec == nullptr) {
    throw ToolError(kExitUnreadable, name_ + ": this FFmpeg has no decoder for " + codecName());
  }
  decoder_.reset(allocated(avcodec_alloc_context3(codec)));
  int result = avcodec_parameters_to_context(decoder_.get(), stream_->codecpar);
  decoder_->pkt_timebase = stream_->time_base;
  decoder_->thread_count = 0;                           // one per core
  if (live()) decoder_->thread_type = FF_THREAD_SLICE;  // frame threads delay frames
  if (result >= 0) result = avcodec_open2(decoder_.get(), codec, nullptr);
  if (result < 0)
    throw ToolError(kExitUnreadable, name_ + ": cannot decode " + codecName() + ": " + avErrorText(result));
}

FramePtr VideoReader::inRange() {
  while (!ended_) {
    FramePtr frame = decode();
    if (landedLate(frame.get())) continue;
    if (!frame) return nullptr;
    if (range_.startUs > 0 && frame->pts < rangePts(startUs())) continue;
    if (endUs() && frame->pts >= rangePts(*endUs())) {
      ended_ = true;
      readBesideToEnd();
      return nullptr;
    }
    if (!firstPts_) {
      firstPts_ = frame->pts;
      if (range_.startUs > 0) damagedPackets_ = 0;  // before the start
      if (!range_.whole()) cutChapters();
    }
    checkSize(*frame);
    if (range_.startUs > 0) frame->pts = av_sat_sub64(frame->pts, *firstPts_);
    return frame;
  }
  return nullptr;
}

FramePtr VideoReader::decode() {
  FramePtr frame = makeFrame();
  while (!stopRequested()) {
    const int result = avcodec_receive_frame(decoder_.get(), frame.get());
    if (result == 0) {
      keepKnownTags(*frame);
      stamp(*frame);
      return frame;
    }
    if (result == AVERROR_EOF) return nullptr;
    if (result == AVERROR(EAGAIN)) {
      feedDecoder();
    } else {
      ++damagedPackets_;
    }
  }
  return nullptr;
}

// Whether the clip is interlaced, where it does not say so, is seen in its first frames.
void VideoReader::begin() {
  begun_ = true;
  FramePtr first = inRange();
  if (!first) return;
  const AVFieldOrder stated = stream_->codecpar->field_order;
  const bool flagged = first->interlaced_frame != 0;
  std::optional<FieldOrder> order;
  if (stated == AV_FIELD_TT || stated == AV_FIELD_TB) order = FieldOrder::kTopFirst;
  if (stated == AV_FIELD_BB || stated == AV_FIELD_BT) order = FieldOrder::kBottomFirst;
  ahead_.push_back(std::move(first));
  const AVFrame& frame = *ahead_.front();
  if (!canDeinterlace(frame)) return;
  if (flagged) {
    deinterlacer_ = std::make_unique<Deinterlacer>(frame, std::nullopt);
    return;
  }
  if (stated == AV_FIELD_UNKNOWN && !live()) {
    while (ahead_.size() < kFramesToJudge) {
      FramePtr more = inRange();
      if (!more) break;
      ahead_.push_back(std::move(more));
    }
    std::vector<FramePtr> look;
    for (const FramePtr& each : ahead_) look.push_back(share(*each));
    order = detectFieldOrder(look);
  }
  if (order) deinterlacer_ = std::make_unique<Deinterlacer>(frame, order);
}

FramePtr VideoReader::asRead() {
  if (ahead_.empty()) return inRange();
  FramePtr frame = std::move(ahead_.front());
  ahead_.pop_front();
  return frame;
}

FramePtr VideoReader::next() {
  if (!begun_ && fields_ == Fields::kDeinterlaced) begin();
  while (!stopRequested()) {
    if (deinterlacer_) {
      if (FramePtr frame = deinterlacer_->receive()) return frame;
      if (deinterlacerDrained_) return nullptr;
    }
    FramePtr frame = asRead();
    if (frame && !deinterlacer_ && fields_ == Fields::kDeinterlaced && frame->interlaced_frame != 0 &&
        canDeinterlace(*frame)) {
      deinterlacer_ = std::make_unique<Deinterlacer>(*frame, std::nullopt);
    }
    if (!deinterlacer_) return frame;
    if (frame) {
      deinterlacer_->send(*frame);
    } else if (!stopRequested()) {
      deinterlacer_->finish();
      deinterlacerDrained_ = true;
    }
  }
  return nullptr;
}

bool VideoReader::seek(double seconds) {
  if (standardInput_ || live() || (format_->iformat->flags & AVFMT_GENERIC_INDEX) != 0) return false;
  // A damaged clip may state any length.
  const auto time = static_cast<int64_t>(std::clamp(seconds / av_q2d(stream_->time_base), -9e18, 9e18));
  if (av_seek_frame(format_, stream_->index, time, AVSEEK_FLAG_BACKWARD) < 0) return false;
  avcodec_flush_buffers(decoder_.get());
  drained_ = false;
  ahead_.clear();
  packets_.clear();
  lastPts_.reset();
  if (deinterlacer_) deinterlacer_->restart();
  deinterlacerDrained_ = false;
  return true;
}

FramePtr VideoReader::first() {
  FramePtr frame = next();
  if (frame) return frame;
  if (stopRequested()) throw stoppedBeforeTheFirstFrame();
  if (!range_.whole() && lastPts_) throw nothingInRange();
  throw ToolError(kExitUnreadable, "cannot decode any frame of " + name_);
}

ToolError VideoReader::nothingInRange() const {
  if (ended_) {
    return {kExitUsage, name_ + " has no frame from " + timeText(range_.startUs) + " on for " +
                            timeText(*range_.durationUs) + "; give a longer --duration"};
  }
  const int64_t last = av_rescale_q(*lastPts_, timeBase(), kMicroseconds) - originUs();
  return {kExitUsage, "--start " + timeText(range_.startUs) + " is after the end of " + name_ +
                          ", whose last frame is at " + timeText(last)};
}

void VideoReader::checkSize(const AVFrame& frame) {
  const int64_t index = framesRead_++;
  if (index == 0) {
    width_ = frame.width;
    height_ = frame.height;
    const AVFrameSideData* side = av_frame_get_side_data(&frame, AV_FRAME_DATA_DISPLAYMATRIX);
    if (side != nullptr) frameMatrix_ = matrixOf(side->data, side->size);
  }
  if (frame.width == width_ && frame.height == height_) return;
  const auto size = [](int width, int height) { return std::to_string(width) + "x" + std::to_string(height); };
  throw ToolError(kExitFailed, "frame " + std::to_string(index) + " changes the size from " + size(width_, height_) +
                                   " to " + size(frame.width, frame.height) +
                                   "; cut the clip there and process the parts separately");
}

// False at the end.
bool VideoReader::readPacket(AVPacket& packet) {
  const int result = av_read_frame(format_, &packet);
  if (result == AVERROR_EOF || stopRequested()) return false;
  if (result < 0) throw ToolError(kExitUnreadable, "reading " + name_ + " failed: " + avErrorText(result));
  if (packet.pts != AV_NOPTS_VALUE) {
    const AVRational clock = format_->streams[packet.stream_index]->time_base;
    readUs_ = std::max(readUs_, av_rescale_q(packet.pts + packet.duration, clock, kMicroseconds));
  }
  return true;
}

void VideoReader::feedDecoder() {
  const PacketPtr packet = makePacket();
  if (!readPacket(*packet)) {
    if (!drained_) avcodec_send_packet(decoder_.get(), nullptr);
    drained_ = true;
  } else if (packet->stream_index != stream_->index) {
    keepBeside(*packet);
  } else if (awaitsKey_ && (packet->flags & AV_PKT_FLAG_KEY) == 0) {
    return;  // a seek in a transport stream may end anywhere
  } else if (awaitsKey_ = false; avcodec_send_packet(decoder_.get(), packet.get()) < 0) {
    ++damagedPackets_;
  }
}

void VideoReader::keepBeside(AVPacket& packet) {
  const auto index = static_cast<size_t>(packet.stream_index);
  if (index >= place_.size()) {
    lateAudio_ = lateAudio_ || format_->streams[index]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
    return;
  }
  if (place_[index] < 0) return;
  if (range_.startUs > 0 && packet.pts != AV_NOPTS_VALUE) {
    // Not to be kept in memory until the start is reached.
    const AVStream& stream = *format_->streams[index];
    const bool subtitle = stream.codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE;
    const int64_t shownUntil = av_sat_add64(packet.pts, subtitle && !subtitlesFound_ ? packet.duration : 0);
    if (av_compare_ts(shownUntil, stream.time_base, startUs(), kMicroseconds) < 0) return;
  }
  PacketPtr kept = makePacket();
  av_packet_move_ref(kept.get(), &packet);
  kept->stream_index = place_[index];
  packets_.push_back(std::move(kept));
}

int64_t VideoReader::originUs() const {
  return std::max<int64_t>(format_->start_time, 0);  // AV_NOPTS_VALUE is negative
}

std::optional<int64_t> VideoReader::endUs() const {
  if (!range_.durationUs) return std::nullopt;
  return av_sat_add64(startUs(), *range_.durationUs);
}

int64_t VideoReader::rangePts(int64_t us) const {
  return av_rescale_q_rnd(us, kMicroseconds, timeBase(), AV_ROUND_UP);
}

// Step 0 is tried with the clip just opened.
void VideoReader::goTo(int step) {
  step_ = step;
  const bool stamped = (format_->iformat->flags & AVFMT_NOTIMESTAMPS) == 0;
  if (stamped && !subtitlesFound_) findShownSubtitles();
  const int64_t target = step < std::ssize(kSeekBackUs) ? av_sat_sub64(startUs(), kSeekBackUs[step]) : originUs();
  lastPts_.reset();
  drained_ = false;
  damagedPackets_ = 0;
  // All but what findShownSubtitles() found is read again.
  std::erase_if(packets_, [&](const PacketPtr& packet) {
    const AVStream& stream = *beside_[static_cast<size_t>(packet->stream_index)];
    return stream.codecpar->codec_type != AVMEDIA_TYPE_SUBTITLE ||
           av_compare_ts(packet->pts, stream.time_base, startUs(), kMicroseconds) >= 0;
  });
  if (stamped && target > originUs() &&
      av_seek_frame(format_, stream_->index, rangePts(target), AVSEEK_FLAG_BACKWARD) >= 0) {
    avcodec_flush_buffers(decoder_.get());
    awaitsKey_ = true;
    return;
  }
  awaitsKey_ = false;
  landed_ = true;  // nothing is before the beginning
  packets_.clear();
  subtitlesFound_ = false;
  decoder_.reset();
  avformat_close_input(&format_);
  openClip();
}

// Whether the decoder's first frame after a seek may have others before it that are in the range too; goes further back then.
bool VideoReader::landedLate(const AVFrame* frame) {
  if (landed_ || range_.startUs == 0 || standardInput_ || live() || stopRequested()) return false;
  landed_ = frame != nullptr && frame->best_effort_timestamp != AV_NOPTS_VALUE && frame->pts <= rangePts(startUs());
  if (landed_) return false;
  goTo(step_ + 1);
  return true;
}

// A seek goes past a subtitle that began before and still shows. Leaves the clip at no particular place.
void VideoReader::findShownSubtitles() {
  const auto isSubtitle = [](const AVStream* stream) { return stream->codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE; };
  const PacketPtr packet = makePacket();
  while (std::ranges::any_of(beside_, isSubtitle) && readPacket(*packet)) {
    const AVStream& stream = *format_->streams[packet->stream_index];
    const bool before = av_compare_ts(packet->pts, stream.time_base, startUs(), kMicroseconds) < 0;
    if (isSubtitle(&stream) && before) {
      keepBeside(*packet);
    } else if (av_compare_ts(packet->dts, stream.time_base, av_sat_add64(startUs(), kInterleavingUs), kMicroseconds) >=
               0) {
      break;
    }
    av_packet_unref(packet.get());
  }
  subtitlesFound_ = true;
}

// Audio of the last frames may come in the file after them.
void VideoReader::readBesideToEnd() {
  std::vector<int> waiting;
  for (size_t i = 0; i < place_.size(); ++i) {
    if (place_[i] >= 0 && format_->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO)
      waiting.push_back(static_cast<int>(i));
  }
  const PacketPtr packet = makePacket();
  while (!waiting.empty() && !drained_ && readPacket(*packet)) {
    const AVRational clock = format_->streams[packet->stream_index]->time_base;
    const int64_t time = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    if (time != AV_NOPTS_VALUE) {
      if (av_compare_ts(time, clock, av_sat_add64(*endUs(), kInterleavingUs), kMicroseconds) >= 0) return;
      if (av_compare_ts(time, clock, *endUs(), kMicroseconds) >= 0) std::erase(waiting, packet->stream_index);
    }
    if (packet->stream_index != stream_->index) keepBeside(*packet);
    av_packet_unref(packet.get());
  }
}

int64_t VideoReader::countFrames() {
  const bool indexed = av_match_name("mp4", format_->iformat->name) != 0;
  if (indexed && range_.whole() && stream_->nb_frames > 0) return stream_->nb_frames;
  if (range_.startUs > 0 && !standardInput_) goTo(1);  // the first seek may be too late
  int64_t frames = 0;
  int64_t next = 0;
  const PacketPtr packet = makePacket();
  for (; readPacket(*packet); av_packet_unref(packet.get())) {
    if (packet->stream_index != stream_->index || (packet->flags & AV_PKT_FLAG_DISCARD) != 0) continue;
    int64_t stamp = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    if (stamp == AV_NOPTS_VALUE) stamp = next;
    next = av_sat_add64(stamp, av_rescale_q(1, av_inv_q(frameRate_), timeBase()));
    const bool before = range_.startUs > 0 && stamp < rangePts(startUs());
    const bool after = endUs() && stamp >= rangePts(*endUs());
    if (!before && !after) ++frames;
    if (endUs() && packet->dts >= rangePts(*endUs())) break;
  }
  return frames;
}

// To the range, and moves it there; false: it is outside. A subtitle is shortened; the others are kept or left whole.
bool VideoReader::cut(AVPacket& packet) const {
  const AVStream& stream = *beside_[static_cast<size_t>(packet.stream_index)];
  const int64_t stamp = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
  if (stamp == AV_NOPTS_VALUE) return true;
  if (endUs() && av_compare_ts(stamp, stream.time_base, *endUs(), kMicroseconds) >= 0) return false;
  const bool subtitle = stream.codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE;
  if (subtitle && endUs() && packet.duration > 0) {
    const int64_t end = av_rescale_q(*endUs(), kMicroseconds, stream.time_base);
    packet.duration = std::clamp<int64_t>(av_sat_sub64(end, stamp), 1, packet.duration);
  }
  if (range_.startUs == 0) return true;
  const int64_t first = av_rescale_q(*firstPts_, timeBase(), stream.time_base);
  if (stamp < first) {
    if (!subtitle || av_sat_add64(stamp, packet.duration) <= first) return false;
    packet.duration = av_sat_sub64(packet.duration, av_sat_sub64(first, stamp));
    packet.pts = packet.dts = first;
  }
  if (packet.pts != AV_NOPTS_VALUE) packet.pts = av_sat_sub64(packet.pts, first);
  if (packet.dts != AV_NOPTS_VALUE) packet.dts = av_sat_sub64(packet.dts, first);
  return true;
}

void VideoReader::cutChapters() {
  for (unsigned i = 0; i < format_->nb_chapters; ++i) {
    AVChapter chapter = *format_->chapters[i];
    if (range_.startUs > 0) {
      const int64_t first = av_rescale_q(*firstPts_, timeBase(), chapter.time_base);
      chapter.start = std::max<int64_t>(av_sat_sub64(chapter.start, first), 0);
      chapter.end = av_sat_sub64(chapter.end, first);
    }
    if (endUs()) {
      const int64_t startOfOutput = range_.startUs > 0 ? av_rescale_q(*firstPts_, timeBase(), kMicroseconds) : 0;
      chapter.end =
          std::min(chapter.end, av_rescale_q(av_sat_sub64(*endUs(), startOfOutput), kMicroseconds, chapter.time_base));
    }
    if (chapter.start < chapter.end) chapters_.push_back(chapter);
  }
}

// A missing time stamp is the previous plus the nominal interval; one that does not increase becomes previous plus 1.
void VideoReader::stamp(AVFrame& frame) {
  const int64_t interval = std::max<int64_t>(1, av_rescale_q(1, av_inv_q(frameRate_), stream_->time_base));
  const bool stated = frame.best_effort_timestamp != AV_NOPTS_VALUE;
  if (!lastPts_) {
    frame.pts = stated ? frame.best_effort_timestamp : 0;
  } else {
    frame.pts = stated ? std::max(frame.best_effort_timestamp, *lastPts_ + 1) : *lastPts_ + interval;
  }
  lastPts_ = frame.pts;
}

std::vector<PacketPtr> VideoReader::takeBeside() {
  std::vector<PacketPtr> taken;
  taken.swap(packets_);
  if (!range_.whole()) std::erase_if(taken, [this](const PacketPtr& packet) { return !cut(*packet); });
  return taken;
}

Companions VideoReader::companions() const {
  Companions companions;
  companions.streams = beside_;
  companions.video = stream_;
  if (range_.whole()) companions.chapters.assign(format_->chapters, format_->chapters + format_->nb_chapters);
  for (const AVChapter& chapter : chapters_) companions.chapters.push_back(&chapter);
  companions.metadata = format_->metadata;
  return companions;
}

size_t VideoReader::audioStreams() const {
  return static_cast<size_t>(std::ranges::count_if(
      beside_, [](const AVStream* stream) { return stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO; }));
}

bool VideoReader::live() const {
  const AVClass* kind = format_->iformat->priv_class;
  return kind != nullptr && kind->category == AV_CLASS_CATEGORY_DEVICE_VIDEO_INPUT;
}

int64_t VideoReader::nominalIntervalUs() const {
  return av_rescale(1'000'000, frameRate_.den, frameRate_.num);
}

int64_t VideoReader::statedFrames() const {
  if (stream_->nb_frames > 0) return stream_->nb_frames;
  if (stream_->duration > 0) return av_rescale_q(stream_->duration, stream_->time_base, av_inv_q(frameRate_));
  // Matroska has each stream's length as a tag: hours:minutes:seconds.
  const AVDictionaryEntry* tag = av_dict_get(stream_->metadata, "DURATION", nullptr, AV_DICT_IGNORE_SUFFIX);
  int64_t length = 0;
  if (tag == nullptr || av_parse_time(&length, tag->value, 1) < 0 || length <= 0) return 0;
  return av_rescale_q(length, kMicroseconds, av_inv_q(frameRate_));
}

int64_t VideoReader::statedLengthUs() const {
  if (stream_->duration > 0) return av_rescale_q(stream_->duration, timeBase(), kMicroseconds);
  if (const int64_t stated = statedFrames(); stated > 0)
    return av_rescale_q(stated, av_inv_q(frameRate_), kMicroseconds);
  return std::max<int64_t>(format_->duration, 0);
}

// With a variable frame rate the container's count is only an estimate: allow a tenth.
bool VideoReader::isCutShort(int64_t frames) const {
  if (ended_) return false;
  if (!range_.whole()) {
    const int64_t length = statedLengthUs();
    const int64_t last = av_rescale_q(lastPts_.value_or(0), timeBase(), kMicroseconds) - originUs();
    return last + 2 * nominalIntervalUs() < length - length / 10;
  }
  if (const int64_t stated = statedFrames(); stated > 0) return frames + 1 < stated - stated / 10;
  return format_->duration > 0 &&
         readUs_ - originUs() + nominalIntervalUs() < format_->duration - format_->duration / 10;
}

int64_t VideoReader::expectedFrames() const {
  if (!range_.whole()) {
    const int64_t whole = statedLengthUs();
    int64_t length = std::max<int64_t>(whole - range_.startUs, 0);
    if (range_.durationUs) length = whole > 0 ? std::min(length, *range_.durationUs) : *range_.durationUs;
    if (const int64_t stated = statedFrames(); stated > 0)
      return std::max<int64_t>(av_rescale_rnd(stated, length, whole, AV_ROUND_UP), 0);
    return av_rescale_q_rnd(length, kMicroseconds, av_inv_q(frameRate_), AV_ROUND_UP);
  }
  if (const int64_t stated = statedFrames(); stated > 0) return stated;
  if (format_->duration > 0) return av_rescale_q(format_->duration, kMicroseconds, av_inv_q(frameRate_));
  return 0;
}

AVRational VideoReader::sampleAspectRatio(const AVFrame& frame) const {
  // Takes a non-const pointer, but only reads.
  return av_guess_sample_aspect_ratio(format_, stream_, &const_cast<AVFrame&>(frame));
}

std::optional<DisplayMatrix> VideoReader::displayMatrix() const {
  size_t size = 0;
  const uint8_t* data = av_stream_get_side_data(stream_, AV_PKT_DATA_DISPLAYMATRIX, &size);
  return data != nullptr ? matrixOf(data, size) : frameMatrix_;
}

Uprighting uprighting(const std::optional<DisplayMatrix>& matrix) {
  if (!matrix) return {"", false};
  // Maps the picture's x axis to (a, b) on the screen, y to (c, d).
  const int64_t a = (*matrix)[0], b = (*matrix)[1], c = (*matrix)[3], d = (*matrix)[4];
  if (std::abs(a) + std::abs(d) >= std::abs(b) + std::abs(c)) {
    const char* flips[2][2] = {{"", "vflip"}, {"hflip", "hflip,vflip"}};
    return {flips[a < 0][d < 0], false};
  }
  if (b < 0) return {c < 0 ? "transpose=clock_flip" : "transpose=cclock", true};
  return {c < 0 ? "transpose=clock" : "transpose=cclock_flip", true};
}

}  // namespace noxel::tool
