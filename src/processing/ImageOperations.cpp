#include "processing/ImageOperations.h"

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "foundation/detail/Log.h"
#include "foundation/detail/SingleThreadedOpenCV.h"

namespace {

using VRK::detail::SingleThreadedOpenCV;

/// OpenCV knows no views of constant data.
template <typename T>
cv::Mat_<T> matrixOf(const ImageView<T>& image) {
    return {image.height, image.width, const_cast<T*>(image.pixels)};
}

template <typename T, typename S>
cv::Mat_<T> resultFor(const ImageView<S>& image, T* pixels) {
    return {image.height, image.width, pixels};
}

bool refuseImage(const char* operation, const char* reason) {
    VRK::detail::log(VRK::detail::line("ImageOperations::", operation, "(): ", reason), VRK::Error);
    return false;
}

template <typename T>
bool accept(const char* operation, const ImageView<T>& image, const void* result, bool settings = true) {
    if (image.empty()) return refuseImage(operation, "the image is empty");
    if (!result) return refuseImage(operation, "there is no array for the result");
    return settings || refuseImage(operation, "a setting is out of its range");
}

int operationOf(ImageOperations::Morphology operation) {
    switch (operation) {
        case ImageOperations::Morphology::Erode:
            return cv::MORPH_ERODE;
        case ImageOperations::Morphology::Dilate:
            return cv::MORPH_DILATE;
        case ImageOperations::Morphology::Open:
            return cv::MORPH_OPEN;
        case ImageOperations::Morphology::Close:
            break;
    }
    return cv::MORPH_CLOSE;
}

/// Place of the maximum of the parabola through three neighbours, relative to the middle one.
double vertex(float before, float at, float after) {
    const double curvature = double{before} - 2 * double{at} + double{after};
    return curvature < 0 ? std::clamp(0.5 * (double{before} - double{after}) / curvature, -0.5, 0.5) : 0.0;
}

}  // namespace

double ImageOperations::Line::length() const {
    return std::hypot(x1 - x0, y1 - y0);
}

template <typename T>
bool ImageOperations::threshold(const ImageView<T>& image, T level, unsigned char* mask) {
    if (!accept("threshold", image, mask)) return false;
    const SingleThreadedOpenCV singleThreaded;
    cv::Mat result = resultFor(image, mask);
    cv::compare(matrixOf(image), static_cast<double>(level), result, cv::CMP_GT);
    return true;
}

template <typename T>
bool ImageOperations::morphology(const ImageView<T>& image, Morphology operation, int radius, T* result) {
    if (!accept("morphology", image, result, radius >= 0)) return false;
    const SingleThreadedOpenCV singleThreaded;
    const int size = 2 * std::min(radius, std::max(image.width, image.height)) + 1;
    cv::Mat out = resultFor(image, result);
    cv::morphologyEx(matrixOf(image), out, operationOf(operation),
                     cv::getStructuringElement(cv::MORPH_ELLIPSE, {size, size}), cv::Point(-1, -1), 1,
                     cv::BORDER_REPLICATE);
    return true;
}

std::vector<ImageOperations::Region> ImageOperations::connectedComponents(
    const ImageView<unsigned char>& mask, int* labels) {
    std::vector<Region> regions;
    if (!accept("connectedComponents", mask, mask.pixels)) return regions;
    const SingleThreadedOpenCV singleThreaded;
    cv::Mat own, statistics, middles;
    const int count = cv::connectedComponentsWithStats(matrixOf(mask), own, statistics, middles, 8, CV_32S);
    for (int i = 1; i < count; ++i) {
        const int* s = statistics.ptr<int>(i);
        const double* middle = middles.ptr<double>(i);
        regions.push_back({i, s[cv::CC_STAT_AREA], s[cv::CC_STAT_LEFT], s[cv::CC_STAT_TOP],
                           s[cv::CC_STAT_WIDTH], s[cv::CC_STAT_HEIGHT], middle[0], middle[1]});
    }
    if (labels) own.copyTo(resultFor(mask, labels));
    return regions;
}

bool ImageOperations::edges(const ImageView<float>& image, double sigma, double low, double high,
                            unsigned char* mask) {
    if (!accept("edges", image, mask, sigma >= 0 && low > 0 && high >= low)) return false;
    const SingleThreadedOpenCV singleThreaded;
    cv::Mat smooth = matrixOf(image);
    if (sigma > 0) cv::GaussianBlur(smooth, smooth, cv::Size(), sigma, sigma, cv::BORDER_REPLICATE);
    // Canny takes 16-bit gradients. A sum of the Sobel operator's weights is 8 times the gradient.
    constexpr double kHigh = 3000;
    const double unit = kHigh / high;
    cv::Mat gradientX, gradientY;
    cv::Sobel(smooth, gradientX, CV_32F, 1, 0, 3, unit / 8, 0, cv::BORDER_REPLICATE);
    cv::Sobel(smooth, gradientY, CV_32F, 0, 1, 3, unit / 8, 0, cv::BORDER_REPLICATE);
    gradientX.convertTo(gradientX, CV_16S);
    gradientY.convertTo(gradientY, CV_16S);
    cv::Mat found;
    cv::Canny(gradientX, gradientY, found, low * unit, kHigh, true);
    found.copyTo(resultFor(image, mask));
    return true;
}

