/// \file
/// How much the opposite pixels about every place of an image have in common.
#pragma once

#include <opencv2/core.hpp>

namespace VRK::detail {

/// Sums of the products of all pairs of opposite pixels.
/// \returns  as many as the image has pixels, smoothed: for places in its inner half, half a pixel apart
cv::Mat_<float> inversionSums(const cv::Mat_<float>& image);

/// The place in the image that one of these sums is of. \param size  of the image
inline cv::Point2d inversionCentre(cv::Point sum, cv::Size size) {
    return 0.5 * cv::Point2d(sum + cv::Point(size.width / 2, size.height / 2));
}

}  // namespace VRK::detail
