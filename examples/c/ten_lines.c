/* Enhances raw NV12 frames of limited range from standard input to standard output:
 *
 *     ffmpeg -i night.mp4 -f rawvideo -pix_fmt nv12 - | ten_lines 640 360 |
 *       ffplay -f rawvideo -pixel_format nv12 -video_size 640x360 -
 */
#include <noxel/enhancer.h>
#include <stdio.h>
#include <stdlib.h>

static size_t bytes; /* of a frame; its planes lie one behind the other */

static int read_frame(const noxel_frame* frame) {
  return fread(frame->planes[0], 1, bytes, stdin) == bytes;
}

static void write_frame(const noxel_frame* frame) {
  if (fwrite(frame->planes[0], 1, bytes, stdout) != bytes) exit(1);
}

static void check(int result) {
  if (result >= 0) return;
  fprintf(stderr, "%s\n", noxel_error_text(result));
  exit(1);
}

int main(int count, char** arguments) {
  const int width = count == 3 ? atoi(arguments[1]) : 0;
  const int height = count == 3 ? atoi(arguments[2]) : 0;
  if (width < 1 || height < 1) {
    fprintf(stderr, "usage: ten_lines WIDTH HEIGHT < frames.nv12 > enhanced.nv12\n");
    return 2;
  }
  const size_t luma = (size_t)width * (size_t)height;
  const size_t row = ((size_t)width + 1) / 2 * 2; /* of U,V pairs */
  bytes = luma + row * (((size_t)height + 1) / 2);

  noxel_frame frame;
  noxel_frame_init(&frame, sizeof(frame));
  frame.format = NOXEL_PLANES_NV12;
  frame.planes[0] = malloc(bytes);
  if (frame.planes[0] == NULL) return 1;
  frame.planes[1] = frame.planes[0] + luma;
  frame.strides[0] = width;
  frame.strides[1] = (ptrdiff_t)row;

  noxel_config config;
  noxel_config_init(&config, sizeof(config), width, height);
  noxel_enhancer* enhancer = NULL;
  check(noxel_create(&config, &enhancer));
  while (read_frame(&frame)) {
    check(noxel_send(enhancer, &frame));
    while (noxel_receive(enhancer, &frame, NULL) == NOXEL_OK) write_frame(&frame);
  }
  noxel_flush(enhancer);
  while (noxel_receive(enhancer, &frame, NULL) == NOXEL_OK) write_frame(&frame);
  noxel_free(&enhancer);

  free(frame.planes[0]);
  return 0;
}
