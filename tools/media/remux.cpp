#include "media/remux.h"

#include "common/tool_error.h"
#include "media/companions.h"

namespace noxel::tool {
namespace {

struct Copy {
  AVFormatContext* in = nullptr;
  AVFormatContext* out = nullptr;
  ~Copy() {
    avformat_close_input(&in);
    if (out == nullptr) return;
    if (out->pb != nullptr) avio_closep(&out->pb);
    avformat_free_context(out);
  }
};

bool copyPackets(Copy& copy, const AVStream& video, const std::vector<int>& places, CompanionStreams& beside) {
  for (const PacketPtr& cover : beside.takeCovers()) {
    if (av_interleaved_write_frame(copy.out, cover.get()) < 0) return false;
  }
  const PacketPtr packet = makePacket();
  while (av_read_frame(copy.in, packet.get()) >= 0) {
    const auto index = static_cast<size_t>(packet->stream_index);
    if (index >= places.size()) return false;
    if (packet->stream_index == video.index) {
      av_packet_rescale_ts(packet.get(), video.time_base, copy.out->streams[0]->time_base);
      packet->stream_index = 0;
      packet->pos = -1;
    } else {
      packet->stream_index = places[index];
      if (!beside.convert(*packet)) {
        av_packet_unref(packet.get());
        continue;
      }
    }
    if (av_interleaved_write_frame(copy.out, packet.get()) < 0 || copy.out->pb->error < 0) return false;
  }
  return av_write_trailer(copy.out) >= 0 && avio_closep(&copy.out->pb) >= 0;
}

}  // namespace

int partialMarks(const AVDictionary* metadata) {
  const AVDictionaryEntry* comment = av_dict_get(metadata, "comment", nullptr, 0);
  const std::string text = comment != nullptr ? comment->value : "";
  int marks = 0;
  for (size_t at = 0; (at = text.find(kPartialMark, at)) != std::string::npos; ++at) ++marks;
  return marks;
}

void addComment(AVDictionary*& metadata, const std::string& comment) {
  const AVDictionaryEntry* old = av_dict_get(metadata, "comment", nullptr, 0);
  const std::string text = old != nullptr ? std::string(old->value) + "; " + comment : comment;
  av_dict_set(&metadata, "comment", text.c_str(), 0);
}

bool copyWithComment(const std::string& from, const std::string& to, const Container& container,
                     const std::string& comment) {
  Copy copy;
  const std::string source = "file:" + from, target = "file:" + to;
  if (avformat_open_input(&copy.in, source.c_str(), nullptr, nullptr) < 0) return false;
  if (avformat_find_stream_info(copy.in, nullptr) < 0) return false;
  const int best = av_find_best_stream(copy.in, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (best < 0 || avformat_alloc_output_context2(&copy.out, nullptr, container.muxer, nullptr) < 0) return false;
  const AVStream& video = *copy.in->streams[best];
  AVStream* copied = avformat_new_stream(copy.out, nullptr);
  if (copied == nullptr || avcodec_parameters_copy(copied->codecpar, video.codecpar) < 0) return false;
  copied->codecpar->codec_tag = 0;
  copied->time_base = video.time_base;
  copied->avg_frame_rate = video.avg_frame_rate;
  copied->sample_aspect_ratio = video.sample_aspect_ratio;

  Companions others;
  others.video = &video;
  others.metadata = copy.in->metadata;
  others.chapters.assign(copy.in->chapters, copy.in->chapters + copy.in->nb_chapters);
  std::vector<int> places(copy.in->nb_streams, -1);
  for (unsigned i = 0; i < copy.in->nb_streams; ++i) {
    if (static_cast<int>(i) == best) continue;
    places[i] = static_cast<int>(others.streams.size());
    others.streams.push_back(copy.in->streams[i]);
  }
  try {
    CompanionStreams beside(*copy.out, container, others);
    addComment(copy.out->metadata, comment);
    copy.out->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
    if (avio_open(&copy.out->pb, target.c_str(), AVIO_FLAG_WRITE) < 0) return false;
    return avformat_write_header(copy.out, nullptr) >= 0 && copyPackets(copy, video, places, beside);
  } catch (const ToolError&) {
    return false;
  }
}

}  // namespace noxel::tool
