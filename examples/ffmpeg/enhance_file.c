/* enhance_file INPUT OUTPUT: enhances a file's video through FFmpeg's libraries. Each frame keeps its time stamp; sound
 * and other streams are left out. The video is 8-bit 4:2:0, as most is; other formats would go through libswscale. */
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <noxel/enhancer.h>
#include <stdio.h>
#include <stdlib.h>

typedef struct {
  AVFormatContext* in;
  AVCodecContext* decoder;
  AVFormatContext* out;
  AVCodecContext* encoder;
  noxel_enhancer* enhancer;
  AVPacket* packet;
  AVFrame* frame;
  AVStream* from;
  AVStream* to;
} job;

/* Ends the program when a call of FFmpeg's failed. */
static int check(int result, const char* what) {
  if (result >= 0) return result;
  fprintf(stderr, "%s: %s\n", what, av_err2str(result));
  exit(1);
}

static void check_noxel(int result) {
  if (result >= 0) return;
  fprintf(stderr, "noxel: %s\n", noxel_error_text(result));
  exit(1);
}

static noxel_frame planes_of(const AVFrame* frame) {
  noxel_frame planes;
  noxel_frame_init(&planes, sizeof(planes));
  planes.format = frame->format == AV_PIX_FMT_NV12 ? NOXEL_PLANES_NV12 : NOXEL_PLANES_I420;
  const int full = frame->color_range == AVCOL_RANGE_JPEG || frame->format == AV_PIX_FMT_YUVJ420P;
  planes.range = full ? NOXEL_RANGE_FULL : NOXEL_RANGE_LIMITED;
  planes.matrix = frame->colorspace == AVCOL_SPC_BT709 ? NOXEL_MATRIX_BT709 : NOXEL_MATRIX_BT601;
  for (int i = 0; i < 3; ++i) {
    planes.planes[i] = frame->data[i];
    planes.strides[i] = frame->linesize[i];
  }
  return planes;
}

static void open_input(job* j, const char* path) {
  check(avformat_open_input(&j->in, path, NULL, NULL), path);
  check(avformat_find_stream_info(j->in, NULL), path);
  const AVCodec* codec = NULL;
  const int stream = check(av_find_best_stream(j->in, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0), path);
  j->from = j->in->streams[stream];
  j->decoder = avcodec_alloc_context3(codec);
  check(avcodec_parameters_to_context(j->decoder, j->from->codecpar), path);
  j->decoder->pkt_timebase = j->from->time_base;
  check(avcodec_open2(j->decoder, codec, NULL), path);
  const enum AVPixelFormat format = j->decoder->pix_fmt;
  if (format != AV_PIX_FMT_YUV420P && format != AV_PIX_FMT_YUVJ420P && format != AV_PIX_FMT_NV12) {
    fprintf(stderr, "%s: the video is not 8-bit 4:2:0\n", path);
    exit(1);
  }
}

static void open_output(job* j, const char* path) {
  check(avformat_alloc_output_context2(&j->out, NULL, NULL, path), path);
  const AVCodec* codec = avcodec_find_encoder(j->out->oformat->video_codec);
  if (codec == NULL) check(AVERROR_ENCODER_NOT_FOUND, path);
  j->encoder = avcodec_alloc_context3(codec);
  j->encoder->width = j->decoder->width;
  j->encoder->height = j->decoder->height;
  j->encoder->sample_aspect_ratio = j->decoder->sample_aspect_ratio;
  j->encoder->pix_fmt = AV_PIX_FMT_YUV420P;
  j->encoder->color_range = j->decoder->color_range;
  j->encoder->colorspace = j->decoder->colorspace;
  j->encoder->color_primaries = j->decoder->color_primaries;
  j->encoder->color_trc = j->decoder->color_trc;
  j->encoder->time_base = j->from->time_base;
  j->encoder->framerate = j->from->avg_frame_rate;
  if (j->out->oformat->flags & AVFMT_GLOBALHEADER) j->encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  check(avcodec_open2(j->encoder, codec, NULL), path);
  j->to = avformat_new_stream(j->out, NULL);
  j->to->time_base = j->encoder->time_base;
  check(avcodec_parameters_from_context(j->to->codecpar, j->encoder), path);
  check(avio_open(&j->out->pb, path, AVIO_FLAG_WRITE), path);
  check(avformat_write_header(j->out, NULL), path);
}

