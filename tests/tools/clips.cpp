#include "clips.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
}

#include <algorithm>
#include <cmath>
#include <fstream>
#include <stdexcept>

namespace noxel::tool {
namespace {

constexpr int kSampleRate = 44100;

// Encoders log a lot.
[[maybe_unused]] const bool kQuietFfmpeg = (av_log_set_level(AV_LOG_FATAL), true);

int must(int result) {
  if (result < 0) throw std::runtime_error("FFmpeg: " + avErrorText(result));
  return result;
}

class ClipMaker {
 public:
  ClipMaker(const std::string& path, const ClipSpec& spec) : spec_(spec) {
    must(avformat_alloc_output_context2(&format_, nullptr, nullptr, path.c_str()));
    addVideo();
    if (spec.audio != AV_CODEC_ID_NONE) addAudio();
    if (spec.furnished) furnish();
    must(avio_open(&format_->pb, path.c_str(), AVIO_FLAG_WRITE));
    format_->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;  // AAC priming starts before zero
    must(avformat_write_header(format_, nullptr));
  }
  ~ClipMaker() {
    avio_closep(&format_->pb);
    avformat_free_context(format_);
  }
  ClipMaker(const ClipMaker&) = delete;
  ClipMaker& operator=(const ClipMaker&) = delete;

  void make() {
    for (size_t i = 0; i < spec_.times.size(); ++i) {
      const int index = static_cast<int>(i);
      const FramePtr frame =
          spec_.picture ? spec_.picture(index) : rampPlanar(spec_.width, spec_.height, lumaOf(index));
      frame->format = video_->pix_fmt;
      frame->pts = static_cast<int64_t>(i);
      frame->interlaced_frame = spec_.fields != AV_FIELD_UNKNOWN;
      frame->top_field_first = spec_.fields == AV_FIELD_TT;
      encode(*video_, frame.get());
    }
    encode(*video_, nullptr);
    if (audio_) {
      for (int start = 0; start < kSampleRate; start += 1024) encode(*audio_, tone(start).get());
      encode(*audio_, nullptr);
    }
    if (spec_.furnished) writeSubtitle();
    must(av_write_trailer(format_));
  }

 private:
  AVStream* open(AVCodecContext& encoder, const AVCodec* codec) {
    if ((format_->oformat->flags & AVFMT_GLOBALHEADER) != 0) encoder.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    must(avcodec_open2(&encoder, codec, nullptr));
    AVStream* stream = allocated(avformat_new_stream(format_, nullptr));
    must(avcodec_parameters_from_context(stream->codecpar, &encoder));
    return stream;
  }

  void addVideo() {
    const AVCodec* codec = avcodec_find_encoder(spec_.video);
    video_.reset(allocated(avcodec_alloc_context3(codec)));
    video_->width = spec_.width;
    video_->height = spec_.height;
    video_->pix_fmt = spec_.video == AV_CODEC_ID_MJPEG ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    if (spec_.format != AV_PIX_FMT_NONE) video_->pix_fmt = spec_.format;
    video_->time_base = {1, 25};  // packets take their time stamps from the clip
    video_->colorspace = spec_.matrix;
    video_->color_range = spec_.range;
    video_->color_primaries = spec_.primaries;
    video_->color_trc = spec_.transfer;
    video_->flags |= AV_CODEC_FLAG_QSCALE;
    if (spec_.fields != AV_FIELD_UNKNOWN) video_->flags |= AV_CODEC_FLAG_INTERLACED_DCT | AV_CODEC_FLAG_INTERLACED_ME;
    video_->field_order = spec_.fields;
    video_->global_quality = FF_QP2LAMBDA * 2;
    AVStream* stream = open(*video_, codec);
    stream->time_base = spec_.timeBase;
    if (!spec_.rotated) return;
    auto* matrix = reinterpret_cast<int32_t*>(
        allocated(av_stream_new_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, sizeof(DisplayMatrix))));
    av_display_rotation_set(matrix, 90);
  }

  void addAudio() {
    const AVCodec* codec = avcodec_find_encoder(spec_.audio);
    audio_.reset(allocated(avcodec_alloc_context3(codec)));
    audio_->sample_fmt = codec->sample_fmts[0];
    audio_->sample_rate = kSampleRate;
    audio_->time_base = {1, kSampleRate};
    av_channel_layout_default(&audio_->ch_layout, 1);
    open(*audio_, codec)->time_base = audio_->time_base;
  }

  void furnish() {
    subtitles_ = allocated(avformat_new_stream(format_, nullptr));
    subtitles_->codecpar->codec_type = AVMEDIA_TYPE_SUBTITLE;
    subtitles_->codecpar->codec_id = AV_CODEC_ID_SUBRIP;
    subtitles_->time_base = {1, 1000};
    AVStream* attachment = allocated(avformat_new_stream(format_, nullptr));
    attachment->codecpar->codec_type = AVMEDIA_TYPE_ATTACHMENT;
    attachment->codecpar->extradata = static_cast<uint8_t*>(allocated(av_mallocz(4 + AV_INPUT_BUFFER_PADDING_SIZE)));
    attachment->codecpar->extradata_size = 4;
    av_dict_set(&attachment->metadata, "filename", "note.txt", 0);
    av_dict_set(&attachment->metadata, "mimetype", "text/plain", 0);
    for (const auto& [key, value] :
         {std::pair{"title", "Night"}, {"make", "Acme"}, {"location", "+48.2000+016.3000/"}}) {
      av_dict_set(&format_->metadata, key, value, 0);
    }
    auto* chapter = static_cast<AVChapter*>(allocated(av_mallocz(sizeof(AVChapter))));
    chapter->id = 1;
    chapter->time_base = {1, 1000};
    chapter->end = 200;
    format_->chapters = static_cast<AVChapter**>(allocated(av_calloc(1, sizeof(AVChapter*))));
    format_->chapters[format_->nb_chapters++] = chapter;
  }

