#include "media/companions.h"

extern "C" {
#include <libavutil/avstring.h>
}

#include <algorithm>
#include <limits>
#include <map>
#include <numeric>
#include <utility>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

constexpr uint32_t kTimeCode = MKTAG('t', 'm', 'c', 'd');
constexpr int64_t kMaxTimescale = 1'000'000'000;

// These describe the input's file, not the clip.
constexpr char kOfTheFile[] = "major_brand,minor_version,compatible_brands,encoder";
// Matroska's statistics of a stream as it was, before the language's suffix.
constexpr const char* kOfTheStream[] = {"BPS", "DURATION", "NUMBER_OF_FRAMES", "NUMBER_OF_BYTES", "_STATISTICS_"};

// The keys for which these containers have a place of their own, as FFmpeg writes them.
constexpr char kMp4Keys[] =
    "title,artist,album_artist,composer,album,date,comment,genre,copyright,grouping,lyrics,description,synopsis,show,"
    "episode_id,network,keywords,location,location-eng,creation_time";
constexpr char kMovKeys[] = "title,artist,author,album,date,genre,copyright,make,model,location,creation_time";
constexpr char kAviKeys[] = "title,artist,album,comment,copyright,date,genre,language,track,encoded_by";

// Keys differ in case between containers.
bool listed(const std::string& key, const std::string& list) {
  std::string lower = "," + key + ",";
  for (char& letter : lower) letter = static_cast<char>(av_tolower(letter));
  return ("," + list + ",").find(lower) != std::string::npos;
}

bool has(const AVDictionary* metadata, const char* key) {
  return av_dict_get(metadata, key, nullptr, 0) != nullptr;
}

// location-eng beside location: the same again.
bool isRepeated(const AVDictionary* metadata, const std::string& key) {
  return key.size() > 4 && key[key.size() - 4] == '-' && has(metadata, key.substr(0, key.size() - 4).c_str());
}