/* Null: no more frames come. */
static void encode(job* j, const AVFrame* frame) {
  check(avcodec_send_frame(j->encoder, frame), "the encoder");
  int result;
  while ((result = avcodec_receive_packet(j->encoder, j->packet)) >= 0) {
    av_packet_rescale_ts(j->packet, j->encoder->time_base, j->to->time_base);
    check(av_interleaved_write_frame(j->out, j->packet), "the output");
  }
  if (result != AVERROR(EAGAIN) && result != AVERROR_EOF) check(result, "the encoder");
}

/* Encodes the frames that have come back. The tag is a frame's time stamp in the stream's own unit. */
static void receive(job* j) {
  for (;;) {
    AVFrame* picture = av_frame_alloc();
    picture->format = j->encoder->pix_fmt;
    picture->width = j->encoder->width;
    picture->height = j->encoder->height;
    picture->color_range = j->encoder->color_range;
    picture->colorspace = j->encoder->colorspace;
    check(av_frame_get_buffer(picture, 0), "a frame");
    noxel_frame planes = planes_of(picture);
    const int result = noxel_receive(j->enhancer, &planes, NULL);
    check_noxel(result);
    if (result == NOXEL_OK) {
      picture->pts = (int64_t)planes.tag;
      encode(j, picture);
    }
    av_frame_free(&picture);
    if (result != NOXEL_OK) return;
  }
}

/* Null: no more packets come. */
static void decode(job* j, const AVPacket* packet) {
  check(avcodec_send_packet(j->decoder, packet), "the decoder");
  int result;
  while ((result = avcodec_receive_frame(j->decoder, j->frame)) >= 0) {
    noxel_frame planes = planes_of(j->frame);
    planes.tag = (uint64_t)j->frame->best_effort_timestamp;
    planes.time_us = av_rescale_q(j->frame->best_effort_timestamp, j->from->time_base, (AVRational){1, 1000000});
    check_noxel(noxel_send(j->enhancer, &planes)); /* never full: all that is ready is received after each */
    receive(j);
  }
  if (result != AVERROR(EAGAIN) && result != AVERROR_EOF) check(result, "the decoder");
}

int main(int count, char** arguments) {
  if (count != 3) {
    fprintf(stderr, "usage: enhance_file INPUT OUTPUT\n");
    return 2;
  }
  job j = {0};
  j.packet = av_packet_alloc();
  j.frame = av_frame_alloc();
  open_input(&j, arguments[1]);
  open_output(&j, arguments[2]);

  noxel_config config;
  noxel_config_init(&config, sizeof(config), j.decoder->width, j.decoder->height);
  check_noxel(noxel_create(&config, &j.enhancer));
  while (av_read_frame(j.in, j.packet) >= 0) {
    if (j.packet->stream_index == j.from->index) decode(&j, j.packet);
    av_packet_unref(j.packet);
  }
  decode(&j, NULL);
  noxel_flush(j.enhancer);
  receive(&j);
  encode(&j, NULL);
  check(av_write_trailer(j.out), "the output");

  noxel_free(&j.enhancer);
  avio_closep(&j.out->pb);
  avformat_free_context(j.out);
  avformat_close_input(&j.in);
  avcodec_free_context(&j.encoder);
  avcodec_free_context(&j.decoder);
  av_frame_free(&j.frame);
  av_packet_free(&j.packet);
  return 0;
}
