/// \file
/// What a picture shows, without the margins for its text, and the text.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
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

/// What lines and rings of lattices are drawn in.
inline const cv::Vec3b kLineColour(80, 170, 255), kNodeColour(90, 200, 90);

/// Whether something in about this colour is drawn within two pixels of a place; lines are a pixel wide.
inline bool isDrawn(const cv::Mat& picture, double x, double y, const cv::Vec3b& colour) {
    for (int i = 0; i < 25; ++i)
        if (const cv::Point place(cvRound(x) + i % 5 - 2, cvRound(y) + i / 5 - 2);
            place.inside({0, 0, picture.cols, picture.rows}) &&
            cv::norm(picture.at<cv::Vec3b>(place), colour) < 90)
            return true;
    return false;
}

/// Whether a picture shows a text of the letters of ASCII on dark ground, nothing before it.
inline bool shows(const cv::Mat& picture, const std::string& text) {
    constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;
    cv::Mat grey, apart;
    cv::extractChannel(picture, grey, 0);
    cv::threshold(grey, grey, 100, 0, cv::THRESH_TOZERO);
    double least = 1;
    for (const double scale : {0.5, 0.45})
        for (const int colour : {230, 255}) {
            int below = 0;
            const cv::Size size = cv::getTextSize(text, kFont, scale, 1, &below);
            cv::Mat letters(size.height + 4, size.width + 6, CV_8U, cv::Scalar());
            cv::putText(letters, text, {6, size.height + 2}, kFont, scale, colour, 1, cv::LINE_AA);
            cv::threshold(letters, letters, 100, 0, cv::THRESH_TOZERO);
            cv::matchTemplate(grey, letters, apart, cv::TM_SQDIFF_NORMED);
            cv::minMaxLoc(apart, &least);
            if (least < 0.02) return true;
        }
    return false;
}
