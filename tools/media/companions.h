// What a clip has beside its video: other streams, chapters and metadata, copied to an output as far as it takes them.
#pragma once

#include <string>
#include <vector>

#include "media/av_types.h"
#include "media/container.h"

namespace noxel::tool {

// Of the input; read while the output is set up only.
struct Companions {
  std::vector<const AVStream*> streams;  // all but the video
  const AVStream* video = nullptr;       // its language, title and disposition; null: unknown
  std::vector<const AVChapter*> chapters;
  const AVDictionary* metadata = nullptr;
};

// One thread. Failures are ToolErrors: kExitUsage when a container for audio cannot hold this one, else kExitFailed.
class CompanionStreams {
 public:
  // Adds to `output`, whose first stream is the video. `audio`: whether the container holds any.
  CompanionStreams(AVFormatContext& output, const Container& container, const Companions& input);

  // Packets of the output's streams, to be written before any other.
  std::vector<PacketPtr> takeCovers();
  // Makes a packet of input stream `stream_index` (into Companions::streams) one of the output; false: it is left out.
  bool convert(AVPacket& packet);

  // What the container cannot hold, in words; empty: it holds everything.
  std::string leftOut() const;
  bool hasAudio() const { return hasAudio_; }
  // Of the movie, so that start times in an MP4 are exact: a multiple of every track's clock. `video`: its time base.
  int64_t movieTimescale(AVRational video) const;
  // Whether MP4 and MOV need their list of named keys, as they have no place of its own for each.
  bool needsKeys() const { return needsKeys_; }

 private:
  struct Place {
    AVStream* stream = nullptr;    // null: left out
    AVRational timeBase = {1, 1};  // of the input
    int64_t next = 0;              // min dts of the next packet
  };

  bool isInMetadata(const AVStream& source) const;
  void addMetadata(const Companions& input);
  void addChapters(const Companions& input);
  AVStream* add(const AVStream& source);
  AVStream* addCover(const AVStream& source);
  bool takes(const AVStream& source) const;

  AVFormatContext& output_;
  const Container& container_;
  std::vector<Place> places_;
  std::vector<PacketPtr> covers_;
  std::vector<std::string> leftOut_;
  std::vector<std::string> lostKeys_;
  bool hasAudio_ = false;
  bool needsKeys_ = false;
};

}  // namespace noxel::tool