std::vector<ImageOperations::Line> ImageOperations::lines(const ImageView<unsigned char>& edges,
                                                          const LineSearch& search) {
    std::vector<Line> result;
    if (!accept("lines", edges, edges.pixels,
                search.shortest >= 1 && search.widestGap >= 0 && search.votes > 0))
        return result;
    const SingleThreadedOpenCV singleThreaded;
    std::vector<cv::Vec4i> found;
    cv::HoughLinesP(matrixOf(edges).clone(), found, 1, CV_PI / 180, search.votes, search.shortest,
                    search.widestGap);
    for (const cv::Vec4i& line : found)
        result.push_back({static_cast<double>(line[0]), static_cast<double>(line[1]),
                          static_cast<double>(line[2]), static_cast<double>(line[3])});
    return result;
}

std::vector<ImageOperations::Circle> ImageOperations::circles(const ImageView<unsigned char>& image,
                                                              const CircleSearch& search) {
    std::vector<Circle> result;
    if (!accept("circles", image, image.pixels,
                search.smallest >= 1 && search.largest >= search.smallest && search.apart > 0 &&
                    search.roundness > 0 && search.roundness < 1 && search.edge > 0))
        return result;
    const SingleThreadedOpenCV singleThreaded;
    std::vector<cv::Vec3f> found;
    cv::HoughCircles(matrixOf(image), found, cv::HOUGH_GRADIENT_ALT, 1.5, search.apart, search.edge,
                     search.roundness, cvFloor(search.smallest), cvCeil(search.largest));
    for (const cv::Vec3f& circle : found)
        result.push_back({double{circle[0]}, double{circle[1]}, double{circle[2]}});
    return result;
}

ImageOperations::Match ImageOperations::matchTemplate(const ImageView<float>& image,
                                                      const ImageView<float>& sample) {
    Match match;
    if (!accept("matchTemplate", image, sample.pixels,
                !sample.empty() && sample.width <= image.width && sample.height <= image.height))
        return match;
    const SingleThreadedOpenCV singleThreaded;
    cv::Mat_<float> scores;
    cv::matchTemplate(matrixOf(image), matrixOf(sample), scores, cv::TM_CCOEFF_NORMED);
    cv::Point best;
    cv::minMaxLoc(scores, nullptr, &match.score, nullptr, &best);
    const auto at = [&](int dx, int dy) {
        return scores(std::clamp(best.y + dy, 0, scores.rows - 1),
                      std::clamp(best.x + dx, 0, scores.cols - 1));
    };
    match.x = best.x + vertex(at(-1, 0), at(0, 0), at(1, 0)) + 0.5 * (sample.width - 1);
    match.y = best.y + vertex(at(0, -1), at(0, 0), at(0, 1)) + 0.5 * (sample.height - 1);
    return match;
}

ImageOperations::Shift ImageOperations::phaseCorrelation(const ImageView<float>& first,
                                                         const ImageView<float>& second) {
    Shift shift;
    if (!accept("phaseCorrelation", first, second.pixels,
                first.width == second.width && first.height == second.height && first.width > 1 &&
                    first.height > 1))
        return shift;
    const SingleThreadedOpenCV singleThreaded;
    cv::Mat window;
    cv::createHanningWindow(window, {first.width, first.height}, CV_32F);
    const cv::Point2d found = cv::phaseCorrelate(matrixOf(first), matrixOf(second), window, &shift.response);
    shift.x = found.x;
    shift.y = found.y;
    return shift;
}

template bool ImageOperations::threshold(const ImageView<unsigned char>&, unsigned char, unsigned char*);
template bool ImageOperations::threshold(const ImageView<short>&, short, unsigned char*);
template bool ImageOperations::threshold(const ImageView<float>&, float, unsigned char*);
template bool ImageOperations::morphology(const ImageView<unsigned char>&, Morphology, int, unsigned char*);
template bool ImageOperations::morphology(const ImageView<short>&, Morphology, int, short*);
template bool ImageOperations::morphology(const ImageView<float>&, Morphology, int, float*);
