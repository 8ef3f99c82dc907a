#include "opencv_flow.h"

#include <algorithm>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

namespace noxel::scenes {
namespace {

constexpr double kMean =
    110;  // brightness of what is compared: 8 bits of a dark frame are too coarse once it is smooth

}  // namespace

struct OpenCvFlow::State {
  FlowMethod method;
  cv::Ptr<cv::DISOpticalFlow> dis;
  cv::Mat previous;
  cv::Mat current;
  cv::Mat flow;
};

OpenCvFlow::OpenCvFlow(FlowMethod method) : state_(new State{method, {}, {}, {}, {}}) {
  cv::setNumThreads(1);
  if (method == FlowMethod::DisMedium) state_->dis = cv::DISOpticalFlow::create(cv::DISOpticalFlow::PRESET_MEDIUM);
  if (method == FlowMethod::DisUltrafast)
    state_->dis = cv::DISOpticalFlow::create(cv::DISOpticalFlow::PRESET_ULTRAFAST);
}

OpenCvFlow::~OpenCvFlow() {
  delete state_;
}

void OpenCvFlow::prepare(const std::vector<uint8_t>& previous, const std::vector<uint8_t>& current, int width,
                         int height, double sigma) {
  const auto smooth = [&](const std::vector<uint8_t>& from, cv::Mat* to) {
    cv::Mat plane;
    cv::Mat(height, width, CV_8UC1, const_cast<uint8_t*>(from.data())).convertTo(plane, CV_32F);
    const double gain = kMean / std::max(cv::mean(plane)[0], 1.0);
    if (sigma > 0) cv::GaussianBlur(plane, plane, {}, sigma);
    plane.convertTo(*to, CV_8U, gain);
  };
  smooth(previous, &state_->previous);
  smooth(current, &state_->current);
  state_->flow.release();
}

void OpenCvFlow::measure() {
  if (state_->dis) {
    state_->dis->calc(state_->current, state_->previous, state_->flow);
  } else {
    // The values of OpenCV's own example.
    cv::calcOpticalFlowFarneback(state_->current, state_->previous, state_->flow, 0.5, 4, 15, 3, 5, 1.2, 0);
  }
}

const float* OpenCvFlow::flow() const {
  return state_->flow.ptr<float>();
}

}  // namespace noxel::scenes
