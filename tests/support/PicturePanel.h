/// \file
/// What a picture shows, without the margins for its text.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>

#include "visualisation/PlaneImage.h"

/// Empty when there is no such picture.
inline cv::Mat panelOf(const std::string& path) {
    using Border = ImageOverlay::Border;
    const cv::Mat picture = cv::imread(path);
    if (picture.empty()) return picture;
    return picture(cv::Rect(Border::kLeft, Border::kTop, picture.cols - Border::kLeft - Border::kRight,
                            picture.rows - Border::kTop - Border::kBottom));
}
