/// \file
/// A pattern as the image operations see it.
#pragma once

#include <cmath>
#include <opencv2/core/mat.hpp>

namespace VRK::detail {

/// A view of a pattern of a series: rows x columns of 16-bit counts, x fastest.
using Frame = cv::Mat_<short>;

/// A view of pixels that are only read. OpenCV knows no views of constant data.
inline Frame readOnly(const short* pixels, int width, int height) {
    return {height, width, const_cast<short*>(pixels)};
}

/// The centre about which patterns are turned, binned and reconstructed.
inline cv::Point2d centreOf(int width, int height) {
    return {(width - 1) * 0.5, (height - 1) * 0.5};
}

/// Whether a pattern is so well centred that it stays as it is; by its distance from the centre, pixels.
inline bool isCentred(double dx, double dy) {
    constexpr double kCentred = 0.05;
    return std::abs(dx) < kCentred && std::abs(dy) < kCentred;
}

}  // namespace VRK::detail