bool isCover(const AVStream& stream) {
  return (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

const char* kindOf(const AVStream& stream) {
  if (isCover(stream)) return "the cover picture";
  switch (stream.codecpar->codec_type) {
    case AVMEDIA_TYPE_VIDEO:
      return "a second video";
    case AVMEDIA_TYPE_AUDIO:
      return "audio";
    case AVMEDIA_TYPE_SUBTITLE:
      return "subtitles";
    case AVMEDIA_TYPE_ATTACHMENT:
      return "an attachment";
    default:
      return "data";
  }
}

std::string described(const AVStream& stream) {
  const AVDictionaryEntry* name = av_dict_get(stream.metadata, "filename", nullptr, 0);
  std::string what = name != nullptr ? name->value : avcodec_get_name(stream.codecpar->codec_id);
  if (name == nullptr && stream.codecpar->codec_type == AVMEDIA_TYPE_DATA && stream.codecpar->codec_tag != 0) {
    char tag[AV_FOURCC_MAX_STRING_SIZE];
    what = av_fourcc_make_string(tag, stream.codecpar->codec_tag);
  }
  return std::string(kindOf(stream)) + " (" + what + ")";
}

std::string joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
  return text;
}

void copyStreamMetadata(AVStream& to, const AVStream& from) {
  to.disposition = from.disposition;
  const AVDictionaryEntry* entry = nullptr;
  while ((entry = av_dict_get(from.metadata, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
    const std::string key = entry->key;
    const bool stale = listed(key, "encoder,vendor_id") ||
                       std::ranges::any_of(kOfTheStream, [&](const char* of) { return key.starts_with(of); });
    if (!stale) av_dict_set(&to.metadata, entry->key, entry->value, 0);
  }
}

bool copyParameters(AVStream& to, const AVStream& from) {
  if (avcodec_parameters_copy(to.codecpar, from.codecpar) < 0) return false;
  // The input container's; the muxer finds its own. Data has nothing else that says what it is.
  if (from.codecpar->codec_type != AVMEDIA_TYPE_DATA) to.codecpar->codec_tag = 0;
  to.time_base = from.time_base;
  return true;
}

}  // namespace

CompanionStreams::CompanionStreams(AVFormatContext& output, const Container& container, const Companions& input)
    : output_(output), container_(container) {
  if (input.video != nullptr) copyStreamMetadata(*output.streams[0], *input.video);
  addMetadata(input);
  for (const AVStream* source : input.streams) {
    Place place = {nullptr, source->time_base, std::numeric_limits<int64_t>::min()};
    place.stream = isCover(*source) ? addCover(*source) : add(*source);
    if (place.stream == nullptr && !isInMetadata(*source)) leftOut_.push_back(described(*source));
    if (isCover(*source)) place.stream = nullptr;  // has only the packet that is kept already
    places_.push_back(place);
  }
  addChapters(input);
}

// A track of time codes: their start is a key, from which MP4 and MOV make the track anew.
bool CompanionStreams::isInMetadata(const AVStream& source) const {
  const AVDictionaryEntry* start = av_dict_get(source.metadata, "timecode", nullptr, 0);
  if (source.codecpar->codec_tag != kTimeCode || container_.metadata != MetadataKept::kAll || start == nullptr)
    return false;
  return av_dict_set(&output_.streams[0]->metadata, "timecode", start->value, 0) >= 0;
}

void CompanionStreams::addMetadata(const Companions& input) {
  const char* places = container_.metadata == MetadataKept::kInfo ? kAviKeys : "";
  const std::string muxer = container_.muxer;
  if (muxer == "mp4") places = kMp4Keys;
  if (muxer == "mov") places = kMovKeys;
  const AVDictionaryEntry* entry = nullptr;
  while ((entry = av_dict_get(input.metadata, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
    if (listed(entry->key, kOfTheFile)) continue;
    const bool hasPlace = listed(entry->key, places);
    needsKeys_ = needsKeys_ || !hasPlace;
    if (hasPlace || container_.metadata == MetadataKept::kAll) {
      av_dict_set(&output_.metadata, entry->key, entry->value, 0);
    } else if (!isRepeated(input.metadata, entry->key)) {
      lostKeys_.emplace_back(entry->key);
    }
  }
}

void CompanionStreams::addChapters(const Companions& input) {
  if (input.chapters.empty()) return;
  if (!container_.chapters) {
    leftOut_.push_back(std::to_string(input.chapters.size()) + (input.chapters.size() == 1 ? " chapter" : " chapters"));
    return;
  }
  // Freed with the output.
  output_.chapters = static_cast<AVChapter**>(allocated(av_calloc(input.chapters.size(), sizeof(AVChapter*))));
  for (const AVChapter* source : input.chapters) {
    auto* chapter = static_cast<AVChapter*>(allocated(av_mallocz(sizeof(AVChapter))));
    output_.chapters[output_.nb_chapters++] = chapter;
    chapter->id = source->id;
    chapter->time_base = source->time_base;
    chapter->start = source->start;
    chapter->end = source->end;
    av_dict_copy(&chapter->metadata, source->metadata, 0);
  }
}

AVStream* CompanionStreams::add(const AVStream& source) {
  const AVCodecParameters& codec = *source.codecpar;
  const bool audio = codec.codec_type == AVMEDIA_TYPE_AUDIO;
  if (codec.codec_type == AVMEDIA_TYPE_VIDEO || *container_.codec == '\0' || codec.codec_tag == kTimeCode)
    return nullptr;
  if (!audio && container_.muxer == std::string("avi")) return nullptr;  // starts with what nobody can read
  if (codec.codec_type == AVMEDIA_TYPE_ATTACHMENT && container_.muxer != std::string("matroska")) return nullptr;
  if (audio) {
    if (codec.codec_id == AV_CODEC_ID_NONE || codec.sample_rate <= 0 || codec.ch_layout.nb_channels <= 0)
      return nullptr;
    if (avformat_query_codec(output_.oformat, codec.codec_id, FF_COMPLIANCE_NORMAL) == 0) {
      throw ToolError(kExitUsage, std::string("audio in ") + avcodec_get_name(codec.codec_id) +
                                      " cannot be stored in " + output_.oformat->name + "; write an .mkv instead");
    }
  } else if (!takes(source)) {
    return nullptr;
  }
  AVStream* stream = allocated(avformat_new_stream(&output_, nullptr));
  if (!copyParameters(*stream, source)) throw std::bad_alloc();
  copyStreamMetadata(*stream, source);
  hasAudio_ = hasAudio_ || audio;
  return stream;
}

// MP4 has covers among its own places, Matroska as attachments.
AVStream* CompanionStreams::addCover(const AVStream& source) {
  const AVPacket& picture = source.attached_pic;
  const bool png = source.codecpar->codec_id == AV_CODEC_ID_PNG;
  if (picture.size <= 0 || (!png && source.codecpar->codec_id != AV_CODEC_ID_MJPEG)) return nullptr;
  const std::string muxer = container_.muxer;
  if (muxer == "mp4" && !needsKeys_) {
    AVStream* stream = allocated(avformat_new_stream(&output_, nullptr));
    if (!copyParameters(*stream, source)) throw std::bad_alloc();
    copyStreamMetadata(*stream, source);
    PacketPtr packet(allocated(av_packet_clone(&picture)));
    packet->stream_index = stream->index;
    covers_.push_back(std::move(packet));
    return stream;
  }
  if (muxer != "matroska") return nullptr;
  AVStream* stream = allocated(avformat_new_stream(&output_, nullptr));
  AVCodecParameters& codec = *stream->codecpar;
  codec.codec_type = AVMEDIA_TYPE_ATTACHMENT;
  codec.codec_id = source.codecpar->codec_id;
  codec.extradata =
      static_cast<uint8_t*>(allocated(av_mallocz(static_cast<size_t>(picture.size) + AV_INPUT_BUFFER_PADDING_SIZE)));
  codec.extradata_size = picture.size;
  std::copy_n(picture.data, picture.size, codec.extradata);
  av_dict_set(&stream->metadata, "filename", png ? "cover.png" : "cover.jpg", 0);
  av_dict_set(&stream->metadata, "mimetype", png ? "image/png" : "image/jpeg", 0);
  return stream;
}

// The muxer alone knows: it starts a file in memory with this stream beside the video, or does not.
bool CompanionStreams::takes(const AVStream& source) const {
  AVFormatContext* trial = nullptr;
  if (avformat_alloc_output_context2(&trial, nullptr, container_.muxer, nullptr) < 0) throw std::bad_alloc();
  bool taken = avio_open_dyn_buf(&trial->pb) >= 0;
  for (const AVStream* stream : {static_cast<const AVStream*>(output_.streams[0]), &source}) {
    AVStream* copy = taken ? avformat_new_stream(trial, nullptr) : nullptr;
    taken = copy != nullptr && copyParameters(*copy, *stream);
    if (taken) av_dict_copy(&copy->metadata, stream->metadata, 0);  // Matroska names attachments by it
  }
  taken = taken && avformat_write_header(trial, nullptr) >= 0;
  uint8_t* file = nullptr;
  if (trial->pb != nullptr) avio_close_dyn_buf(trial->pb, &file);
  trial->pb = nullptr;
  av_free(file);
  avformat_free_context(trial);
  return taken;
}

std::vector<PacketPtr> CompanionStreams::takeCovers() {
  return std::exchange(covers_, {});
}

bool CompanionStreams::convert(AVPacket& packet) {
  Place& place = places_.at(static_cast<size_t>(packet.stream_index));
  if (place.stream == nullptr) return false;
  av_packet_rescale_ts(&packet, place.timeBase, place.stream->time_base);
  // Damaged or joined clips have missing or decreasing time stamps, which no container accepts.
  if (packet.dts == AV_NOPTS_VALUE) packet.dts = packet.pts;
  packet.dts = packet.dts == AV_NOPTS_VALUE ? std::max<int64_t>(place.next, 0) : std::max(packet.dts, place.next);
  packet.pts = packet.pts == AV_NOPTS_VALUE ? packet.dts : std::max(packet.pts, packet.dts);
  place.next = packet.dts + 1;
  packet.stream_index = place.stream->index;
  packet.pos = -1;
  return true;
}

std::string CompanionStreams::leftOut() const {
  std::vector<std::string> parts = leftOut_;
  if (!lostKeys_.empty()) parts.push_back("metadata (" + joined(lostKeys_) + ")");
  return joined(parts);
}

int64_t CompanionStreams::movieTimescale(AVRational video) const {
  int64_t scale = video.den;
  for (const Place& place : places_) {
    const int64_t both = std::lcm(scale, static_cast<int64_t>(place.timeBase.den));
    if (place.stream != nullptr && both <= kMaxTimescale) scale = both;
  }
  return std::max<int64_t>(scale, 1000);
}

}  // namespace noxel::tool
