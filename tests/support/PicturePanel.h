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

/// What lines are drawn in.
inline const cv::Vec3b kLineColour(80, 170, 255);

/// Whether something in about this colour is drawn within two pixels of a place; lines are a pixel wide.
inline bool isDrawn(const cv::Mat& picture, double x, double y, const cv::Vec3b& colour) {
    for (int i = 0; i < 25; ++i)
        if (const cv::Point place(cvRound(x) + i % 5 - 2, cvRound(y) + i / 5 - 2);
            place.inside({0, 0, picture.cols, picture.rows}) &&
            cv::norm(picture.at<cv::Vec3b>(place), colour) < 90)
            return true;
    return false;
}
