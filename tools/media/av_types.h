// Owners for FFmpeg's objects.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <new>
#include <string>

namespace noxel::tool {

struct AvDeleter {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVFilterGraph* graph) const { avfilter_graph_free(&graph); }
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};

using FramePtr = std::unique_ptr<AVFrame, AvDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, AvDeleter>;
using CodecPtr = std::unique_ptr<AVCodecContext, AvDeleter>;
using FilterGraphPtr = std::unique_ptr<AVFilterGraph, AvDeleter>;
using SwsPtr = std::unique_ptr<SwsContext, AvDeleter>;

constexpr AVRational kMicroseconds = {1, AV_TIME_BASE};

// Throws std::bad_alloc on null, as everything here does when memory runs out.
template <typename T>
T* allocated(T* object) {
  if (object == nullptr) throw std::bad_alloc();
  return object;
}

inline FramePtr makeFrame() {
  return FramePtr(allocated(av_frame_alloc()));
}

inline PacketPtr makePacket() {
  return PacketPtr(allocated(av_packet_alloc()));
}

// With its own, uninitialised buffer.
inline FramePtr makePicture(int width, int height, AVPixelFormat format) {
  FramePtr frame = makeFrame();
  frame->width = width;
  frame->height = height;
  frame->format = format;
  if (av_frame_get_buffer(frame.get(), 0) < 0) throw std::bad_alloc();
  return frame;
}

// Another reference to the same pixels.
inline FramePtr share(const AVFrame& frame) {
  return FramePtr(allocated(av_frame_clone(&frame)));
}

inline std::string avErrorText(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(error, text, sizeof(text));
  return text;
}

}  // namespace noxel::tool
