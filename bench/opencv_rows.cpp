#include "opencv_rows.h"

#include <cstddef>
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>
#include <vector>

namespace noxel::scenes {
namespace {

using Points = std::vector<cv::Point2f>;

constexpr double kCornerQuality = 0.01;
constexpr double kCornerDistance = 7;  // pixels
constexpr float kReturnDistance = 1;   // pixels, forward-backward distance
constexpr size_t kMinPairs = 4;        // for a fit

struct Tracks {
  Points previous;
  Points current;
};

cv::Mat plane(const uint8_t* pixels, int width, int height) {
  return cv::Mat(height, width, CV_8UC1, const_cast<uint8_t*>(pixels));
}

Tracks track(const cv::Mat& previous, const cv::Mat& current, int corners, int window, bool back) {
  Points start;
  cv::goodFeaturesToTrack(previous, start, corners, kCornerQuality, kCornerDistance);
  Tracks kept;
  if (start.empty()) return kept;

  const cv::Size side(window, window);
  Points end;
  Points returned;
  std::vector<unsigned char> found;
  std::vector<unsigned char> foundBack;
  std::vector<float> errors;
  cv::calcOpticalFlowPyrLK(previous, current, start, end, found, errors, side);
  if (back) cv::calcOpticalFlowPyrLK(current, previous, end, returned, foundBack, errors, side);
  for (size_t i = 0; i < start.size(); ++i) {
    if (!found[i]) continue;
    if (back && (!foundBack[i] || cv::norm(returned[i] - start[i]) >= kReturnDistance)) continue;
    kept.previous.push_back(start[i]);
    kept.current.push_back(end[i]);
  }
  return kept;
}

bool take(const cv::Mat& fit, Affine* currentFromPrevious) {
  if (fit.empty()) return false;
  for (int i = 0; i < 6; ++i) currentFromPrevious->m[i] = fit.at<double>(i / 3, i % 3);
  return true;
}

bool careful(const uint8_t* previous, const uint8_t* current, int width, int height, Affine* currentFromPrevious) {
  const Tracks tracks = track(plane(previous, width, height), plane(current, width, height), 1000, 21, true);
  return tracks.previous.size() >= kMinPairs &&
         take(cv::estimateAffine2D(tracks.previous, tracks.current, cv::noArray(), cv::RANSAC), currentFromPrevious);
}

bool similar(const uint8_t* previous, const uint8_t* current, int width, int height, Affine* currentFromPrevious) {
  const Tracks tracks = track(plane(previous, width, height), plane(current, width, height), 1000, 21, true);
  return tracks.previous.size() >= kMinPairs &&
         take(cv::estimateAffinePartial2D(tracks.previous, tracks.current, cv::noArray(), cv::RANSAC),
              currentFromPrevious);
}

bool quick(const uint8_t* previous, const uint8_t* current, int width, int height, Affine* currentFromPrevious) {
  const Tracks tracks = track(plane(previous, width, height), plane(current, width, height), 300, 15, false);
  return tracks.previous.size() >= kMinPairs &&
         take(cv::estimateAffine2D(tracks.previous, tracks.current, cv::noArray(), cv::USAC_MAGSAC),
              currentFromPrevious);
}

}  // namespace

const OpenCvRow kOpenCvRow[kOpenCvRows] = {
    {"cv careful", careful},
    {"cv similar", similar},
    {"cv quick", quick},
};

void prepareOpenCv() {
  cv::setNumThreads(1);
}

}  // namespace noxel::scenes