  void writeSubtitle() {
    const PacketPtr packet = makePacket();
    must(av_new_packet(packet.get(), 5));
    std::copy_n("hello", 5, packet->data);
    packet->stream_index = subtitles_->index;
    packet->pts = packet->dts = 0;
    packet->duration = 100;
    must(av_interleaved_write_frame(format_, packet.get()));
  }

  FramePtr tone(int start) const {
    FramePtr frame = makeFrame();
    frame->format = audio_->sample_fmt;
    frame->sample_rate = kSampleRate;
    frame->nb_samples = 1024;
    must(av_channel_layout_copy(&frame->ch_layout, &audio_->ch_layout));
    must(av_frame_get_buffer(frame.get(), 0));
    for (int i = 0; i < 1024; ++i) {
      const double sample = 0.5 * std::sin(0.06 * (start + i));
      const bool isFloat = audio_->sample_fmt == AV_SAMPLE_FMT_FLTP;
      if (isFloat) reinterpret_cast<float*>(frame->data[0])[i] = static_cast<float>(sample);
      if (!isFloat) reinterpret_cast<int16_t*>(frame->data[0])[i] = static_cast<int16_t>(sample * 32767);
    }
    frame->pts = start;
    return frame;
  }

  void encode(AVCodecContext& encoder, const AVFrame* frame) {
    const bool isVideo = &encoder == video_.get();
    must(avcodec_send_frame(&encoder, frame));
    const PacketPtr packet = makePacket();
    while (avcodec_receive_packet(&encoder, packet.get()) == 0) {
      packet->stream_index = isVideo ? 0 : 1;
      if (isVideo) {
        packet->pts = packet->dts = spec_.times.at(videoPackets_++);
        packet->duration = 1;  // without one MP4 players drop the last frame
      }
      const AVRational clock = isVideo ? spec_.timeBase : encoder.time_base;
      av_packet_rescale_ts(packet.get(), clock, format_->streams[packet->stream_index]->time_base);
      must(av_interleaved_write_frame(format_, packet.get()));
    }
  }

  const ClipSpec& spec_;
  AVFormatContext* format_ = nullptr;
  CodecPtr video_;
  CodecPtr audio_;
  AVStream* subtitles_ = nullptr;
  size_t videoPackets_ = 0;
};

}  // namespace

void writeClip(const std::string& path, const ClipSpec& spec) {
  ClipMaker(path, spec).make();
}

void writeY4m(const std::string& path, int width, int height, const std::vector<std::vector<uint8_t>>& frames,
              int framesPerSecond) {
  std::ofstream file(path, std::ios::binary);
  file << "YUV4MPEG2 W" << width << " H" << height << " F" << framesPerSecond << ":1 C420jpeg XCOLORRANGE=FULL\n";
  const std::string chroma(static_cast<size_t>((width + 1) / 2 * ((height + 1) / 2)) * 2, '\x80');
  for (const std::vector<uint8_t>& luma : frames) {
    file << "FRAME\n" << std::string(luma.begin(), luma.end()) << chroma;
  }
}

int lumaOf(int frame) {
  return 60 + 4 * frame;
}

FramePtr flatPlanar(int width, int height, int y, int u, int v) {
  FramePtr frame = makePicture(width, height, AV_PIX_FMT_YUV420P);
  const int values[] = {y, u, v};
  for (int plane = 0; plane < 3; ++plane) {
    const int rows = plane == 0 ? height : (height + 1) / 2;
    std::fill_n(frame->data[plane], static_cast<ptrdiff_t>(rows) * frame->linesize[plane],
                static_cast<uint8_t>(values[plane]));
  }
  return frame;
}

FramePtr rampPlanar(int width, int height, int meanLuma) {
  FramePtr frame = flatPlanar(width, height, meanLuma, 120, 136);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int offset = width > 1 ? 40 * x / (width - 1) - 20 : 0;
      sample(*frame, 0, x, y) = static_cast<uint8_t>(meanLuma + offset);
    }
  }
  return frame;
}

ClipContents contentsOf(const std::string& path) {
  VideoReader reader(path);
  ClipContents contents;
  contents.displayMatrix = reader.displayMatrix();
  const auto takeAudio = [&] {
    for (const PacketPtr& packet : reader.takeBeside()) contents.audioSizes.push_back(packet->size);
  };
  while (const FramePtr frame = reader.next()) {
    contents.seconds.push_back(static_cast<double>(frame->pts) * av_q2d(reader.timeBase()));
    takeAudio();
  }
  takeAudio();
  return contents;
}

}  // namespace noxel::tool
